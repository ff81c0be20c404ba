#include "Controller.h"

#include <cstdlib>

#include "SlotFormat.h"
#include "VarlokLog.h"

namespace qorvarlok::controller {

namespace {

constexpr uint32_t kWaitSliceMs = 200;  // how soon a serving thread notices a stop
constexpr Channel kChannels[] = {Channel::Connect, Channel::Notify, Channel::DataSwap};

// An error answer: the command is not carried out, Err (errInfo) says why.
void AnswerWithError(Channel channel, uint8_t* area, size_t size, uint32_t value, bool setFlag) {
  using namespace slot;
  switch (channel) {
    case Channel::Connect:
      if (size < kConnectSlotSize) return;
      Store<uint32_t>(area, kConnectErrInfo, value);
      if (setFlag) PublishFlag<uint32_t>(area, kConnectFlag, kDone);
      return;
    case Channel::Notify:
      if (size < kDefineEntries) return;
      Store<uint16_t>(area, kDefineErr, static_cast<uint16_t>(value));
      if (setFlag) PublishFlag<uint8_t>(area, kDefineFlag, static_cast<uint8_t>(kDone));
      return;
    case Channel::DataSwap:
      if (size < kSwapEntries) return;
      Store<uint32_t>(area, kSwapErr, value);
      if (setFlag) PublishFlag<uint8_t>(area, kSwapFlag, static_cast<uint8_t>(kDone));
      return;
  }
}

// Flag 3 is the answer code of every channel and no request of any.
bool HoldsAnswer(Channel channel, const uint8_t* area, size_t size) {
  using namespace slot;
  switch (channel) {
    case Channel::Connect: return size >= kConnectSlotSize && Load<uint32_t>(area, kConnectFlag) == kDone;
    case Channel::Notify: return size >= kDefineEntries && Load<uint8_t>(area, kDefineFlag) == kDone;
    case Channel::DataSwap: return size >= kSwapEntries && Load<uint8_t>(area, kSwapFlag) == kDone;
  }
  return false;
}

}  // namespace

const char* ChannelName(Channel c) {
  switch (c) {
    case Channel::Connect: return "connect";
    case Channel::Notify: return "define";
    case Channel::DataSwap: return "data swap";
  }
  return "unknown";
}

void Controller::Process(CommandHandler& handler, const FaultPlan& plan, Channel channel, uint8_t* area,
                         size_t size) {
  if (HoldsAnswer(channel, area, size)) {
    // A wake-up without a new request (an event signalled twice): answering
    // again would overwrite an answer the client may not have read yet.
    VLOG(warn, "Controller::Process", "ignored a {} wake-up: the slot holds an answer, not a request",
         ChannelName(channel));
    return;
  }
  const uint32_t bit = ChannelBit(channel);
  const bool setFlag = (plan.keepFlagMask & bit) == 0;
  if (plan.errorMask & bit) {
    VLOG(warn, "Controller::Process", "refused {} command: answering with the injected error {}",
         ChannelName(channel), plan.errorValue);
    AnswerWithError(channel, area, size, plan.errorValue, setFlag);
    return;
  }
  if (channel == Channel::Connect && plan.refuseConnect != 0 && size >= slot::kConnectSlotSize &&
      slot::Load<uint32_t>(area, slot::kConnectFlag) == slot::kConnectRequest) {
    VLOG(warn, "Controller::Process", "refused connect: injected refusal {}", plan.refuseConnect);
    AnswerWithError(channel, area, size, plan.refuseConnect, setFlag);
    return;
  }
  switch (channel) {
    case Channel::Connect: handler.Connect(area, size, setFlag); break;
    case Channel::Notify: handler.Define(area, size, setFlag); break;
    case Channel::DataSwap: handler.DataSwap(area, size, setFlag); break;
  }
}

std::unique_ptr<Controller> Controller::Start(std::unique_ptr<ProcessImage> image, const ControllerOptions& options,
                                              std::string* error) {
  rtos::RtosHostStatus status;
  std::unique_ptr<rtos::RtosHost> host = rtos::RtosHost::Create(options.host, &status);
  if (!host) {
    if (error != nullptr) *error = status.message;
    VLOG(err, "Controller::Start", "cannot serve: {}", status.message);
    return nullptr;
  }
  if (status.cleanedLeftovers)
    VLOG(warn, "Controller::Start", "removed the leftovers of a controller that died in partition '{}'",
         host->Partition());
  std::unique_ptr<Controller> controller(new Controller(std::move(image), std::move(host), options));
  for (Channel c : kChannels) controller->m_threads.emplace_back(&Controller::Serve, controller.get(), c);
  VLOG(info, "Controller::Start", "serving partition '{}': areas of {}, {} and {} bytes",
       controller->m_pHost->Partition(), controller->m_pHost->AreaSize(Channel::Connect),
       controller->m_pHost->AreaSize(Channel::Notify), controller->m_pHost->AreaSize(Channel::DataSwap));
  return controller;
}

Controller::Controller(std::unique_ptr<ProcessImage> image, std::unique_ptr<rtos::RtosHost> host,
                       const ControllerOptions& options)
    : m_pImage(std::move(image)),
      m_pHost(std::move(host)),
      m_handler(*m_pImage, m_pHost->AreaSize(Channel::DataSwap)),
      m_onVanish(options.onVanish),
      m_faults(options.faults) {
  if (!m_onVanish) m_onVanish = [] { std::_Exit(3); };
}

Controller::~Controller() {
  {
    std::lock_guard<std::mutex> lock(m_stopMutex);
    m_bStop = true;
  }
  m_stopCondition.notify_all();
  for (Channel c : kChannels) m_pHost->Wake(c);
  for (auto& t : m_threads) t.join();
  VLOG(info, "Controller::~Controller", "stopped serving partition '{}'", m_pHost->Partition());
}

void Controller::SetFaults(const FaultPlan& faults) {
  std::lock_guard<std::mutex> lock(m_faultMutex);
  m_faults = faults;
}

FaultPlan Controller::Faults() const {
  std::lock_guard<std::mutex> lock(m_faultMutex);
  return m_faults;
}

bool Controller::SleepUnlessStopped(uint32_t ms) {
  std::unique_lock<std::mutex> lock(m_stopMutex);
  return !m_stopCondition.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_bStop.load(); });
}

void Controller::Serve(Channel channel) {
  const uint32_t bit = ChannelBit(channel);
  uint8_t* area = m_pHost->Area(channel);
  const size_t size = m_pHost->AreaSize(channel);
  while (!m_bStop) {
    if (m_pHost->WaitRequest(channel, kWaitSliceMs) != 0 || m_bStop) continue;
    if (m_bVanished) continue;  // the areas are cut: touching them would fault
    const FaultPlan plan = Faults();
    if (plan.vanishMask & bit) {
      VLOG(warn, "Controller::Serve", "vanishing in the middle of a {} command", ChannelName(channel));
      m_bVanished = true;
      m_pHost->TruncateAreas();
      m_onVanish();
      continue;
    }
    if (plan.silentMask & bit) {
      VLOG(warn, "Controller::Serve", "{} command left unanswered (silent)", ChannelName(channel));
      continue;
    }
    if (plan.lateMs != 0 && (plan.lateMask & bit) && !SleepUnlessStopped(plan.lateMs)) break;
    Process(m_handler, plan, channel, area, size);
    ++m_answered;
    m_pHost->SignalAnswer(channel);
  }
}

}  // namespace qorvarlok::controller
