// The objects that a controller and its clients share under one partition,
// and the operations on them that both sides need: object names, the
// auto-reset event word, the alive marker. Compiled into libRtosLib64.so and
// into the controller's RtosHost, each with its own copy.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qorvarlok::rtos::detail {

constexpr const char* kPartitionVariable = "VARLOK_PARTITION";
constexpr const char* kDefaultPartition = "varlok";
// A shm name may have NAME_MAX (255) bytes after its '/'; the longest object
// name we append is 24 bytes plus the dot.
constexpr size_t kMaxPartitionLength = 200;
constexpr size_t kMaxObjectLength = 48;

constexpr const char* kAreaNames[3] = {"ConnectArea", "NotifyArea", "DataSwapArea"};
// Per channel: Windows-to-RTOS (requests), RTOS-to-Windows (answers).
constexpr const char* kEventNames[3][2] = {
    {"EVENT_CONNECT_WIN2RTOS", "EVENT_CONNECT_RTOS2WIN"},
    {"EVENT_NOTIFY_WIN2RTOS", "EVENT_NOTIFY_RTOS2WIN"},
    {"EVENT_DATASWAP_WIN2RTOS", "EVENT_DATASWAP_RTOS2WIN"},
};
// Lower case, so that no upper-case area or event name can collide with it.
constexpr const char* kAliveObject = "rtos-alive";

constexpr uint32_t kEventMagic = 0x56455651u;  // "QVEV"
constexpr uint32_t kAliveMagic = 0x4c415651u;  // "QVAL"
constexpr uint32_t kInfinite = 0xFFFFFFFFu;
constexpr uint32_t kWaitSignalled = 0;
constexpr uint32_t kWaitTimedOut = 4203;

// An auto-reset event: state 1 is signalled. waiters counts sleepers so that
// a send to a spinning or absent waiter costs no system call.
// signallerCpu is the processor of the last send (-1 before the first): a
// waiter on that same processor does not spin, as the signaller could not
// run while it spins.
struct EventWord {
  std::atomic<uint32_t> state;
  std::atomic<uint32_t> waiters;
  std::atomic<uint32_t> magic;
  std::atomic<int32_t> signallerCpu;
};

// The controller's keeper thread holds mutex for the controller's whole life.
struct AliveBlock {
  std::atomic<uint32_t> magic;
  std::atomic<int32_t> pid;
  pthread_mutex_t mutex;
};

// Printable ASCII without '/', within the length limit.
bool IsValidPartition(const std::string& partition);
bool IsValidObjectName(const std::string& object);
// The partition of the environment, or empty when the variable holds an unusable name.
std::string PartitionFromEnvironment();
// The same without allocating, so it may run inside a signal handler; null when unusable.
const char* EnvironmentPartition();
// "/<partition>.<object>"
std::string ShmName(const std::string& partition, const std::string& object);

// Process-local memory of how the spins of one waiter went. A spin that
// ran out is followed by waits that sleep at once (1, 3, 7 ... 63 of them),
// so a slow peer does not cost a burnt processor on every wait; one spin
// that catches its signal restores spinning at every wait. Used by the
// client's waits only (see RtosHost::WaitRequest).
class SpinGovernor {
 public:
  bool ShouldSpin();
  void Record(bool caught);

 private:
  std::atomic<uint32_t> m_skipLeft{0};
  std::atomic<uint32_t> m_failures{0};
};

void EventSend(EventWord* event);
// kWaitSignalled or kWaitTimedOut; kInfinite waits without limit. Spins up to
// spinMicroseconds (bounded by the timeout) before it sleeps, when the
// governor (optional) lets it.
uint32_t EventWait(EventWord* event, uint32_t timeoutMs, uint32_t spinMicroseconds, SpinGovernor* governor);

// True when a living thread holds the partition's alive marker. Uses only
// system calls and the mutex, no allocation, so it may run inside a signal handler.
bool IsPartitionAlive(const char* partition);
inline bool IsPartitionAlive(const std::string& partition) { return IsPartitionAlive(partition.c_str()); }

// Monotonic clock in nanoseconds.
int64_t MonotonicNs();

}  // namespace qorvarlok::rtos::detail
