// The fault guard against a truncated area and a read-only page, here and in a
// shared library, and its chaining to the handlers installed before it.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>

#include "FaultGuard.h"
#include "PlatformTestSupport.h"

using namespace qorvarlok::platform;
using namespace platformtest;

extern "C" int ProbeGuardedClear(void* address, size_t length);

TEST(FaultGuard, GuardedFaultsBecomeResultsAndTheProcessLivesOn) {
  ScopedPartition partition("guard");
  auto host = StartHost();
  uint8_t* slot = MapArea(L"DataSwapArea");
  void* readOnly = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_TRUE(host != nullptr && slot != nullptr && readOnly != MAP_FAILED);
  const struct { const char* where; bool (*clear)(void*, size_t); } writers[] = {
      {"executable", [](void* p, size_t n) { return RunFaultGuarded([&] { std::memset(p, 0, n); }); }},
      {"shared library at -O2", [](void* p, size_t n) { return ProbeGuardedClear(p, n) == 1; }},
  };
  for (const auto& writer : writers) {
    slot[10] = 0x5A;
    EXPECT_TRUE(writer.clear(slot, 8192)) << writer.where << ": intact area";
    EXPECT_EQ(slot[10], 0) << writer.where;
    EXPECT_FALSE(writer.clear(readOnly, 16)) << writer.where << ": SIGSEGV";
  }
  ASSERT_TRUE(host->TruncateAreas());
  for (const auto& writer : writers) {
    EXPECT_FALSE(writer.clear(slot, 8192)) << writer.where << ": SIGBUS";
    EXPECT_EQ(CurrentFaultGuardFrame(), nullptr) << writer.where << ": the frame is taken down";
  }
  // Nested guards: the inner fault lands in the inner frame, the outer goes on.
  bool inner = true;
  EXPECT_TRUE(RunFaultGuarded([&] { inner = RunFaultGuarded([&] { slot[0] = 1; }); }));
  EXPECT_FALSE(inner);
  munmap(readOnly, 4096);
}

// Outside a guarded region a fault goes to whatever handled it before: the
// application's own handler, or the default action that ends the process.
TEST(FaultGuard, FaultsOutsideAGuardGoToThePreviousHandler) {
  ScopedPartition partition("chain");
  for (const char* before : {"own", "default"}) {
    const std::string name = partition.name + before;
    const pid_t child = Spawn([&] {
      return execl(FAULT_GUARD_CHAIN_HELPER, FAULT_GUARD_CHAIN_HELPER, before, name.c_str(), nullptr) + 128;
    });
    const int status = WaitChild(child, 5000);
    EXPECT_TRUE(std::strcmp(before, "own") == 0 ? Exited(status, 42) : Killed(status, SIGBUS)) << before << status;
    ScopedPartition::RemoveObjectsOf(name);
  }
}
