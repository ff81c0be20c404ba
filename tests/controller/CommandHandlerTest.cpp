// The controller's answers, worked on plain buffers standing in for the areas.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "CommandHandler.h"
#include "Controller.h"
#include "TestProject.h"
#include "LogCapture.h"

using namespace qorvarlok::controller;
using namespace ctltest;

namespace {

constexpr uint32_t kSwapArea = 4096;

class CommandHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qvtest::Log().Clear();
    project = MakeProject();
    image = ProcessImage::Build(*project);
    handler = std::make_unique<CommandHandler>(*image, kSwapArea);
  }
  uint32_t Connect() {
    WriteConnect(connect.data(), 1, 0);
    handler->Connect(connect.data(), connect.size());
    EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectFlag), 3u);
    EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectErrInfo), 0u);
    return slot::Load<uint32_t>(connect.data(), slot::kConnectSeq);
  }
  // Err of the answer; handle receives TagsHandle.
  uint16_t Define(uint8_t seq, const std::vector<DefineEntry>& entries, uint32_t* handle = nullptr) {
    WriteDefine(notify.data(), 1, seq, entries);
    handler->Define(notify.data(), notify.size());
    EXPECT_EQ(slot::Load<uint8_t>(notify.data(), slot::kDefineFlag), 3u);
    if (handle != nullptr) *handle = slot::Load<uint32_t>(notify.data(), slot::kDefineHandle);
    return slot::Load<uint16_t>(notify.data(), slot::kDefineErr);
  }
  uint16_t Delete(uint8_t seq, uint32_t handle) {
    WriteDefine(notify.data(), 2, seq, {}, handle);
    handler->Define(notify.data(), notify.size());
    EXPECT_EQ(slot::Load<uint8_t>(notify.data(), slot::kDefineFlag), 3u);
    return slot::Load<uint16_t>(notify.data(), slot::kDefineErr);
  }
  uint32_t Swap(uint8_t rw, uint8_t seq, uint32_t handle, const std::vector<uint32_t>& entries,
                const std::vector<uint8_t>& values = {}) {
    std::fill(swap.begin(), swap.end(), 0xEE);  // so that a missing zero-fill of a read shows
    WriteSwap(swap.data(), rw, seq, handle, entries, values);
    handler->DataSwap(swap.data(), swap.size());
    EXPECT_EQ(slot::Load<uint8_t>(swap.data(), slot::kSwapFlag), 3u);
    return slot::Load<uint32_t>(swap.data(), slot::kSwapErr);
  }
  std::vector<uint8_t> Values(size_t entries, size_t n) {
    const uint8_t* v = swap.data() + slot::kSwapEntries + 4 * entries;
    return std::vector<uint8_t>(v, v + n);
  }
  std::vector<uint8_t> ImageBytes(uint32_t offset, uint32_t n) {
    return std::vector<uint8_t>(image->Data() + offset, image->Data() + offset + n);
  }

  std::unique_ptr<SymbolConfiguration> project;
  std::unique_ptr<ProcessImage> image;
  std::unique_ptr<CommandHandler> handler;
  std::vector<uint8_t> connect = std::vector<uint8_t>(512, 0);
  std::vector<uint8_t> notify = std::vector<uint8_t>(8192, 0);
  std::vector<uint8_t> swap = std::vector<uint8_t>(kSwapArea, 0);
};

TEST_F(CommandHandlerTest, ConnectGrantsSequencesAndDisconnectGivesThemBack) {
  auto& log = qvtest::Log();
  EXPECT_EQ(Connect(), 1u);
  const uint32_t beat = slot::Load<uint32_t>(connect.data(), slot::kConnectBeat);
  EXPECT_EQ(Connect(), 2u);
  EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectBeat), beat + 1);
  EXPECT_TRUE(log.WaitFor(spdlog::level::info, "connect: client seq 2 granted, 2 connected", "CommandHandler::Connect"));

  struct Case {
    uint32_t flag, seq, errInfo;
    size_t clientsAfter;
  };
  const std::vector<Case> cases = {{0, 1, 0, 1}, {0, 1, 3, 1}, {2, 2, 0, 0}, {7, 0, 4, 0}};
  for (const auto& c : cases) {
    WriteConnect(connect.data(), c.flag, c.seq);
    handler->Connect(connect.data(), connect.size());
    EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectFlag), 3u);
    EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectErrInfo), c.errInfo) << c.flag << "/" << c.seq;
    EXPECT_EQ(handler->ClientCount(), c.clientsAfter);
  }
  EXPECT_EQ(log.CountOf(spdlog::level::warn, "refused disconnect: client seq 1 is not connected"), 1u);
  EXPECT_EQ(log.CountOf(spdlog::level::warn, "refused connect command: Flag 7 is no request"), 1u);
}

