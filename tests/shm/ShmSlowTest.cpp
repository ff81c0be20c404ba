// The few tests that must wait on the real time budgets: five answer waits of
// 1000 ms, the 3000 ms mutex wait, a controller process killed and restarted.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "NamedMutex.h"
#include "ShmFixture.h"
#include "SimProcess.h"

using shmtest::Channel;
using spdlog::level::err;
using spdlog::level::warn;

namespace {

class ShmSlow : public shmtest::ShmFixture {};

TEST_F(ShmSlow, SilentDataSwapChannelEndsAfterFiveAnswerWaits) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  qorvarlok::controller::FaultPlan plan;
  plan.silentMask = qorvarlok::controller::ChannelBit(Channel::DataSwap);
  controller->SetFaults(plan);
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ERR_RTOS_RECV_EVENT_FAILED, varlok->ReadTagList(h, values, count));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(4900));
  EXPECT_LT(elapsed, std::chrono::milliseconds(9000));
  EXPECT_EQ(5u, qvtest::Log().CountOf(warn, "RTE_ERROR_TIMEOUT.E:0", "DataSwapShmComThread::runAsyncIntf"));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "Rtos Error"));
  // The partition lives: the channel's own code, and the client stays set up.
  controller->SetFaults({});
  EXPECT_EQ(0u, varlok->ReadTagList(h, values, count));
}

TEST_F(ShmSlow, DataSwapMutexHeldElsewhereTimesOutAfterThreeSeconds) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  std::atomic<bool> held{false};
  std::thread holder([&] {
    auto m = qorvarlok::platform::OpenNamedMutex(L"Global\\MUTEX_DATASWAP");
    ASSERT_EQ(0u, qorvarlok::platform::WaitForNamedMutex(m, 1000));
    held = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    qorvarlok::platform::ReleaseNamedMutex(m);
  });
  while (!held) std::this_thread::yield();
  const uint64_t before = controller->Answered();
  std::vector<std::string> v{"1"};
  EXPECT_EQ(ERR_WAIT_TIMEOUT, varlok->WriteTagList(h, v));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "WaitForSingleObject,E:258", "DataSwapShmComThread::Async"));
  EXPECT_EQ(before, controller->Answered());
  holder.join();
  EXPECT_EQ(0u, varlok->WriteTagList(h, v));
}

TEST_F(ShmSlow, DefineAnswerThatKeepsFlagRunsOutTheFuture) {
  Connect();
  qorvarlok::controller::FaultPlan plan;
  plan.keepFlagMask = qorvarlok::controller::ChannelBit(Channel::Notify);
  controller->SetFaults(plan);
  unsigned int e = 0;
  EXPECT_EQ(nullptr, varlok->CreateTagsHandle(std::string("App.GVL.counter"), e));
  EXPECT_EQ(ERR_WAIT_TIMEOUT, e);
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "async define thread timeout", "DefineShmComThread::Async"));
}

TEST_F(ShmSlow, ControllerVanishingMidCommandGivesUnavailable) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  qorvarlok::controller::FaultPlan plan;
  plan.vanishMask = qorvarlok::controller::ChannelBit(Channel::DataSwap);
  controller->SetFaults(plan);
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  // The answer never comes, and reading the slot after the time-out faults:
  // that fault leaves the worker as an exception, read as unavailable.
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, varlok->ReadTagList(h, values, count));
  EXPECT_NE(nullptr, qorvarlok::shm::ShmComClient::GetInstance());
  // The next command's slot write faults at once: the client is no longer set up,
  // and the cut areas are too small for a new set-up.
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, varlok->ReadTagList(h, values, count));
  EXPECT_EQ(nullptr, qorvarlok::shm::ShmComClient::GetInstance());
  EXPECT_EQ(1u, qvtest::Log().CountOf(spdlog::level::info, "shm client has initialized ret = 268435970"));
}

#ifdef VARLOK_SIM_PATH
// The controller is a process of its own here: killed with SIGKILL, its
// partition is seen dead; restarted, it cuts the old areas and the client,
// after reconnecting, sets up anew on the same ZelVarlok.
class ShmSimProcess : public shmtest::ShmFixture {
 protected:
  void SetUp() override {
    ShmFixture::SetUp();
    controller.reset();  // the process serves this partition instead
  }
  bool StartSim() { return sim.Start(VARLOK_SIM_PATH, {"--symbols", path, "--partition", partition}); }
  shmtest::SimProcess sim;
};

TEST_F(ShmSimProcess, KilledControllerGivesUnavailableThenWorksAfterReconnect) {
  ASSERT_TRUE(StartSim());
  varlok = std::make_unique<ZelVarlok>();
  ASSERT_EQ(0u, varlok->InitializeCom(COM_TYPE_LOCAL, path.c_str()));
  unsigned int e = 1;
  void* dev = varlok->ConnectToPlcDevice("Local", e);
  ASSERT_NE(nullptr, dev);
  unsigned int code = 1;
  HTAGLIST h = varlok->CreateTagsHandle(std::string("App.GVL.counter"), code);
  ASSERT_NE(nullptr, h);
  std::vector<std::string> v{"11"};
  ASSERT_EQ(0u, varlok->WriteTagList(h, v));

  sim.Stop(SIGKILL);
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, varlok->ReadTagList(h, values, count));

  ASSERT_TRUE(StartSim());
  EXPECT_EQ(0u, varlok->DisconnectFromDevice(dev));
  dev = varlok->ConnectToPlcDevice("Local", e);
  ASSERT_NE(nullptr, dev) << e;
  // Number 1 again: shadowed by the old list, which the chain keeps.
  ASSERT_NE(nullptr, varlok->CreateTagsHandle(std::string("App.GVL.level"), code));
  HTAGLIST again = varlok->CreateTagsHandle(std::vector<std::string>{"App.GVL.speed", "App.GVL.counter"}, code);
  ASSERT_NE(nullptr, again);
  std::vector<std::string> w{"21", "22"};
  EXPECT_EQ(0u, varlok->WriteTagList(again, w));
  EXPECT_EQ(0u, varlok->ReadTagList(again, values, count));
  ASSERT_EQ(2u, count);
  int32_t second = 0;
  std::memcpy(&second, values[1].Value, 4);
  EXPECT_EQ(22, second);
  EXPECT_EQ(0, WEXITSTATUS(sim.Stop(SIGTERM)));
}
#endif

}  // namespace
