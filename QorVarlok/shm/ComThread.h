// The three command channels of the shared-memory transport: connect
// (ConnectArea), define (NotifyArea) and data swap (DataSwapArea).
// Each has one worker thread for its life (ChannelWorker): a command runs in
// the caller's Async, which holds the channel's named system mutex, and on
// that thread (runAsyncIntf), which writes the slot, signals, waits and reads
// the answer. The named mutexes are the only serialisation of commands across
// threads and processes.
//
// The define and data swap channels also carry a queue-based path (ReadyCmd,
// StopLoopTask, ...) that nothing in the library calls and no loop consumes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <utility>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "ChannelWorker.h"
#include "NamedMutex.h"
#include "RtosLib64.h"
#include "ShmCmd.h"
#include "VarlokLog.h"

namespace qorvarlok::shm {

// A machine fault while reading an answer from a mapping that went away. It
// leaves the worker with the task's result and reaches the caller of Async.
class ShmMappingLost : public std::runtime_error {
 public:
  ShmMappingLost() : std::runtime_error("shared memory area lost during a command") {}
};

// Fault injection for tests, installed through this internal header only: called
// with the channel's "Class::Async" name once a command holds the channel's
// named mutex, before anything is written. Null (nothing called) unless a test
// installs one; nothing in the library does.
using MutexHeldHook = void (*)(const char* func);
void SetMutexHeldHook(MutexHeldHook hook);

constexpr uint32_t kMutexWaitMs = 3000;
constexpr uint32_t kAnswerWaitMs = 1000;
constexpr int kAttempts = 5;
constexpr uint32_t kFutureWaitMs = 5000;
constexpr uint32_t kDataSwapFutureWaitMs = 10000;

// What the channels share: the area pointer, the two flags, the three handles,
// the open of the events and the caller's side of a command.
class ComChannelBase {
 public:
  ComChannelBase() = default;
  virtual ~ComChannelBase() = default;
  ComChannelBase(const ComChannelBase&) = delete;
  ComChannelBase& operator=(const ComChannelBase&) = delete;

  // 1 for a null m_hEventTx, else the event call's result.
  uint32_t SendEvent();
  bool RtosError() const { return m_bRtosError.load(); }
  bool Busy() const { return m_bBusy.load(); }

  void* m_hShmDataSwap = nullptr;  // start of the mapped area, set by ShmComClient before Init
  platform::NamedMutexHandle m_hMutex = nullptr;
  RTOS_EVENT m_hEventTx = nullptr;
  RTOS_EVENT m_hEventRx = nullptr;

 protected:
  // Texts and limits in which the channels' Async differ.
  struct AsyncProfile {
    const char* func;
    bool connectTexts;  // "{}" texts at error level (connect) or printf texts at warning level
    uint32_t futureMs;
    const char* timeoutText;
    const char* failedText;
    uint32_t failedCode;
    // Whether the slot holds a request the controller has not answered yet.
    bool (*requestOpen)(const unsigned char* area);
  };

  // Opens Rx then Tx; false (and logged) at the first failure.
  bool OpenEvents(log::Site func, const char* rxName, const char* txName);
  // Runs body(context) on the channel's worker thread within the profile's limit.
  // site: the channel's Async, named in the lines it logs.
  uint32_t RunAsync(log::Site site, const AsyncProfile& profile, ChannelWorker::Body body, void* context);
  template <typename Channel, typename Cmd>
  static uint32_t RunBody(void* context) {
    auto* job = static_cast<std::pair<Channel*, Cmd*>*>(context);
    return job->first->runAsyncIntf(*job->second);
  }
  // The worker body shared by the channels (ChannelCommand.h).
  template <class Steps, class Channel>
  uint32_t RunCommand(Channel& channel, typename Steps::Cmd& cmd);
  unsigned char* Area() const { return static_cast<unsigned char*>(m_hShmDataSwap); }
  // After an abandoned mutex: lets the controller finish the dead owner's command.
  void SettleAbandonedCommand(const AsyncProfile& profile);

  // Spins, without sleeping, until Flag leaves its request value or the
  // caller's Async has given up (m_bBusy false).
  template <typename Load, typename Value>
  void SpinOnFlag(Load load, Value noted) const {
    while (load() == noted && m_bBusy.load(std::memory_order_acquire)) CpuRelax();
  }
  static void CpuRelax();

  std::atomic<bool> m_bBusy{false};
  std::atomic<bool> m_bRtosError{true};
  ChannelWorker m_worker;  // last, so that it stops before the rest goes
};

class ConnectCmdThread : public ComChannelBase {
 public:
  ConnectCmdThread() = default;
  void Init();
  uint32_t Async(connectCmd& cmd);
  uint32_t runAsyncIntf(connectCmd& cmd);
  // Logs a null m_hEventRx and gives 1.
  uint32_t WaitEvent(uint32_t timeoutMs);

 private:
  connectCmd m_cmd;  // unused by every operation
  std::mutex m_unusedMutex1;
  std::condition_variable m_unusedCondition1;
  std::deque<connectCmd> m_unusedQueue;
  std::mutex m_unusedMutex2;
  std::condition_variable m_unusedCondition2;
};

class DefineShmComThread : public ComChannelBase {
 public:
  DefineShmComThread() = default;
  void Init();
  uint32_t Async(defineCmd& cmd);
  uint32_t runAsyncIntf(defineCmd& cmd);
  // 1 for a null m_hEventRx, without a log.
  uint32_t WaitEvent(uint32_t timeoutMs);

  // The queue path: no caller in the library, no consumer loop.
  uint32_t ReadyCmd(defineCmd& cmd);
  bool StopLoopTask(defineCmd& cmd);
  uint32_t GetDefineCmd(defineCmd& cmd);
  size_t QueueLength();

 private:
  defineCmd m_cmd;  // unused by every operation
  std::deque<defineCmd> m_queue;
  std::mutex m_queueMutex;
  std::condition_variable m_queueCondition;
  std::mutex m_unusedMutex;
  std::condition_variable m_unusedCondition;
};

class DataSwapShmComThread : public ComChannelBase {
 public:
  DataSwapShmComThread() = default;
  void Init();
  uint32_t Async(rwCmd& cmd);
  uint32_t runAsyncIntf(rwCmd& cmd);
  // Logs a null m_hEventRx at info level and gives 1.
  uint32_t WaitEvent(uint32_t timeoutMs);

  // The queue path: no caller in the library, no consumer loop.
  uint32_t ReadyCmd(rwCmd& cmd);
  uint32_t ReadyCmdAndWaitForRes(rwCmd& cmd);
  uint32_t GetDataSwapCmd(rwCmd& cmd);
  uint32_t HandleResMessage(rwCmd& cmd);
  uint32_t GetDataSwapOperationRes(rwCmd& cmd);
  bool StopLoopTask(rwCmd& cmd);
  size_t QueueLength();
  size_t SessionCount();

 private:
  // True (and the entry moved into cmd) when an answer for cmd's SessionId is filed.
  bool TakeAnswer(rwCmd& cmd);

  std::unordered_map<uint32_t, rwCmd> m_sessionMap;
  std::deque<rwCmd> m_queue;
  std::mutex m_queueMutex;
  std::condition_variable m_queueCondition;
  std::mutex m_sessionMutex;
  std::condition_variable m_condition_oper_finish;
};

}  // namespace qorvarlok::shm
