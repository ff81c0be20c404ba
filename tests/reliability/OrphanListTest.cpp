// A define that the controller answers only after the client has given up
// leaves a list on the controller that the client never learns of. It is
// harmless: the client's own lists keep their handles and values through
// defines and deletes around it, and it goes with the client's connection.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Controller.h"
#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "ShmProject.h"
#include "SymbolConfigReader.h"
#include "Watchdog.h"

using namespace shmtest;
using namespace qorvarlok::controller;
using namespace std::chrono_literals;
using qorvarlok::rtos::Channel;

TEST(OrphanList, DefineAnsweredAfterTheClientGaveUpDisturbsNothingAndGoesWithTheConnection) {
  reltest::Watchdog watchdog("the orphaned list test", 60s);
  const std::string partition = "orphan" + std::to_string(getpid());
  const std::string path = "/tmp/" + partition + ".xml";
  setenv("VARLOK_PARTITION", partition.c_str(), 1);
  ASSERT_TRUE(WriteProject(path, 8));
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config(
      qorvarlok::symbols::SymbolConfigReader().ReadFile(std::wstring(path.begin(), path.end()), nullptr));
  ASSERT_NE(nullptr, config);
  ControllerOptions options;
  options.host.partition = partition, options.onVanish = [] {};
  std::string error;
  auto controller = Controller::Start(ProcessImage::Build(*config), options, &error);
  ASSERT_NE(nullptr, controller) << error;
  if (auto* client = qorvarlok::shm::ShmComClient::GetInstance())  // mapped to an earlier test's partition
    qorvarlok::shm::ShmComClientProbe::MarkLost(client);
  {
    ZelVarlok v;
    ASSERT_EQ(0u, v.InitializeCom(COM_TYPE_LOCAL, path.c_str()));
    unsigned int e = 1, count = 0;
    void* device = v.ConnectToPlcDevice("Local", e);
    ASSERT_NE(nullptr, device);
    const uint32_t seq = ReadAt<uint32_t>(controller->Host().Area(Channel::Connect), 4);
    std::vector<tagTagVarValue> values;
    auto write = [&](HTAGLIST h, std::vector<std::string> text) { return v.WriteTagList(h, text); };
    auto read = [&](HTAGLIST h) { return v.ReadTagList(h, values, count) == 0 ? ReadAt<int32_t>(values[0].Value) : -1; };

    HTAGLIST a = v.CreateTagsHandle(std::string("App.GVL.counter"), e);
    ASSERT_TRUE(a != nullptr && write(a, {"11"}) == 0);
    FaultPlan late;
    late.lateMs = 5600, late.lateMask = ChannelBit(Channel::Notify);  // past every wait of the client
    controller->SetFaults(late);
    HTAGLIST lost = v.CreateTagsHandle(std::string("App.GVL.ro"), e);
    EXPECT_EQ(nullptr, lost);
    EXPECT_NE(0u, e);
    controller->SetFaults(FaultPlan{});
    while (controller->Handler().ListCount(seq) < 2) std::this_thread::sleep_for(50ms);  // the late answer came
    EXPECT_EQ(2u, controller->Handler().ListCount(seq));  // a, and the list the client never learnt of

    HTAGLIST b = v.CreateTagsHandle(std::string("App.GVL.speed"), e);
    ASSERT_NE(nullptr, b) << e;
    EXPECT_EQ(0u, write(b, {"22"}));
    EXPECT_EQ(std::make_pair(11, 22), std::make_pair(read(a), read(b)));
    EXPECT_EQ(0u, v.DeleteTagsHandle(a));  // later handles move down on both sides, the orphan's too
    EXPECT_EQ(0u, write(b, {"23"}));
    EXPECT_EQ(23, read(b));
    EXPECT_EQ(2u, controller->Handler().ListCount(seq));
    EXPECT_EQ(0u, v.DisconnectFromDevice(device));
    EXPECT_EQ(0u, controller->Handler().ListCount(seq));  // the orphan went with the connection
  }
  controller.reset();
  std::remove(path.c_str());
  RemoveNamedMutexes(partition);
}
