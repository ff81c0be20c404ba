// Helpers for the platform tests: a partition of its own per test (so tests
// run in parallel), children under a watchdog (a hang fails the test, not the
// run), and a controller with a client's view of it.
#pragma once

#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "RtosHost.h"
#include "RtosLib64.h"

namespace platformtest {

// Sets VARLOK_PARTITION to a name unique to this process and test; removes
// every object of that partition afterwards.
struct ScopedPartition {
  explicit ScopedPartition(const std::string& tag) : name("qvt" + std::to_string(getpid()) + "_" + tag) {
    static std::atomic<int> serial{0};
    name += "_" + std::to_string(++serial);
    setenv("VARLOK_PARTITION", name.c_str(), 1);
  }
  ~ScopedPartition() {
    RemoveObjectsOf(name);
    unsetenv("VARLOK_PARTITION");
  }
  std::string ShmPath(const std::string& object) const { return "/dev/shm/" + name + "." + object; }
  static void RemoveObjectsOf(const std::string& partition) {
    DIR* dir = opendir("/dev/shm");
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr)
      if (std::string(entry->d_name).rfind(partition + ".", 0) == 0) unlinkat(dirfd(dir), entry->d_name, 0);
    if (dir != nullptr) closedir(dir);
  }
  std::string name;
};

// The watchdog: waits for a child about limitMs at most, then kills it and gives -1.
inline int WaitChild(pid_t pid, int limitMs) {
  int status = 0;
  for (int ms = 0; ms < limitMs; ++ms, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
    if (waitpid(pid, &status, WNOHANG) == pid) return status;
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return -1;
}
inline bool Exited(int status, int code) { return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == code; }
inline bool Killed(int status, int signal) { return status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == signal; }

// Runs body in a forked child that never returns into the test framework.
template <typename F>
pid_t Spawn(F body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

// A child that acquires something with setUp (a controller, a held mutex) and
// holds it until SIGKILL, or SIGUSR1 for a clean end. -1 if not ready in 3 s.
template <typename F>
pid_t SpawnHolderOnce(F& setUp) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = Spawn([&] {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // before setUp starts threads
    auto held = setUp();
    int signal = 0;
    return !held || write(fds[1], "r", 1) != 1 || sigwait(&stop, &signal) != 0;
  });
  close(fds[1]);  // a child that dies unready hangs the pipe up
  pollfd ready{fds[0], POLLIN, 0};
  const bool ok = poll(&ready, 1, 3000) == 1 && (ready.revents & POLLIN) != 0;
  close(fds[0]);
  if (ok) return pid;
  WaitChild(pid, 0);
  return -1;
}

// A child forked while another thread of this process (the logger's) holds a
// runtime lock can hang before it is ready; a fresh fork gets past that.
template <typename F>
pid_t SpawnHolder(F setUp) {
  pid_t pid = -1;
  for (int attempt = 0; attempt < 3 && pid <= 0; ++attempt) pid = SpawnHolderOnce(setUp);
  return pid;
}

// A controller with small areas (512, 4096, 8192 bytes) in the current partition.
inline std::unique_ptr<qorvarlok::rtos::RtosHost> StartHost(qorvarlok::rtos::RtosHostStatus* status = nullptr) {
  qorvarlok::rtos::RtosHostOptions options;
  options.notifyAreaSize = 4096;
  options.dataSwapAreaSize = 8192;
  options.claimTimeoutMs = 50;
  return qorvarlok::rtos::RtosHost::Create(options, status);
}

inline RTOS_EVENT OpenEvent(const char* name) {
  RTOS_EVENT event = nullptr;
  EXPECT_EQ(RtosOpenEvent(0, 0, name, &event), 0u) << name;
  return event;
}

// Maps an area with the client's fixed length; null on failure.
inline uint8_t* MapArea(const wchar_t* name, uint32_t* size = nullptr) {
  uint32_t id = 0, reserved = 77;
  void* address = nullptr;
  if (RtosQueryShmId(name, 4, &id) != 0 || (size != nullptr && RtosQueryShmSize(id, size) != 0) ||
      RtosMapShm(id, 0, 0x500000, &reserved, &address) != 0 || reserved != 0)
    return nullptr;
  return static_cast<uint8_t*>(address);
}

}  // namespace platformtest
