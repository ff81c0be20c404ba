// The wire layout of the three slots and the log forms of the records.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "FakeRtos.h"
#include "ShmCmd.h"

using namespace qorvarlok::shm;
using shmtest::ReadAt;
using shmtest::WriteAt;

namespace {

std::vector<unsigned char> Filled(size_t n) { return std::vector<unsigned char>(n, 0xEE); }

TEST(ShmSlot, ConnectRequestLiesInTheFirstSixteenBytes) {
  auto area = Filled(512);
  connectCmd cmd;
  cmd.Flag = 1;
  cmd.seq = 0x01020304;
  cmd.beat = 1000;
  cmd.errInfo = 0x10000306;
  cmd.SessionId = 99;  // never reaches the slot
  WriteConnectSlot(area.data(), cmd);
  const unsigned char expected[16] = {1, 0, 0, 0, 4, 3, 2, 1, 0xE8, 3, 0, 0, 0x06, 0x03, 0, 0x10};
  EXPECT_EQ(0, std::memcmp(expected, area.data(), 16));
  EXPECT_EQ(0xEE, area[16]);
}

TEST(ShmSlot, DefineHeaderPutsByteLengthBeforeSizeAndEntriesOnlyForFlagOne) {
  struct Case {
    uint8_t flag;
    bool entriesWritten;
  };
  for (const Case c : {Case{1, true}, Case{2, false}}) {
    auto area = Filled(16 + 3 * 264 + 8);
    defineCmd cmd;
    cmd.Err = 0x12345;  // the slot's Err is always written 0
    cmd.Flag = c.flag;
    cmd.Seq = 0x7F;
    cmd.Size = 3;
    cmd.ByteLength = 40;
    cmd.TagsHandle = 9;
    for (int i = 0; i < 3; ++i) {
      defineTagEntry e;
      std::snprintf(e.name, sizeof(e.name), "App.GVL.v%d", i);
      e.size = 4u + static_cast<uint32_t>(i);
      cmd.entries.push_back(e);
    }
    WriteDefineSlot(area.data(), cmd);
    SCOPED_TRACE(int{c.flag});
    EXPECT_EQ(0u, ReadAt<uint16_t>(area.data(), 0));
    EXPECT_EQ(c.flag, area[2]);
    EXPECT_EQ(0x7F, area[3]);
    EXPECT_EQ(40u, ReadAt<uint32_t>(area.data(), 4));
    EXPECT_EQ(3u, ReadAt<uint32_t>(area.data(), 8));
    EXPECT_EQ(9u, ReadAt<uint32_t>(area.data(), 12));
    if (c.entriesWritten) {
      EXPECT_STREQ("App.GVL.v1", reinterpret_cast<const char*>(area.data() + 16 + 264));
      EXPECT_EQ(0u, ReadAt<uint32_t>(area.data(), 16 + 264 + 256));
      EXPECT_EQ(6u, ReadAt<uint32_t>(area.data(), 16 + 2 * 264 + 260));
    } else {
      EXPECT_EQ(0xEE, area[16]);
    }
    EXPECT_EQ(0xEE, area[16 + 3 * 264]);  // nothing past the last entry
  }
}

TEST(ShmSlot, DataSwapFieldsAtOddOffsetsAndValuesByDirection) {
  struct Case {
    uint8_t rw;
    uint32_t size;
    bool valuesWritten;
  };
  for (const Case c : {Case{1, 2, false}, Case{2, 2, true}, Case{2, 0, true}}) {
    SCOPED_TRACE(testing::Message() << "rw=" << int{c.rw} << " size=" << c.size);
    auto area = Filled(64);
    uint32_t index[2] = {0, 4};
    unsigned char values[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    rwCmd cmd;
    cmd.Err = 5;
    cmd.Flag = c.rw;
    cmd.Rw = c.rw;
    cmd.Seq = 0;
    cmd.Size = c.size;
    cmd.ByteTotal = 8;
    cmd.TagsHandle = 0x0A0B0C0D;
    cmd.pIndex = index;
    cmd.pValue = values;
    WriteRwSlot(area.data(), cmd);
    EXPECT_EQ(0u, ReadAt<uint32_t>(area.data(), 0));
    EXPECT_EQ(c.rw, area[4]);
    EXPECT_EQ(0, area[5]);
    EXPECT_EQ(c.rw, area[6]);
    EXPECT_EQ(c.size, ReadAt<uint32_t>(area.data(), 7));
    EXPECT_EQ(0x0A0B0C0Du, ReadAt<uint32_t>(area.data(), 11));
    const size_t valueOffset = 15 + 4 * c.size;
    EXPECT_EQ(valueOffset, RwValueOffset(c.size));
    if (c.size == 2) {
      EXPECT_EQ(0u, ReadAt<uint32_t>(area.data(), 15));
      EXPECT_EQ(4u, ReadAt<uint32_t>(area.data(), 19));
    }
    if (c.valuesWritten) {
      EXPECT_EQ(0, std::memcmp(values, area.data() + valueOffset, 8));
    } else {
      EXPECT_EQ(0xEE, area[valueOffset]);
    }
    EXPECT_EQ(0xEE, area[valueOffset + 8]);
  }
}

TEST(ShmRecords, LogFormsPrintEveryFieldAsUnsignedDecimal) {
  connectCmd c;
  c.Flag = 1;
  c.seq = 2;
  c.beat = 1000;
  c.errInfo = 0x1000010D;
  c.SessionId = 7;
  EXPECT_EQ("[ConnectCmd beat=1000, errInfo=268435725, Flag=1, seq=2, SessionId=7]", fmt::format("{}", c));
  defineCmd d;
  d.ByteLength = 40;
  d.Err = 0;
  d.Flag = 2;
  d.Seq = 255;
  d.TagsHandle = 3;
  d.SessionId = 8;
  EXPECT_EQ("[DefineCmd ByteLength=40, Err=0, Flag=2, Seq=255, TagsHandle=3, SessionId=8]", fmt::format("{}", d));
  rwCmd r;
  r.ByteTotal = 12;
  r.Err = 1;
  r.Flag = 1;
  r.Rw = 1;
  r.Seq = 200;
  r.Size = 3;
  r.TagsHandle = 4;
  r.SessionId = 9;
  EXPECT_EQ("[DataSwapCmd ByteTotal=12, Err=1, Flag=1, Rw=1, Seq=200, Size=3, TagsHandle=4, SessionId=9]",
            fmt::format("{}", r));
}

}  // namespace
