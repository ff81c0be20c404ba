// ZelVarlok over COM_TYPE_LOCAL against the real controller, in threads of this
// process or as varlok-sim; ShmSlow are the tests that wait on the real budgets.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "ComThread.h"
#include "Controller.h"
#include "ExePath.h"
#include "LogCapture.h"
#include "LogSetup.h"
#include "QorVarlok/ZelVarlok.h"
#include "ShmProject.h"
#include "SimProcess.h"
#include "SymbolConfigReader.h"

using namespace shmtest;
using namespace qorvarlok::controller;
using qorvarlok::rtos::Channel;
using spdlog::level::err, spdlog::level::warn;

namespace {

class ShmIntegration : public testing::Test {
 protected:
  virtual unsigned ManyCount() const { return 4; }
  void SetUp() override {
    static int serial = 0;  // a partition of each test's own
    partition = "shmint" + std::to_string(testsys::ProcessId()) + "-" + std::to_string(++serial);
    path = testsys::MakeTempDir(partition) + "/project.xml";
    testsys::SetEnv("VARLOK_PARTITION", partition);
    ASSERT_TRUE(WriteProject(path, ManyCount()));
    config.reset(qorvarlok::symbols::SymbolConfigReader().ReadFile(std::wstring(path.begin(), path.end()), nullptr));
    ASSERT_NE(nullptr, config);
    ControllerOptions options;
    options.host.partition = partition, options.onVanish = [] {};
    std::string error;
    ASSERT_NE(nullptr, controller = Controller::Start(ProcessImage::Build(*config), options, &error)) << error;
    if (auto* client = qorvarlok::shm::ShmComClient::GetInstance())  // left mapped to an earlier test's partition
      qorvarlok::shm::ShmComClientProbe::MarkLost(client);
    qvtest::Log().Clear();
  }
  void TearDown() override {
    varlok.reset(), controller.reset(), RemoveNamedMutexes(partition);
    std::filesystem::remove_all(std::filesystem::path(path).parent_path(), ignored);
  }
  void Connect() {  // seq: the client sequence granted
    varlok = std::make_unique<ZelVarlok>();
    ASSERT_EQ(0u, varlok->InitializeCom(COM_TYPE_LOCAL, path.c_str()) + Reconnect(false));
    seq = controller ? Slot<uint32_t>(Channel::Connect, 4) : 0;
  }
  unsigned int Reconnect(bool disconnect = true) {
    unsigned int e = 1, d = disconnect ? varlok->DisconnectFromDevice(device) : 0;
    device = varlok->ConnectToPlcDevice("Local", e);
    return d != 0 ? d : e;
  }
  HTAGLIST Define(std::vector<std::string> names) {
    unsigned int e = 1;
    HTAGLIST h = varlok->CreateTagsHandle(std::move(names), e);
    EXPECT_TRUE(e == 0 && h != nullptr) << e;
    return h;
  }
  unsigned int Write(HTAGLIST h, std::vector<std::string> text) { return varlok->WriteTagList(h, text); }
  unsigned int Read(HTAGLIST h) { return varlok->ReadTagList(h, values, count); }
  template <typename T>
  T Slot(Channel channel, size_t offset) { return ReadAt<T>(controller->Host().Area(channel), offset); }
  uint32_t Swap(size_t offset) { return Slot<uint32_t>(Channel::DataSwap, offset); }
  template <typename T>
  T Image(const std::string& name) {  // a value in the controller's process image
    Location loc;
    EXPECT_EQ(ResolveResult::Ok, controller->Image().Resolve(name, loc)) << name;
    return ReadAt<T>(controller->Image().Data(), loc.offset);
  }
  void Faults(void (*arrange)(FaultPlan&)) {
    FaultPlan plan;
    arrange(plan), controller->SetFaults(plan);
  }

