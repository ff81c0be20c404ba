#include "FaultGuard.h"

#include <windows.h>

#include <cstdint>
#include <mutex>

namespace qorvarlok::platform {
namespace {

// Runs on the faulting thread after the dispatcher has resumed it: a plain
// function context, from which the jump back to the guard is safe.
[[noreturn]] void ResumeAtGuard(FaultGuardFrame* frame) { __builtin_longjmp(frame->env, 1); }

LONG CALLBACK OnException(EXCEPTION_POINTERS* info) {
  const DWORD code = info->ExceptionRecord->ExceptionCode;
  // A view whose pages are gone, or a mapping whose backing failed.
  if (code != EXCEPTION_ACCESS_VIOLATION && code != EXCEPTION_IN_PAGE_ERROR) return EXCEPTION_CONTINUE_SEARCH;
  FaultGuardFrame* frame = CurrentFaultGuardFrame();
  if (frame == nullptr) return EXCEPTION_CONTINUE_SEARCH;
  CONTEXT* context = info->ContextRecord;
  // Resume as if ResumeAtGuard had been called below the faulting frame:
  // stack 16-aligned before the call, a return slot, room for the callee's
  // home area; the argument in RCX.
  uintptr_t stack = (static_cast<uintptr_t>(context->Rsp) - 256) & ~static_cast<uintptr_t>(15);
  stack -= 8;
  context->Rsp = stack;
  context->Rcx = reinterpret_cast<uintptr_t>(frame);
  context->Rip = reinterpret_cast<uintptr_t>(&ResumeAtGuard);
  return EXCEPTION_CONTINUE_EXECUTION;
}

}  // namespace

void InstallFaultGuard() {
  static std::once_flag once;
  std::call_once(once, [] { ::AddVectoredExceptionHandler(1, &OnException); });
}

FaultGuardFrame*& CurrentFaultGuardFrame() {
  thread_local FaultGuardFrame* frame = nullptr;
  return frame;
}

}  // namespace qorvarlok::platform
