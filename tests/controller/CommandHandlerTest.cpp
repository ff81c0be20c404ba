// The controller's answers, worked on plain buffers standing in for the areas
// as a minimal client writes them, and the layout rule on the demo project.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "CommandHandler.h"
#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "SymbolConfigReader.h"
#include "TestProject.h"

using namespace qorvarlok::controller;
using namespace ctltest;
using Buf = std::vector<uint8_t>;

namespace {

constexpr uint32_t kSwapArea = 4096, kRange = CommandHandler::kHandleRange;

class CommandHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { qvtest::Log().Clear(); }
  // errInfo of the answer to a connect-channel request.
  uint32_t Send(CommandHandler& h, uint32_t flag, uint32_t seq) {
    WriteConnect(connect.data(), flag, seq);
    h.Connect(connect.data(), connect.size());
    EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectFlag), 3u);
    return slot::Load<uint32_t>(connect.data(), slot::kConnectErrInfo);
  }
  uint32_t Connect(CommandHandler& h) {
    EXPECT_EQ(Send(h, 1, 0), 0u);
    return slot::Load<uint32_t>(connect.data(), slot::kConnectSeq);
  }
  uint8_t Connect() { return static_cast<uint8_t>(Connect(*handler)); }
  // Err of the answer; *handle receives TagsHandle.
  uint16_t Define(uint8_t flag, uint8_t seq, const std::vector<DefineEntry>& entries, uint32_t* handle = nullptr) {
    WriteDefine(notify.data(), flag, seq, entries, handle != nullptr ? *handle : 0);
    handler->Define(notify.data(), notify.size());
    EXPECT_EQ(slot::Load<uint8_t>(notify.data(), slot::kDefineFlag), 3u);
    if (handle != nullptr && flag == 1) *handle = slot::Load<uint32_t>(notify.data(), slot::kDefineHandle);
    return slot::Load<uint16_t>(notify.data(), slot::kDefineErr);
  }
  uint32_t Swap(uint8_t rw, uint8_t seq, uint32_t handle, const std::vector<uint32_t>& entries, const Buf& v = {}) {
    std::fill(swap.begin(), swap.end(), 0xEE);  // so that a missing zero-fill of a read shows
    WriteSwap(swap.data(), rw, seq, handle, entries, v);
    handler->DataSwap(swap.data(), swap.size());
    EXPECT_EQ(slot::Load<uint8_t>(swap.data(), slot::kSwapFlag), 3u);
    return slot::Load<uint32_t>(swap.data(), slot::kSwapErr);
  }
  Buf Read(size_t entries, size_t at, size_t n) {  // values follow the 15-byte header and the entries
    return Buf(&swap[15 + 4 * entries + at], &swap[15 + 4 * entries + at + n]);
  }
  Buf ImageBytes(uint32_t offset, uint32_t n) { return Buf(image->Data() + offset, image->Data() + offset + n); }

  std::unique_ptr<SymbolConfiguration> project = MakeProject();
  std::unique_ptr<ProcessImage> image = ProcessImage::Build(*project);
  std::unique_ptr<CommandHandler> handler = std::make_unique<CommandHandler>(*image, kSwapArea, 1);
  Buf connect = Buf(512, 0), notify = Buf(8192, 0), swap = Buf(kSwapArea, 0);
};

