// A soak: BM_Soak/0 over shared memory, BM_Soak/1 over TCP, each one million
// ZelVarlok::ReadTagList calls of a list of 100 DInt tags against varlok-sim.
// Every 100 000 calls it prints one sample line (calls, resident memory in KiB,
// open descriptors, threads of this process); the counters give the first and
// last sample and the growth between the second sample (after warm-up) and the
// last, which must stay flat. SOAK_CALLS changes the number of calls.
//   bench_soak --benchmark_filter=BM_Soak/0
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "ShmProject.h"
#include "PosixSimProcess.h"

namespace {

constexpr unsigned kTags = 100;
constexpr uint64_t kSampleEvery = 100000;

struct Sample {
  uint64_t calls = 0;
  long rssKb = 0;
  long fds = 0;
  long threads = 0;
};

long StatusField(const char* field) {  // a "Name:  value" line of /proc/self/status
  std::ifstream in("/proc/self/status");
  const std::string prefix = std::string(field) + ":";
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, prefix.size(), prefix) == 0) return std::atol(line.c_str() + prefix.size());
  return -1;
}

long OpenDescriptors() {
  long n = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) n += entry->d_name[0] != '.';
    closedir(dir);
  }
  return n - 1;  // the directory's own
}

Sample Take(uint64_t calls) { return Sample{calls, StatusField("VmRSS"), OpenDescriptors(), StatusField("Threads")}; }

// varlok-sim on a partition of its own, with --tcp on a free port; the port once ready.
pid_t StartSim(const std::string& symbols, const std::string& partition, uint16_t& port) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = shmtest::Spawn({VARLOK_SIM_PATH, "--symbols", symbols, "--partition", partition, "--tcp",
                                    "127.0.0.1:0", "--ready-fd", std::to_string(fds[1]), "--log-level", "warn"});
  close(fds[1]);
  std::string text;
  char buffer[64];
  pollfd p{fds[0], POLLIN, 0};
  while (text.find("ready\n") == std::string::npos && poll(&p, 1, 5000) == 1) {
    const ssize_t n = read(fds[0], buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  close(fds[0]);
  const size_t colon = text.find(':');
  if (text.find("ready\n") == std::string::npos || colon == std::string::npos) return -1;
  port = static_cast<uint16_t>(std::stoul(text.substr(colon + 1)));
  return pid;
}

void BM_Soak(benchmark::State& state) {
  const bool tcp = state.range(0) == 1;
  const uint64_t calls = std::getenv("SOAK_CALLS") != nullptr ? std::strtoull(std::getenv("SOAK_CALLS"), nullptr, 10)
                                                               : 1000000;
  const std::string partition = "soak" + std::to_string(getpid()) + (tcp ? "t" : "s");
  const std::string path = "/tmp/" + partition + ".xml";
  setenv("VARLOK_PARTITION", partition.c_str(), 1);
  uint16_t port = 0;
  if (!shmtest::WriteProject(path, kTags)) return state.SkipWithError("cannot write the symbol file");
  const pid_t sim = StartSim(path, partition, port);
  if (sim <= 0) return state.SkipWithError("varlok-sim did not start");
  std::vector<Sample> samples;
  uint64_t failed = 0;
  {
    ZelVarlok v;
    unsigned int e = 1, count = 0;
    v.InitializeCom(tcp ? COM_TYPE_TCP : COM_TYPE_LOCAL, path.c_str());
    void* device = v.ConnectToPlcDevice(tcp ? "127.0.0.1:" + std::to_string(port) : std::string("Local"), e);
    std::vector<std::string> names;
    for (unsigned i = 0; i < kTags; ++i) names.push_back(shmtest::ManyName(i));
    HTAGLIST h = device != nullptr ? v.CreateTagsHandle(names, e) : nullptr;
    std::vector<tagTagVarValue> values;
    if (h == nullptr) {
      state.SkipWithError("no list");
    } else {
      for (auto _ : state) {
        samples.push_back(Take(0));
        std::printf("%-5s %10s %10s %6s %8s\n", tcp ? "tcp" : "shm", "calls", "rss_kb", "fds", "threads");
        for (uint64_t i = 1; i <= calls; ++i) {
          failed += v.ReadTagList(h, values, count) != 0 || count != kTags;
          if (i % kSampleEvery == 0 || i == calls) {
            samples.push_back(Take(i));
            const Sample& s = samples.back();
            std::printf("%-5s %10llu %10ld %6ld %8ld\n", tcp ? "tcp" : "shm", static_cast<unsigned long long>(i),
                        s.rssKb, s.fds, s.threads);
            std::fflush(stdout);
          }
        }
      }
      v.DeleteTagsHandle(h);
      v.DisconnectFromDevice(device);
    }
  }
  kill(sim, SIGTERM);
  shmtest::WaitExit(sim);
  std::remove(path.c_str());
  shmtest::RemoveNamedMutexes(partition);
  if (samples.size() < 3) return;
  const Sample &warm = samples[1], &last = samples.back();
  state.counters["failed_calls"] = static_cast<double>(failed);
  state.counters["rss_first_kb"] = static_cast<double>(samples.front().rssKb);
  state.counters["rss_last_kb"] = static_cast<double>(last.rssKb);
  state.counters["rss_growth_kb"] = static_cast<double>(last.rssKb - warm.rssKb);
  state.counters["fds_growth"] = static_cast<double>(last.fds - warm.fds);
  state.counters["threads_growth"] = static_cast<double>(last.threads - warm.threads);
  state.counters["calls_per_s"] = benchmark::Counter(static_cast<double>(calls), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Soak)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
