// Four client processes of two threads each on one varlok-sim for a few
// seconds, two over the shared-memory channels and two over TCP. Each thread
// owns a group of four tags and writes it as one record whose fields check
// each other; it reads its group with the neighbour's, so the lists overlap.
// A torn record, a write answered 0 that the next read does not show, a
// neighbour's record going back in time, or a failed command fails the test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "QorVarlok/ZelVarlok.h"
#include "ShmProject.h"
#include "PosixSimProcess.h"
#include "TcpTestSupport.h"
#include "Watchdog.h"

using namespace shmtest;
using namespace std::chrono_literals;

namespace {

constexpr int kProcesses = 4;
constexpr int kThreads = 2;
constexpr int kGroups = kProcesses * kThreads;
constexpr int kStressMs = 3000;

// The record of writer w's n-th write: four fields, each a function of the first.
struct Record {
  uint32_t f[4];
  static Record Of(uint32_t writer, uint32_t n) {
    const uint32_t head = writer << 24 | n;
    return Record{{head, ~head, head * 2654435761u, head ^ 0x5A5A5A5Au}};
  }
  bool Whole() const { return *this == Of(f[0] >> 24, f[0] & 0xFFFFFF) || (f[0] | f[1] | f[2] | f[3]) == 0; }
  bool operator==(const Record& o) const { return std::equal(f, f + 4, o.f); }
};

std::vector<std::string> GroupNames(int group) {
  std::vector<std::string> names;
  for (int i = 0; i < 4; ++i) names.push_back(ManyName(4 * group + i));
  return names;
}

struct Tally {
  std::atomic<uint64_t> commands{0};
  std::atomic<uint64_t> faults{0};
};

void Fault(Tally& tally, const char* what, int writer, uint32_t n) {
  if (tally.faults++ < 5) std::fprintf(stderr, "writer %d, write %u: %s\n", writer, n, what);
}

void RunWriter(ZelVarlok& v, int writer, std::chrono::steady_clock::time_point end, Tally& tally) {
  unsigned int e = 1;
  std::vector<std::string> both = GroupNames(writer), next = GroupNames((writer + 1) % kGroups);
  both.insert(both.end(), next.begin(), next.end());
  HTAGLIST own = v.CreateTagsHandle(GroupNames(writer), e);
  HTAGLIST pair = own != nullptr ? v.CreateTagsHandle(both, e) : nullptr;
  if (pair == nullptr) return Fault(tally, "a list was not defined", writer, 0);
  uint32_t neighbourSeen = 0;
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  for (uint32_t n = 1; std::chrono::steady_clock::now() < end; ++n) {
    const Record mine = Record::Of(static_cast<uint32_t>(writer), n);
    std::vector<std::string> text;
    for (uint32_t f : mine.f) text.push_back(std::to_string(static_cast<int32_t>(f)));
    if (v.WriteTagList(own, text) != 0) return Fault(tally, "a write failed", writer, n);
    if (v.ReadTagList(pair, values, count) != 0 || values.size() != 8) return Fault(tally, "a read failed", writer, n);
    tally.commands += 2;
    Record got[2];
    for (int i = 0; i < 8; ++i) got[i / 4].f[i % 4] = ReadAt<uint32_t>(values[i].Value);
    if (!(got[0] == mine)) Fault(tally, "a write answered 0 is not what the next read shows", writer, n);
    if (!got[1].Whole()) Fault(tally, "the neighbour's record is torn", writer, n);
    const uint32_t theirs = got[1].f[0] & 0xFFFFFF;
    if (theirs < neighbourSeen) Fault(tally, "the neighbour's record went back in time", writer, n);
    neighbourSeen = theirs;
  }
}

// Runs only as one of the stress test's client processes.
TEST(ReliabilityHelper, StressClient) {
  const char* id = std::getenv("STRESS_ID");
  if (id == nullptr) GTEST_SKIP() << "helper of another test";
  const int process = std::atoi(id);
  const std::string at = std::getenv("STRESS_AT");
  const bool tcp = at != "Local";
  ZelVarlok v;
  ASSERT_EQ(0u, v.InitializeCom(tcp ? COM_TYPE_TCP : COM_TYPE_LOCAL, std::getenv("STRESS_SYMBOLS")));
  unsigned int e = 1;
  void* device = v.ConnectToPlcDevice(at, e);
  ASSERT_TRUE(device != nullptr && e == 0) << e;
  Tally tally;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStressMs);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back(RunWriter, std::ref(v), process * kThreads + t, end, std::ref(tally));
  for (auto& t : threads) t.join();
  const std::string report = std::to_string(tally.commands) + " " + std::to_string(tally.faults) + "\n";
  ASSERT_EQ(static_cast<ssize_t>(report.size()),
            write(std::atoi(std::getenv("STRESS_FD")), report.data(), report.size()));
  EXPECT_EQ(0u, tally.faults.load());
  v.DisconnectFromDevice(device);
}

