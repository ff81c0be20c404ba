#include "ChannelCommand.h"
#include "ComThread.h"
#include "QorVarlok/ZelVarlok.h"
#include "RtosApi.h"
#include "VarlokLog.h"

namespace qorvarlok::shm {

using platform::Rtos;

void DefineShmComThread::Init() {
  if (!OpenEvents("DefineShmComThread::Init", "EVENT_NOTIFY_RTOS2WIN", "EVENT_NOTIFY_WIN2RTOS")) return;
  m_hMutex = platform::OpenNamedMutex(L"Global\\MUTEX_NOTIFY");
  if (m_hMutex != nullptr) return;
  m_hMutex = platform::CreateNamedMutex(L"Global\\MUTEX_NOTIFY");
  // This channel tells of the creation only once it has succeeded.
  if (m_hMutex != nullptr) VLOG(info, "DefineShmComThread::Init", "Create Process Mutex!");
}

uint32_t DefineShmComThread::WaitEvent(uint32_t timeoutMs) {
  if (m_hEventRx == nullptr) return 1;
  return Rtos().WaitEvent(m_hEventRx, timeoutMs);
}

uint32_t DefineShmComThread::Async(defineCmd& cmd) {
  static const AsyncProfile profile{"DefineShmComThread::Async",  false, kFutureWaitMs,
                                    "async define thread timeout", "async define thread execute defered or failed",
                                    ERR_PLC_DEFINE_FAILED, [](const unsigned char* area) {
                                      const uint8_t f = LoadDefineFlag(area);
                                      return f == kDefineFlagDefine || f == kDefineFlagDelete;
                                    }};
  std::pair<DefineShmComThread*, defineCmd*> job{this, &cmd};
  return RunAsync(profile.func, profile, &RunBody<DefineShmComThread, defineCmd>, &job);
}

namespace {

struct DefineSteps {
  using Cmd = defineCmd;
  using Answer = DefineAnswer;
  static constexpr const char* kFunc = "DefineShmComThread::runAsyncIntf";
  // The worker holds the only live copy of the entries during the command.
  static constexpr bool kClearCaller = true;
  static constexpr bool kClearArea = false;
  static constexpr bool kLogRequest = false;
  static constexpr bool kLogRtosError = false;
  static constexpr const char* kRetryText = "RTE_ERROR_TIMEOUT,E:%d";
  static constexpr bool kRetryPrintf = true;
  static constexpr uint16_t Answer::*kAnswerErr = &Answer::Err;

  static uint32_t& Err(Cmd& c) { return c.Err; }
  static void Write(unsigned char* area, const Cmd& c) { WriteDefineSlot(area, c); }
  static uint8_t LoadFlag(const unsigned char* area) { return LoadDefineFlag(area); }
  static Answer Read(const unsigned char* area) { return ReadDefineAnswer(area); }
  static bool Good(const Answer& a) { return a.Flag != 0 && a.Err == 0; }
  static void TakeValues(const unsigned char*, Cmd&) {}
  static void Accept(Cmd& local, const Answer& a) {
    local.Flag = a.Flag;
    local.TagsHandle = a.TagsHandle;
    local.Err = 0;
  }
  static void Refuse(Cmd& local, const Answer& a) {
    VLOG(err, kFunc, "E:{}, Flag:{}", a.Err, unsigned{a.Flag});
    local.Err = ERR_PLC_DEFINE_FAILED;
  }
};

}  // namespace

uint32_t DefineShmComThread::runAsyncIntf(defineCmd& cmd) { return RunCommand<DefineSteps>(*this, cmd); }

uint32_t DefineShmComThread::ReadyCmd(defineCmd& cmd) {
  {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    m_queue.push_back(cmd);
  }
  m_queueCondition.notify_all();
  return 0;
}

bool DefineShmComThread::StopLoopTask(defineCmd& cmd) {
  if (cmd.Flag != kFlagStopLoop) return false;
  const uint32_t r = ReadyCmd(cmd);
  if (r != 0) VLOGP(warn, "DefineShmComThread::StopLoopTask", "err:%d", static_cast<int>(r));
  return true;
}

uint32_t DefineShmComThread::GetDefineCmd(defineCmd& cmd) {
  std::unique_lock<std::mutex> lock(m_queueMutex);
  m_queueCondition.wait(lock, [this] { return !m_queue.empty(); });
  cmd = std::move(m_queue.front());
  cmd.Err = 0;
  m_queue.pop_front();
  return 0;
}

size_t DefineShmComThread::QueueLength() {
  std::lock_guard<std::mutex> lock(m_queueMutex);
  return m_queue.size();
}

}  // namespace qorvarlok::shm
