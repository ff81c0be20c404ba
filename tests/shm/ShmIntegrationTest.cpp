// ZelVarlok over COM_TYPE_LOCAL against the real controller: values and slot
// bytes of the list, array and structure operations, checks that send nothing,
// renumbering after delete, reconnects, refusals, two client processes on the
// same channels, the define limit; and (ShmSlow) the few tests that wait on the
// real budgets: five answer waits, the mutex wait, a controller process killed.
#include <thread>

#include "ShmFixture.h"

using namespace shmtest;
using qorvarlok::controller::ChannelBit;
using spdlog::level::err, spdlog::level::warn;

namespace {

class ShmIntegration : public ShmFixture {};
class ShmSlow : public ShmFixture {};

TEST_F(ShmIntegration, ListOperationsInEveryFormWithSlotBytes) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter", "App.GVL.text", "App.GVL.level"});
  ASSERT_TRUE(h != nullptr && seq != 0);
  const auto number = static_cast<uint32_t>(HandleNumber(h));
  // ByteLength before Size, then one 264-byte entry per tag: name, then size at 260.
  EXPECT_EQ((std::vector<uint32_t>{93, 3, number, 81}),
            (std::vector<uint32_t>{Slot<uint32_t>(Channel::Notify, 4), Slot<uint32_t>(Channel::Notify, 8),
                                   Slot<uint32_t>(Channel::Notify, 12), Slot<uint32_t>(Channel::Notify, 540)}));
  EXPECT_STREQ("App.GVL.text", reinterpret_cast<const char*>(controller->Host().Area(Channel::Notify) + 280));