TEST_F(CommandHandlerTest, SequenceBytesStayUniqueAndNeverZero) {
  std::set<uint32_t> granted;
  for (int i = 0; i < 300; ++i) granted.insert(Connect());
  EXPECT_EQ(granted.size(), 300u);
  EXPECT_EQ(granted.count(256), 0u) << "its low byte is 0";
  EXPECT_EQ(handler->ClientCount(), CommandHandler::kMaxClients);
  EXPECT_TRUE(qvtest::Log().Contains("client seq 1 dropped: all 255 client slots are taken"));
  std::set<uint8_t> live;
  for (uint32_t seq : granted) {
    if (handler->ListCount(seq) == 0 && Define(static_cast<uint8_t>(seq), {{"App.GVL.speed", 4}}) == 0) {
      EXPECT_TRUE(live.insert(static_cast<uint8_t>(seq)).second);
    }
  }
  EXPECT_EQ(live.size(), CommandHandler::kMaxClients);
}

TEST_F(CommandHandlerTest, ReadsAndWritesByEntryOffsetsServingTheSmallerSize) {
  const auto seq = static_cast<uint8_t>(Connect());
  uint32_t handle = 0;
  // names[2] and wnames[0] are sized as the client sizes array elements: 81 and 162.
  ASSERT_EQ(Define(seq,
                   {{"App.GVL.counter", 4}, {"App.GVL.grid[1,3].y", 4}, {"App.GVL.names[2]", 81},
                    {"App.GVL.wnames[0]", 162}, {"App.GVL.mix.c", 2}},
                   &handle),
            0);
  EXPECT_EQ(handle, 1u);
  EXPECT_TRUE(qvtest::Log().WaitFor(spdlog::level::info, "define: client seq 1 handle 1 with 5 tags, 253 bytes"));
  for (uint32_t i = 0; i < image->Size(); ++i) image->Data()[i] = static_cast<uint8_t>(i);
  const std::vector<uint32_t> offsets = {0, 4, 8, 89, 251};
  ASSERT_EQ(Swap(1, seq, handle, offsets), 0u);
  const std::vector<uint8_t> read = Values(5, 253);
  EXPECT_EQ(std::vector<uint8_t>(read.begin(), read.begin() + 4), ImageBytes(0, 4));
  EXPECT_EQ(std::vector<uint8_t>(read.begin() + 4, read.begin() + 8), ImageBytes(68, 4));
  EXPECT_EQ(std::vector<uint8_t>(read.begin() + 8, read.begin() + 29), ImageBytes(133, 21));
  EXPECT_EQ(std::vector<uint8_t>(read.begin() + 29, read.begin() + 89), std::vector<uint8_t>(60, 0));
  EXPECT_EQ(std::vector<uint8_t>(read.begin() + 89, read.begin() + 101), ImageBytes(176, 12));
  EXPECT_EQ(std::vector<uint8_t>(read.begin() + 101, read.begin() + 251), std::vector<uint8_t>(150, 0));
  EXPECT_EQ(std::vector<uint8_t>(read.begin() + 251, read.end()), ImageBytes(232, 2));

  const std::vector<uint8_t> before = ImageBytes(0, image->Size());
  const std::vector<uint8_t> values =
      Concat({Bytes<int32_t>(-5), Bytes<int32_t>(77), std::vector<uint8_t>(81, 'A'), std::vector<uint8_t>(162, 'W'),
              Bytes<int16_t>(1234)});
  ASSERT_EQ(Swap(2, seq, handle, offsets, values), 0u);
  std::vector<uint8_t> expected = before;
  std::memcpy(&expected[0], values.data(), 4);
  std::memcpy(&expected[68], values.data() + 4, 4);
  std::fill(&expected[133], &expected[153], 'A');
  expected[153] = 0;  // the cut string keeps its terminator
  std::fill(&expected[176], &expected[186], 'W');
  expected[186] = expected[187] = 0;
  std::memcpy(&expected[232], values.data() + 251, 2);
  EXPECT_EQ(ImageBytes(0, image->Size()), expected) << "only the elements' own bytes change";
}

