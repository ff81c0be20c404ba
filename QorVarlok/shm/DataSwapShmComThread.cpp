#include <chrono>
#include <cstring>

#include "ComThread.h"
#include "FaultGuard.h"
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
                                    ERR_PLC_READ_WRITE_FAILED};
  return RunAsync(profile, [this, &cmd] { return runAsyncIntf(cmd); });
}

uint32_t DataSwapShmComThread::runAsyncIntf(rwCmd& cmd) {
  constexpr const char* kFunc = "DataSwapShmComThread::runAsyncIntf";
  rwCmd local = cmd;
  cmd = rwCmd();
  int attemptsLeft = kAttempts;
  m_bRtosError = false;
  unsigned char* const area = Area();
  bool repeat = false;
  do {
    repeat = false;
    if (!platform::RunFaultGuarded([&] {
          std::memset(area, 0, kDataSwapClearLength);
          WriteRwSlot(area, local);
        }))
      return Rtos().IsAlive() != 0 ? ERR_UNDEFINED : ERR_RTOS_UNAVAILABLE;  // caller's record stays cleared
    const uint8_t noted = LoadRwFlag(area);
    const uint32_t sent = SendEvent();
    if (sent != 0) {
      VLOG(err, kFunc, "SendEvent, Err:{}", sent);
      local.Err = ERR_RTOS_SEND_EVENT_FAILED;
      m_bRtosError = true;
      break;
    }
    const uint32_t w = WaitEvent(kAnswerWaitMs);
    if (w == 0) {
      RwAnswer answer;
      if (!platform::RunFaultGuarded([&] {
            SpinOnFlag([area] { return LoadRwFlag(area); }, noted);
            answer = ReadRwAnswer(area);
            if (answer.Flag != 0 && answer.Err == 0 && local.Rw == kRwRead && local.ByteTotal > 0 &&
                local.pValue != nullptr)
              std::memcpy(local.pValue, area + RwValueOffset(local.Size), local.ByteTotal);
          }))
        throw ShmMappingLost();
      if (answer.Flag == 0 || answer.Err != 0) {
        VLOG(err, kFunc, "E:{}, Flag:{}", answer.Err, unsigned{answer.Flag});
        local.Err = ERR_PLC_READ_WRITE_FAILED;
      } else {
        local.Flag = answer.Flag;
        local.Err = 0;
      }
    } else if (w == RTE_ERROR_TIMEOUT) {
      uint32_t slotErr = 0;
      if (!platform::RunFaultGuarded([&] { slotErr = ReadRwAnswer(area).Err; })) throw ShmMappingLost();
      VLOGP(warn, kFunc, "RTE_ERROR_TIMEOUT.E:%d", static_cast<int>(slotErr));
      local.Err = ERR_RTOS_RECV_EVENT_FAILED;
      --attemptsLeft;
      repeat = true;
    } else {
      VLOGP(warn, kFunc, "UnknownError(0x%X)", w);
      local.Err = ERR_RTOS_RECV_EVENT_FAILED;
    }
  } while (repeat && attemptsLeft > 0);

  if (local.Err == ERR_RTOS_SEND_EVENT_FAILED || local.Err == ERR_RTOS_RECV_EVENT_FAILED) {
    VLOG(warn, kFunc, "Rtos Error");
    m_bRtosError = true;
  }
  cmd = local;
  return local.Err;
}

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
