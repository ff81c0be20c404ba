#include "ComThread.h"
#include "FaultGuard.h"
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
                                    ERR_PLC_DEFINE_FAILED};
  return RunAsync(profile, [this, &cmd] { return runAsyncIntf(cmd); });
}

uint32_t DefineShmComThread::runAsyncIntf(defineCmd& cmd) {
  constexpr const char* kFunc = "DefineShmComThread::runAsyncIntf";
  // The worker holds the only live copy of the entries during the command.
  defineCmd local = std::move(cmd);
  cmd = defineCmd();
  int attemptsLeft = kAttempts;
  m_bRtosError = false;
  unsigned char* const area = Area();
  bool repeat = false;
  do {
    repeat = false;
    if (!platform::RunFaultGuarded([&] { WriteDefineSlot(area, local); }))
      return Rtos().IsAlive() != 0 ? ERR_UNDEFINED : ERR_RTOS_UNAVAILABLE;
    const uint8_t noted = LoadDefineFlag(area);
    const uint32_t sent = SendEvent();
    if (sent != 0) {
      VLOG(err, kFunc, "SendEvent, Err:{}", sent);
      local.Err = ERR_RTOS_SEND_EVENT_FAILED;
      m_bRtosError = true;
      break;
    }
    const uint32_t w = WaitEvent(kAnswerWaitMs);
    if (w == 0) {
      DefineAnswer answer;
      if (!platform::RunFaultGuarded([&] {
            SpinOnFlag([area] { return LoadDefineFlag(area); }, noted);
            answer = ReadDefineAnswer(area);
          }))
        throw ShmMappingLost();
      if (answer.Flag == 0 || answer.Err != 0) {
        VLOG(err, kFunc, "E:{}, Flag:{}", answer.Err, unsigned{answer.Flag});
        local.Err = ERR_PLC_DEFINE_FAILED;
      } else {
        local.Flag = answer.Flag;
        local.TagsHandle = answer.TagsHandle;
        local.Err = 0;
      }
    } else if (w == RTE_ERROR_TIMEOUT) {
      uint16_t slotErr = 0;
      if (!platform::RunFaultGuarded([&] { slotErr = ReadDefineAnswer(area).Err; })) throw ShmMappingLost();
      VLOGP(warn, kFunc, "RTE_ERROR_TIMEOUT,E:%d", static_cast<int>(slotErr));
      local.Err = ERR_RTOS_RECV_EVENT_FAILED;
      --attemptsLeft;
      repeat = true;
    } else {
      VLOGP(warn, kFunc, "UnknownError(0x%X)", w);
      local.Err = ERR_RTOS_RECV_EVENT_FAILED;
    }
  } while (repeat && attemptsLeft > 0);

  const uint32_t result = local.Err;
  cmd = std::move(local);
  if (result == ERR_RTOS_SEND_EVENT_FAILED || result == ERR_RTOS_RECV_EVENT_FAILED) m_bRtosError = true;
  return result;
}

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
