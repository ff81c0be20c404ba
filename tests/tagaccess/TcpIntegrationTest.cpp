// ZelVarlok over COM_TYPE_TCP against the real controller: its TCP server in
// a thread of this process beside the shared-memory channels, or varlok-sim
// --tcp in another process.
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <thread>

#include "Controller.h"
#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "TcpTestSupport.h"
#include "ZelTagAccess.h"

using namespace tcptest;
using shmtest::ReadAt;
using spdlog::level::err, spdlog::level::info;

namespace {

class TcpIntegration : public testing::Test {
 protected:
  void SetUp() override {
    static int serial = 0;
    partition = "tcpint" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    path = "/tmp/" + partition + ".xml";
    setenv("VARLOK_PARTITION", partition.c_str(), 1);
    ASSERT_TRUE(shmtest::WriteProject(path, 4));
    config.reset(qorvarlok::symbols::SymbolConfigReader().ReadFile(std::wstring(path.begin(), path.end()), nullptr));
    ASSERT_NE(nullptr, config);
    ControllerOptions options;
    options.host.partition = partition, options.onVanish = [] {};
    std::string error;
    ASSERT_NE(nullptr, controller = Controller::Start(ProcessImage::Build(*config), options, &error)) << error;
    ASSERT_NE(nullptr, server = TcpServer::Start(controller->Handler(), TcpServerOptions{}, &error)) << error;
    address = "127.0.0.1:" + std::to_string(server->Port());
    qvtest::Log().Clear();
  }
  void TearDown() override {
    clients.clear(), server.reset(), controller.reset(), std::remove(path.c_str());
    shmtest::RemoveNamedMutexes(partition);
  }
  ZelVarlok& Connect(ComType type = COM_TYPE_TCP) {
    clients.push_back(std::make_unique<ZelVarlok>());
    ZelVarlok& v = *clients.back();
    unsigned int e = 1;
    EXPECT_EQ(0u, v.InitializeCom(type, path.c_str()));
    EXPECT_NE(nullptr, v.ConnectToPlcDevice(type == COM_TYPE_TCP ? address : std::string("Local"), e));
    EXPECT_EQ(0u, e);
    return v;
  }
  static HTAGLIST Define(ZelVarlok& v, std::vector<std::string> names) {
    unsigned int e = 1;
    HTAGLIST h = v.CreateTagsHandle(std::move(names), e);
    EXPECT_TRUE(e == 0 && h != nullptr) << e;
    return h;
  }
  template <typename T>
  T Image(const std::string& name) {
    Location at;
    EXPECT_EQ(ResolveResult::Ok, controller->Image().Resolve(name, at)) << name;
    auto lock = controller->Handler().Lock();
    return ReadAt<T>(controller->Image().Data(), at.offset);
  }

  std::string partition, path, address;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config;
  std::unique_ptr<Controller> controller;
  std::unique_ptr<TcpServer> server;
  std::vector<std::unique_ptr<ZelVarlok>> clients;
};

}  // namespace