  ASSERT_EQ(0u, Write(h, {"42", "hello", "2.5"}));
  EXPECT_EQ(42, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(2.5, Image<double>("App.GVL.level"));
  // The low byte of the client sequence, Rw 2, Size, handle, the running offsets, then the values.
  const auto swap = [this] {
    std::vector<uint32_t> v = {Slot<uint8_t>(Channel::DataSwap, 5), Slot<uint8_t>(Channel::DataSwap, 6)};
    for (size_t offset = 7; offset <= 27; offset += 4) v.push_back(Slot<uint32_t>(Channel::DataSwap, offset));
    return v;
  };
  EXPECT_EQ((std::vector<uint32_t>{seq & 0xFF, 2, 3, number, 0, 4, 85, 42}), swap());
  ASSERT_EQ(0u, Read(h));
  EXPECT_EQ((std::vector<uint32_t>{seq & 0xFF, 1, 3, number, 0, 4, 85, 42}), swap());  // the answer's values
  ASSERT_EQ(3u, values.size());
  EXPECT_STREQ("App.GVL.text", values[1].FullName);
  EXPECT_EQ(81, values[1].ValueLength);
  EXPECT_EQ(42, ReadAt<int32_t>(values[0].Value));
  EXPECT_STREQ("hello", static_cast<const char*>(values[1].Value));
  EXPECT_EQ(2.5, ReadAt<double>(values[2].Value));

  unsigned char raw[93] = {};  // the list's image: DInt, String(80), LReal
  WriteAt(raw, 0, int32_t{-7}), std::memcpy(raw + 4, "raw", 3), WriteAt(raw, 85, 0.125);
  ASSERT_EQ(0u, varlok->WriteTagList(h, raw, 3));
  EXPECT_EQ(0, std::memcmp(raw, controller->Host().Area(Channel::DataSwap) + 27, 93));
  tagTagVarValue* records = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(0u, varlok->ReadTagList(h, &records, count));
  ASSERT_EQ(3u, count);
  EXPECT_EQ(-7, ReadAt<int32_t>(records[0].Value));
  EXPECT_STREQ("raw", static_cast<const char*>(records[1].Value));
  EXPECT_EQ(0.125, ReadAt<double>(records[2].Value));

  ASSERT_EQ(0u, varlok->WriteTagValues(h, int32_t{99}, std::string("typed"), 1.5));
  int32_t counter = 0;
  std::string text;
  double level = 0;
  ASSERT_EQ(0u, varlok->ReadTagValues(h, counter, text, level));
  EXPECT_TRUE(counter == 99 && text.size() == 81 && text.c_str() == std::string("typed") && level == 1.5);
  EXPECT_EQ(0u, varlok->DeleteTagsHandle(h));
  EXPECT_EQ(number, Slot<uint32_t>(Channel::Notify, 12));
}

TEST_F(ShmIntegration, ArraysRangesAndStructures) {
  Connect();
  HTAGLIST arr = Define({"App.GVL.cnt"}), pt = Define({"App.GVL.pt"});
  int32_t all[10] = {100, 101, 102, 103, 104, 105, 106, 107, 108, 109}, two[2] = {-1, -2}, back[10] = {};
  ASSERT_EQ(0u, varlok->WriteArray(arr, 4, all, 0, 0));
  EXPECT_EQ(4u, Slot<uint32_t>(Channel::DataSwap, 7));  // four range entries: 0, 0, 40, 4
  EXPECT_EQ(40u, Slot<uint32_t>(Channel::DataSwap, 23));
  EXPECT_EQ(109, Image<int32_t>("App.GVL.cnt[9]"));
  ASSERT_EQ(0u, varlok->WriteArray(arr, 4, two, 3, 2));
  EXPECT_EQ(3u, Slot<uint32_t>(Channel::DataSwap, 19));
  EXPECT_EQ(8u, Slot<uint32_t>(Channel::DataSwap, 23));
  EXPECT_EQ(-1, Slot<int32_t>(Channel::DataSwap, 31));  // the slice from the value block's first byte
  ASSERT_EQ(0u, varlok->ReadArray(arr, 4, back, 0, 0));
  const int32_t expected[10] = {100, 101, 102, -1, -2, 105, 106, 107, 108, 109};
  EXPECT_EQ(0, std::memcmp(expected, back, sizeof back));
  ASSERT_EQ(0u, varlok->ReadArray(arr, 4, two, 8, 2));
  EXPECT_EQ(0, std::memcmp(expected + 8, two, 8));
  EXPECT_EQ(ERR_OVERSTEP_ACCESS, varlok->ReadArray(arr, 4, two, 8, 3));
  EXPECT_EQ(ERR_UNMATCH_TYPE_PARA, varlok->ReadArray(arr, 2, two, 0, 0));

  two[0] = 5, two[1] = -6;
  ASSERT_EQ(0u, varlok->WriteStructField(pt, two, 8));
  EXPECT_EQ(-6, Image<int32_t>("App.GVL.pt.y"));
  ASSERT_EQ(0u, varlok->ReadStructField(pt, back, 8));
  EXPECT_EQ(0, std::memcmp(two, back, 8));
  EXPECT_EQ(ERR_UNALIGNED_STRUCT, varlok->ReadStructField(pt, back, 4));
  EXPECT_EQ(ERR_UNMATCH_TYPE_PARA, varlok->ReadArray(pt, 4, back, 0, 0));
}

TEST_F(ShmIntegration, FailedChecksSendNothing) {
  Connect();
  HTAGLIST mixed = Define({"App.GVL.counter", "App.GVL.wo"}), ro = Define({"App.GVL.ro", "App.GVL.speed"}),
           arr = Define({"App.GVL.cnt"});
  const uint64_t before = controller->Answered();
  int32_t buffer[10] = {};
  const std::vector<std::tuple<const char*, std::function<unsigned int()>, unsigned int, const char*>> cases = {
      {"read of a write-only tag", [&] { return Read(mixed); }, ERR_READ_WRITE_DENIED, "access type is 1"},
      {"read-only before the count", [&] { return Write(ro, {"1"}); }, ERR_READ_WRITE_DENIED, "access type is 0"},
      {"count", [&] { return Write(mixed, {"1", "2", "3"}); }, ERR_UNMATCH_WITH_DEFINE, "length=2, size=3"},
      {"array in a list", [&] { return Write(arr, {"1"}); }, ERR_UNMATCH_TYPE_PARA, "Type:14"},
      {"range", [&] { return varlok->WriteArray(arr, 4, buffer, 9, 2); }, ERR_OVERSTEP_ACCESS, "l1=9,l2=2,l3=4,l4=40"},
      {"empty text", [&] { return Write(mixed, {"", "2"}); }, ERR_WRITE_FAILED, "serializeString, tagNodeValue, %s"},
  };
  for (const auto& [name, call, code, log] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(code, call());
    EXPECT_GE(qvtest::Log().CountOf(err, log), 1u) << log;
  }
  EXPECT_EQ(before, controller->Answered());
  EXPECT_EQ(0, Image<int32_t>("App.GVL.counter"));
}

TEST_F(ShmIntegration, DeleteRenumbersLaterHandlesThroughTheCallersPointers) {
  Connect();
  HTAGLIST a = Define({"App.GVL.counter"}), b = Define({"App.GVL.speed"}), c = Define({"App.GVL.level"});
  const int32_t numberB = HandleNumber(b), numberC = HandleNumber(c);
  ASSERT_EQ(numberB + 1, numberC);
  ASSERT_EQ(0u, varlok->DeleteTagsHandle(a));
  EXPECT_EQ(std::make_pair(numberB - 1, numberC - 1), std::make_pair(HandleNumber(b), HandleNumber(c)));
  ASSERT_EQ(0u, Write(c, {"3.25"}));
  EXPECT_EQ(3.25, Image<double>("App.GVL.level"));
  ASSERT_EQ(0u, Write(b, {"77"}));
  EXPECT_EQ(77, Image<int32_t>("App.GVL.speed"));
  EXPECT_EQ(static_cast<uint32_t>(HandleNumber(b)), Slot<uint32_t>(Channel::DataSwap, 11));
}

TEST_F(ShmIntegration, ReconnectMakesOldHandlesInvalidAndNewListsWork) {
  Connect();
  HTAGLIST old = Define({"App.GVL.counter"});
  ASSERT_EQ(0u, varlok->DisconnectFromDevice(device));
  unsigned int e = 1;
  ASSERT_NE(nullptr, varlok->ConnectToPlcDevice("Local", e));
  const uint32_t newSeq = Slot<uint32_t>(Channel::Connect, 4);
  EXPECT_NE(seq, newSeq);
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, Read(old));
  EXPECT_TRUE(qvtest::Log().Contains(fmt::format("clientSeq={},ReadClientSeq={},length=1", seq, newSeq)));
  Define({"App.GVL.level"});
  ASSERT_EQ(0u, Write(Define({"App.GVL.speed", "App.GVL.counter"}), {"5", "6"}));
  EXPECT_EQ(6, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, Read(old));
}

