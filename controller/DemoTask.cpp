#include "DemoTask.h"

#include <chrono>
#include <cmath>
#include <cstring>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"

namespace qorvarlok::controller {

namespace {

// M_PI is POSIX, not standard C++.
constexpr double kPi = 3.14159265358979323846;

const Location* Find(ProcessImage& image, const char* name, int typeClass, Location& slot) {
  const ResolveResult r = image.Resolve(name, slot);
  if (r != ResolveResult::Ok) {
    VLOG(warn, "DemoTask::DemoTask", "{} is not moved: {}", name, ToText(r));
    return nullptr;
  }
  if (slot.type->typeClass != typeClass) {
    VLOG(warn, "DemoTask::DemoTask", "{} is not moved: type code {} instead of {}", name, slot.type->typeClass,
         typeClass);
    return nullptr;
  }
  return &slot;
}

}  // namespace

DemoTask::DemoTask(CommandHandler& handler, uint32_t cycleMs) : m_handler(handler), m_cycleMs(cycleMs) {
  {
    auto lock = m_handler.Lock();
    ProcessImage& image = m_handler.Image();
    m_counter = Find(image, "App.GVL.counter", TAG_TYPE_DINT, m_locations[0]);
    m_sine = Find(image, "App.GVL.sine", TAG_TYPE_LREAL, m_locations[1]);
    m_toggle = Find(image, "App.GVL.toggle", TAG_TYPE_BOOL, m_locations[2]);
  }
  if (MovesAnything()) m_thread = std::thread(&DemoTask::Run, this);
}

DemoTask::~DemoTask() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStop = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void DemoTask::Step(uint64_t cycle) {
  const double seconds = static_cast<double>(cycle) * m_cycleMs / 1000.0;
  auto lock = m_handler.Lock();
  uint8_t* image = m_handler.Image().Data();
  if (m_counter != nullptr) {
    const auto value = static_cast<int32_t>(static_cast<uint32_t>(cycle));
    std::memcpy(image + m_counter->offset, &value, sizeof value);
  }
  if (m_sine != nullptr) {
    const double value = 100.0 * std::sin(2.0 * kPi * seconds / 10.0);
    std::memcpy(image + m_sine->offset, &value, sizeof value);
  }
  if (m_toggle != nullptr) image[m_toggle->offset] = static_cast<uint8_t>(static_cast<uint64_t>(seconds) % 2);
}

void DemoTask::Run() {
  uint64_t cycle = 0;
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_wake.wait_for(lock, std::chrono::milliseconds(m_cycleMs), [this] { return m_bStop; })) {
    lock.unlock();
    Step(++cycle);
    lock.lock();
  }
}

}  // namespace qorvarlok::controller
