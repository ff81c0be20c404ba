// varlok-sim as a process: readiness, the demo task, clean stop, refusal of a
// second controller, recovery after a crash, vanishing, bad arguments.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "MiniClient.h"
#include "TestProject.h"

#ifdef VARLOK_SIM_PATH
using namespace ctltest;

namespace {

constexpr int kConnect = 0, kDefine = 1, kSwap = 2;

const char* const kSymbols = R"(<?xml version="1.0" encoding="utf-8"?>
<Symbolconfiguration>
  <Header><Version>1.0.0.0</Version></Header>
  <TypeList>
    <TypeSimple name="T_BOOL" size="1" iecname="BOOL" typeclass="Bool"/>
    <TypeSimple name="T_DINT" size="4" iecname="DINT" typeclass="DInt"/>
    <TypeSimple name="T_LREAL" size="8" iecname="LREAL" typeclass="LReal"/>
    <TypeUserDef name="T_POINT" size="8" iecname="POINT" typeclass="Userdef" pouclass="STRUCTURE">
      <UserDefElement iecname="x" type="T_DINT" vartype="VAR"/>
      <UserDefElement iecname="y" type="T_DINT" vartype="VAR"/>
    </TypeUserDef>
    <TypeArray name="T_GRID" size="48" iecname="ARRAY" typeclass="Array" basetype="T_POINT">
      <ArrayDim minrange="0" maxrange="1"/>
      <ArrayDim minrange="1" maxrange="3"/>
    </TypeArray>
  </TypeList>
  <NodeList>
    <Node name="App">
      <Node name="GVL">
        <Node name="counter" type="T_DINT" access="ReadWrite"/>
        <Node name="sine" type="T_LREAL" access="Read"/>
        <Node name="toggle" type="T_BOOL" access="Read"/>
        <Node name="grid" type="T_GRID" access="ReadWrite"/>
      </Node>
    </Node>
  </NodeList>
</Symbolconfiguration>
)";

std::string TempPath(const std::string& leaf) {
  return ::testing::TempDir() + "qvsim-" + std::to_string(getpid()) + "-" + leaf;
}