TEST_F(ShmIntegration, ControllerRefusalsGiveTheirCodesAndWriteNothing) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  qorvarlok::controller::FaultPlan plan;
  plan.errorMask = ChannelBit(Channel::DataSwap), plan.errorValue = 5;
  controller->SetFaults(plan);
  EXPECT_EQ(ERR_PLC_READ_WRITE_FAILED, Write(h, {"1"}));
  EXPECT_EQ(0, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "E:5, Flag:3", "DataSwapShmComThread::runAsyncIntf"));
  EXPECT_TRUE(qvtest::Log().Contains(fmt::format("dataswap result = 268436233, cmd=[DataSwapCmd ByteTotal=4, "
                                                 "Err=268436233, Flag=2, Rw=2, Seq={}, Size=1, TagsHandle={}, ",
                                                 seq & 0xFF, HandleNumber(h))));
  plan.errorMask = ChannelBit(Channel::Notify), plan.errorValue = 6;
  controller->SetFaults(plan);
  unsigned int e = 0;
  EXPECT_EQ(nullptr, varlok->CreateTagsHandle(std::string("App.GVL.speed"), e));
  EXPECT_EQ(ERR_PLC_DEFINE_FAILED, e);
  EXPECT_TRUE(qvtest::Log().Contains("WriteDefineCmd err :268436232"));
  controller->SetFaults({});
  ASSERT_EQ(0u, Write(Define({"App.GVL.speed"}), {"8"}));
  EXPECT_EQ(8, Image<int32_t>("App.GVL.speed"));

  plan = {};
  plan.refuseConnect = 2;
  controller->SetFaults(plan);
  ASSERT_EQ(0u, varlok->DisconnectFromDevice(device));
  EXPECT_EQ(nullptr, varlok->ConnectToPlcDevice("Local", e));
  EXPECT_EQ(ERR_CONNECT_FAILED, e);
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "WaitEvent, pFlag=3, pErr=2", "ConnectCmdThread::runAsyncIntf"));
  EXPECT_GE(qvtest::Log().CountOf(err, "ShmComClient::GetInstance()->ReadClientSeq()<=0"), 1u);
}