  std::error_code ignored;
  std::string partition, path;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config;
  std::unique_ptr<Controller> controller;
  std::unique_ptr<ZelVarlok> varlok;
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  uint32_t seq = 0;
  void* device = nullptr;
};
class ShmSlow : public ShmIntegration {};
class ShmManyTags : public ShmIntegration { unsigned ManyCount() const override { return 19860; } };

uint32_t Number(HTAGLIST h) { return *static_cast<uint32_t*>(h); }

TEST_F(ShmIntegration, ListOperationsInEveryFormWithSlotBytes) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter", "App.GVL.text", "App.GVL.level"});
  ASSERT_TRUE(h != nullptr && seq != 0);
  const uint32_t number = Number(h);
  // ByteLength before Size, then one 264-byte entry per tag: name, then size at 260.
  EXPECT_EQ((std::vector<uint32_t>{93, 3, number, 81}),
            (std::vector<uint32_t>{Slot<uint32_t>(Channel::Notify, 4), Slot<uint32_t>(Channel::Notify, 8),
                                   Slot<uint32_t>(Channel::Notify, 12), Slot<uint32_t>(Channel::Notify, 540)}));
  EXPECT_STREQ("App.GVL.text", reinterpret_cast<const char*>(controller->Host().Area(Channel::Notify) + 280));
  unsigned char raw[93] = {};  // the list's image: DInt, String(80), LReal
  WriteAt(raw, 0, int32_t{-7}), std::memcpy(raw + 4, "raw", 3), WriteAt(raw, 85, 0.125);
  tagTagVarValue* records = nullptr;
  int32_t counter = 0;
  std::string text;
  double level = 0;
  using Row = std::tuple<size_t, int32_t, std::string, double>;  // count and the three values
  const auto decoded = [](const tagTagVarValue* v, size_t n) {
    if (n != 3) return Row{n, 0, "", 0};
    return Row{n, ReadAt<int32_t>(v[0].Value), static_cast<const char*>(v[1].Value), ReadAt<double>(v[2].Value)};
  };
  const auto image = [this] {
    return Row{3, Image<int32_t>("App.GVL.counter"), Image<std::array<char, 81>>("App.GVL.text").data(),
               Image<double>("App.GVL.level")};
  };
  const std::vector<std::tuple<std::function<unsigned int()>, uint32_t, std::function<Row()>, Row>> operations = {
      {[&] { return Write(h, {"42", "hello", "2.5"}); }, 2, image, {3, 42, "hello", 2.5}},
      {[&] { return Read(h); }, 1, [&] { return decoded(values.data(), values.size()); }, {3, 42, "hello", 2.5}},
      {[&] { return varlok->WriteTagList(h, raw, 3); }, 2, image, {3, -7, "raw", 0.125}},
      {[&] { return varlok->ReadTagList(h, &records, count); }, 1, [&] { return decoded(records, count); },
       {3, -7, "raw", 0.125}},
      {[&] { return varlok->WriteTagValues(h, int32_t{99}, std::string("typed"), 1.5); }, 2, image,
       {3, 99, "typed", 1.5}},
      {[&] { return varlok->ReadTagValues(h, counter, text, level); }, 1,
       [&] { return Row{text.size() == 81 ? 3 : 0, counter, text.c_str(), level}; }, {3, 99, "typed", 1.5}},
  };
  for (const auto& [operation, rw, got, expected] : operations) {
    EXPECT_EQ(0u, operation());
    // The slot: the client sequence's low byte, Rw, Size, handle, the running offsets, the first value (answered).
    EXPECT_EQ((std::vector<uint32_t>{seq & 0xFF, rw, 3, number, 0, 4, 85, uint32_t(std::get<1>(expected))}),
              (std::vector<uint32_t>{Slot<uint8_t>(Channel::DataSwap, 5), Slot<uint8_t>(Channel::DataSwap, 6), Swap(7),
                                     Swap(11), Swap(15), Swap(19), Swap(23), Swap(27)}));
    EXPECT_EQ(expected, got());
  }
  EXPECT_EQ(std::make_pair(std::string("App.GVL.text"), 81), std::make_pair(std::string(values.at(1).FullName),
                                                                           values.at(1).ValueLength));
  EXPECT_EQ(0u, varlok->DeleteTagsHandle(h));
  EXPECT_EQ(number, Slot<uint32_t>(Channel::Notify, 12));
}

