// varlok-sim in a process of its own, started with --ready-fd so that the
// caller knows when it serves, and stopped by the pid it was started with.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <poll.h>
#include <string>
#include <vector>

extern char** environ;

namespace shmtest {

class SimProcess {
 public:
  SimProcess() = default;
  ~SimProcess() { Stop(SIGKILL); }
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // True once the simulator reported that it serves (within timeoutMs).
  bool Start(const std::string& exe, std::vector<std::string> args, int timeoutMs = 5000) {
    int fds[2];
    if (pipe(fds) != 0) return false;
    args.insert(args.begin(), exe);
    args.push_back("--ready-fd");
    args.push_back(std::to_string(fds[1]));
    args.push_back("--log-level");
    args.push_back("warn");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    const int rc = posix_spawn(&m_pid, exe.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
      m_pid = -1;
      close(fds[0]);
      return false;
    }
    pollfd p{fds[0], POLLIN, 0};
    char buffer[16] = {};
    const bool ready = poll(&p, 1, timeoutMs) == 1 && read(fds[0], buffer, sizeof buffer) > 0;
    close(fds[0]);
    return ready;
  }

  // Sends the signal to the pid we started and reaps it; the exit status, or -1.
  int Stop(int signal = SIGTERM) {
    if (m_pid <= 0) return -1;
    kill(m_pid, signal);
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return status;
  }
  pid_t Pid() const { return m_pid; }

 private:
  pid_t m_pid = -1;
};

// Starts this test program again as a helper with one test selected and
// extra environment; gives its pid, or -1.
inline pid_t SpawnSelf(const std::string& filter, const std::vector<std::string>& extraEnv) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
  env.insert(env.end(), extraEnv.begin(), extraEnv.end());
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string exe = "/proc/self/exe";
  std::string arg = "--gtest_filter=" + filter;
  char* argv[] = {exe.data(), arg.data(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, envp.data()) != 0) return -1;
  return pid;
}

// The exit code of a helper, or -1 when it did not exit normally.
inline int WaitExit(pid_t pid) {
  if (pid <= 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace shmtest
