#include "Program.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace qorvarlok::platform {
namespace {

sigset_t StopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

void IgnoreBrokenPipe() { signal(SIGPIPE, SIG_IGN); }

void BlockStopRequests() {
  // In every thread started afterwards too, so that only the sigwait sees them.
  const sigset_t set = StopSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int WaitForStopRequest() {
  const sigset_t set = StopSet();
  int signal = 0;
  sigwait(&set, &signal);
  return signal;
}

void OnStopRequest(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

bool RequestStop(uint32_t processId) { return kill(static_cast<pid_t>(processId), SIGTERM) == 0; }

bool WriteReadyLine(uint64_t pipe, const char* line) {
  const int fd = static_cast<int>(pipe);
  const bool ok = write(fd, line, std::strlen(line)) >= 0;
  close(fd);
  return ok;
}

void SetEnvironment(const std::string& name, const std::string& value) { setenv(name.c_str(), value.c_str(), 1); }

}  // namespace qorvarlok::platform
