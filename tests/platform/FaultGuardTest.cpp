// The fault guard against a real vanished mapping (a controller that
// truncated its areas), in this executable and inside a shared library, and
// its chaining to the handlers that were installed before it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <cstring>

#include "FaultGuard.h"
#include "FaultGuardProbe.h"
#include "PlatformTestSupport.h"
#include "RtosHost.h"
#include "RtosLib64.h"

using namespace qorvarlok::platform;
using qorvarlok::rtos::Channel;
using qorvarlok::rtos::RtosHost;
using qorvarlok::rtos::RtosHostOptions;
using platformtest::ScopedPartition;
using platformtest::Spawn;
using platformtest::WaitChild;

namespace {

// Maps the DataSwapArea as a client would, through libRtosLib64.
uint8_t* MapDataSwap() {
  uint32_t id = 0;
  void* address = nullptr;
  if (RtosQueryShmId(L"DataSwapArea", 4, &id) != 0 || RtosMapShm(id, 0, 0x500000, nullptr, &address) != 0)
    return nullptr;
  return static_cast<uint8_t*>(address);
}

std::unique_ptr<RtosHost> StartHost() {
  RtosHostOptions options;
  options.connectAreaSize = 512;
  options.notifyAreaSize = 512;
  options.dataSwapAreaSize = 0x280000;
  return RtosHost::Create(options, nullptr);
}

}  // namespace

TEST(FaultGuard, TruncatedAreaFaultsIntoTheResultAndTheProcessLivesOn) {
  ScopedPartition partition("guard");
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  uint8_t* slot = MapDataSwap();
  ASSERT_NE(slot, nullptr);
  std::memset(slot, 0x5A, 64);

  using Clear = bool (*)(uint8_t*, size_t);
  const struct {
    const char* where;
    Clear clear;
  } writers[] = {
      {"executable", [](uint8_t* p, size_t n) { return RunFaultGuarded([&] { std::memset(p, 0, n); }); }},
      {"shared library", [](uint8_t* p, size_t n) { return ProbeGuardedClear(p, n) == 1; }},
  };
  // Intact first: both writers clear the bytes and report success.
  for (const auto& writer : writers) {
    slot[10] = 0x5A;
    EXPECT_TRUE(writer.clear(slot, 0x280000)) << writer.where;
    EXPECT_EQ(slot[10], 0) << writer.where;
  }
  ASSERT_TRUE(host->TruncateAreas());
  for (const auto& writer : writers) {
    EXPECT_FALSE(writer.clear(slot, 0x280000)) << writer.where;
    EXPECT_EQ(CurrentFaultGuardFrame(), nullptr) << writer.where << ": the frame is taken down";
  }
  // Nested guards: the inner fault lands in the inner frame, the outer goes on.
  bool inner = true;
  EXPECT_TRUE(RunFaultGuarded([&] { inner = RunFaultGuarded([&] { slot[0] = 1; }); }));
  EXPECT_FALSE(inner);
  uint8_t local[16] = {1};
  EXPECT_TRUE(RunFaultGuarded([&] { std::memset(local, 0, sizeof local); }));
  EXPECT_EQ(local[0], 0);
}

// Outside a guarded region a fault goes to whatever handled it before: the
// application's own handler, or the default action that ends the process.
// A fresh process each, since the guard is installed once per process.
TEST(FaultGuard, FaultsOutsideAGuardGoToThePreviousHandler) {
  ScopedPartition partition("chain");
  const struct {
    const char* before;
    int exitCode;    // expected exit code, or -1
    int signal;      // expected terminating signal, or 0
  } cases[] = {{"own", 42, 0}, {"default", -1, SIGBUS}};
  for (const auto& c : cases) {
    const std::string name = partition.Name() + c.before;
    const pid_t child = fork();
    if (child == 0) {
      execl(FAULT_GUARD_CHAIN_HELPER, FAULT_GUARD_CHAIN_HELPER, c.before, name.c_str(), nullptr);
      _exit(127);
    }
    const auto result = WaitChild(child, 5000);
    if (c.exitCode >= 0)
      EXPECT_TRUE(result.Exited(c.exitCode)) << c.before << " status " << result.status;
    else
      EXPECT_TRUE(result.Signalled(c.signal)) << c.before << " status " << result.status;
    ScopedPartition::RemoveObjectsOf(name);
  }
}

// A client that still maps the areas of a controller that ended or crashed
// must fault, not write to nobody: that is what makes it set up anew.
TEST(FaultGuard, AreasOfAGoneControllerFaultInTheClient) {
  enum class End { Clean, CrashThenNewController };
  for (End end : {End::Clean, End::CrashThenNewController}) {
    ScopedPartition partition("gone");
    platformtest::ReadyPipe ready;
    pid_t child = -1;
    std::unique_ptr<RtosHost> host;
    if (end == End::Clean) {
      host = StartHost();
    } else {
      child = Spawn([&] {
        auto mine = StartHost();
        if (mine == nullptr) return 1;
        ready.Signal();
        pause();
        return 0;
      });
      ASSERT_EQ(ready.Wait(3000), 'r');
    }
    uint8_t* slot = MapDataSwap();
    ASSERT_NE(slot, nullptr);
    EXPECT_TRUE(RunFaultGuarded([&] { slot[0] = 1; }));
    if (end == End::Clean) {
      host.reset();
    } else {
      kill(child, SIGKILL);
      ASSERT_TRUE(WaitChild(child, 3000).Signalled(SIGKILL));
      EXPECT_TRUE(RunFaultGuarded([&] { slot[0] = 1; })) << "nobody has cut it yet";
      host = StartHost();
      ASSERT_NE(host, nullptr);
    }
    EXPECT_FALSE(RunFaultGuarded([&] { slot[0] = 1; }));
    volatile uint8_t seen = 0;
    EXPECT_FALSE(RunFaultGuarded([&] { seen = slot[4]; })) << "reads fault too";
  }
}

TEST(FaultGuard, SegvOfAGuardedWriteIsCaughtToo) {
  void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  EXPECT_FALSE(ProbeGuardedClear(page, 16));
  EXPECT_FALSE(RunFaultGuarded([&] { static_cast<volatile char*>(page)[0] = 1; }));
  munmap(page, 4096);
}
