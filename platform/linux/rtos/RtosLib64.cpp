// libRtosLib64.so: the client's end of the partition over POSIX shared
// memory. Areas are found by name and mapped whole; events are EventWords in
// small shared objects; nothing is ever unmapped or closed by the client, as
// the interface has no call for it.
#include "RtosLib64.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "RtosObjects.h"

namespace {

using namespace qorvarlok::rtos::detail;

std::atomic<uint32_t> g_spinMicroseconds{50};

// What an RTOS_EVENT points at: the shared word and this process's memory of
// its spins. Never freed, as handles are never given back.
struct ClientEvent {
  EventWord* pWord;
  SpinGovernor governor;
};

// One handle per event object (name and inode) and process: repeated set-ups
// against the same controller reuse it, and a restarted controller's new
// object gets a new one.
struct EventRegistry {
  std::mutex mutex;
  std::map<std::tuple<std::string, dev_t, ino_t>, ClientEvent*> events;
};

EventRegistry& Events() {
  static EventRegistry* registry = new EventRegistry();  // handles outlive every static
  return *registry;
}

ClientEvent* MapEvent(int fd, const struct stat& info) {
  if (static_cast<size_t>(info.st_size) < sizeof(EventWord)) return nullptr;
  void* map = mmap(nullptr, sizeof(EventWord), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) return nullptr;
  auto* word = static_cast<EventWord*>(map);
  if (word->magic.load(std::memory_order_acquire) != kEventMagic) {
    munmap(map, sizeof(EventWord));
    return nullptr;
  }
  return new ClientEvent{word, {}};
}

// One slot per area name: a repeated query of a name closes the old
// descriptor (its mappings stay) and keeps the id, so repeated set-ups do
// not pile up descriptors.
struct AreaTable {
  std::mutex mutex;
  std::vector<std::pair<std::string, int>> areas;  // index = id - 1
};

AreaTable& Areas() {
  static AreaTable* table = new AreaTable();  // lives to process end: ids never expire
  return *table;
}

// Wide area names are ASCII in practice; anything else cannot name an object.
bool Narrow(const wchar_t* wide, std::string& narrow) {
  narrow.clear();
  for (; *wide != L'\0'; ++wide) {
    if (*wide <= 0x20 || *wide >= 0x7F || narrow.size() > kMaxObjectLength) return false;
    narrow.push_back(static_cast<char>(*wide));
  }
  return IsValidObjectName(narrow);
}

uint32_t MissingObjectResult(const std::string& partition) {
  return IsPartitionAlive(partition) ? RTE_ERROR_NOT_FOUND : RTE_ERROR_PARTITION_DOWN;
}

uint32_t OpenResult(int error, const std::string& partition) {
  if (error == ENOENT) return MissingObjectResult(partition);
  if (error == EINVAL || error == ENAMETOOLONG) return RTE_ERROR_INVALID_PARAMETER;
  return RTE_ERROR_SYSTEM;
}

int DescriptorOf(uint32_t id) {
  auto& areas = Areas().areas;
  if (id == 0 || id > areas.size()) return -1;
  return areas[id - 1].second;
}

}  // namespace

