#include <chrono>
#include <cstring>

#include "ChannelCommand.h"
#include "ComThread.h"
#include "QorVarlok/ZelVarlok.h"
#include "RtosApi.h"
#include "VarlokLog.h"

namespace qorvarlok::shm {

using platform::Rtos;

void DataSwapShmComThread::Init() {
  if (!OpenEvents("DataSwapShmComThread::Init", "EVENT_DATASWAP_RTOS2WIN", "EVENT_DATASWAP_WIN2RTOS")) return;
  m_hMutex = platform::OpenNamedMutex(L"Global\\MUTEX_DATASWAP");
  if (m_hMutex != nullptr) return;
  VLOG(info, "DataSwapShmComThread::Init", "Create Process Mutex!");
  m_hMutex = platform::CreateNamedMutex(L"Global\\MUTEX_DATASWAP");
}

uint32_t DataSwapShmComThread::WaitEvent(uint32_t timeoutMs) {
  if (m_hEventRx == nullptr) {
    VLOG(info, "DataSwapShmComThread::WaitEvent", "m_hEventRx==nullptr");
    return 1;
  }
  return Rtos().WaitEvent(m_hEventRx, timeoutMs);
}

uint32_t DataSwapShmComThread::Async(rwCmd& cmd) {
  static const AsyncProfile profile{"DataSwapShmComThread::Async", false, kDataSwapFutureWaitMs,
                                    "async thread timeout",        "async thread execute defered or failed",
                                    ERR_PLC_READ_WRITE_FAILED, [](const unsigned char* area) {
                                      const uint8_t f = LoadRwFlag(area);
                                      return f == kRwRead || f == kRwWrite;
                                    }};
  std::pair<DataSwapShmComThread*, rwCmd*> job{this, &cmd};
  return RunAsync(profile.func, profile, &RunBody<DataSwapShmComThread, rwCmd>, &job);
}

namespace {

struct DataSwapSteps {
  using Cmd = rwCmd;
  using Answer = RwAnswer;
  static constexpr const char* kFunc = "DataSwapShmComThread::runAsyncIntf";
  static constexpr bool kClearCaller = true;  // a fault leaves the value pointer null
  static constexpr bool kClearArea = true;
  static constexpr bool kLogRequest = false;
  static constexpr bool kLogRtosError = true;
  static constexpr const char* kRetryText = "RTE_ERROR_TIMEOUT.E:%d";
  static constexpr bool kRetryPrintf = true;
  static constexpr uint32_t Answer::*kAnswerErr = &Answer::Err;

  static uint32_t& Err(Cmd& c) { return c.Err; }
  static void Write(unsigned char* area, const Cmd& c) { WriteRwSlot(area, c); }
  static uint8_t LoadFlag(const unsigned char* area) { return LoadRwFlag(area); }
  static Answer Read(const unsigned char* area) { return ReadRwAnswer(area); }
  static bool Good(const Answer& a) { return a.Flag != 0 && a.Err == 0; }
  // A read's values, copied while the fault guard still covers the mapping.
  static void TakeValues(const unsigned char* area, Cmd& local) {
    if (local.Rw == kRwRead && local.ByteTotal > 0 && local.pValue != nullptr)
      std::memcpy(local.pValue, area + RwValueOffset(local.Size), local.ByteTotal);
  }
  static void Accept(Cmd& local, const Answer& a) {
    local.Flag = a.Flag;
    local.Err = 0;
  }
  static void Refuse(Cmd& local, const Answer& a) {
    VLOG(err, kFunc, "E:{}, Flag:{}", a.Err, unsigned{a.Flag});
    local.Err = ERR_PLC_READ_WRITE_FAILED;
  }
};

}  // namespace

uint32_t DataSwapShmComThread::runAsyncIntf(rwCmd& cmd) { return RunCommand<DataSwapSteps>(*this, cmd); }

// ---------------------------------------------------------------- queue path

uint32_t DataSwapShmComThread::ReadyCmd(rwCmd& cmd) {
  {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    m_queue.push_back(cmd);
  }
  m_queueCondition.notify_all();
  return 0;
}

bool DataSwapShmComThread::TakeAnswer(rwCmd& cmd) {
  const auto it = m_sessionMap.find(cmd.SessionId);
  if (it == m_sessionMap.end() || it->second.Flag != 3 || it->second.Seq == 0) return false;
  cmd = it->second;
  m_sessionMap.erase(it);
  return true;
}

uint32_t DataSwapShmComThread::ReadyCmdAndWaitForRes(rwCmd& cmd) {
  const uint32_t r = ReadyCmd(cmd);
  if (r != 0) {
    VLOG(warn, "DataSwapShmComThread::ReadyCmdAndWaitForRes", "ReadyCmd Err:{}", r);
    cmd.Err = r;
    return r;
  }
  {
    std::unique_lock<std::mutex> lock(m_sessionMutex);
    m_condition_oper_finish.wait(lock, [&] { return TakeAnswer(cmd); });
  }
  cmd.Err = 0;
  VLOG(info, "DataSwapShmComThread::ReadyCmdAndWaitForRes", "{}", cmd);
  return 0;
}

uint32_t DataSwapShmComThread::GetDataSwapCmd(rwCmd& cmd) {
  std::unique_lock<std::mutex> lock(m_queueMutex);
  if (!m_queueCondition.wait_for(lock, std::chrono::milliseconds(500), [this] { return !m_queue.empty(); }))
    return ERR_WAIT_TIMEOUT;
  cmd = m_queue.front();
  cmd.Err = 0;
  m_queue.pop_front();
  return 0;
}

uint32_t DataSwapShmComThread::HandleResMessage(rwCmd& cmd) {
  {
    std::lock_guard<std::mutex> lock(m_sessionMutex);
    if (cmd.Err == 0 && cmd.Flag == 3 && !m_sessionMap.emplace(cmd.SessionId, cmd).second)
      VLOG(warn, "DataSwapShmComThread::HandleResMessage", "session {} is duplicate", cmd.SessionId);
  }
  m_condition_oper_finish.notify_all();
  return 0;
}

uint32_t DataSwapShmComThread::GetDataSwapOperationRes(rwCmd& cmd) {
  std::unique_lock<std::mutex> lock(m_sessionMutex);
  // The test always passes, so this returns at once; the timeout branch is kept as a guard.
  if (!m_condition_oper_finish.wait_for(lock, std::chrono::milliseconds(5000), [] { return true; })) {
    VLOG(warn, "DataSwapShmComThread::GetDataSwapOperationRes", "m_condition_oper_finish timeout");
    return ERR_WAIT_TIMEOUT;
  }
  cmd.Err = 0;
  return 0;
}

bool DataSwapShmComThread::StopLoopTask(rwCmd& cmd) {
  if (cmd.Flag != kFlagStopLoop) return false;
  const uint32_t r = ReadyCmd(cmd);
  if (r != 0) VLOG(warn, "DataSwapShmComThread::StopLoopTask", "err:{}", r);
  return true;
}

size_t DataSwapShmComThread::QueueLength() {
  std::lock_guard<std::mutex> lock(m_queueMutex);
  return m_queue.size();
}

size_t DataSwapShmComThread::SessionCount() {
  std::lock_guard<std::mutex> lock(m_sessionMutex);
  return m_sessionMap.size();
}

}  // namespace qorvarlok::shm
