// ZelVarlok over COM_TYPE_LOCAL against the real controller: values and slot
// bytes of every operation, checks that send nothing, handle renumbering,
// reconnects, controller faults, a controller that goes and comes back, two
// client processes on the same channels, and the define limit.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ShmFixture.h"
#include "SimProcess.h"

using shmtest::Channel;
using shmtest::HandleNumber;
using spdlog::level::err;

namespace {

// Values lie packed in the list's buffer, so they are read by copy.
template <typename T>
T At(const void* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

class ShmIntegration : public shmtest::ShmFixture {};

TEST_F(ShmIntegration, ListReadWriteEveryFormWithSlotBytes) {
  Connect();
  ASSERT_NE(0u, seq);
  HTAGLIST h = Define({"App.GVL.counter", "App.GVL.text", "App.GVL.level"});
  ASSERT_NE(nullptr, h);
  // Define slot: ByteLength before Size, one named entry of 264 bytes per tag.
  EXPECT_EQ(93u, Load<uint32_t>(Channel::Notify, 4));
  EXPECT_EQ(3u, Load<uint32_t>(Channel::Notify, 8));
  EXPECT_EQ(static_cast<uint32_t>(HandleNumber(h)), Load<uint32_t>(Channel::Notify, 12));
  EXPECT_STREQ("App.GVL.text", reinterpret_cast<const char*>(controller->Host().Area(Channel::Notify) + 16 + 264));
  EXPECT_EQ(81u, Load<uint32_t>(Channel::Notify, 16 + 264 + 260));

  std::vector<std::string> text{"42", "hello", "2.5"};
  ASSERT_EQ(0u, varlok->WriteTagList(h, text));
  EXPECT_EQ(42, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(2.5, Image<double>("App.GVL.level"));
  // Write slot: Rw 2, the three running offsets, the value block right behind them.
  EXPECT_EQ(2, Load<uint8_t>(Channel::DataSwap, 6));
  EXPECT_EQ(seq & 0xFF, Load<uint8_t>(Channel::DataSwap, 5));
  EXPECT_EQ(3u, Load<uint32_t>(Channel::DataSwap, 7));
  EXPECT_EQ(85u, Load<uint32_t>(Channel::DataSwap, 23));
  EXPECT_EQ(42, Load<int32_t>(Channel::DataSwap, 27));

  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  ASSERT_EQ(0u, varlok->ReadTagList(h, values, count));
  ASSERT_EQ(3u, count);
  EXPECT_STREQ("App.GVL.text", values[1].FullName);
  EXPECT_EQ(42, At<int32_t>(values[0].Value));
  EXPECT_STREQ("hello", static_cast<const char*>(values[1].Value));
  EXPECT_EQ(81, values[1].ValueLength);
  EXPECT_EQ(2.5, At<double>(values[2].Value));
  EXPECT_EQ(1, Load<uint8_t>(Channel::DataSwap, 6));

  // Raw image of the whole list, then the array form of the read.
  unsigned char raw[93] = {};
  const int32_t c = -7;
  const double l = 0.125;
  std::memcpy(raw, &c, 4);
  std::memcpy(raw + 4, "raw", 3);
  std::memcpy(raw + 85, &l, 8);
  ASSERT_EQ(0u, varlok->WriteTagList(h, raw, 3));
  tagTagVarValue* records = nullptr;
  ASSERT_EQ(0u, varlok->ReadTagList(h, &records, count));
  ASSERT_EQ(3u, count);
  EXPECT_EQ(-7, At<int32_t>(records[0].Value));
  EXPECT_STREQ("raw", static_cast<const char*>(records[1].Value));
  EXPECT_EQ(0.125, At<double>(records[2].Value));

  // Typed forms.
  ASSERT_EQ(0u, varlok->WriteTagValues(h, int32_t{99}, std::string("typed"), 1.5));
  int32_t counter = 0;
  std::string s;
  double level = 0;
  ASSERT_EQ(0u, varlok->ReadTagValues(h, counter, s, level));
  EXPECT_EQ(99, counter);
  EXPECT_EQ(81u, s.size());
  EXPECT_STREQ("typed", s.c_str());
  EXPECT_EQ(1.5, level);
  EXPECT_EQ(0u, varlok->DeleteTagsHandle(h));
}

TEST_F(ShmIntegration, ArraysRangesAndStructures) {
  Connect();
  HTAGLIST arr = Define({"App.GVL.cnt"});
  int32_t all[10];
  for (int i = 0; i < 10; ++i) all[i] = 100 + i;
  ASSERT_EQ(0u, varlok->WriteArray(arr, 4, all, 0, 0));
  EXPECT_EQ(4u, Load<uint32_t>(Channel::DataSwap, 7));  // the four range entries: 0, 0, 40, 4
  EXPECT_EQ(40u, Load<uint32_t>(Channel::DataSwap, 23));
  EXPECT_EQ(109, Image<int32_t>("App.GVL.cnt[9]"));
  const int32_t two[2] = {-1, -2};
  ASSERT_EQ(0u, varlok->WriteArray(arr, 4, const_cast<int32_t*>(two), 3, 2));
  EXPECT_EQ(3u, Load<uint32_t>(Channel::DataSwap, 19));
  EXPECT_EQ(8u, Load<uint32_t>(Channel::DataSwap, 23));
  EXPECT_EQ(-1, Load<int32_t>(Channel::DataSwap, 31));  // the slice from the value block's first byte
  int32_t back[10] = {};
  ASSERT_EQ(0u, varlok->ReadArray(arr, 4, back, 0, 0));
  EXPECT_EQ(102, back[2]);
  EXPECT_EQ(-1, back[3]);
  EXPECT_EQ(-2, back[4]);
  EXPECT_EQ(105, back[5]);
  int32_t part[2] = {};
  ASSERT_EQ(0u, varlok->ReadArray(arr, 4, part, 8, 2));
  EXPECT_EQ(108, part[0]);
  EXPECT_EQ(ERR_OVERSTEP_ACCESS, varlok->ReadArray(arr, 4, part, 8, 3));
  EXPECT_EQ(ERR_UNMATCH_TYPE_PARA, varlok->ReadArray(arr, 2, part, 0, 0));

  HTAGLIST pt = Define({"App.GVL.pt"});
  const int32_t point[2] = {5, -6};
  ASSERT_EQ(0u, varlok->WriteStructField(pt, point, 8));
  EXPECT_EQ(-6, Image<int32_t>("App.GVL.pt.y"));
  int32_t got[2] = {};
  ASSERT_EQ(0u, varlok->ReadStructField(pt, got, 8));
  EXPECT_EQ(5, got[0]);
  EXPECT_EQ(-6, got[1]);
  EXPECT_EQ(ERR_UNALIGNED_STRUCT, varlok->ReadStructField(pt, got, 4));
  EXPECT_EQ(ERR_UNMATCH_TYPE_PARA, varlok->ReadArray(pt, 4, got, 0, 0));
}

TEST_F(ShmIntegration, FailedChecksSendNothing) {
  Connect();
  HTAGLIST mixed = Define({"App.GVL.counter", "App.GVL.wo"});
  HTAGLIST ro = Define({"App.GVL.ro", "App.GVL.speed"});
  HTAGLIST arr = Define({"App.GVL.cnt"});
  const uint64_t before = controller->Answered();
  struct Case {
    const char* name;
    std::function<unsigned int()> call;
    unsigned int code;
    const char* log;
  };
  std::vector<std::string> one{"1"};
  int32_t buffer[10] = {};
  const std::vector<Case> cases = {
      {"read of a write-only tag", [&] { std::vector<tagTagVarValue> v; unsigned int n = 0; return varlok->ReadTagList(mixed, v, n); },
       ERR_READ_WRITE_DENIED, "access type is 1"},
      {"write of a read-only tag before the count", [&] { return varlok->WriteTagList(ro, one); }, ERR_READ_WRITE_DENIED,
       "access type is 0"},
      {"write count", [&] { std::vector<std::string> three{"1", "2", "3"}; return varlok->WriteTagList(mixed, three); },
       ERR_UNMATCH_WITH_DEFINE, "length=2, size=3"},
      {"array in a list", [&] { return varlok->WriteTagList(arr, one); }, ERR_UNMATCH_TYPE_PARA, "Type:14"},
      {"range write past the end", [&] { return varlok->WriteArray(arr, 4, buffer, 9, 2); }, ERR_OVERSTEP_ACCESS,
       "l1=9,l2=2,l3=4,l4=40"},
      {"empty text", [&] { std::vector<std::string> empty{"", "2"}; return varlok->WriteTagList(mixed, empty); },
       ERR_WRITE_FAILED, "serializeString, tagNodeValue, %s"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.code, c.call());
    EXPECT_GE(qvtest::Log().CountOf(err, c.log), 1u) << c.log;
  }
  EXPECT_EQ(before, controller->Answered());
}

TEST_F(ShmIntegration, DeleteRenumbersLaterHandlesThroughTheCallersPointers) {
  Connect();
  HTAGLIST a = Define({"App.GVL.counter"});
  HTAGLIST b = Define({"App.GVL.speed"});
  HTAGLIST c = Define({"App.GVL.level"});
  const int32_t numberB = HandleNumber(b);
  const int32_t numberC = HandleNumber(c);
  ASSERT_EQ(numberB + 1, numberC);
  ASSERT_EQ(0u, varlok->DeleteTagsHandle(a));
  EXPECT_EQ(numberB - 1, HandleNumber(b));
  EXPECT_EQ(numberC - 1, HandleNumber(c));
  std::vector<std::string> v{"3.25"};
  ASSERT_EQ(0u, varlok->WriteTagList(c, v));
  EXPECT_EQ(3.25, Image<double>("App.GVL.level"));
  std::vector<std::string> w{"77"};
  ASSERT_EQ(0u, varlok->WriteTagList(b, w));
  EXPECT_EQ(77, Image<int32_t>("App.GVL.speed"));
  EXPECT_EQ(static_cast<uint32_t>(HandleNumber(b)), Load<uint32_t>(Channel::DataSwap, 11));
}

TEST_F(ShmIntegration, ReconnectMakesOldHandlesInvalid) {
  Connect();
  HTAGLIST old = Define({"App.GVL.counter"});
  ASSERT_EQ(0u, varlok->DisconnectFromDevice(device));
  unsigned int e = 1;
  ASSERT_NE(nullptr, varlok->ConnectToPlcDevice("Local", e));
  const uint32_t newSeq = Load<uint32_t>(Channel::Connect, 4);
  EXPECT_NE(seq, newSeq);
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, varlok->ReadTagList(old, values, count));
  EXPECT_TRUE(qvtest::Log().Contains(fmt::format("clientSeq={},ReadClientSeq={},length=1", seq, newSeq)));
  // The chain keeps the old list until it is deleted, and the lookup takes the
  // first list with a number: the controller numbers the new connection's lists
  // from 1 again, so the first new list is shadowed by the old one.
  HTAGLIST shadowed = Define({"App.GVL.counter"});
  HTAGLIST fresh = Define({"App.GVL.speed"});
  EXPECT_EQ(HandleNumber(old), HandleNumber(shadowed));
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, varlok->ReadTagList(shadowed, values, count));
  EXPECT_EQ(0u, varlok->ReadTagList(fresh, values, count));
}

TEST_F(ShmIntegration, ControllerFaultsGiveTheirCodes) {
  using qorvarlok::controller::ChannelBit;
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  qorvarlok::controller::FaultPlan plan;
  plan.errorMask = ChannelBit(Channel::DataSwap);
  plan.errorValue = 5;
  controller->SetFaults(plan);
  std::vector<std::string> v{"1"};
  EXPECT_EQ(ERR_PLC_READ_WRITE_FAILED, varlok->WriteTagList(h, v));
  // The refusal's raw value only in the log; the record's Err is the library's code.
  EXPECT_TRUE(qvtest::Log().Contains("E:5, Flag:"));
  EXPECT_TRUE(qvtest::Log().Contains(
      "dataswap result = 268436233, cmd=[DataSwapCmd ByteTotal=4, Err=268436233, Flag=2, Rw=2, Seq=" +
      std::to_string(seq & 0xFF) + ", Size=1, TagsHandle=" + std::to_string(HandleNumber(h))));
  plan = {};
  plan.errorMask = ChannelBit(Channel::Notify);
  plan.errorValue = 6;
  controller->SetFaults(plan);
  unsigned int e = 0;
  EXPECT_EQ(nullptr, varlok->CreateTagsHandle(std::string("App.GVL.speed"), e));
  EXPECT_EQ(ERR_PLC_DEFINE_FAILED, e);
  EXPECT_TRUE(qvtest::Log().Contains("WriteDefineCmd err :268436232"));
  controller->SetFaults({});
  // The refused list went again: the next one takes the next number in line.
  HTAGLIST next = Define({"App.GVL.speed"});
  EXPECT_EQ(HandleNumber(h) + 1, HandleNumber(next));

  plan = {};
  plan.refuseConnect = 2;
  controller->SetFaults(plan);
  ASSERT_EQ(0u, varlok->DisconnectFromDevice(device));
  EXPECT_EQ(nullptr, varlok->ConnectToPlcDevice("Local", e));
  EXPECT_EQ(ERR_CONNECT_FAILED, e);
  EXPECT_TRUE(qvtest::Log().Contains("pErr=2"));
  EXPECT_GE(qvtest::Log().CountOf(err, "ShmComClient::GetInstance()->ReadClientSeq()<=0"), 1u);
}

TEST_F(ShmIntegration, ControllerGoneThenBackAfterReconnect) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  controller.reset();  // cuts the areas: the next slot write faults
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, varlok->ReadTagList(h, values, count));
  EXPECT_EQ(nullptr, qorvarlok::shm::ShmComClient::GetInstance());
  StartController();
  ASSERT_EQ(0u, varlok->DisconnectFromDevice(device));
  unsigned int e = 1;
  ASSERT_NE(nullptr, varlok->ConnectToPlcDevice("Local", e));
  // A restarted controller grants sequence numbers from the start again: when the
  // new one equals the old, the old list passes the client's test and the
  // controller refuses its handle.
  const uint32_t newSeq = Load<uint32_t>(Channel::Connect, 4);
  EXPECT_EQ(newSeq == seq ? ERR_PLC_READ_WRITE_FAILED : ERR_INVALID_VAR_DEFS, varlok->ReadTagList(h, values, count));
  Define({"App.GVL.speed"});  // number 1 again, shadowed by the old list
  HTAGLIST fresh = Define({"App.GVL.counter"});
  std::vector<std::string> v{"5"};
  EXPECT_EQ(0u, varlok->WriteTagList(fresh, v));
  EXPECT_EQ(5, Image<int32_t>("App.GVL.counter"));
}

