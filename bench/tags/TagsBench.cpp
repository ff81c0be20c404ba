// Building tag lists of 10 000 names against a generated symbol file of
// 100 000 variables: plain names, and indexed names the first time (split,
// bounds check, new node) and the second time (one table lookup each).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "GenSym.h"
#include "SymbolConfigDll.h"
#include "TagsManager.h"

namespace {

using qorvarlok::tags::TagsList;
using qorvarlok::tags::TagsManager;

constexpr size_t kVariables = 100000;
constexpr size_t kListLength = 10000;
constexpr uint32_t kInstanceId = 4711;

// Variable i of the generated file; every tenth from 8 on is an ARRAY [0..9] OF DINT.
std::string VariableName(size_t i) {
  char group[24];  // room for any size_t, so the compiler sees no truncation
  std::snprintf(group, sizeof(group), "G%05zu", i / 1000);
  return "App." + std::string(group) + ".v" + std::to_string(i);
}

// One manager over one generated file for the whole run.
struct Session {
  std::unique_ptr<TagsManager> manager;
  std::vector<std::string> plain;
  std::vector<std::vector<std::string>> indexed;  // slice k: element [k] of each DInt array
  size_t nextFresh = 0;                           // slices 0 to 8 are resolved once each; 9 is kept
  double fillSeconds = 0;
};

Session* MakeSession() {
  char path[] = "/tmp/qv-bench-tags-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return nullptr;
  close(fd);
  const bool written = qorvarlok::gensym::WriteSymbolFile(path, kVariables);
  unsigned int code = 0;
  const std::string narrow(path);
  qorvarlok::symbols::TagsConfig* config =
      written ? qorvarlok::symbols::ReadSymbolConfig(std::wstring(narrow.begin(), narrow.end()), &code) : nullptr;
  std::remove(path);
  if (config == nullptr) return nullptr;
  config->symbolConfiguration->SetInstanceId(kInstanceId);

  auto session = std::make_unique<Session>();
  session->manager = std::make_unique<TagsManager>();
  session->manager->SetInstanceId(kInstanceId);
  if (session->manager->InitTagsManagerPrivate(config) != 0) return nullptr;
  for (size_t i = 0; i < kListLength; ++i) session->plain.push_back(VariableName(i * 10 + i % 8));
  session->indexed.resize(10);
  for (size_t k = 0; k < 10; ++k)
    for (size_t i = 0; i < kListLength; ++i)
      session->indexed[k].push_back(VariableName(i * 10 + 8) + "[" + std::to_string(k) + "]");
  return session.release();
}

Session& Shared() {
  static std::unique_ptr<Session> session(MakeSession());
  return *session;
}

// Builds one list and takes it out of the chain again.
void BuildAndDrop(benchmark::State& state, TagsManager& manager, const std::vector<std::string>& names) {
  TagsList* list = nullptr;
  if (manager.createHandleByTagsListNames(&list, 1, names) != 0 || list == nullptr) {
    state.SkipWithError("list build failed");
    return;
  }
  benchmark::DoNotOptimize(list->valueBuffer);
  manager.deleteFromBack();
}

bool Ready(benchmark::State& state) {
  if (Shared().manager) return true;
  state.SkipWithError("generated symbol file could not be read");
  return false;
}

void BM_FillManager100k(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    char path[] = "/tmp/qv-bench-tags-XXXXXX";
    const int fd = mkstemp(path);
    close(fd);
    qorvarlok::gensym::WriteSymbolFile(path, kVariables);
    const std::string narrow(path);
    unsigned int code = 0;
    auto* config = qorvarlok::symbols::ReadSymbolConfig(std::wstring(narrow.begin(), narrow.end()), &code);
    std::remove(path);
    if (config == nullptr) {
      state.SkipWithError("generated symbol file could not be read");
      return;
    }
    config->symbolConfiguration->SetInstanceId(kInstanceId + 1);
    TagsManager manager;
    manager.SetInstanceId(kInstanceId + 1);
    state.ResumeTiming();
    benchmark::DoNotOptimize(manager.InitTagsManagerPrivate(config));
    state.counters["nodes"] = static_cast<double>(manager.NodeCount());
    state.PauseTiming();
    manager.ReleaseTagsManagerPrivate();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_FillManager100k)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_PlainList10k(benchmark::State& state) {
  if (!Ready(state)) return;
  for (auto _ : state) BuildAndDrop(state, *Shared().manager, Shared().plain);
  state.SetItemsProcessed(state.iterations() * kListLength);
}
// The first build after filling, and the steady state: plain names are in the table from the start.
BENCHMARK(BM_PlainList10k)->Name("BM_PlainList10k/first")->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainList10k)->Name("BM_PlainList10k/again")->Unit(benchmark::kMillisecond);

void BM_IndexedList10kFirstTime(benchmark::State& state) {
  if (!Ready(state)) return;
  Session& session = Shared();
  for (auto _ : state) {
    if (session.nextFresh >= 9) {  // a repetition would measure resolved names
      state.SkipWithError("no names left that were never resolved");
      break;
    }
    BuildAndDrop(state, *session.manager, session.indexed[session.nextFresh++]);
  }
  state.SetItemsProcessed(state.iterations() * kListLength);
}
BENCHMARK(BM_IndexedList10kFirstTime)->Iterations(8)->Unit(benchmark::kMillisecond);

void BM_IndexedList10kSecondTime(benchmark::State& state) {
  if (!Ready(state)) return;
  const std::vector<std::string>& names = Shared().indexed[9];
  for (const std::string& name : names) Shared().manager->findTagNode(name);
  for (auto _ : state) BuildAndDrop(state, *Shared().manager, names);
  state.SetItemsProcessed(state.iterations() * kListLength);
}
BENCHMARK(BM_IndexedList10kSecondTime)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
