// A hang fails the test instead of the run: past its limit the watchdog kills
// the processes it was given (by pid) and ends this program with a message.
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace reltest {

class Watchdog {
 public:
  Watchdog(std::string what, std::chrono::seconds limit) : m_what(std::move(what)) {
    m_thread = std::thread([this, limit] {
      std::unique_lock<std::mutex> lock(m_mutex);
      if (m_condition.wait_for(lock, limit, [this] { return m_bDone; })) return;
      for (pid_t pid : m_pids) kill(pid, SIGKILL);
      std::fprintf(stderr, "watchdog: %s hung for %lld s\n", m_what.c_str(), static_cast<long long>(limit.count()));
      std::_Exit(99);
    });
  }
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_bDone = true;
    }
    m_condition.notify_all();
    m_thread.join();
  }
  void Guard(pid_t pid) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (pid > 0) m_pids.push_back(pid);
  }

 private:
  std::string m_what;
  std::mutex m_mutex;
  std::condition_variable m_condition;
  bool m_bDone = false;
  std::vector<pid_t> m_pids;
  std::thread m_thread;
};

}  // namespace reltest
