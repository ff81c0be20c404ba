// The thread that runs a channel's commands: one per channel, started at the
// channel's first command and joined when the channel goes. The caller hands
// it one command at a time and waits for the result with a limit, as it would
// wait for a future; a command that outlives the limit still holds the caller
// in Join until it has returned, since it works on the caller's record.
//
// Both sides spin a bounded time before they sleep (see ChannelWorker.cpp for
// the bounds), so back-to-back commands cost no thread start and, mostly, no
// wake-up across processors; an idle channel's thread sleeps on a condition
// variable and uses no processor time.
//
// Only one command is in flight at a time: the channel's named mutex, held by
// the caller from Post to Join, sees to that.
//
// A child of fork inherits the object but not its thread: the first Post in
// the child forgets the parent's thread and starts its own, and the child's
// destructor leaves the parent's alone.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>

namespace qorvarlok::shm {

class ChannelWorker {
 public:
  using Body = uint32_t (*)(void* context);

  ChannelWorker() = default;
  ~ChannelWorker();
  ChannelWorker(const ChannelWorker&) = delete;
  ChannelWorker& operator=(const ChannelWorker&) = delete;

  // Hands body(context) to the thread, starting the thread if it is not
  // running. False when no thread could be started: the command did not run.
  bool Post(Body body, void* context);
  // True once the command has returned, false when the limit ran out first.
  bool WaitFor(uint32_t milliseconds);
  // Waits without a limit for the command to return and gives its result; an
  // exception that left the body is raised here again.
  uint32_t Join();

  // Tests: whether the thread runs, and how often one was started.
  bool Running() const { return m_thread.joinable(); }
  uint32_t Starts() const { return m_starts; }

 private:
  enum State : uint32_t { kIdle, kPosted, kDone, kStop };

  void Loop();
  // In a child of fork: drops the parent's thread and whatever state the fork
  // caught it in, without joining a thread that does not exist here.
  void ForgetInheritedThread();
  bool Inherited() const;
  // Spins, then sleeps, until m_state is `wanted` (or kStop for the thread);
  // false when the deadline (null: none) passed first.
  bool Await(State wanted, std::atomic<bool>& sleeping, std::condition_variable& cv,
             const std::chrono::steady_clock::time_point* deadline, int64_t spinNs);
  void Publish(State state, std::atomic<bool>& sleeping, std::condition_variable& cv);

  std::atomic<uint32_t> m_state{kIdle};
  Body m_body = nullptr;
  void* m_context = nullptr;
  uint32_t m_result = 0;
  std::exception_ptr m_failure;

  std::mutex m_mutex;
  std::condition_variable m_workerCv;
  std::condition_variable m_callerCv;
  std::atomic<bool> m_workerSleeping{false};
  std::atomic<bool> m_callerSleeping{false};
  std::thread m_thread;
  int m_ownerPid = 0;  // the process m_thread runs in
  uint32_t m_starts = 0;
};

}  // namespace qorvarlok::shm
