// A cyclic task that moves three values of the demo project, so that a
// client watching them sees a running controller: App.GVL.counter (DInt)
// counts cycles, App.GVL.sine (LReal) follows a sine of 10 s period and
// amplitude 100, App.GVL.toggle (Bool) flips every second. A name missing from
// the image, or of another type, is left out with a log line.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "CommandHandler.h"

namespace qorvarlok::controller {

class DemoTask {
 public:
  DemoTask(CommandHandler& handler, uint32_t cycleMs);
  ~DemoTask();  // stops and joins
  DemoTask(const DemoTask&) = delete;
  DemoTask& operator=(const DemoTask&) = delete;

  // One cycle, as the thread runs it; cycle counts from 1.
  void Step(uint64_t cycle);
  bool MovesAnything() const { return m_counter || m_sine || m_toggle; }

 private:
  void Run();

  CommandHandler& m_handler;
  uint32_t m_cycleMs;
  const Location* m_counter = nullptr;
  const Location* m_sine = nullptr;
  const Location* m_toggle = nullptr;
  Location m_locations[3];
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_bStop = false;
  std::thread m_thread;
};

}  // namespace qorvarlok::controller