// Arrays and structures move as raw bytes; a range write carries the four-entry descriptor.
TEST_F(ShmIntegration, ArraysRangesAndStructuresMoveAsRawBytes) {
  Connect();
  HTAGLIST arr = Define({"App.GVL.cnt"}), pt = Define({"App.GVL.pt"});
  std::array<int32_t, 10> all{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, back{};
  std::array<int32_t, 2> part{70, 80};
  std::array<int32_t, 3> slice{};
  ASSERT_EQ(0u, varlok->WriteArray(arr, 4, all.data(), 0, 0));
  ASSERT_EQ(0u, varlok->WriteArray(arr, 4, part.data(), 7, 2));
  // Size 4; entries 0, start, bytes, element length; then just the written elements.
  EXPECT_EQ((std::vector<uint32_t>{4, 0, 7, 8, 4, 70, 80}),
            (std::vector<uint32_t>{Swap(7), Swap(15), Swap(19), Swap(23), Swap(27), Swap(31), Swap(35)}));
  ASSERT_EQ(0u, varlok->ReadArray(arr, 4, back.data(), 0, 0));
  EXPECT_EQ((std::array<int32_t, 10>{0, 1, 2, 3, 4, 5, 6, 70, 80, 9}), back);
  EXPECT_EQ(0u, varlok->ReadArray(arr, 4, slice.data(), 6, 3));
  EXPECT_EQ((std::array<int32_t, 3>{6, 70, 80}), slice);
  EXPECT_EQ(ERR_OVERSTEP_ACCESS, varlok->ReadArray(arr, 4, slice.data(), 8, 3));
  EXPECT_EQ(ERR_OVERSTEP_ACCESS, varlok->WriteArray(arr, 4, part.data(), 9, 2));
  EXPECT_EQ(ERR_UNMATCH_TYPE_PARA, varlok->ReadArray(arr, 2, back.data(), 0, 0));
  EXPECT_EQ(80, Image<int32_t>("App.GVL.cnt[8]"));
  int32_t point[2] = {11, -12}, got[2] = {};
  EXPECT_EQ(0u, varlok->WriteStructField(pt, point, 8));
  EXPECT_EQ(0u, varlok->ReadStructField(pt, got, 8));
  EXPECT_EQ((std::make_pair(11, -12)), std::make_pair(got[0], got[1]));
  EXPECT_EQ(-12, Image<int32_t>("App.GVL.pt.y"));
  EXPECT_EQ(ERR_UNALIGNED_STRUCT, varlok->ReadStructField(pt, got, 4));
  EXPECT_EQ(ERR_UNMATCH_TYPE_PARA, varlok->ReadStructField(arr, got, 40));
}

// A null data buffer meets every documented check first; where the copy through
// it would fault, the facade answers as for that fault: "unknown exception", 0.
TEST_F(ShmIntegration, NullDataBuffersMeetTheDocumentedChecksFirst) {
  Connect();
  HTAGLIST arr = Define({"App.GVL.cnt"}), pt = Define({"App.GVL.pt"}), two = Define({"App.GVL.counter", "App.GVL.wo"});
  const std::vector<std::tuple<const char*, std::function<unsigned int()>, unsigned int, bool, const char*>> cases = {
      // what, call, code, sent, function whose catch-all reports the fault (none: no fault)
      {"read range beyond", [&] { return varlok->ReadArray(arr, 4, nullptr, 8, 3); }, ERR_OVERSTEP_ACCESS, true, ""},
      {"write range beyond", [&] { return varlok->WriteArray(arr, 4, nullptr, 9, 2); }, ERR_OVERSTEP_ACCESS, false, ""},
      {"element length", [&] { return varlok->ReadArray(arr, 2, nullptr, 0, 0); }, ERR_UNMATCH_TYPE_PARA, false, ""},
      {"read no elements", [&] { return varlok->ReadArray(arr, 4, nullptr, 5, 0); }, 0, true, ""},
      {"write no elements", [&] { return varlok->WriteArray(arr, 4, nullptr, 5, 0); }, 0, true, ""},
      {"read structure length", [&] { return varlok->ReadStructField(pt, nullptr, 4); }, ERR_UNALIGNED_STRUCT, false, ""},
      {"write structure length", [&] { return varlok->WriteStructField(pt, nullptr, 4); }, ERR_UNALIGNED_STRUCT, false,
       ""},
      {"raw count", [&] { return varlok->WriteTagList(two, nullptr, 3); }, ERR_UNMATCH_WITH_DEFINE, false, ""},
      {"read whole array", [&] { return varlok->ReadArray(arr, 4, nullptr, 0, 0); }, 0, true, "ZelVarlok::ReadArray"},
      {"read range", [&] { return varlok->ReadArray(arr, 4, nullptr, 1, 2); }, 0, true, "ZelVarlok::ReadArray"},
      {"write whole array", [&] { return varlok->WriteArray(arr, 4, nullptr, 0, 0); }, 0, false, "ZelVarlok::WriteArray"},
      {"write range", [&] { return varlok->WriteArray(arr, 4, nullptr, 1, 2); }, 0, false, "ZelVarlok::WriteArray"},
      {"read structure", [&] { return varlok->ReadStructField(pt, nullptr, 8); }, 0, true, "ZelVarlok::ReadStructField"},
      {"write structure", [&] { return varlok->WriteStructField(pt, nullptr, 8); }, 0, false,
       "ZelVarlok::WriteStructField"},
      {"raw write", [&] { return varlok->WriteTagList(two, nullptr, 2); }, 0, false, "ZelVarlok::WriteTagList"},
  };
  for (const auto& [what, call, code, sent, faultIn] : cases) {
    qvtest::Log().Clear();
    const uint64_t before = controller->Answered();
    EXPECT_EQ(code, call()) << what;
    EXPECT_EQ(sent, controller->Answered() != before) << what;
    const bool fault = *faultIn != '\0';
    EXPECT_EQ(fault ? 1u : 0u, qvtest::Log().CountOf(spdlog::level::info, "unknown exception", fault ? faultIn : ""))
        << what;
  }
  EXPECT_EQ(std::make_pair(0, 0), std::make_pair(Image<int32_t>("App.GVL.counter"), Image<int32_t>("App.GVL.cnt[1]")));
}

TEST_F(ShmManyTags, FailedChecksSendNothingAndRefusalsWriteNothing) {
  Connect();
  HTAGLIST mixed = Define({"App.GVL.counter", "App.GVL.wo"}), ro = Define({"App.GVL.ro", "App.GVL.speed"}),
           arr = Define({"App.GVL.cnt"});
  int32_t buffer[10] = {};
  unsigned int e = 0;
  std::vector<std::string> many;
  for (unsigned i = 0; i < 19859; ++i) many.push_back(ManyName(i));
  ASSERT_EQ(0u, Read(Define(many)));  // the most a define can carry
  EXPECT_EQ(19859u, values.size());
  many.push_back(ManyName(19859));
  using Plan = void (*)(FaultPlan&);
  const auto none = [](FaultPlan&) {};
  const std::vector<std::tuple<Plan, std::function<unsigned int()>, unsigned int, bool, const char*>> cases = {
      {none, [&] { return Read(mixed); }, ERR_READ_WRITE_DENIED, false, "access type is 1"},  // a write-only tag
      {none, [&] { return Write(ro, {"1"}); }, ERR_READ_WRITE_DENIED, false, "access type is 0"},  // before the count
      {none, [&] { return Write(mixed, {"1", "2", "3"}); }, ERR_UNMATCH_WITH_DEFINE, false, "length=2, size=3"},
      {none, [&] { return Write(arr, {"1"}); }, ERR_UNMATCH_TYPE_PARA, false, "Type:14"},
      {none, [&] { return varlok->WriteArray(arr, 4, buffer, 9, 2); }, ERR_OVERSTEP_ACCESS, false,
       "l1=9,l2=2,l3=4,l4=40"},
      {none, [&] { return Write(mixed, {"", "2"}); }, ERR_WRITE_FAILED, false, "serializeString, tagNodeValue, %s"},
      {none, [&] { return varlok->CreateTagsHandle(many, e) ? 0 : e; }, ERR_TOO_MANY_TAGS, false,
       "cmdSize =5243050> MAXSIZE_DEFINE_SHM"},
      {[](FaultPlan& p) { p.errorMask = ChannelBit(Channel::DataSwap), p.errorValue = 5; },
       [&] { return Write(mixed, {"1", "2"}); }, ERR_PLC_READ_WRITE_FAILED, true, "E:5, Flag:3"},
      {[](FaultPlan& p) { p.errorMask = ChannelBit(Channel::Notify), p.errorValue = 6; },
       [&] { return varlok->CreateTagsHandle(std::string("App.GVL.speed"), e) ? 0 : e; }, ERR_PLC_DEFINE_FAILED, true,
       "WriteDefineCmd err :268436232"},
      {[](FaultPlan& p) { p.refuseConnect = 2; }, [&] { return Reconnect(); }, ERR_CONNECT_FAILED, true,
       "WaitEvent, pFlag=3, pErr=2"},
  };
  for (const auto& [plan, call, code, sent, log] : cases) {
    Faults(plan);
    const uint64_t before = controller->Answered();
    EXPECT_EQ(code, call()) << log;
    EXPECT_EQ(sent, controller->Answered() != before) << log;
    EXPECT_EQ(1u, qvtest::Log().CountOf(err, log)) << log;
  }
  EXPECT_EQ(0, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "ShmComClient::GetInstance()->ReadClientSeq()<=0"));
}

