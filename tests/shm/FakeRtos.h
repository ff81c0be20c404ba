// A scripted stand-in for the eight partition calls, for the results a real
// partition cannot give on demand: failed opens, unknown wait results,
// time-outs without waiting, a dead partition. Installed into the client's
// call table by FakeRtosScope and taken out again at its end.
//
// The "controller" here is a function run when a wait is answered: it writes
// the answer into the slot as a real one would. Every send snapshots the slot,
// so tests see the bytes of each attempt.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "RtosApi.h"

namespace shmtest {

struct FakeRtos {
  // Partition
  uint32_t alive = 1;
  uint32_t initResult = 0;
  std::map<std::wstring, uint32_t> queryIdResult;  // by area name; default 0
  std::map<std::wstring, uint32_t> sizeOf;         // by area name; default 0x500000
  std::map<std::wstring, void*> mapTo;             // by area name
  uint32_t mapResult = 0;
  std::vector<std::pair<std::wstring, uint32_t>> mapped;  // name, length asked for
  // Events
  std::map<std::string, uint32_t> openResult;  // by event name; default 0
  uint32_t sendResult = 0;
  std::deque<uint32_t> waitResults;  // consumed per wait; 0 when empty
  std::function<void(unsigned char*)> answer;  // run on a wait that gives 0
  unsigned char* slot = nullptr;  // what the answer writes and sends snapshot
  size_t snapshotLength = 64;
  std::vector<std::vector<unsigned char>> sends;
  int aliveCalls = 0;
  int otherCalls = 0;  // every call but IsAlive

  static FakeRtos& Get() {
    static FakeRtos fake;
    return fake;
  }
  void Reset() { *this = FakeRtos(); }

  static uint32_t Init() {
    ++Get().otherCalls;
    return Get().initResult;
  }
  static uint32_t OpenEvent(uint32_t, uint32_t, const char* name, RTOS_EVENT* event) {
    ++Get().otherCalls;
    const auto it = Get().openResult.find(name);
    if (it != Get().openResult.end() && it->second != 0) return it->second;
    *event = reinterpret_cast<RTOS_EVENT>(static_cast<uintptr_t>(0x1000 + std::strlen(name)));
    return 0;
  }
  static uint32_t SendEvent(RTOS_EVENT) {
    FakeRtos& f = Get();
    ++f.otherCalls;
    if (f.slot != nullptr) f.sends.emplace_back(f.slot, f.slot + f.snapshotLength);
    return f.sendResult;
  }
  static uint32_t WaitEvent(RTOS_EVENT, uint32_t) {
    FakeRtos& f = Get();
    ++f.otherCalls;
    uint32_t r = 0;
    if (!f.waitResults.empty()) {
      r = f.waitResults.front();
      f.waitResults.pop_front();
    }
    if (r == 0 && f.answer && f.slot != nullptr) f.answer(f.slot);
    return r;
  }
  static uint32_t IsAlive() {
    ++Get().aliveCalls;
    return Get().alive;
  }
  static uint32_t QueryShmId(const wchar_t* name, uint32_t, uint32_t* id) {
    FakeRtos& f = Get();
    ++f.otherCalls;
    const auto it = f.queryIdResult.find(name);
    if (it != f.queryIdResult.end() && it->second != 0) return it->second;
    *id = static_cast<uint32_t>(std::wstring(name).size());  // 11 ConnectArea, 10 NotifyArea, 12 DataSwapArea
    return 0;
  }
  static std::wstring NameOf(uint32_t id) {
    return id == 11 ? L"ConnectArea" : id == 10 ? L"NotifyArea" : L"DataSwapArea";
  }
  static uint32_t QueryShmSize(uint32_t id, uint32_t* size) {
    FakeRtos& f = Get();
    ++f.otherCalls;
    const auto it = f.sizeOf.find(NameOf(id));
    *size = it != f.sizeOf.end() ? it->second : 0x500000;
    return 0;
  }
  static uint32_t MapShm(uint32_t id, uint32_t, uint32_t length, uint32_t*, void** address) {
    FakeRtos& f = Get();
    ++f.otherCalls;
    f.mapped.emplace_back(NameOf(id), length);
    if (f.mapResult != 0) return f.mapResult;
    *address = f.mapTo[NameOf(id)];
    return 0;
  }
};

// Puts the fake into the client's table for the life of the scope.
class FakeRtosScope {
 public:
  FakeRtosScope() {
    FakeRtos::Get().Reset();
    qorvarlok::platform::Rtos() =
        qorvarlok::platform::RtosApi{&FakeRtos::Init,       &FakeRtos::OpenEvent,  &FakeRtos::SendEvent,
                                     &FakeRtos::WaitEvent,  &FakeRtos::IsAlive,    &FakeRtos::QueryShmId,
                                     &FakeRtos::MapShm,     &FakeRtos::QueryShmSize};
  }
  ~FakeRtosScope() {
    qorvarlok::platform::Rtos() = qorvarlok::platform::RealRtosApi();
    FakeRtos::Get().Reset();
  }
  FakeRtos& operator*() { return FakeRtos::Get(); }
  FakeRtos* operator->() { return &FakeRtos::Get(); }
};

// Memory that faults on every access, standing in for an area that was cut.
class DeadMapping {
 public:
  explicit DeadMapping(size_t length) : m_length(length) {
    m_p = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  }
  ~DeadMapping() {
    if (m_p != MAP_FAILED) munmap(m_p, m_length);
  }
  DeadMapping(const DeadMapping&) = delete;
  DeadMapping& operator=(const DeadMapping&) = delete;
  void* get() const { return m_p; }

 private:
  size_t m_length;
  void* m_p;
};

inline std::string& PartitionName() {
  static std::string name;
  return name;
}

// The named mutexes outlive their handles, as on the original platform; a
// test process removes those of its own partition when it ends.
inline void RemoveNamedMutexes() {
  for (const char* m : {"Global_MUTEX_CONNECT", "Global_MUTEX_NOTIFY", "Global_MUTEX_DATASWAP"})
    shm_unlink(("/" + PartitionName() + "." + m).c_str());
}

// Each test process uses a partition of its own, so tests can run side by side.
inline void UseOwnPartition(const char* prefix) {
  static const bool done = [prefix] {
    PartitionName() = std::string(prefix) + std::to_string(getpid());
    setenv("VARLOK_PARTITION", PartitionName().c_str(), 1);
    std::atexit(&RemoveNamedMutexes);
    return true;
  }();
  (void)done;
}

template <typename T>
T ReadAt(const unsigned char* p, size_t offset) {
  T v;
  std::memcpy(&v, p + offset, sizeof(T));
  return v;
}
template <typename T>
void WriteAt(unsigned char* p, size_t offset, T v) {
  std::memcpy(p + offset, &v, sizeof(T));
}

}  // namespace shmtest