// Runs only as a helper process of TwoClientProcessesShareTheChannels.
TEST(ShmHelper, ClientProcess) {
  const char* tag = std::getenv("SHM_HELPER_TAG");
  if (tag == nullptr) GTEST_SKIP() << "helper of another test";
  ZelVarlok varlok;
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, std::getenv("SHM_HELPER_SYMBOLS")));
  unsigned int e = 1, count = 0;
  void* device = varlok.ConnectToPlcDevice("Local", e);
  HTAGLIST h = varlok.CreateTagsHandle(std::string(tag), e);
  ASSERT_TRUE(device != nullptr && h != nullptr);
  for (int i = 1; i < 600; i += 3) {
    std::vector<std::string> text{std::to_string(i)};
    std::vector<tagTagVarValue> values;
    ASSERT_EQ(0u, varlok.WriteTagList(h, text));
    ASSERT_EQ(0u, varlok.ReadTagList(h, values, count));
    ASSERT_EQ(i, ReadAt<int32_t>(values.at(0).Value));  // never the other process's value
  }
  EXPECT_EQ(0u, varlok.DeleteTagsHandle(h));
  EXPECT_EQ(0u, varlok.DisconnectFromDevice(device));
}

TEST_F(ShmIntegration, TwoClientProcessesShareTheChannels) {
  pid_t pids[2];
  for (int i = 0; i < 2; ++i)
    pids[i] = Spawn({"/proc/self/exe", "--gtest_filter=ShmHelper.ClientProcess"},
                    {i == 0 ? "SHM_HELPER_TAG=App.GVL.counter" : "SHM_HELPER_TAG=App.GVL.speed",
                     "SHM_HELPER_SYMBOLS=" + path});
  EXPECT_EQ(0, WaitExit(pids[0]));
  EXPECT_EQ(0, WaitExit(pids[1]));
  EXPECT_EQ(598, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(598, Image<int32_t>("App.GVL.speed"));
}

class ShmManyTags : public ShmFixture {
  unsigned ManyCount() const override { return 19860; }
};

TEST_F(ShmManyTags, DefineOf19860TagsIsRefusedUnsentAnd19859Pass) {
  Connect();
  std::vector<std::string> names;
  for (unsigned i = 0; i < 19860; ++i) names.push_back(ManyName(i));
  unsigned int e = 0;
  const uint64_t before = controller->Answered();
  EXPECT_EQ(nullptr, varlok->CreateTagsHandle(names, e));
  EXPECT_EQ(ERR_TOO_MANY_TAGS, e);
  EXPECT_EQ(before, controller->Answered());
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "cmdSize =5243050> MAXSIZE_DEFINE_SHM", "ShmComClient::WriteDefineCmd"));
  names.pop_back();
  ASSERT_EQ(0u, Read(Define(names)));
  EXPECT_EQ(19859u, values.size());
}

