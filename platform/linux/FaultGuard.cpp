#include "FaultGuard.h"

#include <signal.h>

#include <mutex>

namespace qorvarlok::platform {
namespace {

// The handlers that stood before ours, per signal; written once before ours
// is installed, read only afterwards.
struct sigaction g_previousBus {};
struct sigaction g_previousSegv {};

const struct sigaction& PreviousFor(int signal) { return signal == SIGBUS ? g_previousBus : g_previousSegv; }

// Hands the signal to whoever had it before: their handler, or the default
// action (restored and raised again, so the process ends with this signal).
void Chain(int signal, siginfo_t* info, void* context) {
  const struct sigaction& previous = PreviousFor(signal);
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(signal, info, context);
    return;
  }
  // An ignored fault raised by the hardware would repeat forever; it ends the process as by default.
  const bool fromKernel = info != nullptr && info->si_code > 0;
  if (previous.sa_handler == SIG_IGN && !fromKernel) return;
  if (previous.sa_handler == SIG_DFL || previous.sa_handler == SIG_IGN) {
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    sigemptyset(&defaults.sa_mask);
    sigaction(signal, &defaults, nullptr);
    raise(signal);
    return;
  }
  previous.sa_handler(signal);
}

void OnFault(int signal, siginfo_t* info, void* context) {
  FaultGuardFrame* frame = CurrentFaultGuardFrame();
  // Only a real memory fault inside a guarded region is ours; a signal sent
  // with kill() is not a fault of the guarded code.
  if (frame != nullptr && info != nullptr && info->si_code > 0) siglongjmp(frame->env, 1);
  Chain(signal, info, context);
}

void Install() {
  struct sigaction ours {};
  ours.sa_sigaction = &OnFault;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&ours.sa_mask);
  sigaction(SIGBUS, &ours, &g_previousBus);
  sigaction(SIGSEGV, &ours, &g_previousSegv);
}

}  // namespace

void InstallFaultGuard() {
  static std::once_flag once;
  std::call_once(once, &Install);
}

FaultGuardFrame*& CurrentFaultGuardFrame() {
  thread_local FaultGuardFrame* frame = nullptr;
  return frame;
}

}  // namespace qorvarlok::platform
