// A controller serving a real partition from threads of this process, and a
// minimal client that writes the slots and waits on the real events.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "Controller.h"
#include "LogCapture.h"
#include "MiniClient.h"
#include "TestProject.h"

using namespace qorvarlok::controller;
using namespace ctltest;

namespace {

constexpr int kConnect = 0, kDefine = 1, kSwap = 2;

std::string UniquePartition() {
  static std::atomic<int> serial{0};
  return "qvctl-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
}

class LiveControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qvtest::Log().Clear();
    partition = UniquePartition();
    setenv("VARLOK_PARTITION", partition.c_str(), 1);
    project = MakeProject();
    ControllerOptions options;
    options.host.partition = partition;
    options.host.notifyAreaSize = 1 << 16;
    options.host.dataSwapAreaSize = 1 << 16;
    options.onVanish = [this] { vanished = true; };
    std::string error;
    controller = Controller::Start(ProcessImage::Build(*project), options, &error);
    ASSERT_NE(controller, nullptr) << error;
    ASSERT_EQ(client.Open(), 0u);
  }
  uint8_t* Area(int c) { return client.area[c]; }
  uint32_t Connect() {
    WriteConnect(Area(kConnect), 1, 0);
    EXPECT_EQ(client.Exchange(kConnect), 0u);
    return slot::Load<uint32_t>(Area(kConnect), slot::kConnectSeq);
  }

  std::string partition;
  std::unique_ptr<SymbolConfiguration> project;
  std::atomic<bool> vanished{false};
  std::unique_ptr<Controller> controller;
  MiniClient client;
};

TEST_F(LiveControllerTest, ServesConnectDefineReadWriteDeleteThroughTheEvents) {
  const uint32_t seq = Connect();
  EXPECT_EQ(seq, 1u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kConnect), slot::kConnectFlag), 3u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kConnect), slot::kConnectErrInfo), 0u);
  EXPECT_NE(slot::Load<uint32_t>(Area(kConnect), slot::kConnectBeat), 1000u) << "the controller's beat comes back";

  const std::vector<std::vector<DefineEntry>> lists = {
      {{"App.GVL.speed", 4}}, {{"App.GVL.grid[1,3].y", 4}, {"App.GVL.mix.c", 2}}, {{"App.GVL.counters", 40}}};
  for (uint32_t i = 0; i < lists.size(); ++i) {
    WriteDefine(Area(kDefine), 1, static_cast<uint8_t>(seq), lists[i]);
    ASSERT_EQ(client.Exchange(kDefine), 0u);
    EXPECT_EQ(slot::Load<uint8_t>(Area(kDefine), slot::kDefineFlag), 3u);
    EXPECT_EQ(slot::Load<uint16_t>(Area(kDefine), slot::kDefineErr), 0u);
    EXPECT_EQ(slot::Load<uint32_t>(Area(kDefine), slot::kDefineHandle), i + 1);
  }
  // Write list 2, then read it back; the image holds the bytes where the layout puts them.
  WriteSwap(Area(kSwap), 2, static_cast<uint8_t>(seq), 2, {0, 4}, Concat({Bytes<int32_t>(-77), Bytes<int16_t>(513)}));
  ASSERT_EQ(client.Exchange(kSwap), 0u);
  EXPECT_EQ(slot::Load<uint8_t>(Area(kSwap), slot::kSwapFlag), 3u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kSwap), slot::kSwapErr), 0u);
  int32_t y = 0;
  std::memcpy(&y, controller->Image().Data() + 68, 4);
  EXPECT_EQ(y, -77);
  std::memset(Area(kSwap), 0, 64);
  WriteSwap(Area(kSwap), 1, static_cast<uint8_t>(seq), 2, {0, 4});
  ASSERT_EQ(client.Exchange(kSwap), 0u);
  EXPECT_EQ(std::vector<uint8_t>(Area(kSwap) + 23, Area(kSwap) + 29),
            Concat({Bytes<int32_t>(-77), Bytes<int16_t>(513)}));

  // Delete the middle list: the counters list moves from handle 3 to 2.
  WriteDefine(Area(kDefine), 2, static_cast<uint8_t>(seq), {}, 2);
  ASSERT_EQ(client.Exchange(kDefine), 0u);
  EXPECT_EQ(slot::Load<uint16_t>(Area(kDefine), slot::kDefineErr), 0u);
  WriteSwap(Area(kSwap), 2, static_cast<uint8_t>(seq), 2, {0, 9, 4, 4}, Bytes<int32_t>(99));
  ASSERT_EQ(client.Exchange(kSwap), 0u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kSwap), slot::kSwapErr), 0u);
  int32_t last = 0;
  std::memcpy(&last, controller->Image().Data() + 72 + 36, 4);
  EXPECT_EQ(last, 99) << "range write of element 9 through the renumbered handle";
  WriteSwap(Area(kSwap), 1, static_cast<uint8_t>(seq), 3, {0});
  ASSERT_EQ(client.Exchange(kSwap), 0u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kSwap), slot::kSwapErr), kRefuseStaleHandle);

  WriteConnect(Area(kConnect), 0, seq);
  ASSERT_EQ(client.Exchange(kConnect), 0u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kConnect), slot::kConnectErrInfo), 0u);
  EXPECT_EQ(controller->Handler().ClientCount(), 0u);
  auto& log = qvtest::Log();
  EXPECT_TRUE(log.Contains("define: client seq 1 handle 3 with 1 tags, 40 bytes"));
  EXPECT_TRUE(log.Contains("delete: client seq 1 handle 2, 2 lists left"));
  EXPECT_TRUE(log.Contains("disconnect: client seq 1 with 2 lists"));
}