TEST_F(ShmIntegration, DeleteRenumbersLaterHandlesAndReconnectMakesOldOnesInvalid) {
  Connect();
  HTAGLIST a = Define({"App.GVL.counter"}), b = Define({"App.GVL.speed"}), c = Define({"App.GVL.level"});
  const uint32_t numberB = Number(b), numberC = Number(c);
  ASSERT_EQ(numberB + 1, numberC);
  ASSERT_EQ(0u, varlok->DeleteTagsHandle(a));  // seen through the caller's pointers
  EXPECT_EQ(std::make_pair(numberB - 1, numberC - 1), std::make_pair(Number(b), Number(c)));
  ASSERT_EQ(0u, Write(c, {"3.25"}) + Write(b, {"77"}));
  EXPECT_EQ(Number(b), Swap(11));
  EXPECT_EQ(std::make_pair(77, 3.25), std::make_pair(Image<int32_t>("App.GVL.speed"), Image<double>("App.GVL.level")));

  ASSERT_EQ(0u, Reconnect());
  const uint32_t newSeq = Slot<uint32_t>(Channel::Connect, 4);
  EXPECT_NE(seq, newSeq);
  EXPECT_EQ(std::make_pair(ERR_INVALID_VAR_DEFS, ERR_INVALID_VAR_DEFS), std::make_pair(Read(b), Read(c)));
  EXPECT_TRUE(qvtest::Log().Contains(fmt::format("clientSeq={},ReadClientSeq={},length=1", seq, newSeq)));
  Define({"App.GVL.flag"}), Define({"App.GVL.level"});
  ASSERT_EQ(0u, Write(Define({"App.GVL.speed", "App.GVL.counter"}), {"5", "6"}));  // lists defined anew work
  EXPECT_EQ(6, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, Read(b));
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
    ASSERT_EQ(0u, varlok.WriteTagList(h, text) + varlok.ReadTagList(h, values, count));
    ASSERT_EQ(i, ReadAt<int32_t>(values.at(0).Value));  // never the other process's value
  }
  EXPECT_EQ(0u, varlok.DeleteTagsHandle(h) + varlok.DisconnectFromDevice(device));
}

