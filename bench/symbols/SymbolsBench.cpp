// Opening generated symbol files of 10 000 to 1 000 000 variables through the
// exports (read, build the tree, flatten it), beside a bare parse of the same
// file, so the cost of everything beyond the parse is visible as a ratio.
//
//   bench_symbols --benchmark_filter=. [--benchmark_min_time=...]
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <tinyxml.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "GenSym.h"
#include "QorVarlok/ZelVarlok.h"
#include "SymbolConfigDll.h"
#include "WideConv.h"

namespace {

// One generated file per size, made once, removed at exit.
class Files {
 public:
  ~Files() {
    std::error_code ignored;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
  }
  const std::string& For(size_t variables) {
    if (m_dir.empty()) {
      std::string pattern = (std::filesystem::temp_directory_path() / "qvbench-XXXXXX").string();
      if (mkdtemp(pattern.data()) != nullptr) m_dir = pattern;
    }
    auto it = m_paths.find(variables);
    if (it == m_paths.end()) {
      const std::string path = m_dir + "/gen" + std::to_string(variables) + ".xml";
      qorvarlok::gensym::WriteSymbolFile(path, variables);
      it = m_paths.emplace(variables, path).first;
    }
    return it->second;
  }

 private:
  std::string m_dir;
  std::map<size_t, std::string> m_paths;
};

Files& TheFiles() {
  static Files files;
  return files;
}

void SetBytes(benchmark::State& state, const std::string& path) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(std::filesystem::file_size(path)));
  state.counters["variables"] = static_cast<double>(state.range(0));
}

// The whole opening a caller pays for the flat list.
void BM_OpenAndFlatten(benchmark::State& state) {
  const std::string& path = TheFiles().For(static_cast<size_t>(state.range(0)));
  const std::wstring wide = qorvarlok::platform::narrowToWide(path.c_str());
  for (auto _ : state) {
    unsigned int code = 0;
    void* handle = CreateSymbolConfigHandleW(wide.c_str(), &code);
    tagTagDesc* all = nullptr;
    unsigned int count = 0;
    if (handle == nullptr || GetSymbolConfigParseResult(handle, &all, &count) != 0) {
      state.SkipWithError("opening failed");
      break;
    }
    benchmark::DoNotOptimize(all);
    state.PauseTiming();
    ReleaseSymbolConfigHandle(handle);
    qorvarlok::symbols::ReclaimReleasedSymbolConfigs();
    state.ResumeTiming();
  }
  SetBytes(state, path);
}

// Reading and the first level of the tree only, as a browser does.
void BM_OpenOnly(benchmark::State& state) {
  const std::string& path = TheFiles().For(static_cast<size_t>(state.range(0)));
  const std::wstring wide = qorvarlok::platform::narrowToWide(path.c_str());
  for (auto _ : state) {
    unsigned int code = 0;
    void* handle = CreateSymbolConfigHandleW(wide.c_str(), &code);
    tagTagDesc* top = nullptr;
    unsigned int count = 0;
    if (handle == nullptr || GetSymbolConfigToppestTagsDesc(handle, &top, &count) != 0) {
      state.SkipWithError("opening failed");
      break;
    }
    benchmark::DoNotOptimize(top);
    state.PauseTiming();
    ReleaseSymbolConfigHandle(handle);
    qorvarlok::symbols::ReclaimReleasedSymbolConfigs();
    state.ResumeTiming();
  }
  SetBytes(state, path);
}

// The floor: the parser alone loading the same file and dropping its document.
void BM_TinyXmlParseOnly(benchmark::State& state) {
  const std::string& path = TheFiles().For(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    TiXmlDocument document;
    const bool loaded = document.LoadFile(file, TIXML_ENCODING_UNKNOWN);
    if (file != nullptr) std::fclose(file);
    if (!loaded) {
      state.SkipWithError("parse failed");
      break;
    }
    benchmark::DoNotOptimize(document.RootElement());
  }
  SetBytes(state, path);
}

}  // namespace

BENCHMARK(BM_TinyXmlParseOnly)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenOnly)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenAndFlatten)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TinyXmlParseOnly)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenOnly)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenAndFlatten)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);

namespace {

// Prints, after the usual table, each opening's CPU time as a multiple of the
// bare parse of the same file.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred || run.iterations == 0) continue;
      const std::string name = run.benchmark_name();
      const size_t slash = name.find('/');
      const size_t end = name.find('/', slash + 1);
      m_cpu[name.substr(0, slash)][name.substr(slash + 1, end - slash - 1)] = run.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() {
    const auto& parse = m_cpu["BM_TinyXmlParseOnly"];
    for (const char* opening : {"BM_OpenOnly", "BM_OpenAndFlatten"}) {
      for (const auto& [size, cpu] : m_cpu[opening]) {
        auto floor = parse.find(size);
        if (floor == parse.end() || floor->second <= 0) continue;
        std::printf("%s/%s: %.2f x the bare parse (CPU)\n", opening, size.c_str(), cpu / floor->second);
      }
    }
  }

 private:
  std::map<std::string, std::map<std::string, double>> m_cpu;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