TEST_F(LiveControllerTest, InjectedFaultsReachTheClient) {
  FaultPlan plan;
  plan.refuseConnect = 3;
  controller->SetFaults(plan);
  WriteConnect(Area(kConnect), 1, 0);
  ASSERT_EQ(client.Exchange(kConnect), 0u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kConnect), slot::kConnectErrInfo), 3u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kConnect), slot::kConnectSeq), 0u);

  controller->SetFaults(FaultPlan{});
  const auto seq = static_cast<uint8_t>(Connect());
  ASSERT_NE(seq, 0);

  plan = FaultPlan{};
  plan.silentMask = ChannelBit(Channel::Notify);
  controller->SetFaults(plan);
  WriteDefine(Area(kDefine), 1, seq, {{"App.GVL.speed", 4}});
  EXPECT_EQ(client.Exchange(kDefine, 30), RTE_ERROR_TIMEOUT);
  EXPECT_EQ(slot::Load<uint8_t>(Area(kDefine), slot::kDefineFlag), 1u) << "a silent channel writes nothing";

  plan = FaultPlan{};
  plan.lateMs = 150;
  controller->SetFaults(plan);
  WriteDefine(Area(kDefine), 1, seq, {{"App.GVL.speed", 4}});
  EXPECT_EQ(client.Exchange(kDefine, 20), RTE_ERROR_TIMEOUT) << "the answer is late";
  EXPECT_EQ(RtosWaitEvent(client.rx[kDefine], 2000), 0u);
  EXPECT_EQ(slot::Load<uint16_t>(Area(kDefine), slot::kDefineErr), 0u);
  EXPECT_EQ(slot::Load<uint32_t>(Area(kDefine), slot::kDefineHandle), 1u);

  plan = FaultPlan{};
  plan.keepFlagMask = ChannelBit(Channel::DataSwap);
  controller->SetFaults(plan);
  WriteSwap(Area(kSwap), 1, seq, 1, {0});
  EXPECT_EQ(client.Exchange(kSwap), 0u) << "the event still comes";
  EXPECT_EQ(slot::Load<uint8_t>(Area(kSwap), slot::kSwapFlag), 1u);

  plan = FaultPlan{};
  plan.vanishMask = ChannelBit(Channel::DataSwap);
  controller->SetFaults(plan);
  WriteSwap(Area(kSwap), 1, seq, 1, {0});
  EXPECT_EQ(client.Exchange(kSwap, 100), RTE_ERROR_TIMEOUT);
  EXPECT_TRUE(vanished);
  uint32_t id = 0, bytes = 1;
  ASSERT_EQ(RtosQueryShmId(L"DataSwapArea", 4, &id), 0u);
  ASSERT_EQ(RtosQueryShmSize(id, &bytes), 0u);
  EXPECT_EQ(bytes, 0u) << "the areas are cut";
  EXPECT_TRUE(qvtest::Log().Contains("vanishing in the middle of a data swap command"));
  // The controller in this process lives on and ignores further requests (they would fault).
  RtosSendEvent(client.tx[kDefine]);
  EXPECT_EQ(RtosWaitEvent(client.rx[kDefine], 50), RTE_ERROR_TIMEOUT);
}

TEST_F(LiveControllerTest, ASecondControllerCannotTakeALivePartition) {
  ControllerOptions options;
  options.host.partition = partition;
  options.host.claimTimeoutMs = 50;
  std::string error;
  auto second = Controller::Start(ProcessImage::Build(*project), options, &error);
  EXPECT_EQ(second, nullptr);
  EXPECT_NE(error.find("is held by the running controller pid " + std::to_string(getpid())), std::string::npos)
      << error;
  EXPECT_EQ(RtosIsAlive(), 1u);
  controller.reset();
  EXPECT_EQ(RtosIsAlive(), 0u);
  uint32_t id = 0;
  EXPECT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), RTE_ERROR_PARTITION_DOWN) << "the stopped controller removed its areas";
}

}  // namespace