class Sim {
 public:
  explicit Sim(std::vector<std::string> args) : m_stderr(TempPath("stderr-" + std::to_string(++s_serial))) {
    int ready[2];
    if (pipe(ready) != 0) return;
    args.insert(args.begin(), VARLOK_SIM_PATH);
    args.push_back("--ready-fd");
    args.push_back(std::to_string(ready[1]));
    m_pid = fork();
    if (m_pid == 0) {
      close(ready[0]);
      const int err = open(m_stderr.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int null = open("/dev/null", O_WRONLY);
      dup2(err, 2);
      dup2(null, 1);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(ready[1]);
    m_readyFd = ready[0];
  }
  ~Sim() {
    // A test that failed half-way still stops its simulator cleanly, so that
    // no objects of the partition are left behind.
    if (m_pid > 0 && !m_exited && Stop(SIGTERM) == -1000) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    if (m_readyFd >= 0) close(m_readyFd);
    unlink(m_stderr.c_str());
  }
  // True once the simulator wrote "ready"; false when it ended or 5 s passed.
  bool WaitReady() {
    pollfd p{m_readyFd, POLLIN, 0};
    char buffer[16] = {};
    return poll(&p, 1, 5000) == 1 && read(m_readyFd, buffer, sizeof buffer) == 6 && std::string(buffer) == "ready\n";
  }
  // Exit code, or -signal; -1000 when it did not end within 5 s.
  int Wait() {
    for (int i = 0; i < 500; ++i) {
      int status = 0;
      if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_exited = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1000;
  }
  int Stop(int signal) {
    kill(m_pid, signal);
    return Wait();
  }
  std::string Stderr() const {
    std::ifstream in(m_stderr);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  pid_t Pid() const { return m_pid; }

 private:
  static inline int s_serial = 0;
  std::string m_stderr;
  pid_t m_pid = -1;
  int m_readyFd = -1;
  bool m_exited = false;
};

class VarlokSimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    partition = "qvsim-" + std::to_string(getpid()) + "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    setenv("VARLOK_PARTITION", partition.c_str(), 1);
    symbols = TempPath("symbols.xml");
    std::ofstream(symbols) << kSymbols;
  }
  void TearDown() override { unlink(symbols.c_str()); }
  std::vector<std::string> Args(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"--symbols", symbols, "--partition", partition, "--notify-size", "65536",
                                     "--dataswap-size", "65536"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }
  std::string partition;
  std::string symbols;
};

TEST_F(VarlokSimTest, ServesTheDemoValuesAndRemovesItsObjectsOnSigterm) {
  Sim sim(Args({"--demo", "--demo-cycle-ms", "5"}));
  ASSERT_TRUE(sim.WaitReady()) << sim.Stderr();
  MiniClient client;
  ASSERT_EQ(client.Open(), 0u);
  WriteConnect(client.area[kConnect], 1, 0);
  ASSERT_EQ(client.Exchange(kConnect), 0u);
  const auto seq = static_cast<uint8_t>(slot::Load<uint32_t>(client.area[kConnect], slot::kConnectSeq));
  ASSERT_NE(seq, 0);
  WriteDefine(client.area[kDefine], 1, seq, {{"App.GVL.counter", 4}, {"App.GVL.sine", 8}, {"App.GVL.toggle", 1}});
  ASSERT_EQ(client.Exchange(kDefine), 0u);
  ASSERT_EQ(slot::Load<uint16_t>(client.area[kDefine], slot::kDefineErr), 0u);
  int32_t first = 0, later = 0;
  WriteSwap(client.area[kSwap], 1, seq, 1, {0, 4, 12});
  ASSERT_EQ(client.Exchange(kSwap), 0u);
  std::memcpy(&first, client.area[kSwap] + 27, 4);
  for (int i = 0; i < 200 && later <= first; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    WriteSwap(client.area[kSwap], 1, seq, 1, {0, 4, 12});
    ASSERT_EQ(client.Exchange(kSwap), 0u);
    std::memcpy(&later, client.area[kSwap] + 27, 4);
  }
  EXPECT_GT(later, first) << "the counter moves";

  EXPECT_EQ(sim.Stop(SIGTERM), 0);
  EXPECT_EQ(RtosIsAlive(), 0u);
  uint32_t id = 0;
  EXPECT_EQ(RtosQueryShmId(L"DataSwapArea", 4, &id), RTE_ERROR_PARTITION_DOWN);
  const std::string log = sim.Stderr();
  EXPECT_NE(log.find("[info] connect: client seq 1 granted, 1 connected"), std::string::npos) << log;
  EXPECT_NE(log.find("[info] define: client seq 1 handle 1 with 3 tags, 13 bytes"), std::string::npos) << log;
}

TEST_F(VarlokSimTest, RefusesASecondControllerAndRecoversAfterACrash) {
  Sim first(Args());
  ASSERT_TRUE(first.WaitReady()) << first.Stderr();
  {
    Sim second(Args({"--claim-timeout-ms", "20"}));
    EXPECT_FALSE(second.WaitReady());
    EXPECT_EQ(second.Wait(), 4);
    EXPECT_NE(second.Stderr().find("varlok-sim: cannot start: partition '" + partition +
                                   "' is held by the running controller pid " + std::to_string(first.Pid())),
              std::string::npos)
        << second.Stderr();
  }
  EXPECT_EQ(first.Stop(SIGKILL), -SIGKILL);
  EXPECT_EQ(RtosIsAlive(), 0u);
  Sim third(Args());
  ASSERT_TRUE(third.WaitReady()) << third.Stderr();
  EXPECT_EQ(RtosIsAlive(), 1u);
  EXPECT_EQ(third.Stop(SIGINT), 0);
  EXPECT_NE(third.Stderr().find("removed the leftovers of a controller that died"), std::string::npos)
      << third.Stderr();
}

TEST_F(VarlokSimTest, VanishesInTheMiddleOfACommand) {
  Sim sim(Args({"--vanish", "dataswap"}));
  ASSERT_TRUE(sim.WaitReady()) << sim.Stderr();
  MiniClient client;
  ASSERT_EQ(client.Open(), 0u);
  WriteConnect(client.area[kConnect], 1, 0);
  ASSERT_EQ(client.Exchange(kConnect), 0u);
  WriteSwap(client.area[kSwap], 1, 1, 1, {0});
  EXPECT_EQ(client.Exchange(kSwap, 300), RTE_ERROR_TIMEOUT);
  EXPECT_EQ(sim.Wait(), 3);
  EXPECT_EQ(RtosIsAlive(), 0u);
  uint32_t id = 0, bytes = 1;
  ASSERT_EQ(RtosQueryShmId(L"DataSwapArea", 4, &id), 0u) << "the cut areas are left behind";
  ASSERT_EQ(RtosQueryShmSize(id, &bytes), 0u);
  EXPECT_EQ(bytes, 0u);
  Sim next(Args());  // cleans the leftovers up
  ASSERT_TRUE(next.WaitReady()) << next.Stderr();
  EXPECT_EQ(next.Stop(SIGTERM), 0);
}

TEST_F(VarlokSimTest, RejectsBadArgumentsWithAMessage) {
  struct Case {
    std::vector<std::string> args;
    int exit;
    const char* message;
  };
  const std::vector<Case> cases = {
      {{}, 1, "varlok-sim: --symbols FILE is required"},
      {{"--symbols", symbols, "--silent", "nowhere"}, 1, "varlok-sim: bad value for --silent: nowhere"},
      {{"--symbols", symbols, "--refuse-connect", "5"}, 1, "varlok-sim: bad value for --refuse-connect: 5"},
      {{"--symbols", symbols, "--error", "define"}, 1, "varlok-sim: --error needs --error-value N with N not 0"},
      {{"--symbols", symbols, "--log-level", "loud"}, 1, "varlok-sim: bad value for --log-level: loud"},
      {{"--symbols", symbols, "--bogus"}, 1, "varlok-sim: unknown or incomplete option --bogus"},
      {{"--symbols", "/nonexistent/file.xml", "--partition", partition}, 2, "varlok-sim: cannot read /nonexistent/file.xml"},
      {{"--symbols", symbols, "--partition", "a/b"}, 4, "varlok-sim: cannot start: "},
  };
  for (const auto& c : cases) {
    Sim sim(c.args);
    EXPECT_EQ(sim.Wait(), c.exit) << c.message;
    EXPECT_NE(sim.Stderr().find(c.message), std::string::npos) << sim.Stderr();
  }
}

}  // namespace
#endif
