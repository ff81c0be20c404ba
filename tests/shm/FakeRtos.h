// A scripted stand-in for the eight partition calls, for what a real partition
// cannot give on demand: failed opens, unknown wait results, time-outs without
// waiting, a dead partition. The "controller" is a function run when a wait
// succeeds; every send snapshots the slot, so tests see each attempt's bytes.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>

#include "RtosApi.h"
#include "ShmComClient.h"

namespace qorvarlok::shm {
// Brings the singleton back to "not set up", as a lost mapping would.
class ShmComClientProbe {
 public:
  static void MarkLost(ShmComClient* client) { client->m_bInitialized = false; }
};
}  // namespace qorvarlok::shm

namespace shmtest {

struct FakeRtos {
  uint32_t alive = 1, initResult = 0, mapResult = 0, sendResult = 0;
  std::map<std::wstring, uint32_t> queryIdResult,  // by area name
      sizeOf = {{L"ConnectArea", 0x500000}, {L"NotifyArea", 0x500000}, {L"DataSwapArea", 0x500000}};
  void* mapTo = nullptr;                                  // every area maps here
  std::vector<std::pair<std::wstring, uint32_t>> mapped;  // area name, length asked for
  std::map<std::string, uint32_t> openResult;             // by event name
  std::deque<uint32_t> waitResults;                       // one per wait; 0 when empty
  std::function<void(unsigned char*)> answer;             // run on a wait that gives 0
  unsigned char* slot = nullptr;
  size_t snapshotLength = 600;
  std::vector<std::vector<unsigned char>> sends;
  int aliveCalls = 0, otherCalls = 0;

  static FakeRtos& Get() { static FakeRtos fake; return fake; }
  static FakeRtos& Call() { return ++Get().otherCalls, Get(); }
  // Ids are the name lengths: 11 ConnectArea, 10 NotifyArea, 12 DataSwapArea.
  static std::wstring NameOf(uint32_t id) {
    return id == 11 ? L"ConnectArea" : id == 10 ? L"NotifyArea" : L"DataSwapArea";
  }
};

inline qorvarlok::platform::RtosApi FakeApi() {
  using F = FakeRtos;
  return {[]() -> uint32_t { return F::Call().initResult; },
          [](uint32_t, uint32_t, const char* name, RTOS_EVENT* event) -> uint32_t {
            const uint32_t r = F::Call().openResult[name];
            if (r == 0) *event = reinterpret_cast<RTOS_EVENT>(uintptr_t{0x1000} + std::strlen(name));
            return r;
          },
          [](RTOS_EVENT) -> uint32_t {
            F& f = F::Call();
            if (f.slot != nullptr) f.sends.emplace_back(f.slot, f.slot + f.snapshotLength);
            return f.sendResult;
          },
          [](RTOS_EVENT, uint32_t) -> uint32_t {
            F& f = F::Call();
            const uint32_t r = f.waitResults.empty() ? 0 : f.waitResults.front();
            if (!f.waitResults.empty()) f.waitResults.pop_front();
            if (r == 0 && f.answer && f.slot != nullptr) f.answer(f.slot);
            return r;
          },
          []() -> uint32_t { return ++F::Get().aliveCalls, F::Get().alive; },
          [](const wchar_t* name, uint32_t, uint32_t* id) -> uint32_t {
            return *id = static_cast<uint32_t>(std::wcslen(name)), F::Call().queryIdResult[name];
          },
          [](uint32_t id, uint32_t, uint32_t length, uint32_t*, void** address) -> uint32_t {
            F& f = F::Call();
            f.mapped.emplace_back(F::NameOf(id), length);
            return *address = f.mapTo, f.mapResult;
          },
          [](uint32_t id, uint32_t* size) -> uint32_t { return *size = F::Call().sizeOf[F::NameOf(id)], 0; }};
}

// Puts the fake into the client's table for the life of the scope.
struct FakeRtosScope {
  FakeRtosScope() { qorvarlok::platform::Rtos() = (Reset(), FakeApi()); }
  ~FakeRtosScope() { qorvarlok::platform::Rtos() = (Reset(), qorvarlok::platform::RealRtosApi()); }
  static void Reset() { FakeRtos::Get() = FakeRtos(); }
  FakeRtos* operator->() { return &FakeRtos::Get(); }
  FakeRtos& operator*() { return FakeRtos::Get(); }
};

// Memory that faults on every access, standing in for an area that was cut.
struct DeadMapping {
  void* p = mmap(nullptr, 0x500000, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ~DeadMapping() { munmap(p, 0x500000); }
};

// The named mutexes are real and outlive their handles: each test process
// uses a partition of its own and removes them when it ends.
inline void RemoveNamedMutexes(const std::string& partition) {
  for (const char* m : {"Global_MUTEX_CONNECT", "Global_MUTEX_NOTIFY", "Global_MUTEX_DATASWAP"})
    shm_unlink(("/" + partition + "." + m).c_str());
}
inline void UseOwnPartition() {
  static const std::string name = "shmunit" + std::to_string(getpid());
  static const int done = setenv("VARLOK_PARTITION", name.c_str(), 1) + std::atexit([] { RemoveNamedMutexes(name); });
  (void)done;
}

// Packed fields, read and written by copy.
template <typename T>
T ReadAt(const void* p, size_t offset = 0) {
  T v;
  return std::memcpy(&v, static_cast<const unsigned char*>(p) + offset, sizeof(T)), v;
}
template <typename T>
void WriteAt(unsigned char* p, size_t offset, T v) { std::memcpy(p + offset, &v, sizeof(T)); }

}  // namespace shmtest
