// The objects that a controller and its clients share under one partition on
// Windows, and what both sides need of them: object names, the area header,
// the alive marker. Compiled into RtosLib64.dll and into the controller's
// RtosHost, each with its own copy.
//
// Every object lives in the session's namespace as "<partition>.<object>".
// An area is a page-file backed file mapping: one header of kAreaOffset
// bytes that holds the area's exact size, then the area itself, so that the
// size a client queries is the one the controller made, not a page multiple.
// Kernel objects live as long as any process holds a handle: a client that
// still holds the areas and events of a stopped controller shares them with
// the next controller of the partition.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace qorvarlok::rtos::detail {

constexpr const char* kPartitionVariable = "VARLOK_PARTITION";
constexpr const char* kDefaultPartition = "varlok";
constexpr size_t kMaxPartitionLength = 200;
constexpr size_t kMaxObjectLength = 48;

constexpr const char* kAreaNames[3] = {"ConnectArea", "NotifyArea", "DataSwapArea"};
// Per channel: Windows-to-RTOS (requests), RTOS-to-Windows (answers).
constexpr const char* kEventNames[3][2] = {
    {"EVENT_CONNECT_WIN2RTOS", "EVENT_CONNECT_RTOS2WIN"},
    {"EVENT_NOTIFY_WIN2RTOS", "EVENT_NOTIFY_RTOS2WIN"},
    {"EVENT_DATASWAP_WIN2RTOS", "EVENT_DATASWAP_RTOS2WIN"},
};
// Lower case, so that no upper-case area or event name can collide with it.
constexpr const char* kAliveObject = "rtos-alive";
constexpr const char* kOwnerObject = "rtos-owner";  // the process id of the marker's holder

constexpr uint32_t kAreaMagic = 0x41415651u;  // "QVAA"
// Views start at multiples of the allocation granularity (64 KiB).
constexpr uint32_t kAreaOffset = 0x10000;
constexpr uint32_t kWaitSignalled = 0;
constexpr uint32_t kWaitTimedOut = 4203;

struct AreaHeader {
  volatile uint32_t magic;
  volatile uint32_t size;
};

// Printable ASCII without '/' and '\', within the length limit.
bool IsValidPartition(const std::string& partition);
bool IsValidObjectName(const std::string& object);
// The partition of the environment, or empty when the variable holds an unusable name.
std::string PartitionFromEnvironment();
// L"<partition>.<object>"
std::wstring ObjectName(const std::string& partition, const std::string& object);

// True when a living thread holds the partition's alive marker.
bool IsPartitionAlive(const std::string& partition);

// Waits on an auto-reset event: kWaitSignalled, kWaitTimedOut, or another
// value when the wait itself failed.
uint32_t EventWait(HANDLE event, uint32_t timeoutMs);

}  // namespace qorvarlok::rtos::detail