// Runs only as a helper of KilledClientInsideAChannelMutexLocksNobodyOut: parks in the
// named channel's mutex, says so by creating the file SHM_PARK_FILE, and waits there to be killed.
TEST(ShmHelper, ParkedClient) {
  static const char* file = nullptr;
  static const char* channel = nullptr;
  if (std::getenv("SHM_PARK_FILE") == nullptr) GTEST_SKIP() << "helper of another test";
  file = std::getenv("SHM_PARK_FILE"), channel = std::getenv("SHM_PARK_CHANNEL");
  qorvarlok::shm::SetMutexHeldHook([](const char* func) {
    if (std::strcmp(func, channel) != 0) return;
    if (!std::ofstream(file).put('p')) std::exit(3);
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
  });
  ZelVarlok varlok;
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, std::getenv("SHM_HELPER_SYMBOLS")));
  unsigned int e = 1;
  varlok.ConnectToPlcDevice("Local", e);
  std::vector<std::string> text{"1"};
  varlok.WriteTagList(varlok.CreateTagsHandle(std::string("App.GVL.level"), e), text);
  FAIL() << "never parked in " << channel;
}

// A client killed while it holds a channel's mutex locks nobody out: the next waiter
// warns, sends its own command and releases the mutex; the two survivors go on, and
// each of their writes that answered 0 reads back.
TEST_F(ShmIntegration, KilledClientInsideAChannelMutexLocksNobodyOut) {
  // The helpers log into this program's file; a rotation may have moved their lines one file on.
  const std::string log = qorvarlok::log::logFilePath(qorvarlok::platform::executablePath());
  const std::string parked = path + ".parked";
  for (const char* channel : {"ConnectCmdThread::Async", "DefineShmComThread::Async", "DataSwapShmComThread::Async"}) {
    SCOPED_TRACE(channel);
    std::filesystem::remove(parked);
    testsys::Child victim, a, b;
    testsys::ChildOptions options;
    options.env = {{"SHM_HELPER_SYMBOLS", path}, {"SHM_PARK_FILE", parked}, {"SHM_PARK_CHANNEL", channel}};
    ASSERT_TRUE(victim.Start(ThisProgram(), {"--gtest_filter=ShmHelper.ParkedClient"}, options));
    bool inside = false;
    for (int waited = 0; !inside && waited < 10000 && victim.Running(); waited += 10) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      inside = std::filesystem::exists(parked);
    }
    ASSERT_TRUE(inside) << "the victim never held the mutex";
    options.env = {{"SHM_HELPER_SYMBOLS", path}, {"SHM_HELPER_TAG", "App.GVL.counter"}};
    ASSERT_TRUE(a.Start(ThisProgram(), {"--gtest_filter=ShmHelper.ClientProcess"}, options));
    options.env[1].second = "App.GVL.speed";
    ASSERT_TRUE(b.Start(ThisProgram(), {"--gtest_filter=ShmHelper.ClientProcess"}, options));
    victim.Kill();
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(a.Wait(30000), b.Wait(30000)));
    EXPECT_EQ(std::make_pair(598, 598), std::make_pair(Image<int32_t>("App.GVL.counter"),
                                                       Image<int32_t>("App.GVL.speed")));
    // Exactly one survivor found the mutex abandoned, and said so; nobody holds it now.
    int warned = 0;
    const std::string level = std::strcmp(channel, "ConnectCmdThread::Async") == 0 ? "[E]" : "[W]";
    std::ifstream rotated(log.substr(0, log.size() - 4) + ".1.log", std::ios::binary), in(log, std::ios::binary);
    for (std::string line; std::getline(rotated, line) || std::getline(in, line);)
      for (uint32_t pid : {a.Id(), b.Id()})
        warned += line.find("(" + std::to_string(pid) + "|") != std::string::npos &&
                  line.find(") " + level + " WAIT_ABANDONED (") != std::string::npos &&
                  line.find(channel) != std::string::npos;
    EXPECT_EQ(1, warned);
    const std::wstring name = channel[0] == 'C' ? L"Global\\MUTEX_CONNECT"
                              : channel[1] == 'e' ? L"Global\\MUTEX_NOTIFY" : L"Global\\MUTEX_DATASWAP";
    auto mutex = qorvarlok::platform::OpenNamedMutex(name.c_str());
    EXPECT_EQ(qorvarlok::platform::kWaitObject0, qorvarlok::platform::WaitForNamedMutex(mutex, 0));
    qorvarlok::platform::ReleaseNamedMutex(mutex);
  }
}

