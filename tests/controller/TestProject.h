// A small symbol model built in code, and a minimal client (slot writers and
// the exchange over the real events). Image layout (offsets by the rule):
//   counter DInt 0, sine LReal 8, toggle Bool 16, speed DInt 20,
//   grid [0..1,1..3] of POINT{x,y DInt} 24 (48), counters [0..9] DInt 72 (40),
//   names [1..3] String(20) 112 (63), wnames [0..1] WString(5) 176 (24),
//   mix {a Bool; b LReal; c Int; s String(20)} 200 (40).
#pragma once


#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "RtosLib64.h"
#include "TestSystem.h"
#include "SlotFormat.h"
#include "SymbolModel.h"

namespace ctltest {

using namespace qorvarlok::symbols;
namespace slot = qorvarlok::controller::slot;

inline TypeBase* Simple(const char* name, int size, int typeClass) {
  auto* t = new TypeSimple();
  return t->name = name, t->size = size, t->typeClass = typeClass, t;
}

inline TypeBase* Struct(const char* name, int size, std::vector<std::pair<std::string, std::string>> members) {
  auto* t = new TypeUserDef();
  t->name = name, t->size = size, t->typeClass = 15;
  for (auto& [member, type] : members) {
    auto* e = new UserDefElement();
    e->iecName = member, e->type = type, t->AppendElement(e);
  }
  return t;
}

inline TypeBase* Array(const char* name, int size, const char* base, std::vector<std::pair<int, int>> dims) {
  auto* t = new TypeArray();
  t->name = name, t->size = size, t->typeClass = 14, t->baseType = base;
  for (auto [lo, hi] : dims) t->AppendRange(new ArrayRange{lo, hi});
  return t;
}

inline std::unique_ptr<SymbolConfiguration> MakeProject(std::vector<TypeBase*> extraTypes = {}) {
  auto* types = new TypeTable();
  for (TypeBase* t : {Simple("T_BOOL", 1, 0), Simple("T_INT", 2, 6), Simple("T_DINT", 4, 7), Simple("T_LREAL", 8, 11),
                      Simple("T_STR20", 21, 17), Simple("T_WSTR5", 12, 18),
                      Struct("T_POINT", 8, {{"x", "T_DINT"}, {"y", "T_DINT"}}),
                      Array("T_GRID", 48, "T_POINT", {{0, 1}, {1, 3}}), Array("T_CNT", 40, "T_DINT", {{0, 9}}),
                      Array("T_NAMES", 63, "T_STR20", {{1, 3}}), Array("T_WNAMES", 24, "T_WSTR5", {{0, 1}}),
                      Struct("T_MIX", 40, {{"a", "T_BOOL"}, {"b", "T_LREAL"}, {"c", "T_INT"}, {"s", "T_STR20"}})})
    types->Append(t);
  for (TypeBase* t : extraTypes) types->Append(t);
  types->Sort();
  auto* gvl = new NodeWithChildren();
  gvl->name = "GVL";
  const std::pair<const char*, const char*> vars[] = {
      {"counter", "T_DINT"}, {"sine", "T_LREAL"},  {"toggle", "T_BOOL"},   {"speed", "T_DINT"}, {"grid", "T_GRID"},
      {"counters", "T_CNT"}, {"names", "T_NAMES"}, {"wnames", "T_WNAMES"}, {"mix", "T_MIX"}};
  for (auto [name, type] : vars) {
    auto* v = new VariableNode();
    v->name = name, v->type = type, v->access = 2, gvl->AppendChild(v);
  }
  auto* app = new NodeWithChildren();
  auto* nodes = new AppNodes();
  app->name = "App", app->AppendChild(gvl), nodes->AppendChild(app);
  return std::make_unique<SymbolConfiguration>(new SymbolHeader(), types, nodes);
}

struct DefineEntry { std::string name; uint32_t size; };

// A define (flag 1) or delete (flag 2) request, as the client writes it.
inline void WriteDefine(uint8_t* area, uint8_t flag, uint8_t seq, const std::vector<DefineEntry>& entries,
                        uint32_t handle = 0) {
  uint32_t total = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    uint8_t* e = area + slot::kDefineEntries + i * slot::kEntrySize;
    std::memset(e, 0, slot::kEntrySize);
    std::memcpy(e, entries[i].name.data(), entries[i].name.size());
    slot::Store<uint32_t>(e, slot::kEntrySizeField, entries[i].size);
    total += entries[i].size;
  }
  const uint32_t count = flag == 1 ? static_cast<uint32_t>(entries.size()) : 0;
  const uint32_t head[4] = {uint32_t{flag} << 16 | uint32_t{seq} << 24, flag == 1 ? total : 0, count, handle};
  std::memcpy(area, head, sizeof head);  // Err 0, Flag, Seq, ByteLength, Size, TagsHandle
}
inline void WriteSwap(uint8_t* area, uint8_t rw, uint8_t seq, uint32_t handle, const std::vector<uint32_t>& entries,
                      const std::vector<uint8_t>& values = {}) {
  const uint8_t head[7] = {0, 0, 0, 0, rw, seq, rw};  // Err, Flag, Seq, Rw
  std::memcpy(area, head, sizeof head);
  slot::Store<uint32_t>(area, slot::kSwapSize, static_cast<uint32_t>(entries.size()));
  slot::Store<uint32_t>(area, slot::kSwapHandle, handle);
  for (size_t i = 0; i < entries.size(); ++i) slot::Store<uint32_t>(area, slot::kSwapEntries + 4 * i, entries[i]);
  if (!values.empty()) std::memcpy(area + slot::kSwapEntries + 4 * entries.size(), values.data(), values.size());
}
inline void WriteConnect(uint8_t* area, uint32_t flag, uint32_t seq) {
  const uint32_t fields[4] = {flag, seq, 1000, 0};  // Flag, Seq, beat, errInfo
  std::memcpy(area, fields, sizeof fields);
}

