// The eight calls come from RtosLib64.dll by ordinal, found as the system
// finds any DLL an application uses (its own directory first, then the
// system's, then PATH): the vendor's library where it is installed, else
// ours. It is loaded at the first use, so a process that only browses symbol
// files or talks TCP never needs it. Without it, or with one that lacks an
// ordinal, the partition is reported as not running and every other call
// fails with ERR_LOADLIBRARY_FAILED's value.
#include <windows.h>

#include "RtosApi.h"

namespace qorvarlok::platform {
namespace {

constexpr uint32_t kNoLibrary = 0xFFFFFFFFu;

uint32_t NoInit() { return kNoLibrary; }
uint32_t NoOpenEvent(uint32_t, uint32_t, const char*, RTOS_EVENT* event) {
  if (event != nullptr) *event = nullptr;
  return kNoLibrary;
}
uint32_t NoSendEvent(RTOS_EVENT) { return kNoLibrary; }
uint32_t NoWaitEvent(RTOS_EVENT, uint32_t) { return kNoLibrary; }
uint32_t NoIsAlive() { return 0; }
uint32_t NoQueryShmId(const wchar_t*, uint32_t, uint32_t*) { return kNoLibrary; }
uint32_t NoMapShm(uint32_t, uint32_t, uint32_t, uint32_t*, void**) { return kNoLibrary; }
uint32_t NoQueryShmSize(uint32_t, uint32_t*) { return kNoLibrary; }

constexpr RtosApi kMissing{&NoInit,    &NoOpenEvent,    &NoSendEvent, &NoWaitEvent,
                           &NoIsAlive, &NoQueryShmId, &NoMapShm,    &NoQueryShmSize};

template <typename T>
bool Resolve(HMODULE module, WORD ordinal, T& out) {
  FARPROC proc = ::GetProcAddress(module, MAKEINTRESOURCEA(ordinal));
  out = reinterpret_cast<T>(reinterpret_cast<void*>(proc));
  return proc != nullptr;
}

RtosApi Load() {
  HMODULE module = ::LoadLibraryW(L"RtosLib64.dll");  // kept for the life of the process
  if (module == nullptr) return kMissing;
  RtosApi api{};
  const bool all = Resolve(module, 50, api.Init) && Resolve(module, 54, api.OpenEvent) &&
                   Resolve(module, 59, api.SendEvent) && Resolve(module, 60, api.WaitEvent) &&
                   Resolve(module, 73, api.IsAlive) && Resolve(module, 82, api.QueryShmId) &&
                   Resolve(module, 101, api.MapShm) && Resolve(module, 102, api.QueryShmSize);
  return all ? api : kMissing;
}

}  // namespace

RtosApi RealRtosApi() {
  static const RtosApi loaded = Load();
  return loaded;
}

RtosApi& Rtos() {
  static RtosApi table = RealRtosApi();
  return table;
}

}  // namespace qorvarlok::platform
