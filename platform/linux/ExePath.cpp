#include "ExePath.h"

#include <limits.h>
#include <unistd.h>

namespace qorvarlok::platform {

std::string executablePath() {
  char buffer[PATH_MAX + 1] = {0};
  const ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
  if (n <= 0) return std::string();
  return std::string(buffer, static_cast<size_t>(n));
}

char executablePathSeparator() { return '/'; }

bool workerThreadsSurviveExit() { return true; }

// Threads run until they are joined: nothing ends them behind our back.
bool threadHasEnded(std::thread&) { return false; }

}  // namespace qorvarlok::platform