TEST_F(CommandHandlerTest, RangeWriteAppliesStartBytesAndElementLength) {
  const auto seq = static_cast<uint8_t>(Connect());
  uint32_t counters = 0, names = 0, grid = 0;
  ASSERT_EQ(Define(seq, {{"App.GVL.counters", 40}}, &counters), 0);
  ASSERT_EQ(Define(seq, {{"App.GVL.names", 63}}, &names), 0);
  ASSERT_EQ(Define(seq, {{"App.GVL.grid", 48}}, &grid), 0);
  const std::vector<uint8_t> before = ImageBytes(0, image->Size());

  ASSERT_EQ(Swap(2, seq, counters, {0, 2, 12, 4}, Concat({Bytes<int32_t>(7), Bytes<int32_t>(8), Bytes<int32_t>(9)})),
            0u);
  std::vector<uint8_t> expected = before;
  for (int k = 0; k < 3; ++k) expected[72 + 8 + 4 * k] = static_cast<uint8_t>(7 + k);
  EXPECT_EQ(ImageBytes(0, image->Size()), expected);

  // Two String(20) elements sent as 81 bytes each: 20 characters and a terminator land in each.
  ASSERT_EQ(Swap(2, seq, names, {0, 1, 162, 81},
                 Concat({std::vector<uint8_t>(81, 'x'), std::vector<uint8_t>(81, 'y')})),
            0u);
  std::fill(&expected[133], &expected[153], 'x');
  expected[153] = 0;
  std::fill(&expected[154], &expected[174], 'y');
  expected[174] = 0;
  EXPECT_EQ(ImageBytes(0, image->Size()), expected);

  std::vector<uint8_t> whole(48);
  for (size_t i = 0; i < whole.size(); ++i) whole[i] = static_cast<uint8_t>(100 + i);
  ASSERT_EQ(Swap(2, seq, grid, {0, 0, 48, 0}, whole), 0u);
  std::copy(whole.begin(), whole.end(), expected.begin() + 24);
  EXPECT_EQ(ImageBytes(0, image->Size()), expected);

  struct Bad {
    uint32_t handle, start, bytes, length, err;
  };
  for (const Bad& b : std::vector<Bad>{{counters, 8, 12, 4, kRefuseBadRange}, {counters, 0, 10, 4, kRefuseBadRange},
                                       {counters, 0, 8, 0, kRefuseBadRange}, {names, 3, 81, 81, kRefuseBadRange},
                                       {counters, 0, 5000, 4, kRefuseOutOfArea}}) {
    EXPECT_EQ(Swap(2, seq, b.handle, {0, b.start, b.bytes, b.length}, std::vector<uint8_t>(b.bytes % 4096, 0xEE)),
              b.err)
        << b.start << "/" << b.bytes << "/" << b.length;
  }
  EXPECT_EQ(ImageBytes(0, image->Size()), expected) << "a refused range write changes nothing";
}

TEST_F(CommandHandlerTest, DeleteInTheMiddleMovesLaterHandlesDown) {
  const auto seq = static_cast<uint8_t>(Connect());
  uint32_t h[3] = {};
  ASSERT_EQ(Define(seq, {{"App.GVL.counter", 4}}, &h[0]), 0);
  ASSERT_EQ(Define(seq, {{"App.GVL.speed", 4}}, &h[1]), 0);
  ASSERT_EQ(Define(seq, {{"App.GVL.sine", 8}}, &h[2]), 0);
  EXPECT_EQ(h[0] + h[1] + h[2], 6u);
  const double sine = 2.5;
  std::memcpy(image->Data() + 8, &sine, 8);
  ASSERT_EQ(Delete(seq, 2), 0);
  EXPECT_TRUE(qvtest::Log().WaitFor(spdlog::level::info, "delete: client seq 1 handle 2, 2 lists left"));
  ASSERT_EQ(Swap(1, seq, 2, {0}), 0u) << "the former handle 3 is now 2";
  EXPECT_EQ(Values(1, 8), Bytes(sine));
  EXPECT_EQ(Swap(1, seq, 3, {0}), kRefuseStaleHandle);
  EXPECT_EQ(Delete(seq, 3), kRefuseStaleHandle);
  EXPECT_EQ(handler->ListCount(seq), 2u);
}

