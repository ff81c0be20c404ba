#include "ChannelWorker.h"

#include <sched.h>
#include <unistd.h>

#include <new>

#include <chrono>

#include "ExePath.h"

namespace qorvarlok::shm {
namespace {

using Clock = std::chrono::steady_clock;

// The bounds of the two spins. A sleeping thread costs ~7 us to wake on the
// same processor and up to ~80 us across processors on a virtual machine;
// spinning longer than what the sleep would cost is a loss whatever happens.
//
// The thread, after a command, waits this long for the next one: a caller
// that reads cyclically posts it within a few microseconds, and anything
// slower is not worth a burnt processor.
constexpr int64_t kWorkerSpinNs = 50'000;
// The caller waits this long for the result: a whole command on an idle
// controller (clearing 2.5 MB, the controller's copy of up to 40 kB, two
// event hand-offs) takes 25 to 150 us, so most results are caught spinning;
// a controller that answers late (its waits run to a second) is waited for
// asleep.
constexpr int64_t kCallerSpinNs = 200'000;
// A spinner yields every so many pauses (~20 us), so that on a processor it
// shares with the other side, or with the controller, they still run. Not
// more often: on a virtual machine a yield costs a few microseconds itself.
constexpr int kPausesPerYield = 512;

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

}  // namespace

ChannelWorker::~ChannelWorker() {
  if (Inherited()) ForgetInheritedThread();
  if (!m_thread.joinable()) return;
  if (qorvarlok::platform::threadHasEnded(m_thread)) {  // ended by the process's exit (Windows)
    m_thread.detach();
    return;
  }
  // A command in flight has been joined by its caller already: only one
  // ever runs, and Async does not return before it has ended.
  Publish(kStop, m_workerSleeping, m_workerCv);
  m_thread.join();
}

bool ChannelWorker::Post(Body body, void* context) {
  m_body = body;
  m_context = context;
  m_failure = nullptr;
  if (Inherited()) ForgetInheritedThread();
  if (!m_thread.joinable()) {
    try {
      m_state.store(kPosted, std::memory_order_release);
      m_thread = std::thread([this] { Loop(); });
      m_ownerPid = getpid();
      ++m_starts;
      return true;
    } catch (const std::exception&) {
      m_state.store(kIdle, std::memory_order_relaxed);
      return false;
    }
  }
  Publish(kPosted, m_workerSleeping, m_workerCv);
  return true;
}

bool ChannelWorker::WaitFor(uint32_t milliseconds) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
  return Await(kDone, m_callerSleeping, m_callerCv, &deadline, kCallerSpinNs);
}

uint32_t ChannelWorker::Join() {
  Await(kDone, m_callerSleeping, m_callerCv, nullptr, kCallerSpinNs);
  m_state.store(kIdle, std::memory_order_relaxed);
  if (m_failure) {
    std::exception_ptr failure = m_failure;
    m_failure = nullptr;
    std::rethrow_exception(failure);
  }
  return m_result;
}

bool ChannelWorker::Inherited() const { return m_thread.joinable() && m_ownerPid != getpid(); }

void ChannelWorker::ForgetInheritedThread() {
  // The objects are made anew over the old ones: destroying a joinable
  // std::thread ends the program, and the fork may have caught the mutex held.
  new (&m_thread) std::thread();
  new (&m_mutex) std::mutex();
  new (&m_workerCv) std::condition_variable();
  new (&m_callerCv) std::condition_variable();
  m_workerSleeping.store(false);
  m_callerSleeping.store(false);
  m_state.store(kIdle);
}

void ChannelWorker::Loop() {
  for (;;) {
    Await(kPosted, m_workerSleeping, m_workerCv, nullptr, kWorkerSpinNs);
    if (m_state.load(std::memory_order_acquire) == kStop) return;
    try {
      m_result = m_body(m_context);
    } catch (...) {
      m_failure = std::current_exception();
    }
    Publish(kDone, m_callerSleeping, m_callerCv);
  }
}

// The store and the load of the sleeping flag are both sequentially
// consistent, as are the sleeper's: either the waker sees the flag and
// notifies under the mutex, or the sleeper's check under the mutex sees the
// new state. No wake-up is lost and a spinning peer costs no system call.
void ChannelWorker::Publish(State state, std::atomic<bool>& sleeping, std::condition_variable& cv) {
  m_state.store(state, std::memory_order_seq_cst);
  if (sleeping.load(std::memory_order_seq_cst)) {
    { std::lock_guard<std::mutex> lock(m_mutex); }
    cv.notify_one();
  }
}

bool ChannelWorker::Await(State wanted, std::atomic<bool>& sleeping, std::condition_variable& cv,
                          const Clock::time_point* deadline, int64_t spinNs) {
  const auto arrived = [this, wanted] {
    const uint32_t s = m_state.load(std::memory_order_acquire);
    return s == wanted || s == kStop;
  };
  const int64_t spinEnd = NowNs() + spinNs;
  do {
    for (int i = 0; i < kPausesPerYield; ++i) {
      if (arrived()) return true;
      CpuRelax();
    }
    sched_yield();
  } while (NowNs() < spinEnd);

  std::unique_lock<std::mutex> lock(m_mutex);
  sleeping.store(true, std::memory_order_seq_cst);
  bool ok = true;
  if (deadline == nullptr) {
    cv.wait(lock, arrived);
  } else {
    ok = cv.wait_until(lock, *deadline, arrived);
  }
  sleeping.store(false, std::memory_order_relaxed);
  return ok;
}

}  // namespace qorvarlok::shm
