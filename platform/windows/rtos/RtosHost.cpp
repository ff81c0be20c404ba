// The controller's side on Windows: the alive marker is a named mutex that a
// keeper thread holds for the host's life (the system abandons it when the
// process dies, so a killed controller is seen as dead at once); areas are
// page-file backed mappings with a header, events are auto-reset events.
// Kernel objects go with their last handle, so there are no leftovers to
// remove; objects that a client still holds are taken over as they are.
#include "RtosHost.h"

#include <windows.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "RtosObjects.h"

namespace qorvarlok::rtos {
namespace {

using namespace detail;

std::string SystemError(const char* what, const std::wstring& name, DWORD error) {
  return std::string(what) + " '" + std::string(name.begin(), name.end()) + "' failed: Windows error " +
         std::to_string(error);
}

class OwnedHandle {
 public:
  OwnedHandle() = default;
  OwnedHandle(const OwnedHandle&) = delete;
  OwnedHandle& operator=(const OwnedHandle&) = delete;
  ~OwnedHandle() { Reset(nullptr); }
  void Reset(HANDLE handle) {
    if (m_h != nullptr) ::CloseHandle(m_h);
    m_h = handle;
  }
  HANDLE Get() const { return m_h; }

 private:
  HANDLE m_h = nullptr;
};

struct OwnedArea {
  OwnedHandle mapping;
  void* pHeader = nullptr;
  uint8_t* pArea = nullptr;
  uint32_t size = 0;

  ~OwnedArea() {
    if (pArea != nullptr) ::UnmapViewOfFile(pArea);
    if (pHeader != nullptr) ::UnmapViewOfFile(pHeader);
  }

  bool Create(const std::wstring& name, uint32_t bytes, std::string& message) {
    const uint64_t total = static_cast<uint64_t>(kAreaOffset) + bytes;
    ::SetLastError(0);
    mapping.Reset(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                       static_cast<DWORD>(total >> 32), static_cast<DWORD>(total), name.c_str()));
    if (mapping.Get() == nullptr) return Fail("CreateFileMapping", name, message);
    const bool existed = ::GetLastError() == ERROR_ALREADY_EXISTS;
    pHeader = ::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, sizeof(AreaHeader));
    if (pHeader == nullptr) return Fail("MapViewOfFile", name, message);
    auto* header = static_cast<AreaHeader*>(pHeader);
    if (existed && (header->magic != kAreaMagic || header->size != bytes)) {
      // Held open by a client of an earlier controller with another size: it cannot be resized.
      message = "area '" + std::string(name.begin(), name.end()) + "' is still held by a client with " +
                std::to_string(header->size) + " bytes";
      return false;
    }
    pArea = static_cast<uint8_t*>(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, kAreaOffset, bytes));
    if (pArea == nullptr) return Fail("MapViewOfFile", name, message);
    size = bytes;
    header->size = bytes;
    header->magic = kAreaMagic;
    return true;
  }

  static bool Fail(const char* what, const std::wstring& name, std::string& message) {
    message = SystemError(what, name, ::GetLastError());
    return false;
  }
};

}  // namespace

struct RtosHost::Impl {
  RtosHostOptions options;
  std::wstring aliveName;
  std::thread keeper;
  std::mutex keeperMutex;
  std::condition_variable keeperWake;
  bool bStop = false;
  OwnedArea areas[3];
  OwnedHandle events[3][2];
  OwnedHandle owner;

  ~Impl() {
    if (keeper.joinable()) {
      {
        std::lock_guard<std::mutex> lock(keeperMutex);
        bStop = true;
      }
      keeperWake.notify_all();
      keeper.join();
    }
  }

  struct Claim {
    RtosHostError code = RtosHostError::None;
    std::string message;
    bool abandoned = false;
  };

  // Runs on the keeper thread, which then owns the marker until the host ends.
  void KeeperMain(std::promise<Claim>& claimed) {
    Claim claim;
    OwnedHandle marker;
    marker.Reset(::CreateMutexW(nullptr, FALSE, aliveName.c_str()));
    DWORD w = WAIT_FAILED;
    if (marker.Get() == nullptr) {
      claim.code = RtosHostError::System;
      claim.message = SystemError("CreateMutex", aliveName, ::GetLastError());
    } else {
      w = ::WaitForSingleObject(marker.Get(), options.claimTimeoutMs);
      if (w == WAIT_TIMEOUT) {
        claim.code = RtosHostError::PartitionBusy;
        claim.message = "partition '" + options.partition + "' is held by the running controller pid " + OwnerPid();
      } else if (w != WAIT_OBJECT_0 && w != WAIT_ABANDONED) {
        claim.code = RtosHostError::System;
        claim.message = SystemError("WaitForSingleObject", aliveName, ::GetLastError());
      }
      claim.abandoned = w == WAIT_ABANDONED;
    }
    const bool held = claim.code == RtosHostError::None;
    if (held) PublishOwner();
    claimed.set_value(claim);
    if (!held) return;
    std::unique_lock<std::mutex> lock(keeperMutex);
    keeperWake.wait(lock, [this] { return bStop; });
    ::ReleaseMutex(marker.Get());
  }