TEST_F(ShmSlow, SilentChannelEndsAfterFiveAnswerWaitsAndAVanishingOneIsUnavailable) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  qorvarlok::controller::FaultPlan plan;
  plan.silentMask = ChannelBit(Channel::DataSwap);
  controller->SetFaults(plan);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ERR_RTOS_RECV_EVENT_FAILED, Read(h));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(elapsed >= std::chrono::milliseconds(4900) && elapsed < std::chrono::milliseconds(9000));
  EXPECT_EQ(5u, qvtest::Log().CountOf(warn, "RTE_ERROR_TIMEOUT.E:0", "DataSwapShmComThread::runAsyncIntf"));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "Rtos Error"));
  controller->SetFaults({});  // the partition lived: the client stayed set up
  EXPECT_EQ(0u, Read(h));

  plan.silentMask = 0, plan.vanishMask = ChannelBit(Channel::DataSwap);
  controller->SetFaults(plan);  // cut mid-command: the wait runs out and reading the slot faults
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, Read(h));
  EXPECT_NE(nullptr, qorvarlok::shm::ShmComClient::GetInstance());
  // The next slot write faults at once; the cut areas are too small to set up again.
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, Read(h));
  EXPECT_EQ(nullptr, qorvarlok::shm::ShmComClient::GetInstance());
  EXPECT_EQ(1u, qvtest::Log().CountOf(spdlog::level::info, "shm client has initialized ret = 268435970"));
}

TEST_F(ShmSlow, MutexHeldElsewhereTimesOutAfterThreeSecondsAndSendsNothing) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  std::atomic<bool> held{false};
  std::thread holder([&] {
    auto m = qorvarlok::platform::OpenNamedMutex(L"Global\\MUTEX_DATASWAP");
    held = qorvarlok::platform::WaitForNamedMutex(m, 1000) == 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    qorvarlok::platform::ReleaseNamedMutex(m);
  });
  while (!held) std::this_thread::yield();
  const uint64_t before = controller->Answered();
  EXPECT_EQ(ERR_WAIT_TIMEOUT, Write(h, {"1"}));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "WaitForSingleObject,E:258", "DataSwapShmComThread::Async"));
  EXPECT_EQ(before, controller->Answered());
  holder.join();
  EXPECT_EQ(0u, Write(h, {"1"}));
}

#ifdef VARLOK_SIM_PATH
// Killed with SIGKILL, the controller's partition is seen dead; restarted, the
// same ZelVarlok reconnects and sets up anew.
TEST_F(ShmSlow, KilledControllerProcessIsUnavailableThenWorksAfterReconnect) {
  controller.reset();  // the process serves this partition instead
  SimProcess sim;
  ASSERT_TRUE(sim.Start(VARLOK_SIM_PATH, {"--symbols", path, "--partition", partition}));
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  ASSERT_EQ(0u, Write(h, {"11"}));
  sim.Stop(SIGKILL);
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, Read(h));

  ASSERT_TRUE(sim.Start(VARLOK_SIM_PATH, {"--symbols", path, "--partition", partition}));
  EXPECT_EQ(0u, varlok->DisconnectFromDevice(device));
  unsigned int e = 1;
  ASSERT_NE(nullptr, device = varlok->ConnectToPlcDevice("Local", e)) << e;
  EXPECT_NE(0u, Read(h));  // a list of the killed controller never answers with values
  Define({"App.GVL.level"});
  HTAGLIST again = Define({"App.GVL.speed", "App.GVL.counter"});
  EXPECT_EQ(0u, Write(again, {"21", "22"}));
  ASSERT_EQ(0u, Read(again));
  EXPECT_EQ(22, ReadAt<int32_t>(values.at(1).Value));
  EXPECT_EQ(0, sim.Stop(SIGTERM));
}
#endif

}  // namespace
