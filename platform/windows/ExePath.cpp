#include "ExePath.h"

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

}  // namespace qorvarlok::platform