template <typename T>
std::vector<uint8_t> Bytes(T value) {
  std::vector<uint8_t> out(sizeof(T));
  return std::memcpy(out.data(), &value, sizeof(T)), out;
}
inline std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// A minimal client over the real libRtosLib64: maps the areas of the partition
// VARLOK_PARTITION names, opens the six events, and runs one exchange (signal,
// wait for the answer event, spin on Flag) on a slot the test has written.
class MiniClient {
 public:
  // 0, or the first failing call's result.
  uint32_t Open() {
    static const wchar_t* const areas[3] = {L"ConnectArea", L"NotifyArea", L"DataSwapArea"};
    static const char* const events[3][2] = {{"EVENT_CONNECT_WIN2RTOS", "EVENT_CONNECT_RTOS2WIN"},
                                             {"EVENT_NOTIFY_WIN2RTOS", "EVENT_NOTIFY_RTOS2WIN"},
                                             {"EVENT_DATASWAP_WIN2RTOS", "EVENT_DATASWAP_RTOS2WIN"}};
    for (int c = 0; c < 3; ++c) {
      uint32_t id = 0, reserved = 0;
      void* address = nullptr;
      if (uint32_t r = RtosQueryShmId(areas[c], 4, &id)) return r;
      if (uint32_t r = RtosQueryShmSize(id, &size[c])) return r;
      if (uint32_t r = RtosMapShm(id, 0, size[c], &reserved, &address)) return r;
      area[c] = static_cast<uint8_t*>(address);
      if (uint32_t r = RtosOpenEvent(0, 0, events[c][0], &tx[c])) return r;
      if (uint32_t r = RtosOpenEvent(0, 0, events[c][1], &rx[c])) return r;
      // No call closes an event: a client keeps them, reachable, for the process's life.
      static auto* kept = new std::vector<RTOS_EVENT>();
      kept->insert(kept->end(), {tx[c], rx[c]});
    }
    return 0;
  }
  ~MiniClient() {
    for (int c = 0; c < 3; ++c)
      if (area[c] != nullptr) testsys::UnmapArea(area[c], size[c]);
  }
  // RtosWaitEvent's result; on 0 also waits (bounded) for Flag to leave the request's value.
  uint32_t Exchange(int channel, uint32_t timeoutMs = 2000) {
    const uint32_t noted = FlagOf(channel);
    if (uint32_t r = RtosSendEvent(tx[channel])) return r;
    if (uint32_t w = RtosWaitEvent(rx[channel], timeoutMs)) return w;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    while (FlagOf(channel) == noted && std::chrono::steady_clock::now() < limit) continue;
    return 0;
  }
  uint32_t FlagOf(int channel) const {
    return channel == 0 ? __atomic_load_n(reinterpret_cast<uint32_t*>(area[0]), __ATOMIC_ACQUIRE)
                        : __atomic_load_n(area[channel] + 2 * channel, __ATOMIC_ACQUIRE);  // Flag at 2 and 4
  }
  uint8_t* area[3] = {};
  uint32_t size[3] = {};
  RTOS_EVENT tx[3] = {}, rx[3] = {};
};

}  // namespace ctltest