TEST_F(ShmIntegration, TwoClientProcessesShareTheChannels) {
  testsys::Child a, b;
  testsys::ChildOptions options;
  options.env = {{"SHM_HELPER_SYMBOLS", path}, {"SHM_HELPER_TAG", "App.GVL.counter"}};
  ASSERT_TRUE(a.Start(ThisProgram(), {"--gtest_filter=ShmHelper.ClientProcess"}, options));
  options.env[1].second = "App.GVL.speed";
  ASSERT_TRUE(b.Start(ThisProgram(), {"--gtest_filter=ShmHelper.ClientProcess"}, options));
  EXPECT_EQ(std::make_pair(0, 0), std::make_pair(a.Wait(60000), b.Wait(60000)));
  EXPECT_EQ(598, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(598, Image<int32_t>("App.GVL.speed"));
}

// Processor time over 300 ms of nothing to do, after the spins that follow
// the last command have run out. Any thread that kept spinning would use about 300 ms.
double IdleCpuMs(const std::function<double()>& cpuMs) {
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const double before = cpuMs();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  return cpuMs() - before;
}

TEST_F(ShmIntegration, IdleClientAndIdleControllerUseNoProcessorTime) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter", "App.GVL.level"});
  for (int i = 0; i < 200; ++i) ASSERT_EQ(0u, Read(h));
  // The client's channel threads and the controller's, all in this process.
  EXPECT_LT(IdleCpuMs(testsys::ThisProcessCpuMs), 15.0);
  // varlok-sim in a process of its own, with no client at all (ticks of 10 ms).
  varlok.reset(), controller.reset();
  SimProcess sim;
  ASSERT_TRUE(sim.Start(VARLOK_SIM_PATH, {"--symbols", path, "--partition", partition}, 20000));
  EXPECT_LE(IdleCpuMs([&sim] { return testsys::ProcessCpuMs(sim.child->Id()); }), 20.0);
  EXPECT_EQ(0, sim.Stop());
}