TEST_F(CommandHandlerTest, GrantsSequencesAndTakesThemBack) {
  std::set<uint32_t> firsts;
  for (int i = 0; i < 8; ++i) firsts.insert(Connect(*std::make_unique<CommandHandler>(*image, kSwapArea)));
  EXPECT_EQ(firsts.size(), 8u) << "a new instance repeated an earlier instance's first sequence";
  struct Start { uint32_t first; std::vector<uint32_t> granted; };
  for (const Start& s : {Start{0xFFFFFFFFu, {0xFFFFFFFFu, 1, 2}}, Start{0xFF, {0xFF, 0x101, 0x102}}}) {
    CommandHandler h(*image, kSwapArea, s.first);
    for (uint32_t expected : s.granted) EXPECT_EQ(Connect(h), expected) << "low byte 0 and 0 itself are skipped";
  }
  std::vector<uint32_t> granted(300);
  for (uint32_t& seq : granted) seq = Connect(*handler);
  EXPECT_EQ(handler->ClientCount(), CommandHandler::kMaxClients);
  EXPECT_TRUE(qvtest::Log().Contains("client seq 1 dropped: all 255 client slots are taken"));
  std::set<uint8_t> live;  // the last 255 granted are the live clients
  for (auto it = granted.end() - 255; it != granted.end(); ++it) live.insert(static_cast<uint8_t>(*it));
  EXPECT_TRUE(live.size() == 255 && live.count(0) == 0);
  struct Case { uint32_t flag, seq, errInfo; size_t clientsAfter; const char* log; };
  for (const Case& c : {Case{0, granted[299], 0, 254, "with 0 lists"}, Case{0, granted[299], 3, 254, "not connected"},
                        Case{2, granted[100], 0, 253, "with 0 lists"}, Case{7, 0, 4, 253, "Flag 7 is no request"}}) {
    EXPECT_EQ(Send(*handler, c.flag, c.seq), c.errInfo) << c.flag << "/" << c.seq;
    EXPECT_EQ(handler->ClientCount(), c.clientsAfter);
    EXPECT_TRUE(qvtest::Log().Contains(c.log));
  }
}

TEST_F(CommandHandlerTest, ReadsWritesAndRangeWritesTouchOnlyTheElementsBytes) {
  const uint8_t seq = Connect();
  const uint32_t beat = slot::Load<uint32_t>(connect.data(), slot::kConnectBeat);
  EXPECT_EQ(Connect(), 2);
  EXPECT_EQ(slot::Load<uint32_t>(connect.data(), slot::kConnectBeat), beat + 1);
  uint32_t h = 0, counters = 0, names = 0, grid = 0;
  // names[2] and wnames[0] sized as the client sizes array elements: 81 and 162.
  ASSERT_EQ(Define(1, seq, {{"App.GVL.counter", 4}, {"App.GVL.grid[1,3].y", 4}, {"App.GVL.names[2]", 81},
                            {"App.GVL.wnames[0]", 162}, {"App.GVL.mix.c", 2}}, &h), 0);
  EXPECT_EQ(h, kRange + 1);
  EXPECT_TRUE(qvtest::Log().WaitFor(spdlog::level::info, "define: client seq 1 handle 65537 with 5 tags, 253 bytes",
                                    "CommandHandler::Define"));
  ASSERT_EQ(Define(1, seq, {{"App.GVL.counters", 40}}, &counters) | Define(1, seq, {{"App.GVL.names", 63}}, &names) |
                Define(1, seq, {{"App.GVL.grid", 48}}, &grid), 0);
  for (uint32_t i = 0; i < image->Size(); ++i) image->Data()[i] = static_cast<uint8_t>(i);
  const std::vector<uint32_t> offsets = {0, 4, 8, 89, 251};
  ASSERT_EQ(Swap(1, seq, h, offsets), 0u);
  EXPECT_EQ(Read(5, 0, 4), ImageBytes(0, 4));
  EXPECT_EQ(Read(5, 4, 4), ImageBytes(68, 4));
  EXPECT_EQ(Read(5, 8, 81), Concat({ImageBytes(133, 21), Buf(60, 0)}));
  EXPECT_EQ(Read(5, 89, 162), Concat({ImageBytes(176, 12), Buf(150, 0)}));
  EXPECT_EQ(Read(5, 251, 2), ImageBytes(216, 2));
  Buf expected = ImageBytes(0, image->Size());
  const Buf values = Concat({Bytes<int32_t>(-5), Bytes<int32_t>(77), Buf(81, 'A'), Buf(162, 'W'),
                                Bytes<int16_t>(1234)});
  ASSERT_EQ(Swap(2, seq, h, offsets, values), 0u);
  std::memcpy(&expected[0], values.data(), 4);
  std::memcpy(&expected[68], values.data() + 4, 4);
  std::memcpy(&expected[216], values.data() + 251, 2);
  std::fill(&expected[133], &expected[153], 'A');
  std::fill(&expected[176], &expected[186], 'W');
  expected[153] = expected[186] = expected[187] = 0;  // cut strings keep their terminator
  EXPECT_EQ(ImageBytes(0, image->Size()), expected) << "only the elements' own bytes change";
  // Range writes: (0, start, bytes, element length); String(20) elements sent as 81 bytes each.
  ASSERT_EQ(Swap(2, seq, counters, {0, 2, 12, 4}, Concat({Bytes<int32_t>(7), Bytes<int32_t>(8), Bytes<int32_t>(9)})),
            0u);
  ASSERT_EQ(Swap(2, seq, names, {0, 1, 162, 81}, Concat({Buf(81, 'x'), Buf(81, 'y')})), 0u);
  ASSERT_EQ(Swap(2, seq, grid, {0, 0, 48, 0}, Buf(48, 0x64)), 0u);
  for (int k = 0; k < 3; ++k) std::memcpy(&expected[80 + 4 * k], Bytes<int32_t>(7 + k).data(), 4);
  std::fill(&expected[133], &expected[153], 'x');
  std::fill(&expected[154], &expected[174], 'y');
  std::fill(&expected[24], &expected[72], 0x64);
  expected[153] = expected[174] = 0;
  EXPECT_EQ(ImageBytes(0, image->Size()), expected);
  struct Bad { uint32_t handle, start, bytes, length, err; };
  for (const Bad& b : {Bad{counters, 8, 12, 4, kRefuseBadRange}, Bad{counters, 0, 10, 4, kRefuseBadRange},
                       Bad{counters, 0, 8, 0, kRefuseBadRange}, Bad{names, 3, 81, 81, kRefuseBadRange},
                       Bad{counters, 0, 5000, 4, kRefuseOutOfArea}})
    EXPECT_EQ(Swap(2, seq, b.handle, {0, b.start, b.bytes, b.length}, Buf(b.bytes % 4000, 0xEE)), b.err) << b.bytes;
  EXPECT_EQ(ImageBytes(0, image->Size()), expected) << "a refused range write changes nothing";
}

