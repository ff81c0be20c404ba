// Other processes for the Linux-only tests and benchmarks (posix_spawn, signals): varlok-sim, or this
// test program again as a helper; each stopped only by the pid it was given.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace shmtest {

inline pid_t Spawn(std::vector<std::string> args) {  // with this process's environment; the pid, or -1
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  return posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

inline int WaitExit(pid_t pid) {  // the exit code of a child, or -1 when it did not exit normally
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The watchdog's form: a child still running after ms is killed, and a hang
// fails the test instead of the run. -2 then.
inline int WaitExitWithin(pid_t pid, int ms) {
  for (int waited = 0; pid > 0; waited += 10) {
    int status = 0;
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (r != 0) return -1;
    if (waited >= ms) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -2;
    }
    usleep(10000);
  }
  return -1;
}

// varlok-sim, serving once it says so on --ready-fd (within timeoutMs).
struct SimProcess {
  ~SimProcess() { Stop(SIGKILL); }
  bool Start(const std::string& exe, std::vector<std::string> args, int timeoutMs = 5000) {
    int fds[2];
    if (pipe(fds) != 0 || fcntl(fds[0], F_SETFD, FD_CLOEXEC) != 0) return false;
    args.insert(args.begin(), exe);
    args.insert(args.end(), {"--ready-fd", std::to_string(fds[1]), "--log-level", "warn"});
    pid = Spawn(args);
    close(fds[1]);
    pollfd p{fds[0], POLLIN, 0};
    char buffer[16];
    const bool ready = pid > 0 && poll(&p, 1, timeoutMs) == 1 && read(fds[0], buffer, sizeof buffer) > 0;
    return close(fds[0]), ready;
  }
  int Stop(int signal = SIGTERM) {  // the exit code, or -1
    const int code = pid > 0 && kill(pid, signal) == 0 ? WaitExit(pid) : -1;
    return pid = -1, code;
  }
  pid_t pid = -1;
};

}  // namespace shmtest
