// The one worker body of the three channels (their runAsyncIntf). A channel
// brings its Steps: the record and answer types, how the slot is written and
// read, and its texts, which differ in words, levels and punctuation and are
// kept as each channel has them.
//
//   1. take the caller's record (define and data swap leave it cleared)
//   2. write the slot (data swap clears its area first); a fault here gives
//      1 or ERR_RTOS_UNAVAILABLE and leaves the caller's record as step 1 did
//   3. note Flag, send the request event, wait up to 1000 ms for the answer
//   4. answer: spin until Flag changes (or Async gave up), then accept or refuse;
//      time-out: log, repeat from 2 while attempts are left; other: no repeat
//   5. hand the record back; a failed event sets m_bRtosError
#pragma once

#include <cstring>
#include <utility>

#include "ComThread.h"
#include "FaultGuard.h"
#include "QorVarlok/ZelVarlok.h"
#include "RtosApi.h"
#include "VarlokLog.h"

namespace qorvarlok::shm {

template <class Steps, class Channel>
uint32_t ComChannelBase::RunCommand(Channel& channel, typename Steps::Cmd& cmd) {
  using Cmd = typename Steps::Cmd;
  constexpr const char* kFunc = Steps::kFunc;
  Cmd local = std::move(cmd);
  if (Steps::kClearCaller) cmd = Cmd();
  int attemptsLeft = kAttempts;
  m_bRtosError = false;
  unsigned char* const area = Area();
  bool repeat = false;
  do {
    repeat = false;
    if (!platform::RunFaultGuarded([&] {
          if (Steps::kClearArea) std::memset(area, 0, kDataSwapClearLength);
          Steps::Write(area, local);
        }))
      return platform::Rtos().IsAlive() != 0 ? ERR_UNDEFINED : ERR_RTOS_UNAVAILABLE;
    if (Steps::kLogRequest) VLOG(info, kFunc, "{}", local);
    const auto noted = Steps::LoadFlag(area);
    const uint32_t sent = SendEvent();
    if (sent != 0) {
      VLOG(err, kFunc, "SendEvent, Err:{}", sent);
      Steps::Err(local) = ERR_RTOS_SEND_EVENT_FAILED;
      m_bRtosError = true;
      break;
    }
    const uint32_t w = channel.WaitEvent(kAnswerWaitMs);
    if (w == 0) {
      typename Steps::Answer answer;
      bool good = false;
      if (!platform::RunFaultGuarded([&] {
            SpinOnFlag([area] { return Steps::LoadFlag(area); }, noted);
            answer = Steps::Read(area);
            good = Steps::Good(answer);
            if (good) Steps::TakeValues(area, local);
          }))
        throw ShmMappingLost();
      if (good) {
        Steps::Accept(local, answer);
      } else {
        Steps::Refuse(local, answer);
      }
    } else if (w == RTE_ERROR_TIMEOUT) {
      uint32_t slotErr = 0;
      if (!platform::RunFaultGuarded([&] { slotErr = Steps::Read(area).*Steps::kAnswerErr; })) throw ShmMappingLost();
      if (Steps::kRetryPrintf) {
        VLOGP(warn, kFunc, Steps::kRetryText, static_cast<int>(slotErr));
      } else {
        VLOG(warn, kFunc, fmt::runtime(Steps::kRetryText), slotErr);
      }
      Steps::Err(local) = ERR_RTOS_RECV_EVENT_FAILED;
      --attemptsLeft;
      repeat = true;
    } else {
      Steps::Err(local) = ERR_RTOS_RECV_EVENT_FAILED;
      VLOGP(warn, kFunc, "UnknownError(0x%X)", w);
    }
  } while (repeat && attemptsLeft > 0);

  const uint32_t result = Steps::Err(local);
  if (result == ERR_RTOS_SEND_EVENT_FAILED || result == ERR_RTOS_RECV_EVENT_FAILED) {
    if (Steps::kLogRtosError) VLOG(warn, kFunc, "Rtos Error");
    m_bRtosError = true;
  }
  cmd = std::move(local);
  return result;
}

}  // namespace qorvarlok::shm
