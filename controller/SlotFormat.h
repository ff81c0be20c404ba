// The slots at the start of the three areas, as the client writes and reads
// them: little-endian, packed, 32-bit fields at odd offsets in the
// DataSwapArea. Fields are read and written with memcpy (unaligned access);
// only Flag, the field the client spins on, is stored atomically and last.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qorvarlok::controller::slot {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the slots are little-endian");

// ConnectArea
constexpr size_t kConnectFlag = 0;  // u32
constexpr size_t kConnectSeq = 4;
constexpr size_t kConnectBeat = 8;
constexpr size_t kConnectErrInfo = 12;
constexpr size_t kConnectSlotSize = 16;

// NotifyArea
constexpr size_t kDefineErr = 0;  // u16
constexpr size_t kDefineFlag = 2;  // u8
constexpr size_t kDefineSeq = 3;   // u8
constexpr size_t kDefineByteLength = 4;
constexpr size_t kDefineSize = 8;
constexpr size_t kDefineHandle = 12;
constexpr size_t kDefineEntries = 16;
constexpr size_t kEntrySize = 264;
constexpr size_t kEntryNameLength = 256;
constexpr size_t kEntrySizeField = 260;

// DataSwapArea
constexpr size_t kSwapErr = 0;  // u32
constexpr size_t kSwapFlag = 4;  // u8
constexpr size_t kSwapSeq = 5;   // u8
constexpr size_t kSwapRw = 6;    // u8
constexpr size_t kSwapSize = 7;  // u32, odd offset
constexpr size_t kSwapHandle = 11;
constexpr size_t kSwapEntries = 15;

// Request and answer codes.
constexpr uint32_t kConnectRequest = 1;
constexpr uint32_t kDisconnectRequest = 0;
constexpr uint32_t kDisconnectAlias = 2;  // taken like a disconnect
constexpr uint32_t kDefineRequest = 1;
constexpr uint32_t kDeleteRequest = 2;
constexpr uint32_t kRead = 1;
constexpr uint32_t kWrite = 2;
constexpr uint32_t kDone = 3;  // the answer Flag on every channel

template <typename T>
T Load(const uint8_t* area, size_t offset) {
  T value;
  std::memcpy(&value, area + offset, sizeof(T));
  return value;
}

template <typename T>
void Store(uint8_t* area, size_t offset, T value) {
  std::memcpy(area + offset, &value, sizeof(T));
}

// The client spins on Flag once the answer event came: every other field of
// the answer must be visible before the new Flag is.
template <typename T>
void PublishFlag(uint8_t* area, size_t offset, T value) {
  std::atomic_thread_fence(std::memory_order_release);
  __atomic_store_n(reinterpret_cast<T*>(area + offset), value, __ATOMIC_RELEASE);
}

}  // namespace qorvarlok::controller::slot