TEST_F(TcpIntegration, EveryListOperationMovesTheValues) {
  ZelVarlok& v = Connect();
  HTAGLIST h = Define(v, {"App.GVL.counter", "App.GVL.flag", "App.GVL.level", "App.GVL.text", "App.GVL.cnt[3]"});
  std::vector<std::string> text{"-42", "1", "2.5", "hello", "7"};
  ASSERT_EQ(0u, v.WriteTagList(h, text));
  EXPECT_EQ(-42, Image<int32_t>("App.GVL.counter"));
  EXPECT_EQ(2.5, Image<double>("App.GVL.level"));
  EXPECT_EQ(7, Image<int32_t>("App.GVL.cnt[3]"));
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  ASSERT_EQ(0u, v.ReadTagList(h, values, count));
  ASSERT_EQ(5u, count);
  const std::vector<std::pair<int, int>> shapes{{7, 4}, {0, 1}, {11, 8}, {17, 81}, {7, 4}};
  for (size_t i = 0; i < shapes.size(); ++i)
    EXPECT_EQ(shapes[i], std::make_pair(values[i].Type, values[i].ValueLength)) << i;
  EXPECT_EQ(-42, ReadAt<int32_t>(values[0].Value));
  EXPECT_STREQ("hello", static_cast<const char*>(values[3].Value));
  EXPECT_STREQ("App.GVL.text", values[3].FullName);
  tagTagVarValue* records = nullptr;
  ASSERT_EQ(0u, v.ReadTagList(h, &records, count));
  EXPECT_EQ(1, ReadAt<uint8_t>(records[1].Value));

  std::array<unsigned char, 98> raw{};
  shmtest::WriteAt<int32_t>(raw.data(), 0, 99), shmtest::WriteAt<double>(raw.data(), 5, -1.25);
  std::memcpy(raw.data() + 13, "raw", 3);
  ASSERT_EQ(0u, v.WriteTagList(h, raw.data(), 5));
  EXPECT_EQ(ERR_UNMATCH_WITH_DEFINE, v.WriteTagList(h, raw.data(), 4));
  int32_t counter = 0, element = 0;
  uint8_t flag = 9;
  double level = 0;
  std::string str(81, 'x');
  ASSERT_EQ(0u, v.ReadTagValues(h, counter, flag, level, str, element));
  EXPECT_EQ(99, counter);
  EXPECT_EQ(0, flag);
  EXPECT_EQ(-1.25, level);
  EXPECT_EQ(std::string("raw\0", 4), str.substr(0, 4));
  ASSERT_EQ(0u, v.WriteTagValues(h, int32_t{5}, uint8_t{1}, 0.5, std::string("typed") + std::string(76, '\0'),
                                 int32_t{-3}));
  EXPECT_EQ(-3, Image<int32_t>("App.GVL.cnt[3]"));
  EXPECT_EQ(ERR_UNMATCH_TYPE_PARA, v.ReadTagValues(h, counter, flag, level, str, flag));
  EXPECT_EQ(5, v.GetTagsListLength(h));
  EXPECT_EQ(0u, v.DeleteTagsHandle(h));
  EXPECT_EQ(ERR_INVALID_TAG_HANDLE, v.ReadTagList(h, values, count));
  // Access is the controller's to check.
  HTAGLIST wo = Define(v, {"App.GVL.wo"});
  EXPECT_EQ(ERR_TAG_NO_ACCESS_RIGHTS, v.ReadTagList(wo, values, count));
  unsigned int e = 0;
  EXPECT_EQ(nullptr, v.CreateTagsHandle(std::vector<std::string>{"App.GVL.speed", "App.GVL.nothing"}, e));
  EXPECT_EQ(ERR_EXIST_INVAILD_VAR, e);
}

TEST_F(TcpIntegration, ArraysAndStructuresMoveWhole) {
  ZelVarlok& v = Connect();
  HTAGLIST arr = Define(v, {"App.GVL.cnt"}), pt = Define(v, {"App.GVL.pt"});
  std::array<int32_t, 10> all{0, 1, 2, 3, 4, 5, 6, 70, 80, 9}, back{};
  std::array<int32_t, 3> slice{};
  ASSERT_EQ(0u, v.WriteArray(arr, 4, all.data(), 7, 2)) << "a range writes the whole array";
  ASSERT_EQ(0u, v.ReadArray(arr, 4, back.data(), 0, 0));
  EXPECT_EQ(all, back);
  EXPECT_EQ(0u, v.ReadArray(arr, 4, slice.data(), 6, 3));
  EXPECT_EQ((std::array<int32_t, 3>{6, 70, 80}), slice);
  EXPECT_EQ(ERR_OVERSTEP_ACCESS, v.ReadArray(arr, 4, slice.data(), 8, 3));
  EXPECT_EQ(80, Image<int32_t>("App.GVL.cnt[8]"));
  int32_t point[2] = {11, -12}, got[2] = {};
  EXPECT_EQ(0u, v.WriteStructField(pt, point, 8));
  EXPECT_EQ(0u, v.ReadStructField(pt, got, 8));
  EXPECT_EQ(std::make_pair(11, -12), std::make_pair(got[0], got[1]));
  EXPECT_EQ(-12, Image<int32_t>("App.GVL.pt.y"));
  EXPECT_EQ(ERR_UNALIGNED_STRUCT, v.ReadStructField(pt, got, 4));
  // A missing buffer ends as the facade's fault report, not in a crash.
  EXPECT_EQ(0u, v.WriteArray(arr, 4, nullptr, 0, 0));
  EXPECT_EQ(1u, qvtest::Log().CountOf(info, "unknown exception", "ZelVarlok::WriteArray"));
}

