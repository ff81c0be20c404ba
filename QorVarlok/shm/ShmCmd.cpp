#include "ShmCmd.h"

#include <algorithm>
#include <cstring>

namespace qorvarlok::shm {

namespace {

template <typename T>
void put(unsigned char* area, size_t offset, T value) {
  std::memcpy(area + offset, &value, sizeof(T));
}

template <typename T>
T get(const unsigned char* area, size_t offset) {
  T value;
  std::memcpy(&value, area + offset, sizeof(T));
  return value;
}

}  // namespace

void WriteConnectSlot(unsigned char* area, const connectCmd& cmd) {
  put(area, slot::kConnectFlag, cmd.Flag);
  put(area, slot::kConnectSeq, cmd.seq);
  put(area, slot::kConnectBeat, cmd.beat);
  put(area, slot::kConnectErrInfo, cmd.errInfo);
}

void WriteDefineSlot(unsigned char* area, const defineCmd& cmd) {
  put<uint16_t>(area, slot::kDefineErr, 0);
  put(area, slot::kDefineFlag, cmd.Flag);
  put(area, slot::kDefineSeq, cmd.Seq);
  put(area, slot::kDefineByteLength, cmd.ByteLength);
  put(area, slot::kDefineSize, cmd.Size);
  put(area, slot::kDefineTagsHandle, cmd.TagsHandle);
  if (cmd.Flag != kDefineFlagDefine) return;
  // Size is counted up as entries are appended; never read past the record.
  const size_t count = std::min<size_t>(cmd.Size, cmd.entries.size());
  if (count > 0) std::memcpy(area + slot::kDefineEntries, cmd.entries.data(), count * kDefineEntrySize);
}

size_t RwValueOffset(uint32_t size) { return slot::kRwIndex + size_t{size} * 4; }

void WriteRwSlot(unsigned char* area, const rwCmd& cmd) {
  put<uint32_t>(area, slot::kRwErr, 0);
  put(area, slot::kRwFlag, cmd.Flag);
  put(area, slot::kRwSeq, cmd.Seq);
  put(area, slot::kRwSize, cmd.Size);
  put(area, slot::kRwRw, cmd.Rw);
  put(area, slot::kRwTagsHandle, cmd.TagsHandle);
  if (cmd.Size > 0 && cmd.pIndex != nullptr) std::memcpy(area + slot::kRwIndex, cmd.pIndex, size_t{cmd.Size} * 4);
  if (cmd.Rw == kRwWrite && cmd.ByteTotal > 0 && cmd.pValue != nullptr)
    std::memcpy(area + RwValueOffset(cmd.Size), cmd.pValue, cmd.ByteTotal);
}

ConnectAnswer ReadConnectAnswer(const unsigned char* area) {
  ConnectAnswer a;
  a.Flag = get<uint32_t>(area, slot::kConnectFlag);
  a.seq = get<uint32_t>(area, slot::kConnectSeq);
  a.beat = get<uint32_t>(area, slot::kConnectBeat);
  a.errInfo = get<uint32_t>(area, slot::kConnectErrInfo);
  return a;
}

DefineAnswer ReadDefineAnswer(const unsigned char* area) {
  DefineAnswer a;
  a.Err = get<uint16_t>(area, slot::kDefineErr);
  a.Flag = get<uint8_t>(area, slot::kDefineFlag);
  a.TagsHandle = get<uint32_t>(area, slot::kDefineTagsHandle);
  return a;
}

RwAnswer ReadRwAnswer(const unsigned char* area) {
  RwAnswer a;
  a.Err = get<uint32_t>(area, slot::kRwErr);
  a.Flag = get<uint8_t>(area, slot::kRwFlag);
  return a;
}

uint32_t LoadConnectFlag(const unsigned char* area) {
  return *reinterpret_cast<const volatile uint32_t*>(area + slot::kConnectFlag);
}

uint8_t LoadDefineFlag(const unsigned char* area) {
  return *reinterpret_cast<const volatile uint8_t*>(area + slot::kDefineFlag);
}

uint8_t LoadRwFlag(const unsigned char* area) {
  return *reinterpret_cast<const volatile uint8_t*>(area + slot::kRwFlag);
}

}  // namespace qorvarlok::shm
