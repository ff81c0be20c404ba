#include "RtosObjects.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace qorvarlok::rtos::detail {
namespace {

bool IsNameCharacter(char c) { return c > 0x20 && c < 0x7F && c != '/'; }

bool AllNameCharacters(const std::string& text) {
  for (char c : text)
    if (!IsNameCharacter(c)) return false;
  return true;
}

// Shared (not private) futex operations: the word lives in a mapping of
// several processes.
long Futex(std::atomic<uint32_t>* word, int op, uint32_t value, const timespec* timeout) {
  return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op, value, timeout, nullptr, 0);
}

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

bool TryConsume(EventWord* event) {
  return event->state.load(std::memory_order_relaxed) == 1 && event->state.exchange(0) == 1;
}

bool Spin(EventWord* event, int64_t spinEndNs) {
  for (;;) {
    for (int i = 0; i < 64; ++i) {
      if (TryConsume(event)) return true;
      CpuRelax();
    }
    if (MonotonicNs() >= spinEndNs) return false;
  }
}

}  // namespace

int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

bool IsValidPartition(const std::string& partition) {
  return !partition.empty() && partition.size() <= kMaxPartitionLength && AllNameCharacters(partition);
}

bool IsValidObjectName(const std::string& object) {
  return !object.empty() && object.size() <= kMaxObjectLength && AllNameCharacters(object);
}

const char* EnvironmentPartition() {
  const char* value = std::getenv(kPartitionVariable);
  if (value == nullptr) return kDefaultPartition;
  const size_t length = std::strlen(value);
  if (length == 0 || length > kMaxPartitionLength) return nullptr;
  for (size_t i = 0; i < length; ++i)
    if (!IsNameCharacter(value[i])) return nullptr;
  return value;
}

std::string PartitionFromEnvironment() {
  const char* partition = EnvironmentPartition();
  return partition != nullptr ? std::string(partition) : std::string();
}

std::string ShmName(const std::string& partition, const std::string& object) {
  return "/" + partition + "." + object;
}

bool SpinGovernor::ShouldSpin() {
  uint32_t left = m_skipLeft.load(std::memory_order_relaxed);
  while (left != 0) {
    if (m_skipLeft.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) return false;
  }
  return true;
}

void SpinGovernor::Record(bool caught) {
  if (caught) {
    m_failures.store(0, std::memory_order_relaxed);
    return;
  }
  uint32_t failures = m_failures.load(std::memory_order_relaxed);
  if (failures < 6) m_failures.store(++failures, std::memory_order_relaxed);
  m_skipLeft.store((1u << failures) - 1, std::memory_order_relaxed);
}

void EventSend(EventWord* event) {
  event->signallerCpu.store(sched_getcpu(), std::memory_order_relaxed);
  event->state.store(1, std::memory_order_seq_cst);
  if (event->waiters.load(std::memory_order_seq_cst) != 0) Futex(&event->state, FUTEX_WAKE, 1, nullptr);
}

uint32_t EventWait(EventWord* event, uint32_t timeoutMs, uint32_t spinMicroseconds, SpinGovernor* governor) {
  if (event->state.exchange(0) == 1) return kWaitSignalled;
  const bool infinite = timeoutMs == kInfinite;
  const int64_t start = MonotonicNs();
  const int64_t deadline = start + static_cast<int64_t>(timeoutMs) * 1000000;
  const bool peerHere = event->signallerCpu.load(std::memory_order_relaxed) == sched_getcpu();
  if (spinMicroseconds != 0 && timeoutMs != 0 && !peerHere && (governor == nullptr || governor->ShouldSpin())) {
    int64_t spinEnd = start + static_cast<int64_t>(spinMicroseconds) * 1000;
    if (!infinite && spinEnd > deadline) spinEnd = deadline;
    const bool caught = Spin(event, spinEnd);
    if (governor != nullptr) governor->Record(caught);
    if (caught) return kWaitSignalled;
  }
  for (;;) {
    timespec relative{};
    const timespec* timeout = nullptr;
    if (!infinite) {
      const int64_t remaining = deadline - MonotonicNs();
      if (remaining <= 0) return event->state.exchange(0) == 1 ? kWaitSignalled : kWaitTimedOut;
      relative.tv_sec = remaining / 1000000000;
      relative.tv_nsec = remaining % 1000000000;
      timeout = &relative;
    }
    // The kernel sleeps only while the word is still 0; a send between the
    // count and the sleep makes the wait return at once.
    event->waiters.fetch_add(1, std::memory_order_seq_cst);
    Futex(&event->state, FUTEX_WAIT, 0, timeout);
    event->waiters.fetch_sub(1, std::memory_order_seq_cst);
    if (event->state.exchange(0) == 1) return kWaitSignalled;
  }
}

bool IsPartitionAlive(const char* partition) {
  if (partition == nullptr) return false;
  const size_t length = std::strlen(partition);
  if (length == 0 || length > kMaxPartitionLength) return false;
  char name[kMaxPartitionLength + kMaxObjectLength + 3];
  name[0] = '/';
  std::memcpy(name + 1, partition, length);
  name[length + 1] = '.';
  std::strcpy(name + length + 2, kAliveObject);
  const int fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) return false;
  struct stat info {};
  void* map = MAP_FAILED;
  if (fstat(fd, &info) == 0 && static_cast<size_t>(info.st_size) >= sizeof(AliveBlock))
    map = mmap(nullptr, sizeof(AliveBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (map == MAP_FAILED) return false;
  auto* block = static_cast<AliveBlock*>(map);
  bool alive = false;
  if (block->magic.load(std::memory_order_acquire) == kAliveMagic) {
    const int r = pthread_mutex_trylock(&block->mutex);
    if (r == EBUSY) {
      alive = true;
    } else if (r == 0) {
      pthread_mutex_unlock(&block->mutex);
    } else if (r == EOWNERDEAD) {
      // The controller died holding it; leave the marker usable for the next one.
      pthread_mutex_consistent(&block->mutex);
      pthread_mutex_unlock(&block->mutex);
    }
  }
  munmap(map, sizeof(AliveBlock));
  return alive;
}

}  // namespace qorvarlok::rtos::detail