TEST_F(CommandHandlerTest, EachConnectionNumbersItsListsInARangeOfItsOwn) {
  const uint8_t a = Connect(), b = Connect();
  uint32_t ha[3] = {}, hb = 0, again = 0, h = 0;
  ASSERT_EQ(Define(1, a, {{"App.GVL.counter", 4}}, &ha[0]) | Define(1, a, {{"App.GVL.speed", 4}}, &ha[1]) |
                Define(1, a, {{"App.GVL.sine", 8}}, &ha[2]) | Define(1, b, {{"App.GVL.speed", 4}}, &hb), 0);
  EXPECT_EQ((std::vector<uint32_t>{ha[0] % kRange, hb % kRange, ha[1] - ha[0], ha[2] - ha[0], ha[0] != hb}),
            (std::vector<uint32_t>{1, 1, 1, 2, 1}));
  std::memcpy(image->Data() + 8, Bytes(2.5).data(), 8);
  ASSERT_EQ(Define(2, a, {}, &ha[1]), 0);
  EXPECT_TRUE(qvtest::Log().Contains("delete: client seq 1 handle " + std::to_string(ha[1]) + ", 2 lists left"));
  ASSERT_EQ(Swap(1, a, ha[1], {0}), 0u) << "the later list moved down by one";
  EXPECT_EQ(Read(1, 0, 8), Bytes(2.5));
  struct Use { uint8_t seq; uint32_t handle, err; };
  for (const Use& u : {Use{a, ha[2], kRefuseStaleHandle}, Use{a, hb, kRefuseStaleHandle}, Use{b, hb, 0},
                       Use{b, ha[0], kRefuseStaleHandle}, Use{a, ha[0], 0}, Use{a, 0, kRefuseStaleHandle}})
    EXPECT_EQ(Swap(1, u.seq, u.handle, {0}), u.err) << int(u.seq) << "/" << u.handle;
  EXPECT_EQ(Define(2, a, {}, &ha[2]), kRefuseStaleHandle);
  ASSERT_EQ(Send(*handler, 0, a), 0u);  // a reconnect numbers from a new range
  ASSERT_EQ(Define(1, Connect(), {{"App.GVL.speed", 4}}, &again), 0);
  EXPECT_TRUE(again % kRange == 1 && again != ha[0] && again != hb) << again;
  const auto level = spdlog::default_logger_raw()->level();
  spdlog::default_logger_raw()->set_level(spdlog::level::warn);  // 65534 define lines would cost most of the time
  for (size_t n = 1; n < CommandHandler::kMaxListsPerClient; ++n) ASSERT_EQ(Define(1, b, {{"App.GVL.sine", 8}}, &h), 0);
  spdlog::default_logger_raw()->set_level(level);
  EXPECT_TRUE(h == hb + CommandHandler::kMaxListsPerClient - 1 && h < 0x80000000u) << "the last handle's range: " << h;
  EXPECT_EQ(Define(1, b, {{"App.GVL.sine", 8}}, &h), kRefuseTooManyLists);
  EXPECT_TRUE(qvtest::Log().Contains("refused define: client seq 2 holds 65535 lists already"));
}

