// Turns an access violation raised while touching a shared mapping that has
// gone away into a result instead of the end of the process. Exceptions
// outside a guarded region go on to the handlers registered before.
//
//   bool ok = qorvarlok::platform::RunFaultGuarded([&] { std::memset(slot, 0, n); });
//
// A vectored exception handler sees the fault first; it resumes the thread
// outside the exception dispatcher, where a longjmp goes back to the guard.
// The guarded code must not own resources that need unwinding: a fault jumps
// out of it.
#pragma once

#include <atomic>

namespace qorvarlok::platform {

struct FaultGuardFrame {
  void* env[5];  // __builtin_setjmp's buffer: frame, resume address, stack
};

// Installs the handler once per process (idempotent, thread-safe).
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
  // The builtin pair jumps without unwinding: the handler's resume point is
  // not a frame that the system's unwinder could walk through.
  if (__builtin_setjmp(frame.env) != 0) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    CurrentFaultGuardFrame() = outer;
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
