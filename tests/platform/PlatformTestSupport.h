// Helpers for the platform tests: a partition of its own per test (so tests
// run in parallel), child processes under a watchdog (a hang fails the test,
// not the run), and a pipe to tell the parent that a child is ready.
#pragma once

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

namespace platformtest {

// Sets VARLOK_PARTITION to a name unique to this process and test, and
// removes every object of that partition afterwards.
class ScopedPartition {
 public:
  explicit ScopedPartition(const std::string& tag) {
    static std::atomic<int> serial{0};
    m_name = "qvt" + std::to_string(getpid()) + "_" + tag + "_" + std::to_string(++serial);
    setenv("VARLOK_PARTITION", m_name.c_str(), 1);
  }
  ~ScopedPartition() {
    RemoveObjects();
    unsetenv("VARLOK_PARTITION");
  }
  const std::string& Name() const { return m_name; }
  std::string ShmPath(const std::string& object) const { return "/dev/shm/" + m_name + "." + object; }
  void RemoveObjects() const { RemoveObjectsOf(m_name); }
  static void RemoveObjectsOf(const std::string& partition) {
    DIR* dir = opendir("/dev/shm");
    if (dir == nullptr) return;
    const std::string prefix = partition + ".";
    while (dirent* entry = readdir(dir)) {
      const std::string file = entry->d_name;
      if (file.compare(0, prefix.size(), prefix) == 0) unlink(("/dev/shm/" + file).c_str());
    }
    closedir(dir);
  }

 private:
  std::string m_name;
};

struct ChildResult {
  bool finished = false;  // false: the watchdog killed it
  int status = 0;
  bool Exited(int code) const { return finished && WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool Signalled(int signal) const { return finished && WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

// Waits for a child at most limitMs, then kills it.
inline ChildResult WaitChild(pid_t pid, int limitMs) {
  ChildResult result;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (waitpid(pid, &result.status, WNOHANG) == pid) {
      result.finished = true;
      return result;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  kill(pid, SIGKILL);
  waitpid(pid, &result.status, 0);
  return result;
}

// Runs body in a forked child whose exit code is body's result. The child
// never returns into the test framework.
inline pid_t Spawn(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

// One-shot readiness signal from a child to the parent.
class ReadyPipe {
 public:
  ReadyPipe() {
    if (pipe(m_fds) != 0) m_fds[0] = m_fds[1] = -1;
  }
  ~ReadyPipe() {
    for (int fd : m_fds)
      if (fd >= 0) close(fd);
  }
  void Signal(char value = 'r') const { (void)!write(m_fds[1], &value, 1); }
  // The byte the child sent, or 0 when none came within limitMs.
  char Wait(int limitMs) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (std::chrono::steady_clock::now() < deadline) {
      fd_set set;
      FD_ZERO(&set);
      FD_SET(m_fds[0], &set);
      timeval tick{0, 10000};
      if (select(m_fds[0] + 1, &set, nullptr, nullptr, &tick) == 1) {
        char value = 0;
        return read(m_fds[0], &value, 1) == 1 ? value : 0;
      }
    }
    return 0;
  }

 private:
  int m_fds[2];
};

}  // namespace platformtest