TEST(Stress, FourProcessesOfTwoThreadsOverSharedMemoryAndTcp) {
  reltest::Watchdog watchdog("the stress test", 90s);
  const std::string partition = "stress" + std::to_string(getpid());
  const std::string path = "/tmp/" + partition + ".xml";
  ASSERT_TRUE(WriteProject(path, 4 * kGroups));
  tcptest::TcpSim sim;
  sim.partition = partition;
  ASSERT_TRUE(sim.Start(path, "127.0.0.1:0"));
  watchdog.Guard(sim.sim.pid);
  setenv("VARLOK_PARTITION", partition.c_str(), 1);
  setenv("STRESS_SYMBOLS", path.c_str(), 1);
  pid_t pids[kProcesses];
  int reports[kProcesses];
  for (int p = 0; p < kProcesses; ++p) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    setenv("STRESS_ID", std::to_string(p).c_str(), 1), setenv("STRESS_FD", std::to_string(fds[1]).c_str(), 1);
    setenv("STRESS_AT", p < 2 ? "Local" : ("127.0.0.1:" + std::to_string(sim.port)).c_str(), 1);
    pids[p] = Spawn({"/proc/self/exe", "--gtest_filter=ReliabilityHelper.StressClient"});
    close(fds[1]), reports[p] = fds[0];
    watchdog.Guard(pids[p]);
  }
  for (const char* name : {"STRESS_ID", "STRESS_FD", "STRESS_AT", "STRESS_SYMBOLS"}) unsetenv(name);
  uint64_t commands[2] = {0, 0};
  for (int p = 0; p < kProcesses; ++p) {
    EXPECT_EQ(0, WaitExitWithin(pids[p], kStressMs + 30000)) << "client process " << p;
    char text[64] = {};
    const ssize_t n = read(reports[p], text, sizeof text - 1);
    close(reports[p]);
    unsigned long long done = 0, faults = 1;
    EXPECT_TRUE(n > 0 && std::sscanf(text, "%llu %llu", &done, &faults) == 2 && faults == 0)
        << "client process " << p << " reported: " << text;
    commands[p < 2 ? 0 : 1] += done;
  }
  std::remove(path.c_str());
  const double seconds = kStressMs / 1000.0;
  std::printf("stress: %.0f commands/s over shared memory, %.0f over TCP, %.0f together (%d processes x %d threads, "
              "%.1f s)\n", commands[0] / seconds, commands[1] / seconds, (commands[0] + commands[1]) / seconds,
              kProcesses, kThreads, seconds);
  RecordProperty("shm_commands_per_s", std::to_string(static_cast<uint64_t>(commands[0] / seconds)));
  RecordProperty("tcp_commands_per_s", std::to_string(static_cast<uint64_t>(commands[1] / seconds)));
  EXPECT_GT(commands[0], 0u);
  EXPECT_GT(commands[1], 0u);
}

}  // namespace