extern "C" {

uint32_t RtosInit(void) {
  return PartitionFromEnvironment().empty() ? RTE_ERROR_INVALID_PARAMETER : 0;
}

uint32_t RtosOpenEvent(uint32_t, uint32_t, const char* name, RTOS_EVENT* event) {
  if (event == nullptr) return RTE_ERROR_INVALID_PARAMETER;
  *event = nullptr;
  if (name == nullptr || !IsValidObjectName(name)) return RTE_ERROR_INVALID_PARAMETER;
  const std::string partition = PartitionFromEnvironment();
  if (partition.empty()) return RTE_ERROR_INVALID_PARAMETER;
  const int fd = shm_open(ShmName(partition, name).c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) return OpenResult(errno, partition);
  struct stat info {};
  if (fstat(fd, &info) != 0) {
    close(fd);
    return RTE_ERROR_SYSTEM;
  }
  EventRegistry& registry = Events();
  std::lock_guard<std::mutex> lock(registry.mutex);
  const auto key = std::make_tuple(std::string(name), info.st_dev, info.st_ino);
  auto found = registry.events.find(key);
  ClientEvent* client = found != registry.events.end() ? found->second : MapEvent(fd, info);
  close(fd);
  if (client == nullptr) return RTE_ERROR_NOT_FOUND;  // not an event of ours
  registry.events.emplace(key, client);
  *event = client;
  return 0;
}

uint32_t RtosSendEvent(RTOS_EVENT event) {
  if (event == nullptr) return RTE_ERROR_INVALID_PARAMETER;
  EventSend(static_cast<ClientEvent*>(event)->pWord);
  return 0;
}

uint32_t RtosWaitEvent(RTOS_EVENT event, uint32_t timeoutMs) {
  if (event == nullptr) return RTE_ERROR_INVALID_PARAMETER;
  auto* client = static_cast<ClientEvent*>(event);
  return EventWait(client->pWord, timeoutMs, g_spinMicroseconds.load(std::memory_order_relaxed), &client->governor);
}

uint32_t RtosIsAlive(void) {
  return IsPartitionAlive(EnvironmentPartition()) ? 1u : 0u;
}

uint32_t RtosQueryShmId(const wchar_t* name, uint32_t, uint32_t* id) {
  if (id == nullptr) return RTE_ERROR_INVALID_PARAMETER;
  *id = 0;
  std::string object;
  if (name == nullptr || !Narrow(name, object)) return RTE_ERROR_INVALID_PARAMETER;
  const std::string partition = PartitionFromEnvironment();
  if (partition.empty()) return RTE_ERROR_INVALID_PARAMETER;
  const int fd = shm_open(ShmName(partition, object).c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) return OpenResult(errno, partition);
  AreaTable& table = Areas();
  std::lock_guard<std::mutex> lock(table.mutex);
  for (size_t i = 0; i < table.areas.size(); ++i) {
    if (table.areas[i].first == object) {
      close(table.areas[i].second);
      table.areas[i].second = fd;
      *id = static_cast<uint32_t>(i + 1);
      return 0;
    }
  }
  table.areas.emplace_back(object, fd);
  *id = static_cast<uint32_t>(table.areas.size());
  return 0;
}

uint32_t RtosMapShm(uint32_t id, uint32_t offset, uint32_t length, uint32_t* reserved, void** address) {
  if (address == nullptr) return RTE_ERROR_INVALID_PARAMETER;
  *address = nullptr;
  if (reserved != nullptr) *reserved = 0;
  const long page = sysconf(_SC_PAGESIZE);
  if (length == 0 || offset % static_cast<uint32_t>(page) != 0) return RTE_ERROR_INVALID_PARAMETER;
  AreaTable& table = Areas();
  std::lock_guard<std::mutex> lock(table.mutex);
  const int fd = DescriptorOf(id);
  if (fd < 0) return RTE_ERROR_INVALID_PARAMETER;
  // The length may exceed the object's size: the client maps a fixed length
  // whatever the area holds, and only touching bytes past the end faults.
  void* map = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
  if (map == MAP_FAILED) return errno == ENOMEM ? RTE_ERROR_SYSTEM : RTE_ERROR_INVALID_PARAMETER;
  *address = map;
  return 0;
}

uint32_t RtosQueryShmSize(uint32_t id, uint32_t* size) {
  if (size == nullptr) return RTE_ERROR_INVALID_PARAMETER;
  *size = 0;
  AreaTable& table = Areas();
  std::lock_guard<std::mutex> lock(table.mutex);
  const int fd = DescriptorOf(id);
  if (fd < 0) return RTE_ERROR_INVALID_PARAMETER;
  struct stat info {};
  if (fstat(fd, &info) != 0) return RTE_ERROR_SYSTEM;
  const auto bytes = static_cast<uint64_t>(info.st_size);
  *size = bytes > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(bytes);
  return 0;
}

const char* RtosPartitionName(void) {
  // A copy per thread: the environment may change under a returned pointer.
  thread_local std::string name;
  name = PartitionFromEnvironment();
  return name.empty() ? nullptr : name.c_str();
}

uint32_t RtosSetEventSpin(uint32_t microseconds) {
  return g_spinMicroseconds.exchange(microseconds, std::memory_order_relaxed);
}

}  // extern "C"
