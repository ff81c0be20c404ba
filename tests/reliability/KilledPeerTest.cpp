// Peers killed at the worst moment, against varlok-sim in another process: a
// client killed in the middle of a command, and the controller killed while it
// works on a define or a write and then started again.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <future>
#include <thread>

#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "ShmProject.h"
#include "PosixSimProcess.h"
#include "Watchdog.h"

using namespace shmtest;
using namespace std::chrono_literals;

namespace {

class KilledPeer : public testing::Test {
 protected:
  void SetUp() override {
    static int serial = 0;
    partition = "killed" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    path = "/tmp/" + partition + ".xml";
    setenv("VARLOK_PARTITION", partition.c_str(), 1);
    ASSERT_TRUE(WriteProject(path, 8));
    if (auto* client = qorvarlok::shm::ShmComClient::GetInstance())  // mapped to an earlier test's partition
      qorvarlok::shm::ShmComClientProbe::MarkLost(client);
    qvtest::Log().Clear();
  }
  void TearDown() override {
    sim.Stop(SIGKILL);
    std::remove(path.c_str());
    RemoveNamedMutexes(partition);
  }
  bool StartSim(std::vector<std::string> faults = {}) {
    faults.insert(faults.begin(), {"--symbols", path, "--partition", partition});
    return sim.Start(VARLOK_SIM_PATH, faults);
  }
  void Connect() {
    ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, path.c_str()));
    unsigned int e = 1;
    device = varlok.ConnectToPlcDevice("Local", e);
    ASSERT_TRUE(device != nullptr && e == 0) << e;
  }
  HTAGLIST Define(std::vector<std::string> names, unsigned int* error = nullptr) {
    unsigned int e = 1;
    HTAGLIST h = varlok.CreateTagsHandle(std::move(names), e);
    if (error != nullptr) *error = e;
    return h;
  }
  unsigned int Write(HTAGLIST h, std::vector<std::string> text) { return varlok.WriteTagList(h, text); }
  unsigned int Read(HTAGLIST h) { return varlok.ReadTagList(h, values, count); }
  int32_t Value(size_t i) { return ReadAt<int32_t>(values.at(i).Value); }
  // A new connection to a restarted controller: lists and values work again.
  void WorksAfterANewConnect() {
    EXPECT_EQ(0u, varlok.DisconnectFromDevice(device));
    unsigned int e = 1;
    device = varlok.ConnectToPlcDevice("Local", e);
    ASSERT_TRUE(device != nullptr && e == 0) << e;
    unsigned int defined = 1;
    HTAGLIST h = Define({"App.GVL.speed", "App.GVL.counter"}, &defined);
    ASSERT_EQ(0u, defined);
    ASSERT_EQ(0u, Write(h, {"31", "32"}));
    ASSERT_EQ(0u, Read(h));
    EXPECT_EQ(std::make_pair(31, 32), std::make_pair(Value(0), Value(1)));
  }

  std::string partition, path;
  SimProcess sim;
  ZelVarlok varlok;
  void* device = nullptr;
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
};

// Codes a command may end with when its controller dies under it; never 0.
bool DocumentedLossCode(unsigned int code) {
  return code == ERR_RTOS_UNAVAILABLE || code == ERR_RTOS_RECV_EVENT_FAILED || code == ERR_WAIT_TIMEOUT ||
         code == ERR_PLC_DEFINE_FAILED;
}

// Runs only as the victim of ClientKilledMidCommandLeavesTheNextClientWorking:
// writes and reads without end, and says on RELIABILITY_FD when it has begun.
TEST(ReliabilityHelper, EndlessWriter) {
  const char* fd = std::getenv("RELIABILITY_FD");
  if (fd == nullptr) GTEST_SKIP() << "helper of another test";
  ZelVarlok v;
  ASSERT_EQ(0u, v.InitializeCom(COM_TYPE_LOCAL, std::getenv("RELIABILITY_SYMBOLS")));
  unsigned int e = 1, n = 0;
  v.ConnectToPlcDevice("Local", e);
  HTAGLIST h = v.CreateTagsHandle(std::string("App.GVL.counter"), e);
  ASSERT_NE(nullptr, h);
  ASSERT_EQ(1, write(std::atoi(fd), "w", 1));
  std::vector<tagTagVarValue> got;
  for (int i = 0;; ++i) {
    std::vector<std::string> text{std::to_string(-i)};
    v.WriteTagList(h, text), v.ReadTagList(h, got, n);
  }
}

