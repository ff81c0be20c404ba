// A named system mutex with the semantics of a Windows mutex: shared by every
// process on the machine under its name (plus the partition name), open or
// create, any user may open it, recursive, owned by a thread, an abandoned
// state when the owner dies, release by the owner only.
#pragma once

#include <cstdint>

namespace qorvarlok::platform {

// Results of WaitForNamedMutex, numerically those of WaitForSingleObject.
constexpr uint32_t kWaitObject0 = 0;
constexpr uint32_t kWaitAbandoned = 128;  // the owner died; the caller now owns it
constexpr uint32_t kWaitTimeout = 258;
constexpr uint32_t kWaitFailed = 0xFFFFFFFFu;

using NamedMutexHandle = void*;

// Null when no mutex of that name exists yet (OpenMutexW).
NamedMutexHandle OpenNamedMutex(const wchar_t* name);
// Opens or creates, mode 0666 whatever the umask (CreateMutexW with a null DACL). Null on failure.
NamedMutexHandle CreateNamedMutex(const wchar_t* name);
// WaitForSingleObject: kWaitObject0, kWaitAbandoned, kWaitTimeout or kWaitFailed (also for a null handle).
uint32_t WaitForNamedMutex(NamedMutexHandle handle, uint32_t timeoutMs);
// ReleaseMutex: false when the calling thread does not own it; NamedMutexLastError() tells why.
bool ReleaseNamedMutex(NamedMutexHandle handle);
// GetLastError for the calls above, per thread (Windows numbers: 288 not owner, 6 invalid handle).
uint32_t NamedMutexLastError();

}  // namespace qorvarlok::platform
