// The command records of the shared-memory transport and the byte layout of
// the one slot at the start of each area. The records live in process memory;
// the slot functions below are the only code that knows where a field lies in
// an area. Slots are packed and little-endian: every field goes through memcpy,
// and Flag, the one field that is polled, through a volatile load.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qorvarlok::shm {

// Area sizes.
constexpr uint32_t kMinAreaSize = 512;
constexpr uint32_t kConnectMapLength = 512;
constexpr uint32_t MAXSIZE_DEFINE_SHM = 0x500000;
constexpr uint32_t kDefineMapLength = 0x500000;
constexpr uint32_t kDataSwapMapLength = 0x500000;
// Only this much of the data swap area is cleared before each attempt.
constexpr size_t kDataSwapClearLength = 0x280000;

// Request and answer codes of Flag.
constexpr uint32_t kConnectFlagConnect = 1;
constexpr uint32_t kConnectFlagDisconnect = 0;
constexpr uint32_t kConnectFlagDone = 3;
constexpr uint8_t kDefineFlagDefine = 1;
constexpr uint8_t kDefineFlagDelete = 2;
constexpr uint8_t kRwRead = 1;
constexpr uint8_t kRwWrite = 2;
// In-process marker of StopLoopTask; never reaches a slot.
constexpr uint8_t kFlagStopLoop = 4;
constexpr uint32_t kConnectBeat = 1000;

// One tag of a define command, 264 bytes, copied as it stands into the slot.
struct defineTagEntry {
  char name[256] = {};
  uint32_t reserved = 0;
  uint32_t size = 0;
};
static_assert(sizeof(defineTagEntry) == 264, "defineTagEntry is a wire record");
constexpr size_t kDefineEntrySize = sizeof(defineTagEntry);

struct connectCmd {
  uint32_t Flag = 0;
  uint32_t seq = 0;
  uint32_t beat = 0;
  uint32_t errInfo = 0;  // a library error code, not the controller's raw value
  uint32_t SessionId = 0;
};

struct defineCmd {
  uint32_t Err = 0;
  uint8_t Flag = 0;
  uint8_t Seq = 0;
  uint32_t Size = 0;
  uint32_t ByteLength = 0;
  uint32_t TagsHandle = 0;
  uint32_t SessionId = 0;
  std::vector<defineTagEntry> entries;
};

// Borrows both buffers; frees neither.
struct rwCmd {
  uint32_t Err = 0;
  uint8_t Flag = 0;
  uint8_t Seq = 0;
  uint8_t Rw = 0;
  uint32_t Size = 0;
  uint32_t ByteTotal = 0;
  uint32_t TagsHandle = 0;
  uint32_t SessionId = 0;
  uint32_t* pIndex = nullptr;
  unsigned char* pValue = nullptr;
};

// Offsets of the slots' fields.
namespace slot {
constexpr size_t kConnectFlag = 0, kConnectSeq = 4, kConnectBeat = 8, kConnectErrInfo = 12;
constexpr size_t kConnectSlotSize = 16;
constexpr size_t kDefineErr = 0, kDefineFlag = 2, kDefineSeq = 3, kDefineByteLength = 4, kDefineSize = 8,
                 kDefineTagsHandle = 12, kDefineEntries = 16;
constexpr size_t kRwErr = 0, kRwFlag = 4, kRwSeq = 5, kRwRw = 6, kRwSize = 7, kRwTagsHandle = 11, kRwIndex = 15;
}  // namespace slot

// What an answer leaves in a slot, read after Flag has moved.
struct ConnectAnswer {
  uint32_t Flag = 0, seq = 0, beat = 0, errInfo = 0;
};
struct DefineAnswer {
  uint16_t Err = 0;
  uint8_t Flag = 0;
  uint32_t TagsHandle = 0;
};
struct RwAnswer {
  uint32_t Err = 0;
  uint8_t Flag = 0;
};

// Slot writers: every field of the request, payload included.
void WriteConnectSlot(unsigned char* area, const connectCmd& cmd);
// Entries only when Flag is 1, and never more than the record holds.
void WriteDefineSlot(unsigned char* area, const defineCmd& cmd);
// Index entries always; value bytes only for a write (Rw 2).
void WriteRwSlot(unsigned char* area, const rwCmd& cmd);
// Offset of the value block of a data swap slot with this many index entries.
size_t RwValueOffset(uint32_t size);

ConnectAnswer ReadConnectAnswer(const unsigned char* area);
DefineAnswer ReadDefineAnswer(const unsigned char* area);
RwAnswer ReadRwAnswer(const unsigned char* area);

// The polled field, re-read from the mapping at every call.
uint32_t LoadConnectFlag(const unsigned char* area);
uint8_t LoadDefineFlag(const unsigned char* area);
uint8_t LoadRwFlag(const unsigned char* area);

}  // namespace qorvarlok::shm

// Log forms of the records.
template <>
struct fmt::formatter<qorvarlok::shm::connectCmd> : fmt::formatter<fmt::string_view> {
  template <typename Ctx>
  auto format(const qorvarlok::shm::connectCmd& c, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "[ConnectCmd beat={}, errInfo={}, Flag={}, seq={}, SessionId={}]", c.beat,
                          c.errInfo, c.Flag, c.seq, c.SessionId);
  }
};

template <>
struct fmt::formatter<qorvarlok::shm::defineCmd> : fmt::formatter<fmt::string_view> {
  template <typename Ctx>
  auto format(const qorvarlok::shm::defineCmd& c, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "[DefineCmd ByteLength={}, Err={}, Flag={}, Seq={}, TagsHandle={}, SessionId={}]",
                          c.ByteLength, c.Err, unsigned{c.Flag}, unsigned{c.Seq}, c.TagsHandle, c.SessionId);
  }
};

template <>
struct fmt::formatter<qorvarlok::shm::rwCmd> : fmt::formatter<fmt::string_view> {
  template <typename Ctx>
  auto format(const qorvarlok::shm::rwCmd& c, Ctx& ctx) const {
    return fmt::format_to(ctx.out(),
                          "[DataSwapCmd ByteTotal={}, Err={}, Flag={}, Rw={}, Seq={}, Size={}, TagsHandle={}, "
                          "SessionId={}]",
                          c.ByteTotal, c.Err, unsigned{c.Flag}, unsigned{c.Rw}, unsigned{c.Seq}, c.Size, c.TagsHandle,
                          c.SessionId);
  }
};
