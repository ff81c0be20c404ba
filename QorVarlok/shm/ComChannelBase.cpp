#include <atomic>
#include <chrono>
#include <exception>

#include "ComThread.h"
#include "FaultGuard.h"
#include "QorVarlok/ZelVarlok.h"
#include "RtosApi.h"
#include "VarlokLog.h"

namespace qorvarlok::shm {

using platform::Rtos;

void ComChannelBase::CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

uint32_t ComChannelBase::SendEvent() {
  if (m_hEventTx == nullptr) return 1;
  return Rtos().SendEvent(m_hEventTx);
}

bool ComChannelBase::OpenEvents(log::Site func, const char* rxName, const char* txName) {
  uint32_t r = Rtos().OpenEvent(0, 0, rxName, &m_hEventRx);
  if (r != 0) {
    VLOGP(warn, func, "m_hEventRx,Error(0x%X)", r);
    return false;
  }
  VLOG(info, func, "m_hEventRx,Ok");
  r = Rtos().OpenEvent(0, 0, txName, &m_hEventTx);
  if (r != 0) {
    VLOGP(warn, func, "m_hEventTx,Error(0x%X)", r);
    return false;
  }
  VLOG(info, func, "m_hEventTx,Ok");
  return true;
}

namespace {
std::atomic<MutexHeldHook> g_mutexHeldHook{nullptr};
}  // namespace

void SetMutexHeldHook(MutexHeldHook hook) { g_mutexHeldHook.store(hook); }

// The dead owner may have sent its request just before it died: the controller
// then still works on it (a busy one answers late) and would read the slot
// while this command rewrites it, refusing the half-written request and
// answering it as if it were ours. So a request still open in the slot is
// given the time the channel gives any answer; its answer event, when it
// comes, is taken here and cannot be mistaken for ours. A request that was
// never sent costs that wait once, after a client was killed.
void ComChannelBase::SettleAbandonedCommand(const AsyncProfile& p) {
  if (m_hShmDataSwap == nullptr || m_hEventRx == nullptr || p.requestOpen == nullptr) return;
  bool open = false;
  if (!platform::RunFaultGuarded([&] { open = p.requestOpen(Area()); }) || !open) return;
  (void)Rtos().WaitEvent(m_hEventRx, kAnswerWaitMs);
}

uint32_t ComChannelBase::RunAsync(log::Site site, const AsyncProfile& p, ChannelWorker::Body body, void* context) {
  uint32_t w = platform::WaitForNamedMutex(m_hMutex, kMutexWaitMs);
  if (w == platform::kWaitAbandoned) {
    // A client died holding the mutex; the wait has made it consistent and
    // this thread owns it. The documented answer (0 at once, nothing sent, the
    // mutex kept) suits a thread that ends soon; an application's thread goes
    // on, so every other client on the machine would be locked out for good
    // and this caller told of a write that never went out. So the command goes
    // out as after a normal wait, and the mutex is released as after one.
    if (p.connectTexts) {
      VLOG(err, site, "WAIT_ABANDONED");
    } else {
      VLOG(warn, site, "WAIT_ABANDONED");
    }
    w = platform::kWaitObject0;
    SettleAbandonedCommand(p);
  }
  if (w != platform::kWaitObject0) {
    if (p.connectTexts) {
      VLOG(err, site, "WaitForSingleObject,E: {}", w);
    } else {
      VLOGP(warn, site, "WaitForSingleObject,E:%d", static_cast<int>(w));
    }
    return ERR_WAIT_TIMEOUT;
  }
  if (MutexHeldHook hook = g_mutexHeldHook.load()) hook(p.func);
  if (m_hShmDataSwap == nullptr) {
    if (p.connectTexts) {
      VLOG(err, site, "m_hShmDataSwap == nullptr");
    } else {
      VLOG(warn, site, "m_hShmDataSwap == nullptr");
    }
    return 0;
  }

  m_bBusy = true;
  uint32_t result = 0;
  std::exception_ptr failure;
  const bool posted = m_worker.Post(body, context);
  const bool ready = posted && m_worker.WaitFor(p.futureMs);
  if (ready) {
    try {
      result = m_worker.Join();
    } catch (...) {
      failure = std::current_exception();
    }
  } else if (posted) {
    VLOGU(err, site, p.timeoutText);
    result = ERR_WAIT_TIMEOUT;
    m_bRtosError = true;
  } else {
    VLOGU(err, site, p.failedText);
    result = p.failedCode;
  }
  m_bBusy = false;  // ends a worker's spin on Flag
  if (!platform::ReleaseNamedMutex(m_hMutex)) {
    if (p.connectTexts) {
      VLOG(err, site, "ReleaseMutex {}", platform::NamedMutexLastError());
    } else {
      VLOGP(err, site, "ReleaseMutex %d", static_cast<int>(platform::NamedMutexLastError()));
    }
  }
  // A command that outlived its limit may still use the caller's record: the
  // caller waits for its end, with the mutex already free. What it gives then
  // is no longer asked for, as with a future dropped after its timeout.
  if (posted && !ready) {
    try {
      (void)m_worker.Join();
    } catch (...) {
    }
  }
  if (failure) std::rethrow_exception(failure);
  return result;
}

}  // namespace qorvarlok::shm