TEST_F(CommandHandlerTest, RefusesBadCommandsWithTheirCodeAndALogLine) {
  const auto seq = static_cast<uint8_t>(Connect());
  uint32_t handle = 0;
  ASSERT_EQ(Define(seq, {{"App.GVL.counter", 4}, {"App.GVL.speed", 4}}, &handle), 0);
  const std::vector<uint8_t> before = ImageBytes(0, image->Size());
  struct DefineCase {
    std::function<void()> prepare;
    uint16_t err;
    const char* logFragment;
  };
  auto define = [&](uint8_t s, std::vector<DefineEntry> e) { return [=] { WriteDefine(notify.data(), 1, s, e); }; };
  const std::vector<DefineCase> defines = {
      {define(seq, {{"App.GVL.speed", 4}, {"App.GVL.nothing", 4}}), kRefuseUnknownName,
       "entry 1 \"App.GVL.nothing\": unknown variable"},
      {define(seq, {{std::string(256, 'A'), 4}}), kRefuseUnknownName, "unknown variable"},
      {define(99, {{"App.GVL.speed", 4}}), kRefuseUnknownClient, "client seq byte 99 is not connected"},
      {define(seq, {{"App.GVL.counter", 5000}}), kRefuseBadSize, "do not fit the data swap area"},
      {[&] {
         WriteDefine(notify.data(), 1, seq, {{"App.GVL.speed", 4}});
         slot::Store<uint32_t>(notify.data(), slot::kDefineByteLength, 40);
       },
       kRefuseBadSize, "ByteLength 40 but the entries' sizes add up to 4"},
      {[&] {
         WriteDefine(notify.data(), 1, seq, {});
         slot::Store<uint32_t>(notify.data(), slot::kDefineSize, 0xFFFFFFFFu);
       },
       kRefuseBadSize, "Size 4294967295 does not fit the area"},
      {[&] { WriteDefine(notify.data(), 2, seq, {}, 7); }, kRefuseStaleHandle, "has no list 7"},
      {[&] { WriteDefine(notify.data(), 5, seq, {}); }, kRefuseBadRequest, "Flag 5 is no request"},
  };
  for (const auto& c : defines) {
    SCOPED_TRACE(c.logFragment);
    c.prepare();
    handler->Define(notify.data(), notify.size());
    EXPECT_EQ(slot::Load<uint8_t>(notify.data(), slot::kDefineFlag), 3u);
    EXPECT_EQ(slot::Load<uint16_t>(notify.data(), slot::kDefineErr), c.err);
    EXPECT_TRUE(qvtest::Log().Contains(c.logFragment));
  }
  EXPECT_EQ(handler->ListCount(seq), 1u);

  struct SwapCase {
    uint8_t flag, seq, rw;
    uint32_t size, handle, entry0;
    uint32_t err;
  };
  const std::vector<SwapCase> swaps = {
      {3, seq, 3, 2, handle, 0, kRefuseBadRequest},        {1, seq, 2, 2, handle, 0, kRefuseBadRequest},
      {2, 77, 2, 2, handle, 0, kRefuseUnknownClient},      {2, seq, 2, 2, 2, 0, kRefuseStaleHandle},
      {2, seq, 2, 2, 0, 0, kRefuseStaleHandle},            {2, seq, 2, 0x40000000, handle, 0, kRefuseBadSize},
      {1, seq, 1, 1, handle, 0, kRefuseBadSize},           {2, seq, 2, 3, handle, 0, kRefuseBadSize},
      {2, seq, 2, 2, handle, kSwapArea - 24, kRefuseOutOfArea}, {1, seq, 1, 2, handle, 0xFFFFFFF0u, kRefuseOutOfArea},
  };
  for (const auto& c : swaps) {
    std::fill(swap.begin(), swap.end(), 0x5A);
    slot::Store<uint32_t>(swap.data(), slot::kSwapErr, 0);
    slot::Store<uint8_t>(swap.data(), slot::kSwapFlag, c.flag);
    slot::Store<uint8_t>(swap.data(), slot::kSwapSeq, c.seq);
    slot::Store<uint8_t>(swap.data(), slot::kSwapRw, c.rw);
    slot::Store<uint32_t>(swap.data(), slot::kSwapSize, c.size);
    slot::Store<uint32_t>(swap.data(), slot::kSwapHandle, c.handle);
    slot::Store<uint32_t>(swap.data(), slot::kSwapEntries, c.entry0);
    slot::Store<uint32_t>(swap.data(), slot::kSwapEntries + 4, 4);
    handler->DataSwap(swap.data(), swap.size());
    EXPECT_EQ(slot::Load<uint32_t>(swap.data(), slot::kSwapErr), c.err)
        << int(c.flag) << "/" << int(c.seq) << "/" << int(c.rw) << "/" << c.size << "/" << c.handle;
    EXPECT_EQ(slot::Load<uint8_t>(swap.data(), slot::kSwapFlag), 3u);
  }
  EXPECT_EQ(ImageBytes(0, image->Size()), before) << "no refused command touches the image";
}

