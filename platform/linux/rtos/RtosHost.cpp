#include "RtosHost.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>

#include "RtosObjects.h"

namespace qorvarlok::rtos {
namespace {

using namespace detail;

std::string SystemError(const char* what, const std::string& name, int error) {
  return std::string(what) + " '" + name + "' failed: " + std::strerror(error) + " (errno " +
         std::to_string(error) + ")";
}

// An object this host created: mapped, open, and unlinked by name when the
// host ends. Moves only.
class OwnedShm {
 public:
  OwnedShm() = default;
  OwnedShm(const OwnedShm&) = delete;
  OwnedShm& operator=(const OwnedShm&) = delete;
  ~OwnedShm() { Release(); }

  // Creates the object fresh (mode 0666 whatever the umask) and maps size bytes.
  bool Create(const std::string& name, size_t size, std::string& message) {
    m_name = name;
    m_fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (m_fd < 0) return Fail("shm_open", errno, message);
    m_bCreated = true;
    if (fchmod(m_fd, 0666) != 0) return Fail("fchmod", errno, message);
    if (ftruncate(m_fd, static_cast<off_t>(size)) != 0) return Fail("ftruncate", errno, message);
    void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (map == MAP_FAILED) return Fail("mmap", errno, message);
    m_pMap = map;
    m_size = size;
    return true;
  }
  bool Truncate() { return m_fd >= 0 && ftruncate(m_fd, 0) == 0; }
  // Unlinks the name while the partition is still held, before the marker goes.
  void Unlink() {
    if (m_bCreated) shm_unlink(m_name.c_str());
    m_bCreated = false;
  }
  void* Map() const { return m_pMap; }
  size_t Size() const { return m_size; }

 private:
  bool Fail(const char* what, int error, std::string& message) {
    message = SystemError(what, m_name, error);
    return false;
  }
  void Release() {
    Unlink();
    if (m_pMap != nullptr) munmap(m_pMap, m_size);
    if (m_fd >= 0) close(m_fd);
    m_pMap = nullptr;
    m_fd = -1;
  }

  std::string m_name;
  int m_fd = -1;
  void* m_pMap = nullptr;
  size_t m_size = 0;
  bool m_bCreated = false;
};

struct ClaimResult {
  RtosHostError code = RtosHostError::None;
  std::string message;
  bool cleanedLeftovers = false;
};

bool SameObject(int fd, const std::string& name) {
  const int again = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (again < 0) return false;
  struct stat a {}, b {};
  const bool same = fstat(fd, &a) == 0 && fstat(again, &b) == 0 && a.st_ino == b.st_ino && a.st_dev == b.st_dev;
  close(again);
  return same;
}

// Waits (bounded) for a creator that is still setting the marker up.
bool WaitForSize(int fd, size_t size) {
  for (int i = 0; i < 200; ++i) {
    struct stat info {};
    if (fstat(fd, &info) == 0 && static_cast<size_t>(info.st_size) >= size) return true;
    usleep(5000);
  }
  return false;
}

bool WaitForMagic(const AliveBlock* block) {
  for (int i = 0; i < 200; ++i) {
    if (block->magic.load(std::memory_order_acquire) == kAliveMagic) return true;
    usleep(5000);
  }
  return false;
}

timespec DeadlineAfter(uint32_t ms) {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_sec += ms / 1000;
  t.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
  if (t.tv_nsec >= 1000000000) {
    t.tv_sec += 1;
    t.tv_nsec -= 1000000000;
  }
  return t;
}

}  // namespace

struct RtosHost::Impl {
  RtosHostOptions options;
  std::string aliveName;
  int aliveFd = -1;
  AliveBlock* pAlive = nullptr;
  bool bAliveCreated = false;
  std::thread keeper;
  std::mutex keeperMutex;
  std::condition_variable keeperWake;
  bool bStop = false;
  OwnedShm areas[3];
  OwnedShm events[3][2];

  ~Impl() {
    for (auto& pair : events)
      for (auto& event : pair) event.Unlink();
    // Cut to nothing first: a client still mapping an area then faults on its
    // next command and sets up anew, instead of writing to nobody for ever.
    for (auto& area : areas) {
      area.Truncate();
      area.Unlink();
    }
    // The marker's name goes while it is still held, so no newcomer can claim
    // the old marker and then lose its name to this unlink.
    if (pAlive != nullptr) shm_unlink(aliveName.c_str());
    if (keeper.joinable()) {
      {
        std::lock_guard<std::mutex> lock(keeperMutex);
        bStop = true;
      }
      keeperWake.notify_all();
      keeper.join();
    }
    CloseAlive();
  }