// The controller answers each data swap late, so the victim is killed while its
// command is out: the controller answers a dead client, and the mutex and the
// answer event it leaves behind do not confuse the next client.
TEST_F(KilledPeer, ClientKilledMidCommandLeavesTheNextClientWorking) {
  reltest::Watchdog watchdog("a client killed mid-command", 60s);
  ASSERT_TRUE(StartSim({"--late-ms", "100", "--late", "dataswap"}));
  watchdog.Guard(sim.pid);
  for (int round = 0; round < 3; ++round) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    setenv("RELIABILITY_FD", std::to_string(fds[1]).c_str(), 1), setenv("RELIABILITY_SYMBOLS", path.c_str(), 1);
    const pid_t victim = Spawn({"/proc/self/exe", "--gtest_filter=ReliabilityHelper.EndlessWriter"});
    unsetenv("RELIABILITY_FD"), close(fds[1]);
    watchdog.Guard(victim);
    pollfd began{fds[0], POLLIN, 0};
    char byte = 0;
    const bool writing = poll(&began, 1, 10000) == 1 && read(fds[0], &byte, 1) == 1;
    close(fds[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(230 + 70 * round));  // inside the 100 ms answers
    kill(victim, SIGKILL);
    EXPECT_EQ(-1, WaitExitWithin(victim, 5000));
    ASSERT_TRUE(writing) << "the victim never began";
  }
  Connect();
  HTAGLIST h = Define({"App.GVL.counter", "App.GVL.speed"});
  ASSERT_NE(nullptr, h);
  for (int i = 1; i <= 8; ++i) {
    ASSERT_EQ(0u, Write(h, {std::to_string(i), std::to_string(100 + i)})) << i;
    ASSERT_EQ(0u, Read(h)) << i;
    EXPECT_EQ(std::make_pair(i, 100 + i), std::make_pair(Value(0), Value(1)));
  }
}

// Killed while it works on a define, the controller leaves the client with a
// documented code, never a handle; started again, it serves a new connect.
TEST_F(KilledPeer, ControllerKilledMidDefineGivesItsCodeThenWorksAfterANewConnect) {
  reltest::Watchdog watchdog("a controller killed mid-define", 60s);
  ASSERT_TRUE(StartSim({"--late-ms", "600", "--late", "define"}));
  watchdog.Guard(sim.pid);
  Connect();
  unsigned int defined = 1;
  HTAGLIST first = Define({"App.GVL.counter"}, &defined);
  ASSERT_TRUE(first != nullptr && defined == 0) << defined;
  ASSERT_EQ(0u, Write(first, {"7"}));
  auto pending = std::async(std::launch::async, [&] {
    unsigned int e = 0;
    HTAGLIST h = Define({"App.GVL.speed"}, &e);
    return std::make_pair(h, e);
  });
  std::this_thread::sleep_for(200ms);
  sim.Stop(SIGKILL);
  const auto [h, code] = pending.get();
  EXPECT_EQ(nullptr, h);
  EXPECT_TRUE(DocumentedLossCode(code)) << std::hex << code;
  EXPECT_NE(0u, Read(first));  // the controller is gone: no values, and no crash
  ASSERT_TRUE(StartSim());
  watchdog.Guard(sim.pid);
  WorksAfterANewConnect();
}

// Killed while a write is out, the controller leaves that write failed with a
// documented code; every write answered 0 before was in the controller.
TEST_F(KilledPeer, ControllerKilledMidWriteFailsOnlyThatWriteThenWorksAfterANewConnect) {
  reltest::Watchdog watchdog("a controller killed mid-write", 60s);
  ASSERT_TRUE(StartSim({"--late-ms", "300", "--late", "dataswap"}));
  watchdog.Guard(sim.pid);
  Connect();
  HTAGLIST h = Define({"App.GVL.counter", "App.GVL.speed"});
  ASSERT_NE(nullptr, h);
  for (int i = 1; i <= 3; ++i) {
    ASSERT_EQ(0u, Write(h, {std::to_string(i), std::to_string(-i)}));
    ASSERT_EQ(0u, Read(h));
    EXPECT_EQ(std::make_pair(i, -i), std::make_pair(Value(0), Value(1))) << "a write answered 0 was not done";
  }
  auto pending = std::async(std::launch::async, [&] { return Write(h, {"99", "-99"}); });
  std::this_thread::sleep_for(100ms);
  sim.Stop(SIGKILL);
  const unsigned int code = pending.get();
  EXPECT_TRUE(DocumentedLossCode(code)) << std::hex << code;
  EXPECT_NE(0u, Write(h, {"5", "5"}));
  ASSERT_TRUE(StartSim());
  watchdog.Guard(sim.pid);
  WorksAfterANewConnect();
}

}  // namespace