// A tree handed to InitializeCom is freed exactly once, however the program goes on and ends.
TEST_F(ShmIntegration, HandedSymbolTreeIsFreedOnceHoweverTheProgramEnds) {
  for (const char* mode : {"exit", "release", "two", "static"}) {
    testsys::Child program;
    ASSERT_TRUE(program.Start(HANDED_TREE_PROGRAM, {path, mode}));
    EXPECT_EQ(0, program.Wait(20000)) << mode;
  }
}

TEST_F(ShmSlow, HeldMutexSilentAndVanishingChannelsGiveTheirCodesWithinTheirBudgets) {
  Connect();
  HTAGLIST h = Define({"App.GVL.counter"});
  std::atomic<uint32_t> taken{~0u};
  std::thread holder([&taken] {  // the data swap mutex held by another thread for 3.5 s
    auto mutex = qorvarlok::platform::OpenNamedMutex(L"Global\\MUTEX_DATASWAP");
    taken = qorvarlok::platform::WaitForNamedMutex(mutex, 1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    qorvarlok::platform::ReleaseNamedMutex(mutex);
  });
  while (taken == ~0u) std::this_thread::yield();
  const uint64_t before = controller->Answered();
  EXPECT_EQ(std::make_pair(0u, ERR_WAIT_TIMEOUT), std::make_pair(taken.load(), Write(h, {"1"})));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "WaitForSingleObject,E:258", "DataSwapShmComThread::Async"));
  EXPECT_EQ(before, controller->Answered());  // nothing sent
  holder.join();

  Faults([](FaultPlan& plan) { plan.silentMask = ChannelBit(Channel::DataSwap); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ERR_RTOS_RECV_EVENT_FAILED, Read(h));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(elapsed >= std::chrono::milliseconds(4900) && elapsed < std::chrono::milliseconds(9000));
  EXPECT_EQ(5u, qvtest::Log().CountOf(warn, "RTE_ERROR_TIMEOUT.E:0", "DataSwapShmComThread::runAsyncIntf"));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "Rtos Error"));
  Faults([](FaultPlan&) {});
  EXPECT_EQ(0u, Write(h, {"1"}));  // the partition lived: the client stayed set up
  EXPECT_EQ(1, Image<int32_t>("App.GVL.counter"));

  if (!qorvarlok::rtos::RtosHost::CanCutAreas()) GTEST_SKIP() << "the system cannot cut a client's mapping";
  Faults([](FaultPlan& plan) { plan.vanishMask = ChannelBit(Channel::DataSwap); });
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, Read(h));  // the wait runs out and reading the cut slot faults
  EXPECT_NE(nullptr, qorvarlok::shm::ShmComClient::GetInstance());
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, Read(h));  // the next slot write faults at once
  EXPECT_EQ(nullptr, qorvarlok::shm::ShmComClient::GetInstance());  // the cut areas are too small
  EXPECT_EQ(1u, qvtest::Log().CountOf(spdlog::level::info, "shm client has initialized ret = 268435970"));
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
  sim.Kill();
  EXPECT_EQ(ERR_RTOS_UNAVAILABLE, Read(h));
  ASSERT_TRUE(sim.Start(VARLOK_SIM_PATH, {"--symbols", path, "--partition", partition}));
  ASSERT_EQ(0u, Reconnect());
  EXPECT_NE(0u, Read(h));  // a list of the killed controller never answers with values
  Define({"App.GVL.level"});
  HTAGLIST again = Define({"App.GVL.speed", "App.GVL.counter"});
  ASSERT_EQ(0u, Write(again, {"21", "22"}) + Read(again));
  EXPECT_EQ(22, ReadAt<int32_t>(values.at(1).Value));
  EXPECT_EQ(0, sim.Stop());
}
#endif

}  // namespace