// ------------------------------------------------- two client processes

// Runs only as a helper process of TwoClientProcessesShareTheChannels.
TEST(ShmHelper, ClientProcess) {
  const char* tag = std::getenv("SHM_HELPER_TAG");
  const char* file = std::getenv("SHM_HELPER_SYMBOLS");
  if (tag == nullptr || file == nullptr) GTEST_SKIP() << "helper of another test";
  ZelVarlok varlok;
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file));
  unsigned int e = 1;
  void* device = varlok.ConnectToPlcDevice("Local", e);
  ASSERT_NE(nullptr, device);
  HTAGLIST h = varlok.CreateTagsHandle(std::string(tag), e);
  ASSERT_NE(nullptr, h);
  for (int i = 0; i < 200; ++i) {
    std::vector<std::string> v{std::to_string(i * 3 + 1)};
    ASSERT_EQ(0u, varlok.WriteTagList(h, v));
    std::vector<tagTagVarValue> values;
    unsigned int count = 0;
    ASSERT_EQ(0u, varlok.ReadTagList(h, values, count));
    ASSERT_EQ(i * 3 + 1, At<int32_t>(values.at(0).Value));
  }
  EXPECT_EQ(0u, varlok.DeleteTagsHandle(h));
  EXPECT_EQ(0u, varlok.DisconnectFromDevice(device));
}

