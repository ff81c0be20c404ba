// varlok-sim as a process on the demo project, met by a minimal client: every
// injected fault, clean stop, a second controller refused, kill -9 recovered.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "RtosHost.h"
#include "TestProject.h"
#include "TestSystem.h"

#ifdef VARLOK_SIM_PATH
using namespace ctltest;

namespace {

constexpr int kConnect = 0, kDefine = 1, kSwap = 2;

// The simulator with stderr in a file and "ready" on a pipe; stopped (and
// killed if it must be) at the end of scope, so no partition is left behind.
struct Sim {
  explicit Sim(const std::vector<std::string>& args) {
    static int serial = 0;
    m_stderr = ::testing::TempDir() + "qvsim-" + std::to_string(testsys::ProcessId()) + "-" + std::to_string(++serial);
    testsys::ChildOptions options;
    options.stderrPath = m_stderr;
    options.readyPipe = true;
    m_child.Start(VARLOK_SIM_PATH, args, options);
  }
  ~Sim() {
    if (m_child.Running() && m_child.Stop() == -1) m_child.Kill();
    std::remove(m_stderr.c_str());
  }
  bool WaitReady() { return m_child.WaitReady() == "ready\n"; }
  // Exit code; -1 when it did not end within 5 s.
  int Wait() { return m_child.Wait(5000); }
  int Stop() { return m_child.Stop(5000); }
  std::string Stderr() const {
    std::ifstream in(m_stderr);
    return testsys::ProgramText({std::istreambuf_iterator<char>(in), {}});
  }
  std::string m_stderr;
  testsys::Child m_child;
};

class VarlokSimTest : public ::testing::Test {
 protected:
  void SetUp() override { testsys::SetEnv("VARLOK_PARTITION", partition); }
  std::vector<std::string> Args(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"--symbols", symbols, "--partition", partition, "--notify-size", "65536",
                                     "--dataswap-size", "65536"};
    return args.insert(args.end(), extra.begin(), extra.end()), args;
  }
  std::string partition = "qvsim-" + std::to_string(testsys::ProcessId()) + "-" +
                          ::testing::UnitTest::GetInstance()->current_test_info()->name();
  std::string symbols = std::string(QV_SOURCE_DIR) + "/examples/demo/Demo.xml";
};

// Exchanges of a minimal client; each returns RtosWaitEvent's result.
uint32_t Connect(MiniClient& c) { return WriteConnect(c.area[kConnect], 1, 0), c.Exchange(kConnect); }
uint32_t SeqOf(const MiniClient& c) { return slot::Load<uint32_t>(c.area[kConnect], slot::kConnectSeq); }
uint32_t Define(MiniClient& c, uint32_t timeoutMs = 2000) {
  WriteDefine(c.area[kDefine], 1, SeqOf(c), {{"App.GVL.counter", 4}, {"App.GVL.sine", 8}, {"App.GVL.toggle", 1}});
  return c.Exchange(kDefine, timeoutMs);
}
uint32_t Handle(const MiniClient& c) { return slot::Load<uint32_t>(c.area[kDefine], slot::kDefineHandle); }
uint32_t Swap(MiniClient& c, uint8_t rw, uint32_t timeoutMs = 2000) {
  WriteSwap(c.area[kSwap], rw, SeqOf(c), Handle(c), {0, 4, 12}, Concat({Bytes(42), Bytes(0.5), Bytes('\1')}));
  return c.Exchange(kSwap, timeoutMs);
}
int32_t Counter(const MiniClient& c) { return slot::Load<int32_t>(c.area[kSwap], slot::kSwapEntries + 12); }