TEST_F(CommandHandlerTest, RefusesBadCommandsWithTheirCodeAndALogLine) {
  const uint8_t seq = Connect();
  uint32_t handle = 0;
  ASSERT_EQ(Define(1, seq, {{"App.GVL.counter", 4}, {"App.GVL.speed", 4}}, &handle), 0);
  const Buf before = ImageBytes(0, image->Size());
  auto define = [&](uint8_t flag, uint8_t s, std::vector<DefineEntry> e, size_t field = 12, uint32_t value = 7) {
    return [=] { WriteDefine(notify.data(), flag, s, e), slot::Store<uint32_t>(notify.data(), field, value); };
  };  // the field written last is TagsHandle 7 unless a row overrides another
  auto data = [&](uint8_t flag, uint8_t s, uint8_t rw, uint32_t size, uint32_t h, uint32_t entry0) {
    return [=] { WriteSwap(swap.data(), flag, s, h, {entry0, 4}), swap[slot::kSwapRw] = rw,
                 slot::Store<uint32_t>(swap.data(), slot::kSwapSize, size); };
  };
  struct Case { bool onSwap; std::function<void()> prepare; uint32_t err; const char* log; };
  const Case cases[] = {
      {false, define(1, seq, {{"App.GVL.speed", 4}, {"App.GVL.nothing", 4}}), kRefuseUnknownName,
       "entry 1 \"App.GVL.nothing\": unknown variable"},
      {false, define(1, seq, {{"App.GVL.grid[2,3].y", 4}}), kRefuseUnknownName, "out of bounds"},
      {false, define(1, seq, {{std::string(256, 'A'), 4}}), kRefuseUnknownName, "entry 0 \"AAAA"},
      {false, define(1, 99, {{"App.GVL.speed", 4}}), kRefuseUnknownClient, "client seq byte 99 is not connected"},
      {false, define(1, seq, {{"App.GVL.counter", 5000}}), kRefuseBadSize, "do not fit the data swap area"},
      {false, define(1, seq, {{"App.GVL.speed", 4}}, slot::kDefineByteLength, 40), kRefuseBadSize,
       "ByteLength 40 but the entries' sizes add up to 4"},
      {false, define(1, seq, {}, slot::kDefineSize, 0xFFFFFFFFu), kRefuseBadSize, "Size 4294967295 does not fit"},
      {false, define(2, seq, {}), kRefuseStaleHandle, "refused delete: client seq 1 has no list 7"},
      {false, define(5, seq, {}), kRefuseBadRequest, "refused define command: Flag 5 is no request"},
      {true, data(3, seq, 3, 2, handle, 0), kRefuseBadRequest, "refused data swap: Flag 3 with Rw 3"},
      {true, data(1, seq, 2, 2, handle, 0), kRefuseBadRequest, "Flag 1 with Rw 2"},
      {true, data(2, 77, 2, 2, handle, 0), kRefuseUnknownClient, "client seq byte 77 is not connected"},
      {true, data(2, seq, 2, 2, handle + 1, 0), kRefuseStaleHandle, "client seq 1 has no list 65538"},
      {true, data(2, seq, 2, 0x40000000, handle, 0), kRefuseBadSize, "Size 1073741824 does not fit"},
      {true, data(1, seq, 1, 1, handle, 0), kRefuseBadSize, "refused read: Size 1 for a list of 2 tags"},
      {true, data(2, seq, 2, 3, handle, 0), kRefuseBadSize, "refused write: Size 3 for a list of 2 tags"},
      {true, data(2, seq, 2, 2, handle, kSwapArea - 24), kRefuseOutOfArea, "refused write: an entry offset"},
      {true, data(1, seq, 1, 2, handle, 0xFFFFFFF0u), kRefuseOutOfArea, "refused read: an entry offset"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log);
    qvtest::Log().Clear();
    c.prepare();
    c.onSwap ? handler->DataSwap(swap.data(), swap.size()) : handler->Define(notify.data(), notify.size());
    EXPECT_EQ(c.onSwap ? swap[slot::kSwapFlag] : notify[slot::kDefineFlag], 3u);
    EXPECT_EQ(c.onSwap ? slot::Load<uint32_t>(swap.data(), slot::kSwapErr)
                       : slot::Load<uint16_t>(notify.data(), slot::kDefineErr), c.err);
    EXPECT_TRUE(qvtest::Log().Contains(c.log));
  }
  EXPECT_EQ(handler->ListCount(seq), 1u);
  EXPECT_EQ(ImageBytes(0, image->Size()), before) << "no refused command touches the image";
}

