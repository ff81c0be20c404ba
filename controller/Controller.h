// A running controller: one partition's areas and events (RtosHost), a
// process image, and one serving thread per channel that waits for a request,
// answers it through CommandHandler and signals the answer event.
//
// Faults can be injected at any time (SetFaults), for tests of the client's
// failure paths: refuse connects, stay silent, answer late, leave Flag as the
// request left it, answer with an error, vanish in the middle of a command.
//
// Thread-safe. The destructor stops the threads, then removes the partition's
// objects (through the host).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CommandHandler.h"
#include "ProcessImage.h"
#include "rtos/RtosHost.h"

namespace qorvarlok::controller {

using rtos::Channel;

constexpr uint32_t ChannelBit(Channel c) { return 1u << static_cast<uint32_t>(c); }
constexpr uint32_t kAllChannels = 0x7;
const char* ChannelName(Channel c);

struct FaultPlan {
  uint32_t refuseConnect = 0;  // 2, 3 or 4: connect requests get this errInfo; 0 off
  uint32_t silentMask = 0;     // channels whose requests get no answer and no event
  uint32_t lateMs = 0;         // delay before answering, on the channels of lateMask
  uint32_t lateMask = kAllChannels;
  uint32_t keepFlagMask = 0;   // channels answered in every field but Flag
  uint32_t errorMask = 0;      // channels answered with errorValue (Err, errInfo), the command not done
  uint32_t errorValue = 0;
  uint32_t vanishMask = 0;     // a request here truncates the areas and ends the process, unanswered
};

struct ControllerOptions {
  rtos::RtosHostOptions host;
  FaultPlan faults;
  // What vanishing does after the areas are cut; by default the process ends
  // at once with exit code 3. Tests of a controller in a thread replace it.
  std::function<void()> onVanish;
};

class Controller {
 public:
  // Null with *error set (one line) when the partition cannot be claimed.
  static std::unique_ptr<Controller> Start(std::unique_ptr<ProcessImage> image, const ControllerOptions& options,
                                           std::string* error);
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  void SetFaults(const FaultPlan& faults);
  FaultPlan Faults() const;
  CommandHandler& Handler() { return m_handler; }
  ProcessImage& Image() { return *m_pImage; }
  rtos::RtosHost& Host() { return *m_pHost; }
  // Requests answered so far, all channels (stress tests, status lines).
  uint64_t Answered() const { return m_answered.load(); }

  // One request on an area, with the content faults of plan applied (refusal,
  // error answer, Flag left unchanged). The serving threads use it; tests may
  // call it on plain buffers.
  static void Process(CommandHandler& handler, const FaultPlan& plan, Channel channel, uint8_t* area, size_t size);

 private:
  Controller(std::unique_ptr<ProcessImage> image, std::unique_ptr<rtos::RtosHost> host,
             const ControllerOptions& options);
  void Serve(Channel channel);
  bool SleepUnlessStopped(uint32_t ms);

  std::unique_ptr<ProcessImage> m_pImage;
  std::unique_ptr<rtos::RtosHost> m_pHost;
  CommandHandler m_handler;
  std::function<void()> m_onVanish;
  mutable std::mutex m_faultMutex;
  FaultPlan m_faults;
  std::mutex m_stopMutex;
  std::condition_variable m_stopCondition;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bVanished{false};
  std::atomic<uint64_t> m_answered{0};
  std::vector<std::thread> m_threads;
};

}  // namespace qorvarlok::controller