TEST_F(TcpIntegration, SharedMemoryAndTcpClientsSeeEachOthersWritesAndTwoTcpClientsRunAtOnce) {
  ZelVarlok& local = Connect(COM_TYPE_LOCAL);
  ZelVarlok& first = Connect();
  ZelVarlok& second = Connect();
  HTAGLIST l = Define(local, {"App.GVL.speed", "App.GVL.counter"});
  HTAGLIST a = Define(first, {"App.GVL.speed"}), b = Define(second, {"App.GVL.counter"});
  std::vector<std::string> one{"123"};
  ASSERT_EQ(0u, first.WriteTagList(a, one));
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  ASSERT_EQ(0u, local.ReadTagList(l, values, count));
  EXPECT_EQ(123, ReadAt<int32_t>(values[0].Value));
  std::vector<std::string> two{"1", "-77"};
  ASSERT_EQ(0u, local.WriteTagList(l, two));
  ASSERT_EQ(0u, second.ReadTagList(b, values, count));
  EXPECT_EQ(-77, ReadAt<int32_t>(values[0].Value));
  // Each thread writes its own tag and reads it back, 300 times, on its own connection.
  auto run = [](ZelVarlok& v, HTAGLIST h, int base, int& wrong) {
    for (int i = 0; i < 300; ++i) {
      std::vector<std::string> text{std::to_string(base + i)};
      std::vector<tagTagVarValue> got;
      unsigned int n = 0;
      if (v.WriteTagList(h, text) != 0 || v.ReadTagList(h, got, n) != 0 || ReadAt<int32_t>(got[0].Value) != base + i)
        ++wrong;
    }
  };
  int wrongA = 0, wrongB = 0;
  std::thread ta(run, std::ref(first), a, 1000, std::ref(wrongA)), tb(run, std::ref(second), b, 5000, std::ref(wrongB));
  ta.join(), tb.join();
  EXPECT_EQ(0, wrongA + wrongB);
  EXPECT_EQ(1299, Image<int32_t>("App.GVL.speed"));
  EXPECT_EQ(5299, Image<int32_t>("App.GVL.counter"));
}

TEST_F(TcpIntegration, WrongTokenIsRefusedAndAKilledServerIsReportedThenWorksAfterANewConnect) {
  const std::string tokenFile = "/tmp/" + partition + ".token";
  std::ofstream(tokenFile) << "sesame\n";
  TcpSim sim;
  ASSERT_TRUE(sim.Start(path, "0", {"--token-file", tokenFile}));
  const std::string at = "127.0.0.1:" + std::to_string(sim.port);
  ZelVarlok v;
  ASSERT_EQ(0u, v.InitializeCom(COM_TYPE_TCP, path.c_str()));
  unsigned int e = 0;
  setenv(ZTA_TOKEN_ENV, "sesam", 1);
  EXPECT_EQ(nullptr, v.ConnectToPlcDevice(at, e));
  EXPECT_EQ(ERR_CONNECT_FAILED, e) << "the facade keeps only its own code";
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "TCP ConnectToPlcDevice err=" + std::to_string(ERR_USER_NAME_OR_PASSWORD),
                                      "TagsTcpCom::ConnectToPlcDevice"));
  setenv(ZTA_TOKEN_ENV, "sesame", 1);
  void* device = v.ConnectToPlcDevice(at, e);
  ASSERT_NE(nullptr, device);
  HTAGLIST h = Define(v, {"App.GVL.counter"});
  std::vector<std::string> text{"11"};
  ASSERT_EQ(0u, v.WriteTagList(h, text));
  ASSERT_EQ(0, kill(sim.sim.pid, SIGKILL));
  shmtest::WaitExit(sim.sim.pid);
  sim.sim.pid = -1;
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  EXPECT_EQ(ERR_NOT_CONNECTED, v.ReadTagList(h, values, count));
  ASSERT_TRUE(sim.Start(path, std::to_string(sim.port), {"--token-file", tokenFile}));
  EXPECT_EQ(ERR_NOT_CONNECTED, v.ReadTagList(h, values, count)) << "the old connection stays broken";
  EXPECT_EQ(0u, v.DisconnectFromDevice(device));
  ASSERT_NE(nullptr, device = v.ConnectToPlcDevice(at, e));
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, v.ReadTagList(h, values, count)) << "lists end with their connection";
  h = Define(v, {"App.GVL.speed", "App.GVL.counter"});
  text = {"21", "22"};
  ASSERT_EQ(0u, v.WriteTagList(h, text) + v.ReadTagList(h, values, count));
  EXPECT_EQ(22, ReadAt<int32_t>(values.at(1).Value));
  EXPECT_EQ(0u, v.DisconnectFromDevice(device) + v.ExitVarlokCommunication());
  unsetenv(ZTA_TOKEN_ENV);
  std::remove(tokenFile.c_str());
}
