// Each named mutex is a robust, recursive, process-shared pthread mutex in a
// shm object of its own, "/<partition>.<name>" with '\' turned into '_'.
// Handles are mapped once per name and process and never given back, as the
// transport never closes them.
#include "NamedMutex.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <string>

#include "RtosLib64.h"

namespace qorvarlok::platform {
namespace {

// Windows error numbers, as GetLastError would give them.
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorInvalidHandle = 6;
constexpr uint32_t kErrorInvalidName = 123;
constexpr uint32_t kErrorNotOwner = 288;
constexpr uint32_t kErrorInternal = 1359;
constexpr uint32_t kInfinite = 0xFFFFFFFFu;

constexpr uint32_t kReadyMagic = 0x584d5651u;  // "QVMX"
constexpr size_t kMaxNameLength = 64;

struct MutexBlock {
  std::atomic<uint32_t> ready;
  pthread_mutex_t mutex;
};

struct Handle {
  MutexBlock* pBlock;
};

thread_local uint32_t t_lastError = 0;

uint32_t Fail(uint32_t error) {
  t_lastError = error;
  return error;
}

uint32_t ErrorOf(int error) {
  switch (error) {
    case ENOENT: return kErrorFileNotFound;
    case EACCES:
    case EPERM: return kErrorAccessDenied;
    case EINVAL:
    case ENAMETOOLONG: return kErrorInvalidName;
    default: return kErrorInternal;
  }
}

// "Global\MUTEX_CONNECT" -> "/<partition>.Global_MUTEX_CONNECT"; empty when
// the name or the partition cannot make an object name.
std::string ShmNameFor(const wchar_t* name) {
  if (name == nullptr || *name == L'\0') return {};
  const char* partition = RtosPartitionName();
  if (partition == nullptr) return {};
  std::string object;
  for (const wchar_t* c = name; *c != L'\0'; ++c) {
    if (*c <= 0x20 || *c >= 0x7F || *c == L'/' || object.size() >= kMaxNameLength) return {};
    object.push_back(*c == L'\\' ? '_' : static_cast<char>(*c));
  }
  return "/" + std::string(partition) + "." + object;
}

struct Registry {
  std::mutex mutex;
  std::map<std::string, Handle*> handles;
};

Registry& Handles() {
  static Registry* registry = new Registry();  // handles outlive every static
  return *registry;
}

bool InitBlock(MutexBlock* block) {
  pthread_mutexattr_t attr;
  if (pthread_mutexattr_init(&attr) != 0) return false;
  bool ok = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED) == 0 &&
            pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST) == 0 &&
            pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
            pthread_mutex_init(&block->mutex, &attr) == 0;
  pthread_mutexattr_destroy(&attr);
  if (ok) block->ready.store(kReadyMagic, std::memory_order_release);
  return ok;
}

MutexBlock* MapBlock(int fd) {
  void* map = mmap(nullptr, sizeof(MutexBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return map == MAP_FAILED ? nullptr : static_cast<MutexBlock*>(map);
}

// A creator in another process may still be setting the object up: wait for it, bounded.
bool WaitForSize(int fd) {
  for (int i = 0; i < 200; ++i) {
    struct stat info {};
    if (fstat(fd, &info) != 0) return false;
    if (static_cast<size_t>(info.st_size) >= sizeof(MutexBlock)) return true;
    usleep(5000);
  }
  return false;
}

MutexBlock* JoinExisting(int fd) {
  // Mapping a shorter object would fault on the first touch.
  if (!WaitForSize(fd)) return nullptr;
  MutexBlock* block = MapBlock(fd);
  if (block == nullptr) return nullptr;
  for (int i = 0; i < 200; ++i) {
    if (block->ready.load(std::memory_order_acquire) == kReadyMagic) return block;
    usleep(5000);
  }
  munmap(block, sizeof(MutexBlock));
  return nullptr;
}

MutexBlock* CreateNew(int fd) {
  if (fchmod(fd, 0666) != 0 || ftruncate(fd, sizeof(MutexBlock)) != 0) return nullptr;
  MutexBlock* block = MapBlock(fd);
  if (block != nullptr && !InitBlock(block)) {
    munmap(block, sizeof(MutexBlock));
    return nullptr;
  }
  return block;
}

MutexBlock* OpenBlock(const std::string& shmName, bool create) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (create) {
      const int fd = shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd >= 0) {
        MutexBlock* block = CreateNew(fd);
        close(fd);
        if (block == nullptr) shm_unlink(shmName.c_str());
        if (block == nullptr) Fail(kErrorInternal);
        return block;
      }
      if (errno != EEXIST) return Fail(ErrorOf(errno)), nullptr;
    }
    const int fd = shm_open(shmName.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
      if (errno == ENOENT && create) continue;  // removed between the two opens
      return Fail(ErrorOf(errno)), nullptr;
    }
    MutexBlock* block = JoinExisting(fd);
    close(fd);
    if (block != nullptr) return block;
    // Its creator died before finishing it: nobody can ever use it, so make it anew.
    if (create && attempt == 0) {
      shm_unlink(shmName.c_str());
      continue;
    }
    return Fail(kErrorInternal), nullptr;
  }
  return Fail(kErrorInternal), nullptr;
}

NamedMutexHandle Open(const wchar_t* name, bool create) {
  const std::string shmName = ShmNameFor(name);
  if (shmName.empty()) return Fail(kErrorInvalidName), nullptr;
  Registry& registry = Handles();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto found = registry.handles.find(shmName);
  if (found != registry.handles.end()) {
    t_lastError = 0;
    return found->second;
  }
  MutexBlock* block = OpenBlock(shmName, create);
  if (block == nullptr) return nullptr;
  auto* handle = new Handle{block};
  registry.handles.emplace(shmName, handle);
  t_lastError = 0;
  return handle;
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

NamedMutexHandle OpenNamedMutex(const wchar_t* name) { return Open(name, false); }

NamedMutexHandle CreateNamedMutex(const wchar_t* name) { return Open(name, true); }

uint32_t WaitForNamedMutex(NamedMutexHandle handle, uint32_t timeoutMs) {
  if (handle == nullptr) {
    Fail(kErrorInvalidHandle);
    return kWaitFailed;
  }
  pthread_mutex_t* mutex = &static_cast<Handle*>(handle)->pBlock->mutex;
  int r = 0;
  if (timeoutMs == kInfinite) {
    r = pthread_mutex_lock(mutex);
  } else {
    const timespec deadline = DeadlineAfter(timeoutMs);
    r = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
  }
  switch (r) {
    case 0: return kWaitObject0;
    case EOWNERDEAD:
      // Without this every later lock would fail for good.
      pthread_mutex_consistent(mutex);
      return kWaitAbandoned;
    case ETIMEDOUT: return kWaitTimeout;
    default:
      Fail(kErrorInternal);
      return kWaitFailed;
  }
}

bool ReleaseNamedMutex(NamedMutexHandle handle) {
  if (handle == nullptr) return Fail(kErrorInvalidHandle), false;
  const int r = pthread_mutex_unlock(&static_cast<Handle*>(handle)->pBlock->mutex);
  if (r == 0) return true;
  Fail(r == EPERM ? kErrorNotOwner : kErrorInternal);
  return false;
}

uint32_t NamedMutexLastError() { return t_lastError; }

}  // namespace qorvarlok::platform