TEST_F(VarlokSimTest, InjectedFaultsReachTheClient) {
  // channel -1: the simulator must refuse to start.
  struct Case { std::vector<std::string> args; int channel; uint32_t timeoutMs, wait, flag, err; bool lateAnswer;
                int exit; const char* log; };
  const uint32_t kTimeout = RTE_ERROR_TIMEOUT;
  const std::vector<Case> cases = {
      {{"--refuse-connect", "5"}, -1, 0, 0, 0, 0, false, 1, "varlok-sim: bad value for --refuse-connect: 5"},
      {{"--error", "define"}, -1, 0, 0, 0, 0, false, 1, "varlok-sim: --error needs --error-value N with N not 0"},
      {{"--refuse-connect", "2"}, kConnect, 2000, 0, 3, 2, false, 0, "refused connect: injected refusal 2"},
      {{"--refuse-connect", "4"}, kConnect, 2000, 0, 3, 4, false, 0, "refused connect: injected refusal 4"},
      {{"--silent", "define"}, kDefine, 30, kTimeout, 1, 0, false, 0, "define command left unanswered (silent)"},
      {{"--late-ms", "150", "--late", "define"}, kDefine, 20, kTimeout, 3, 0, true, 0, " with 3 tags"},
      {{"--keep-flag", "dataswap"}, kSwap, 2000, 0, 2, 0, false, 0, " with 3 tags"},
      {{"--error", "define", "--error-value", "9"}, kDefine, 2000, 0, 3, 9, false, 0,
       "refused define command: answering with the injected error 9"},
      {{"--vanish", "dataswap"}, kSwap, 60, kTimeout, 0, 0, false, 3, "vanishing in the middle of a data swap command"},
  };
  const bool canCut = qorvarlok::rtos::RtosHost::CanCutAreas();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log);
    if (c.exit == 3 && !canCut) continue;  // vanishing cuts the areas, which this system cannot
    Sim sim(Args(c.args));
    if (c.channel < 0 && !sim.WaitReady() && sim.Wait() == c.exit && sim.Stderr().find(c.log) != std::string::npos)
      continue;
    ASSERT_TRUE(c.channel >= 0 && sim.WaitReady()) << sim.Stderr();
    MiniClient client;
    ASSERT_EQ(client.Open(), 0u);
    ASSERT_EQ(c.channel == kConnect ? 0u : Connect(client), 0u);
    ASSERT_EQ(c.channel == kSwap ? Define(client) : 0u, 0u);
    EXPECT_EQ(c.channel == kConnect  ? Connect(client)
              : c.channel == kDefine ? Define(client, c.timeoutMs)
                                     : Swap(client, 2, c.timeoutMs),
              c.wait);
    EXPECT_EQ(c.lateAnswer ? RtosWaitEvent(client.rx[c.channel], 2000) : 0u, 0u);
    const uint8_t* area = client.area[c.channel];
    if (c.exit == 0) {  // a vanished controller cut the areas: reading them would fault
      EXPECT_EQ(client.FlagOf(c.channel), c.flag);
      EXPECT_EQ(c.channel == kConnect ? slot::Load<uint32_t>(area, slot::kConnectErrInfo)
                : c.channel == kDefine ? slot::Load<uint16_t>(area, slot::kDefineErr)
                                       : slot::Load<uint32_t>(area, slot::kSwapErr), c.err);
      EXPECT_EQ(c.channel == kConnect ? SeqOf(client) : 0, 0u) << "a refused connect grants nothing";
    }
    EXPECT_EQ(c.exit == 0 ? sim.Stop() : sim.Wait(), c.exit);
    EXPECT_NE(sim.Stderr().find(c.log), std::string::npos) << sim.Stderr();
  }
  uint32_t id = 0, bytes = 1;  // the vanished controller left its areas cut
  if (canCut) {
    EXPECT_EQ(RtosQueryShmId(L"DataSwapArea", 4, &id) | RtosQueryShmSize(id, &bytes) | bytes, 0u);
  }
}

TEST_F(VarlokSimTest, ServesRefusesASecondRecoversAfterKillAndGrantsAFreshSequence) {
  Sim first(Args({"--demo", "--demo-cycle-ms", "5"}));
  ASSERT_TRUE(first.WaitReady()) << first.Stderr();
  MiniClient old;
  ASSERT_EQ(old.Open() | Connect(old) | Define(old), 0u);
  const uint32_t firstSeq = SeqOf(old);
  ASSERT_EQ(Swap(old, 1), 0u);
  const int32_t counter = Counter(old);
  for (int i = 0; i < 200 && Counter(old) <= counter; ++i)
    ASSERT_EQ((std::this_thread::sleep_for(std::chrono::milliseconds(5)), Swap(old, 1)), 0u);
  EXPECT_GT(Counter(old), counter) << "the demo task moves the counter";
  {
    Sim second(Args({"--claim-timeout-ms", "20"}));
    EXPECT_TRUE(!second.WaitReady() && second.Wait() == 4);
    EXPECT_NE(second.Stderr().find("varlok-sim: cannot start: partition '" + partition +
                                   "' is held by the running controller pid " + std::to_string(first.m_child.Id())),
              std::string::npos) << second.Stderr();
  }
  first.m_child.Kill();
  EXPECT_EQ(RtosIsAlive(), 0u);
  Sim third(Args());
  ASSERT_TRUE(third.WaitReady()) << third.Stderr();
  EXPECT_EQ(RtosIsAlive(), 1u);
  MiniClient fresh;
  ASSERT_EQ(fresh.Open() | Connect(fresh) | Define(fresh), 0u);
  EXPECT_NE(SeqOf(fresh), firstSeq)
      << "a restarted controller granted its predecessor's first sequence again";
  EXPECT_EQ(third.Stop(), 0);
  EXPECT_EQ(RtosIsAlive(), 0u);
  uint32_t id = 0;
  EXPECT_EQ(RtosQueryShmId(L"DataSwapArea", 4, &id), RTE_ERROR_PARTITION_DOWN) << "the stopped controller cleaned up";
  const std::string log = third.Stderr();
  EXPECT_NE(log.find("removed the leftovers of a controller that died"), std::string::npos) << log;
  EXPECT_NE(log.find(" with 3 tags, 13 bytes"), std::string::npos) << log;
}

}  // namespace
#endif
