// The controller's reading of the command slots a client process writes: any
// bytes in the connect, define and data swap slots, one command after the
// other on the same areas, against a real process image. Each input starts
// from a handler with one connected client (sequence byte 1) that holds two
// lists, handles 65537 (counter, grid, names, mix) and 65538 (grid alone, for
// range writes), so that commands reach the list operations.
//
// Input: records of [channel byte][length u16][bytes written at the slot's start].
// Every command must be answered: Flag 3, and an Err the controller defines.
#include <spdlog/spdlog.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "CommandHandler.h"
#include "ProcessImage.h"
#include "SlotFormat.h"
#include "TestProject.h"

using namespace qorvarlok::controller;

namespace {

constexpr size_t kConnectArea = 64;
constexpr size_t kNotifyArea = slot::kDefineEntries + 6 * slot::kEntrySize;
constexpr size_t kSwapArea = 2048;

ProcessImage& TheImage() {
  static auto* config = ctltest::MakeProject().release();
  static ProcessImage* image = ProcessImage::Build(*config).release();
  return *image;
}

[[noreturn]] void Fail(const char* what, unsigned value) {
  std::fprintf(stderr, "%s: %u\n", what, value);
  std::abort();
}

// Exact-size heap buffers: a read or write past a slot's area is caught.
struct Areas {
  std::vector<uint8_t> connect = std::vector<uint8_t>(kConnectArea);
  std::vector<uint8_t> notify = std::vector<uint8_t>(kNotifyArea);
  std::vector<uint8_t> swap = std::vector<uint8_t>(kSwapArea);
};

void Prepare(CommandHandler& handler, Areas& a) {
  ctltest::WriteConnect(a.connect.data(), slot::kConnectRequest, 0);
  handler.Connect(a.connect.data(), a.connect.size());
  ctltest::WriteDefine(a.notify.data(), 1, 1,
                       {{"App.GVL.counter", 4}, {"App.GVL.grid", 48}, {"App.GVL.names", 63}, {"App.GVL.mix", 40}});
  handler.Define(a.notify.data(), a.notify.size());
  ctltest::WriteDefine(a.notify.data(), 1, 1, {{"App.GVL.grid", 48}});
  handler.Define(a.notify.data(), a.notify.size());
  if (handler.ListCount(0x101) != 2) Fail("the prepared lists are missing", 0);
}

void Check(int channel, const Areas& a) {
  if (channel == 0) {
    const auto flag = slot::Load<uint32_t>(a.connect.data(), slot::kConnectFlag);
    const auto err = slot::Load<uint32_t>(a.connect.data(), slot::kConnectErrInfo);
    if (flag != slot::kDone) Fail("a connect command left unanswered, Flag", flag);
    if (err != 0 && err != kConnectUnknownClient && err != kConnectBadRequest) Fail("connect errInfo", err);
  } else if (channel == 1) {
    const auto flag = slot::Load<uint8_t>(a.notify.data(), slot::kDefineFlag);
    const auto err = slot::Load<uint16_t>(a.notify.data(), slot::kDefineErr);
    if (flag != slot::kDone) Fail("a define command left unanswered, Flag", flag);
    if (err > kRefuseTooManyLists) Fail("define Err", err);
  } else {
    const auto flag = slot::Load<uint8_t>(a.swap.data(), slot::kSwapFlag);
    const auto err = slot::Load<uint32_t>(a.swap.data(), slot::kSwapErr);
    if (flag != slot::kDone) Fail("a data swap command left unanswered, Flag", flag);
    if (err > kRefuseTooManyLists) Fail("data swap Err", err);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  spdlog::set_level(spdlog::level::off);  // refusals log a line each
  TheImage();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CommandHandler handler(TheImage(), kSwapArea, 0x101);
  Areas a;
  Prepare(handler, a);
  while (size >= 3) {
    const int channel = data[0] % 3;
    size_t length = data[1] | size_t{data[2]} << 8;
    data += 3, size -= 3;
    length = std::min(length, size);
    std::vector<uint8_t>& area = channel == 0 ? a.connect : channel == 1 ? a.notify : a.swap;
    std::memcpy(area.data(), data, std::min(length, area.size()));
    data += length, size -= length;
    switch (channel) {
      case 0: handler.Connect(area.data(), area.size()); break;
      case 1: handler.Define(area.data(), area.size()); break;
      default: handler.DataSwap(area.data(), area.size()); break;
    }
    Check(channel, a);
  }
  return 0;
}