  Claim StartKeeper() {
    std::promise<Claim> claimed;
    std::future<Claim> result = claimed.get_future();
    keeper = std::thread([this, &claimed] { KeeperMain(claimed); });
    Claim claim = result.get();
    if (claim.code != RtosHostError::None) keeper.join();
    return claim;
  }

  // The holder's process id beside the marker, for the message of a refused claim.
  void PublishOwner() {
    owner.Reset(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(DWORD),
                                     ObjectName(options.partition, kOwnerObject).c_str()));
    if (owner.Get() == nullptr) return;
    void* view = ::MapViewOfFile(owner.Get(), FILE_MAP_ALL_ACCESS, 0, 0, sizeof(DWORD));
    if (view == nullptr) return;
    *static_cast<volatile DWORD*>(view) = ::GetCurrentProcessId();
    ::UnmapViewOfFile(view);
  }

  std::string OwnerPid() const {
    HANDLE mapping = ::OpenFileMappingW(FILE_MAP_READ, FALSE, ObjectName(options.partition, kOwnerObject).c_str());
    if (mapping == nullptr) return "unknown";
    void* view = ::MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, sizeof(DWORD));
    const std::string pid = view != nullptr ? std::to_string(*static_cast<volatile DWORD*>(view)) : "unknown";
    if (view != nullptr) ::UnmapViewOfFile(view);
    ::CloseHandle(mapping);
    return pid;
  }

  bool bTookOver = false;  // objects of an earlier controller were still there
  bool CreateObjects(std::string& message) {
    const uint32_t sizes[3] = {options.connectAreaSize, options.notifyAreaSize, options.dataSwapAreaSize};
    for (int c = 0; c < 3; ++c)
      if (!areas[c].Create(ObjectName(options.partition, kAreaNames[c]), sizes[c], message)) return false;
    for (int c = 0; c < 3; ++c) {
      for (int d = 0; d < 2; ++d) {
        const std::wstring name = ObjectName(options.partition, kEventNames[c][d]);
        events[c][d].Reset(::CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
        // Kept by clients of a controller that is gone: taken over, as leftovers.
        if (events[c][d].Get() != nullptr && ::GetLastError() == ERROR_ALREADY_EXISTS) bTookOver = true;
        if (events[c][d].Get() == nullptr) {
          message = SystemError("CreateEvent", name, ::GetLastError());
          return false;
        }
        ::ResetEvent(events[c][d].Get());  // one taken over may hold a signal nobody will answer
      }
    }
    return true;
  }
};

std::unique_ptr<RtosHost> RtosHost::Create(const RtosHostOptions& options, RtosHostStatus* status) {
  RtosHostStatus local;
  RtosHostStatus& out = status != nullptr ? *status : local;
  out = RtosHostStatus();
  auto impl = std::make_unique<Impl>();
  impl->options = options;
  if (impl->options.partition.empty()) impl->options.partition = PartitionFromEnvironment();
  if (!IsValidPartition(impl->options.partition)) {
    out.code = RtosHostError::InvalidPartition;
    out.message = "partition name '" + options.partition + "' is empty, too long or holds '/', '\\' or non-printable characters";
    return nullptr;
  }
  if (options.connectAreaSize == 0 || options.notifyAreaSize == 0 || options.dataSwapAreaSize == 0) {
    out.code = RtosHostError::InvalidSize;
    out.message = "area sizes must be at least 1 byte";
    return nullptr;
  }
  impl->aliveName = ObjectName(impl->options.partition, kAliveObject);
  const Impl::Claim claim = impl->StartKeeper();
  out.cleanedLeftovers = claim.abandoned;
  if (claim.code != RtosHostError::None) {
    out.code = claim.code;
    out.message = claim.message;
    return nullptr;
  }
  std::string message;
  if (!impl->CreateObjects(message)) {
    out.code = RtosHostError::System;
    out.message = message;
    return nullptr;
  }
  out.cleanedLeftovers = out.cleanedLeftovers || impl->bTookOver;
  return std::unique_ptr<RtosHost>(new RtosHost(std::move(impl)));
}

RtosHost::RtosHost(std::unique_ptr<Impl> impl) : m_pImpl(std::move(impl)) {}
RtosHost::~RtosHost() = default;

const std::string& RtosHost::Partition() const { return m_pImpl->options.partition; }

uint8_t* RtosHost::Area(Channel channel) const { return m_pImpl->areas[static_cast<int>(channel)].pArea; }

uint32_t RtosHost::AreaSize(Channel channel) const { return m_pImpl->areas[static_cast<int>(channel)].size; }

uint32_t RtosHost::WaitRequest(Channel channel, uint32_t timeoutMs) {
  return EventWait(m_pImpl->events[static_cast<int>(channel)][0].Get(), timeoutMs);
}

uint32_t RtosHost::SignalAnswer(Channel channel) {
  return ::SetEvent(m_pImpl->events[static_cast<int>(channel)][1].Get()) ? 0 : 4205;
}

void RtosHost::Wake(Channel channel) { ::SetEvent(m_pImpl->events[static_cast<int>(channel)][0].Get()); }

bool RtosHost::CanCutAreas() { return false; }

bool RtosHost::TruncateAreas() {
  // A mapping cannot shrink under another process's view on Windows, so
  // there is no way to make a client's access fault from here.
  return false;
}

}  // namespace qorvarlok::rtos
