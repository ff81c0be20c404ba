// RtosLib64.dll: the client's end of the partition over named file mappings
// and named auto-reset events, for machines without the vendor's library.
// Handles are kept per name for the life of the process, as the interface
// has no call to give them back; holding them also keeps the objects alive
// for a controller that restarts, which then serves the same ones.
#include "RtosLib64.h"

#include <windows.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "RtosObjects.h"

namespace {

using namespace qorvarlok::rtos::detail;

constexpr uint32_t kInvalid = RTE_ERROR_INVALID_PARAMETER;

std::atomic<uint32_t> g_spinMicroseconds{50};  // kept for the interface; Windows events do not spin

struct Area {
  std::string name;
  HANDLE mapping;
  uint32_t size;
};

struct Objects {
  std::mutex mutex;
  std::map<std::wstring, HANDLE> events;
  std::vector<Area> areas;  // index = id - 1
};

Objects& Table() {
  static Objects* objects = new Objects();  // handles outlive every static
  return *objects;
}

uint32_t MissingObjectResult(const std::string& partition) {
  return IsPartitionAlive(partition) ? RTE_ERROR_NOT_FOUND : RTE_ERROR_PARTITION_DOWN;
}

uint32_t OpenResult(const std::string& partition) {
  return ::GetLastError() == ERROR_FILE_NOT_FOUND ? MissingObjectResult(partition) : RTE_ERROR_SYSTEM;
}

bool Narrow(const wchar_t* wide, std::string& narrow) {
  narrow.clear();
  for (; *wide != L'\0'; ++wide) {
    if (*wide <= 0x20 || *wide >= 0x7F || narrow.size() > kMaxObjectLength) return false;
    narrow.push_back(static_cast<char>(*wide));
  }
  return IsValidObjectName(narrow);
}

// The exact size from the area's header; false when it is not one of ours.
bool ReadAreaSize(HANDLE mapping, uint32_t& size) {
  void* view = ::MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, sizeof(AreaHeader));
  if (view == nullptr) return false;
  const auto* header = static_cast<const AreaHeader*>(view);
  const bool ours = header->magic == kAreaMagic;
  size = header->size;
  ::UnmapViewOfFile(view);
  return ours;
}

const Area* AreaOf(uint32_t id) {
  auto& areas = Table().areas;
  return id == 0 || id > areas.size() ? nullptr : &areas[id - 1];
}

}  // namespace

extern "C" {

uint32_t RtosInit(void) { return PartitionFromEnvironment().empty() ? kInvalid : 0; }

uint32_t RtosOpenEvent(uint32_t, uint32_t, const char* name, RTOS_EVENT* event) {
  if (event == nullptr) return kInvalid;
  *event = nullptr;
  if (name == nullptr || !IsValidObjectName(name)) return kInvalid;
  const std::string partition = PartitionFromEnvironment();
  if (partition.empty()) return kInvalid;
  const std::wstring object = ObjectName(partition, name);
  Objects& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto found = table.events.find(object);
  if (found == table.events.end()) {
    HANDLE handle = ::OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, object.c_str());
    if (handle == nullptr) return OpenResult(partition);
    found = table.events.emplace(object, handle).first;
  }
  *event = found->second;
  return 0;
}

uint32_t RtosSendEvent(RTOS_EVENT event) {
  if (event == nullptr) return kInvalid;
  return ::SetEvent(static_cast<HANDLE>(event)) ? 0 : RTE_ERROR_SYSTEM;
}

uint32_t RtosWaitEvent(RTOS_EVENT event, uint32_t timeoutMs) {
  if (event == nullptr) return kInvalid;
  return EventWait(static_cast<HANDLE>(event), timeoutMs);
}

uint32_t RtosIsAlive(void) { return IsPartitionAlive(PartitionFromEnvironment()) ? 1u : 0u; }

uint32_t RtosQueryShmId(const wchar_t* name, uint32_t, uint32_t* id) {
  if (id == nullptr) return kInvalid;
  *id = 0;
  std::string object;
  if (name == nullptr || !Narrow(name, object)) return kInvalid;
  const std::string partition = PartitionFromEnvironment();
  if (partition.empty()) return kInvalid;
  Objects& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  HANDLE mapping = ::OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, ObjectName(partition, object).c_str());
  if (mapping == nullptr) return OpenResult(partition);
  // A client's own handles keep the areas of a stopped controller alive: they
  // are not the areas of a running partition.
  if (!IsPartitionAlive(partition)) {
    ::CloseHandle(mapping);
    return RTE_ERROR_PARTITION_DOWN;
  }
  uint32_t size = 0;
  if (!ReadAreaSize(mapping, size)) {
    ::CloseHandle(mapping);
    return RTE_ERROR_NOT_FOUND;  // a mapping of that name that is not an area of ours
  }
  // One slot per area name: a repeated query keeps the id and the newest handle.
  for (size_t i = 0; i < table.areas.size(); ++i) {
    if (table.areas[i].name == partition + "." + object) {
      ::CloseHandle(table.areas[i].mapping);
      table.areas[i] = Area{partition + "." + object, mapping, size};
      *id = static_cast<uint32_t>(i + 1);
      return 0;
    }
  }
  table.areas.push_back(Area{partition + "." + object, mapping, size});
  *id = static_cast<uint32_t>(table.areas.size());
  return 0;
}

uint32_t RtosMapShm(uint32_t id, uint32_t offset, uint32_t length, uint32_t* reserved, void** address) {
  if (address == nullptr) return kInvalid;
  *address = nullptr;
  if (reserved != nullptr) *reserved = 0;
  SYSTEM_INFO system{};
  ::GetSystemInfo(&system);
  if (length == 0 || offset % system.dwAllocationGranularity != 0) return kInvalid;
  Objects& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  const Area* area = AreaOf(id);
  if (area == nullptr || offset >= area->size) return kInvalid;
  // The client asks for a fixed length whatever the area holds; a view
  // cannot pass the end of its mapping, so it ends with the area, and an
  // access past that faults as on the other systems.
  const uint32_t span = length < area->size - offset ? length : area->size - offset;
  void* view = ::MapViewOfFile(area->mapping, FILE_MAP_ALL_ACCESS, 0, kAreaOffset + offset, span);
  if (view == nullptr) return RTE_ERROR_SYSTEM;
  *address = view;
  return 0;
}

uint32_t RtosQueryShmSize(uint32_t id, uint32_t* size) {
  if (size == nullptr) return kInvalid;
  *size = 0;
  Objects& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  const Area* area = AreaOf(id);
  if (area == nullptr) return kInvalid;
  *size = area->size;
  return 0;
}

const char* RtosPartitionName(void) {
  thread_local std::string name;
  name = PartitionFromEnvironment();
  return name.empty() ? nullptr : name.c_str();
}

uint32_t RtosSetEventSpin(uint32_t microseconds) {
  return g_spinMicroseconds.exchange(microseconds);
}

}  // extern "C"