TEST_F(CommandHandlerTest, InjectedFaultsShapeTheAnswer) {
  FaultPlan refuse;
  refuse.refuseConnect = 4;
  WriteConnect(connect.data(), 1, 0);
  Controller::Process(*handler, refuse, Channel::Connect, connect.data(), connect.size());
  EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectFlag), 3u);
  EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectErrInfo), 4u);
  EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectSeq), 0u);
  EXPECT_EQ(handler->ClientCount(), 0u);

  const auto seq = static_cast<uint8_t>(Connect());
  FaultPlan keepFlag;
  keepFlag.keepFlagMask = ChannelBit(Channel::Notify);
  WriteDefine(notify.data(), 1, seq, {{"App.GVL.speed", 4}});
  Controller::Process(*handler, keepFlag, Channel::Notify, notify.data(), notify.size());
  EXPECT_EQ(slot::Load<uint8_t>(notify.data(), slot::kDefineFlag), 1u) << "Flag left as the request left it";
  EXPECT_EQ(slot::Load<uint32_t>(notify.data(), slot::kDefineHandle), 1u);
  EXPECT_EQ(slot::Load<uint16_t>(notify.data(), slot::kDefineErr), 0u);

  FaultPlan error;
  error.errorMask = ChannelBit(Channel::DataSwap);
  error.errorValue = 9;
  const std::vector<uint8_t> before = ImageBytes(0, image->Size());
  WriteSwap(swap.data(), 2, seq, 1, {0}, Bytes<int32_t>(42));
  Controller::Process(*handler, error, Channel::DataSwap, swap.data(), swap.size());
  EXPECT_EQ(slot::Load<uint32_t>(swap.data(), slot::kSwapErr), 9u);
  EXPECT_EQ(slot::Load<uint8_t>(swap.data(), slot::kSwapFlag), 3u);
  EXPECT_EQ(ImageBytes(0, image->Size()), before) << "an error answer does not carry the command out";
  EXPECT_TRUE(qvtest::Log().Contains("refused data swap command: answering with the injected error 9"));
}

TEST_F(CommandHandlerTest, AWakeUpOnAnAnsweredSlotLeavesItAlone) {
  const auto seq = static_cast<uint8_t>(Connect());
  ASSERT_EQ(Define(seq, {{"App.GVL.speed", 4}}), 0);
  ASSERT_EQ(Swap(1, seq, 1, {0}), 0u);
  struct Case {
    Channel channel;
    std::vector<uint8_t>* area;
  };
  for (const Case& c : {Case{Channel::Connect, &connect}, Case{Channel::Notify, &notify},
                        Case{Channel::DataSwap, &swap}}) {
    const std::vector<uint8_t> answered = *c.area;
    Controller::Process(*handler, FaultPlan{}, c.channel, c.area->data(), c.area->size());
    EXPECT_EQ(*c.area, answered) << ChannelName(c.channel);
  }
  EXPECT_EQ(handler->ListCount(seq), 1u);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::warn,
                                  "ignored a define wake-up: the slot holds an answer, not a request"),
            1u);
}

}  // namespace
