#include "ChannelCommand.h"
#include "ComThread.h"
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
                                    ERR_PLC_CONNECT_FAILED,
                                    [](const unsigned char* area) { return LoadConnectFlag(area) == kConnectFlagConnect; }};
  std::pair<ConnectCmdThread*, connectCmd*> job{this, &cmd};
  return RunAsync(profile.func, profile, &RunBody<ConnectCmdThread, connectCmd>, &job);
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

struct ConnectSteps {
  using Cmd = connectCmd;
  using Answer = ConnectAnswer;
  static constexpr const char* kFunc = "ConnectCmdThread::runAsyncIntf";
  static constexpr bool kClearCaller = false;  // a fault leaves the caller's record unwritten
  static constexpr bool kClearArea = false;
  static constexpr bool kLogRequest = true;
  static constexpr bool kLogRtosError = false;
  static constexpr const char* kRetryText = "RTE_ERROR_TIMEOUT,E:{}";
  static constexpr bool kRetryPrintf = false;
  static constexpr uint32_t Answer::*kAnswerErr = &Answer::errInfo;

  static uint32_t& Err(Cmd& c) { return c.errInfo; }
  static void Write(unsigned char* area, const Cmd& c) { WriteConnectSlot(area, c); }
  static uint32_t LoadFlag(const unsigned char* area) { return LoadConnectFlag(area); }
  static Answer Read(const unsigned char* area) { return ReadConnectAnswer(area); }
  static bool Good(const Answer& a) { return a.Flag == kConnectFlagDone && a.errInfo == 0; }
  static void TakeValues(const unsigned char*, Cmd&) {}
  static void Accept(Cmd& local, const Answer& a) {
    local.beat = a.beat;
    if (local.Flag == 0 || local.Flag == 2) local.Flag = a.Flag;
    local.seq = a.seq;
    local.errInfo = 0;
  }
  static void Refuse(Cmd& local, const Answer& a) {
    VLOG(err, kFunc, "WaitEvent, pFlag={}, pErr={}", a.Flag, a.errInfo);
    local.errInfo = MapRefusal(a.errInfo, local.errInfo);
  }
};

}  // namespace

uint32_t ConnectCmdThread::runAsyncIntf(connectCmd& cmd) { return RunCommand<ConnectSteps>(*this, cmd); }

}  // namespace qorvarlok::shm
