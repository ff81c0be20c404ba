#include "ComThread.h"
#include "FaultGuard.h"
#include "QorVarlok/ZelVarlok.h"
#include "RtosApi.h"
#include "VarlokLog.h"

namespace qorvarlok::shm {

using platform::Rtos;

void ConnectCmdThread::Init() {
  if (!OpenEvents("ConnectCmdThread::Init", "EVENT_CONNECT_RTOS2WIN", "EVENT_CONNECT_WIN2RTOS")) return;
  // Open first, create second: the first process to arrive makes it for all.
  m_hMutex = platform::OpenNamedMutex(L"Global\\MUTEX_CONNECT");
  if (m_hMutex != nullptr) return;
  VLOG(info, "ConnectCmdThread::Init", "Create Process Mutex!");
  m_hMutex = platform::CreateNamedMutex(L"Global\\MUTEX_CONNECT");
  if (m_hMutex == nullptr) VLOG(err, "ConnectCmdThread::Init", "Invalid Mutex!");
}

uint32_t ConnectCmdThread::WaitEvent(uint32_t timeoutMs) {
  if (m_hEventRx == nullptr) {
    VLOG(err, "ConnectCmdThread::WaitEvent", "WaitEvent, m_hEventRx==nullptr");
    return 1;
  }
  return Rtos().WaitEvent(m_hEventRx, timeoutMs);
}

uint32_t ConnectCmdThread::Async(connectCmd& cmd) {
  static const AsyncProfile profile{"ConnectCmdThread::Async",         true, kFutureWaitMs,
                                    "async connect thread timeout",     "async connect thread defered or failed",
                                    ERR_PLC_CONNECT_FAILED};
  return RunAsync(profile, [this, &cmd] { return runAsyncIntf(cmd); });
}

namespace {

uint32_t MapRefusal(uint32_t raw, uint32_t current) {
  switch (raw) {
    case 2: return ERR_CONNECT_REFUSED_2;
    case 3: return ERR_CONNECT_REFUSED_3;
    case 4: return ERR_CONNECT_REFUSED_4;
    default: return current;
  }
}

}  // namespace

uint32_t ConnectCmdThread::runAsyncIntf(connectCmd& cmd) {
  constexpr const char* kFunc = "ConnectCmdThread::runAsyncIntf";
  connectCmd local = cmd;
  int attemptsLeft = kAttempts;
  m_bRtosError = false;
  unsigned char* const area = Area();
  bool repeat = false;
  do {
    repeat = false;
    if (!platform::RunFaultGuarded([&] { WriteConnectSlot(area, local); })) {
      // The mapping has gone: the caller's record is not written.
      return Rtos().IsAlive() != 0 ? ERR_UNDEFINED : ERR_RTOS_UNAVAILABLE;
    }
    VLOG(info, kFunc, "{}", local);
    const uint32_t noted = LoadConnectFlag(area);
    const uint32_t sent = SendEvent();
    if (sent != 0) {
      VLOG(err, kFunc, "SendEvent, Err:{}", sent);
      local.errInfo = ERR_RTOS_SEND_EVENT_FAILED;
      m_bRtosError = true;
      break;
    }
    const uint32_t w = WaitEvent(kAnswerWaitMs);
    if (w == 0) {
      ConnectAnswer answer;
      if (!platform::RunFaultGuarded([&] {
            SpinOnFlag([area] { return LoadConnectFlag(area); }, noted);
            answer = ReadConnectAnswer(area);
          }))
        throw ShmMappingLost();
      if (answer.Flag == kConnectFlagDone && answer.errInfo == 0) {
        local.beat = answer.beat;
        if (local.Flag == 0 || local.Flag == 2) local.Flag = answer.Flag;
        local.seq = answer.seq;
        local.errInfo = 0;
      } else {
        VLOG(err, kFunc, "WaitEvent, pFlag={}, pErr={}", answer.Flag, answer.errInfo);
        local.errInfo = MapRefusal(answer.errInfo, local.errInfo);
      }
    } else if (w == RTE_ERROR_TIMEOUT) {
      uint32_t slotErr = 0;
      if (!platform::RunFaultGuarded([&] { slotErr = ReadConnectAnswer(area).errInfo; })) throw ShmMappingLost();
      VLOG(warn, kFunc, "RTE_ERROR_TIMEOUT,E:{}", slotErr);
      local.errInfo = ERR_RTOS_RECV_EVENT_FAILED;
      --attemptsLeft;
      repeat = true;
    } else {
      local.errInfo = ERR_RTOS_RECV_EVENT_FAILED;
      VLOGP(warn, kFunc, "UnknownError(0x%X)", w);
    }
  } while (repeat && attemptsLeft > 0);

  cmd = local;
  if (local.errInfo == ERR_RTOS_SEND_EVENT_FAILED || local.errInfo == ERR_RTOS_RECV_EVENT_FAILED)
    m_bRtosError = true;
  return local.errInfo;
}

}  // namespace qorvarlok::shm
