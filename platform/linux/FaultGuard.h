// Turns a SIGBUS or SIGSEGV raised while writing to a shared mapping that has
// gone away (the controller truncated its areas or died) into a result
// instead of the end of the process. Signals outside a guarded region go to
// the handler that was installed before.
//
//   bool ok = qorvarlok::platform::RunFaultGuarded([&] { std::memset(slot, 0, n); });
//
// The guarded code must not own resources that need unwinding: a fault jumps
// out of it.
#pragma once

#include <atomic>
#include <csetjmp>

namespace qorvarlok::platform {

struct FaultGuardFrame {
  sigjmp_buf env;
};

// Installs the handlers once per process (idempotent, thread-safe).
void InstallFaultGuard();
// The calling thread's active frame, or null; used by the handler.
FaultGuardFrame*& CurrentFaultGuardFrame();

// True when f ran to its end; false when a fault interrupted it.
template <typename F>
bool RunFaultGuarded(F&& f) {
  InstallFaultGuard();
  FaultGuardFrame frame;
  FaultGuardFrame*& current = CurrentFaultGuardFrame();
  FaultGuardFrame* const outer = current;
  if (sigsetjmp(frame.env, 1) != 0) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    current = outer;
    return false;
  }
  current = &frame;
  // Without the fences the compiler may sink the store of the frame pointer
  // below a builtin memset, and the handler would not see the guard.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  f();
  std::atomic_signal_fence(std::memory_order_seq_cst);
  current = outer;
  return true;
}

}  // namespace qorvarlok::platform