TEST(ControllerLayout, ReproducesEverySizeOfTheDemoFileAndTrustsTheFileElsewhere) {
  qvtest::Log().Clear();  // the capture must stand before the layout logs its warning
  SymbolConfigReader reader;
  std::unique_ptr<SymbolConfiguration> demo(reader.ReadFile(L"" QV_SOURCE_DIR "/examples/demo/Demo.xml", nullptr));
  ASSERT_NE(demo, nullptr) << std::hex << reader.LastError();
  LayoutTable demoTypes(*demo->types);
  size_t structures = 0;
  for (const TypeBase* t : demo->types->Types()) {
    const TypeLayout* layout = demoTypes.Get(t->name);
    const auto* userDef = dynamic_cast<const TypeUserDef*>(t);
    if (layout == nullptr || (userDef != nullptr && userDef->Elements().empty() && t->typeClass != TAG_TYPE_ENUM))
      continue;  // a reference has no layout of its own: the file's size is all there is
    EXPECT_EQ(layout->ruleSize, static_cast<uint32_t>(t->size)) << t->name;
    structures += !layout->members.empty();
  }
  EXPECT_GE(structures, 5u) << "the demo file's structures were laid out";
  auto project = MakeProject({Struct("S_BIG", 16, {{"a", "T_BOOL"}, {"b", "T_DINT"}})});
  LayoutTable table(*project->types);
  const TypeLayout* big = table.Get("S_BIG");
  ASSERT_NE(big, nullptr);
  EXPECT_TRUE(big->size == 16 && big->ruleSize == 8 && big->members[1].offset == 4) << big->ruleSize;
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::warn,
                                  "type S_BIG has size 16 in the symbol file and 8 by the layout rule; using 16",
                                  "LayoutTable::SettleSize"), 1u);
}

}  // namespace
