// A client process that changes its slot while the controller works on it:
// the controller checks and uses the same entry offsets, so a value never lands
// outside the area, whatever the client writes and when.
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "CommandHandler.h"
#include "ProcessImage.h"
#include "SlotFormat.h"
#include "TestProject.h"

using namespace qorvarlok::controller;

TEST(HostileClient, OffsetsChangedDuringADataSwapNeverReachPastTheArea) {
  auto config = ctltest::MakeProject();
  auto image = ProcessImage::Build(*config);
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  // The area's page, then a page nobody may touch: a value past the area faults.
  auto* base = static_cast<uint8_t*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, base);
  ASSERT_EQ(0, mprotect(base + page, page, PROT_NONE));
  CommandHandler handler(*image, static_cast<uint32_t>(page), 0x101);
  ctltest::WriteConnect(base, slot::kConnectRequest, 0);
  handler.Connect(base, page);
  ctltest::WriteDefine(base, 1, 1, {{"App.GVL.counter", 4}});
  handler.Define(base, page);
  ASSERT_EQ(0, slot::Load<uint16_t>(base, slot::kDefineErr));
  const uint32_t handle = slot::Load<uint32_t>(base, slot::kDefineHandle);
  const uint32_t beyond = static_cast<uint32_t>(page - slot::kSwapEntries - 4 + 2);  // 2 bytes into the guard page
  uint8_t* offset = base + slot::kSwapEntries;  // the one entry's offset, inside one cache line
  std::atomic<bool> stop{false};
  spdlog::level::level_enum saved = spdlog::get_level();
  spdlog::set_level(spdlog::level::off);  // every refusal logs a line
  std::atomic<uint64_t> flips{0};
  std::thread client([&] {
    for (; !stop; ++flips) {
      std::memcpy(offset, &beyond, 4);
      const uint32_t zero = 0;
      std::memcpy(offset, &zero, 4);
    }
  });
  while (flips == 0) std::this_thread::yield();
  // At least 200 000 commands, and on until both outcomes were seen (the
  // client thread may get little time on a loaded machine), within 20 s.
  int done = 0, refused = 0, commands = 0;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (; commands < 200000 || ((done == 0 || refused == 0) && std::chrono::steady_clock::now() < limit); ++commands) {
    base[slot::kSwapFlag] = static_cast<uint8_t>(slot::kRead), base[slot::kSwapSeq] = 1;
    base[slot::kSwapRw] = static_cast<uint8_t>(slot::kRead);
    slot::Store<uint32_t>(base, slot::kSwapSize, 1), slot::Store<uint32_t>(base, slot::kSwapHandle, handle);
    handler.DataSwap(base, page);
    const uint32_t err = slot::Load<uint32_t>(base, slot::kSwapErr);
    done += err == kRefuseNone, refused += err == kRefuseOutOfArea;
  }
  stop = true, client.join();
  spdlog::set_level(saved);
  EXPECT_EQ(commands, done + refused);
  EXPECT_GT(done, 0);
  EXPECT_GT(refused, 0);
  munmap(base, 2 * page);
}
