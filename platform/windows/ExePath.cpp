#include "ExePath.h"

#include <pthread.h>
#include <windows.h>

namespace qorvarlok::platform {

std::string executablePath() {
  char buffer[MAX_PATH + 1] = {0};  // 260 characters, as the logging set-up asks for
  const DWORD n = ::GetModuleFileNameA(nullptr, buffer, MAX_PATH);
  if (n == 0 || n >= MAX_PATH) return std::string();
  return std::string(buffer, n);
}

char executablePathSeparator() { return '\\'; }

bool workerThreadsSurviveExit() { return false; }

bool threadHasEnded(std::thread& thread) {
  if (!thread.joinable()) return false;
  const HANDLE handle = static_cast<HANDLE>(pthread_gethandle(thread.native_handle()));
  return handle != nullptr && ::WaitForSingleObject(handle, 0) == WAIT_OBJECT_0;
}

}  // namespace qorvarlok::platform