  void CloseAlive() {
    if (pAlive != nullptr) munmap(pAlive, sizeof(AliveBlock));
    if (aliveFd >= 0) close(aliveFd);
    pAlive = nullptr;
    aliveFd = -1;
  }

  // Runs on the keeper thread, which then owns the marker's mutex.
  ClaimResult Claim() {
    ClaimResult result;
    for (int attempt = 0; attempt < 5; ++attempt) {
      CloseAlive();
      const int fd = shm_open(aliveName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd >= 0) return CreateMarker(fd, result);
      if (errno != EEXIST) return SystemFailure("shm_open", errno, result);
      if (!JoinMarker(result)) {
        if (result.code != RtosHostError::None) return result;
        continue;  // raced with an unlink, or a broken leftover removed
      }
      return result;
    }
    return SystemFailure("claiming", EAGAIN, result);
  }

  ClaimResult& SystemFailure(const char* what, int error, ClaimResult& result) {
    result.code = RtosHostError::System;
    result.message = SystemError(what, aliveName, error);
    return result;
  }

  ClaimResult& CreateMarker(int fd, ClaimResult& result) {
    aliveFd = fd;
    if (fchmod(fd, 0666) != 0 || ftruncate(fd, sizeof(AliveBlock)) != 0) {
      const int error = errno;
      shm_unlink(aliveName.c_str());
      return SystemFailure("ftruncate", error, result);
    }
    void* map = mmap(nullptr, sizeof(AliveBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
      const int error = errno;
      shm_unlink(aliveName.c_str());
      return SystemFailure("mmap", error, result);
    }
    pAlive = static_cast<AliveBlock*>(map);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&pAlive->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    pthread_mutex_lock(&pAlive->mutex);
    pAlive->pid.store(static_cast<int32_t>(getpid()));
    pAlive->magic.store(kAliveMagic, std::memory_order_release);
    return result;
  }

  // False with code None: try again from the start.
  bool JoinMarker(ClaimResult& result) {
    aliveFd = shm_open(aliveName.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (aliveFd < 0) {
      if (errno == ENOENT) return false;
      SystemFailure("shm_open", errno, result);
      return false;
    }
    if (!WaitForSize(aliveFd, sizeof(AliveBlock))) return RemoveBroken(result);
    void* map = mmap(nullptr, sizeof(AliveBlock), PROT_READ | PROT_WRITE, MAP_SHARED, aliveFd, 0);
    if (map == MAP_FAILED) {
      SystemFailure("mmap", errno, result);
      return false;
    }
    pAlive = static_cast<AliveBlock*>(map);
    if (!WaitForMagic(pAlive)) return RemoveBroken(result);
    const timespec deadline = DeadlineAfter(options.claimTimeoutMs);
    const int r = pthread_mutex_clocklock(&pAlive->mutex, CLOCK_MONOTONIC, &deadline);
    if (r == ETIMEDOUT) {
      result.code = RtosHostError::PartitionBusy;
      result.message = "partition '" + options.partition + "' is held by the running controller pid " +
                       std::to_string(pAlive->pid.load());
      return false;
    }
    if (r == EOWNERDEAD) {
      pthread_mutex_consistent(&pAlive->mutex);
    } else if (r != 0) {
      return RemoveBroken(result);
    }
    // Whoever held it before us is gone: what it left are leftovers.
    result.cleanedLeftovers = true;
    if (!SameObject(aliveFd, aliveName)) {
      pthread_mutex_unlock(&pAlive->mutex);
      return false;
    }
    pAlive->pid.store(static_cast<int32_t>(getpid()));
    return true;
  }

  bool RemoveBroken(ClaimResult& result) {
    shm_unlink(aliveName.c_str());
    result.cleanedLeftovers = true;
    return false;
  }

  void KeeperMain(std::promise<ClaimResult>& claimed) {
    ClaimResult result = Claim();
    const bool held = result.code == RtosHostError::None;
    claimed.set_value(result);
    if (!held) return;
    std::unique_lock<std::mutex> lock(keeperMutex);
    keeperWake.wait(lock, [this] { return bStop; });
    pthread_mutex_unlock(&pAlive->mutex);
  }

  ClaimResult StartKeeper() {
    std::promise<ClaimResult> claimed;
    std::future<ClaimResult> result = claimed.get_future();
    keeper = std::thread([this, &claimed] { KeeperMain(claimed); });
    ClaimResult r = result.get();
    if (r.code != RtosHostError::None) {
      keeper.join();
      CloseAlive();
    }
    return r;
  }

  // Removes what a dead controller left under our names; true if anything was
  // there. Its areas are cut to nothing first, for the same reason as at our end.
  bool RemoveLeftovers() {
    bool any = false;
    for (const char* area : kAreaNames) {
      const std::string name = ShmName(options.partition, area);
      const int fd = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
      if (fd >= 0) {
        (void)!ftruncate(fd, 0);
        close(fd);
      }
      any |= shm_unlink(name.c_str()) == 0;
    }
    for (const auto& pair : kEventNames)
      for (const char* event : pair) any |= shm_unlink(ShmName(options.partition, event).c_str()) == 0;
    return any;
  }

  bool CreateObjects(std::string& message) {
    const uint32_t sizes[3] = {options.connectAreaSize, options.notifyAreaSize, options.dataSwapAreaSize};
    for (int c = 0; c < 3; ++c)
      if (!areas[c].Create(ShmName(options.partition, kAreaNames[c]), sizes[c], message)) return false;
    for (int c = 0; c < 3; ++c) {
      for (int d = 0; d < 2; ++d) {
        if (!events[c][d].Create(ShmName(options.partition, kEventNames[c][d]), sizeof(EventWord), message))
          return false;
        auto* word = static_cast<EventWord*>(events[c][d].Map());
        word->signallerCpu.store(-1, std::memory_order_relaxed);
        word->magic.store(kEventMagic, std::memory_order_release);
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
    out.message = "partition name '" + options.partition + "' is empty, too long or holds '/' or non-printable characters";
    return nullptr;
  }
  if (options.connectAreaSize == 0 || options.notifyAreaSize == 0 || options.dataSwapAreaSize == 0) {
    out.code = RtosHostError::InvalidSize;
    out.message = "area sizes must be at least 1 byte";
    return nullptr;
  }
  impl->aliveName = ShmName(impl->options.partition, kAliveObject);
  ClaimResult claim = impl->StartKeeper();
  out.cleanedLeftovers = claim.cleanedLeftovers;
  if (claim.code != RtosHostError::None) {
    out.code = claim.code;
    out.message = claim.message;
    return nullptr;
  }
  out.cleanedLeftovers |= impl->RemoveLeftovers();
  std::string message;
  if (!impl->CreateObjects(message)) {
    out.code = RtosHostError::System;
    out.message = message;
    return nullptr;  // the Impl's destructor removes what was made
  }
  return std::unique_ptr<RtosHost>(new RtosHost(std::move(impl)));
}

RtosHost::RtosHost(std::unique_ptr<Impl> impl) : m_pImpl(std::move(impl)) {}
RtosHost::~RtosHost() = default;

const std::string& RtosHost::Partition() const { return m_pImpl->options.partition; }

uint8_t* RtosHost::Area(Channel channel) const {
  return static_cast<uint8_t*>(m_pImpl->areas[static_cast<int>(channel)].Map());
}

uint32_t RtosHost::AreaSize(Channel channel) const {
  return static_cast<uint32_t>(m_pImpl->areas[static_cast<int>(channel)].Size());
}

uint32_t RtosHost::WaitRequest(Channel channel, uint32_t timeoutMs) {
  const int c = static_cast<int>(channel);
  auto* event = static_cast<EventWord*>(m_pImpl->events[c][0].Map());
  // No back-off here: a server that always spins after its answer is what
  // lets the client's spin catch the next answer. Were both sides to back off,
  // each would spin only while the other sleeps, and neither spin would ever
  // catch a signal again.
  return EventWait(event, timeoutMs, m_pImpl->options.spinMicroseconds, nullptr);
}

uint32_t RtosHost::SignalAnswer(Channel channel) {
  EventSend(static_cast<EventWord*>(m_pImpl->events[static_cast<int>(channel)][1].Map()));
  return 0;
}

void RtosHost::Wake(Channel channel) {
  EventSend(static_cast<EventWord*>(m_pImpl->events[static_cast<int>(channel)][0].Map()));
}

bool RtosHost::CanCutAreas() { return true; }

bool RtosHost::TruncateAreas() {
  bool ok = true;
  for (auto& area : m_pImpl->areas) ok &= area.Truncate();
  return ok;
}

}  // namespace qorvarlok::rtos
