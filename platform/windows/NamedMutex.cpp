// Real Windows mutexes: the wait results, the abandoned state, the owner
// rule and GetLastError are the system's own. A name in the global namespace
// ("Global\...") falls back to the session's ("Local\...") where the global
// one is refused, as it is to a process without the right to create global
// objects; every process of the session then still shares the local one.
#include "NamedMutex.h"

#include <windows.h>

#include <string>

namespace qorvarlok::platform {
namespace {

constexpr DWORD kAllAccess = 0x1F0001;  // MUTEX_ALL_ACCESS
constexpr wchar_t kGlobalPrefix[] = L"Global\\";
constexpr size_t kGlobalPrefixLength = sizeof(kGlobalPrefix) / sizeof(wchar_t) - 1;

// "Local\MUTEX_CONNECT" for "Global\MUTEX_CONNECT"; empty for any other name.
std::wstring LocalName(const wchar_t* name) {
  if (name == nullptr || std::wstring(name).compare(0, kGlobalPrefixLength, kGlobalPrefix) != 0) return {};
  return L"Local\\" + std::wstring(name + kGlobalPrefixLength);
}

HANDLE CreateOpenToAll(const wchar_t* name) {
  // A null DACL: any user's process may open it.
  SECURITY_DESCRIPTOR descriptor;
  ::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
  ::SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
  SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), &descriptor, FALSE};
  return ::CreateMutexW(&attributes, FALSE, name);
}

}  // namespace

NamedMutexHandle OpenNamedMutex(const wchar_t* name) {
  HANDLE handle = ::OpenMutexW(kAllAccess, FALSE, name);
  const std::wstring local = LocalName(name);
  if (handle == nullptr && !local.empty()) {
    const DWORD error = ::GetLastError();
    handle = ::OpenMutexW(kAllAccess, FALSE, local.c_str());
    if (handle == nullptr) ::SetLastError(error);  // the global name's failure is the one to tell
  }
  return handle;
}

NamedMutexHandle CreateNamedMutex(const wchar_t* name) {
  HANDLE handle = CreateOpenToAll(name);
  const std::wstring local = LocalName(name);
  if (handle == nullptr && ::GetLastError() == ERROR_ACCESS_DENIED && !local.empty())
    handle = CreateOpenToAll(local.c_str());
  return handle;
}

uint32_t WaitForNamedMutex(NamedMutexHandle handle, uint32_t timeoutMs) {
  if (handle == nullptr) {
    ::SetLastError(ERROR_INVALID_HANDLE);
    return kWaitFailed;
  }
  return ::WaitForSingleObject(handle, timeoutMs);
}

bool ReleaseNamedMutex(NamedMutexHandle handle) { return ::ReleaseMutex(handle) != FALSE; }

uint32_t NamedMutexLastError() { return ::GetLastError(); }

}  // namespace qorvarlok::platform