TEST_F(ShmIntegration, TwoClientProcessesShareTheChannels) {
  const pid_t a = shmtest::SpawnSelf("ShmHelper.ClientProcess", {"SHM_HELPER_TAG=App.GVL.counter",
                                                                 "SHM_HELPER_SYMBOLS=" + path});
  const pid_t b = shmtest::SpawnSelf("ShmHelper.ClientProcess", {"SHM_HELPER_TAG=App.GVL.speed",
                                                                 "SHM_HELPER_SYMBOLS=" + path});
  EXPECT_EQ(0, shmtest::WaitExit(a));
  EXPECT_EQ(0, shmtest::WaitExit(b));
  EXPECT_EQ(598, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(598, Image<int32_t>("App.GVL.speed"));
}

// ------------------------------------------------------------- the limit

class ShmManyTags : public shmtest::ShmFixture {
 protected:
  unsigned ManyCount() const override { return 19860; }
};

TEST_F(ShmManyTags, DefineOf19860TagsIsRefusedAnd19859Pass) {
  Connect();
  std::vector<std::string> names;
  for (unsigned i = 0; i < 19860; ++i) names.push_back(shmtest::ManyName(i));
  unsigned int e = 0;
  const uint64_t before = controller->Answered();
  EXPECT_EQ(nullptr, varlok->CreateTagsHandle(names, e));
  EXPECT_EQ(ERR_TOO_MANY_TAGS, e);
  EXPECT_EQ(before, controller->Answered());
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "cmdSize =5243050> MAXSIZE_DEFINE_SHM"));
  names.pop_back();
  HTAGLIST h = Define(names);
  ASSERT_NE(nullptr, h);
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  ASSERT_EQ(0u, varlok->ReadTagList(h, values, count));
  EXPECT_EQ(19859u, count);
}

}  // namespace
