// What the library costs over the floor of shared memory, in one run:
//
//   BM_BareSlotRoundTrip   write a slot, signal, wait for the answer event,
//                          against a process that only flips Flag (the floor)
//   BM_ClearDataSwapArea   the 2 621 440 zero bytes every data swap attempt writes
//   BM_ReadTagList/N       ZelVarlok::ReadTagList of N DInt tags against varlok-sim
//   BM_WriteTagList/N      ZelVarlok::WriteTagList (raw image) of N DInt tags
//   BM_WriteTagListText/N  ZelVarlok::WriteTagList with one text per tag
//
// Each reports the median and 99th percentile of one round trip in
// microseconds, tags per second at the median, cpu_us: the processor time of
// one round trip in this process (caller and channel thread) and in
// varlok-sim together, and x_floor: the median over the floor measured in the
// same run, the bare round trip's median plus the clearing's (the least any
// read or write can cost).
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "RtosHost.h"
#include "RtosLib64.h"
#include "ShmProject.h"
#include "PosixSimProcess.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr unsigned kMaxTags = 10000;
constexpr size_t kClearLength = 0x280000;

double g_bareMedianUs = 0;
double g_clearMedianUs = 0;

double ProcessCpuUs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

// User and system time of another process (clock ticks, so read over many round trips).
double ChildCpuUs(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(line.substr(close + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i)
    if (i >= 14) ticks += std::stod(field);
  return ticks * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double Percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  const size_t k = static_cast<size_t>(p * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<long>(k), samples.end());
  return samples[k];
}

void Report(benchmark::State& state, const std::vector<double>& samples, double tags) {
  const double median = Percentile(samples, 0.5);
  state.counters["median_us"] = median;
  state.counters["p99_us"] = Percentile(samples, 0.99);
  if (tags > 0 && median > 0) state.counters["tags_per_s"] = tags * 1e6 / median;
  const double floor = g_bareMedianUs + g_clearMedianUs;
  if (tags > 0 && floor > 0) {
    state.counters["floor_us"] = floor;
    state.counters["x_floor"] = median / floor;
  }
}

// ------------------------------------------------------------------ floor

// The answering side of the floor: flips Flag and signals, nothing else.
int FlipFlags(int readyFd) {
  qorvarlok::rtos::RtosHostOptions options;
  options.notifyAreaSize = 4096;
  options.dataSwapAreaSize = 65536;
  auto host = qorvarlok::rtos::RtosHost::Create(options, nullptr);
  const char ok = host ? 'r' : 'x';
  (void)!write(readyFd, &ok, 1);
  if (!host) return 1;
  uint8_t* slot = host->Area(qorvarlok::rtos::Channel::DataSwap);
  for (;;) {
    if (host->WaitRequest(qorvarlok::rtos::Channel::DataSwap, 5000) != 0) return 2;
    if (slot[4] == 4) return 0;
    slot[4] = static_cast<uint8_t>(0x80 | slot[4]);
    host->SignalAnswer(qorvarlok::rtos::Channel::DataSwap);
  }
}

void BM_BareSlotRoundTrip(benchmark::State& state) {
  const std::string partition = "shmbenchfloor" + std::to_string(getpid());
  setenv("VARLOK_PARTITION", partition.c_str(), 1);
  int fds[2];
  if (pipe(fds) != 0) return state.SkipWithError("pipe");
  const pid_t child = fork();
  if (child == 0) _exit(FlipFlags(fds[1]));
  char ready = 0;
  const bool up = read(fds[0], &ready, 1) == 1 && ready == 'r';
  close(fds[0]);
  close(fds[1]);
  RTOS_EVENT request = nullptr, answer = nullptr;
  uint32_t id = 0;
  void* address = nullptr;
  if (!up || RtosOpenEvent(0, 0, "EVENT_DATASWAP_WIN2RTOS", &request) != 0 ||
      RtosOpenEvent(0, 0, "EVENT_DATASWAP_RTOS2WIN", &answer) != 0 ||
      RtosQueryShmId(L"DataSwapArea", 4, &id) != 0 || RtosMapShm(id, 0, 65536, nullptr, &address) != 0) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return state.SkipWithError("floor controller set-up failed");
  }
  auto* slot = static_cast<uint8_t*>(address);
  std::vector<double> samples;
  int lost = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    std::memset(slot + 15, 0x5A, 64);
    slot[4] = 1;
    RtosSendEvent(request);
    if (RtosWaitEvent(answer, 1000) != 0 || slot[4] != 0x81) ++lost;
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  slot[4] = 4;
  RtosSendEvent(request);
  waitpid(child, nullptr, 0);
  if (lost != 0) return state.SkipWithError("answers lost");
  g_bareMedianUs = Percentile(samples, 0.5);
  Report(state, samples, 0);
}

void BM_ClearDataSwapArea(benchmark::State& state) {
  const size_t length = 0x500000;
  void* area = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) return state.SkipWithError("mmap");
  std::memset(area, 1, length);  // pages present, as in a long-lived mapping
  std::vector<double> samples;
  for (auto _ : state) {
    const auto start = Clock::now();
    std::memset(area, 0, kClearLength);
    benchmark::ClobberMemory();
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  munmap(area, length);
  g_clearMedianUs = Percentile(samples, 0.5);
  Report(state, samples, 0);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kClearLength));
}

// ----------------------------------------------------- the library's round trips

// varlok-sim in its own process and one connected ZelVarlok, made at first use.
struct Session {
  std::string partition;
  std::string path;
  shmtest::SimProcess sim;
  std::unique_ptr<ZelVarlok> varlok;
  std::map<unsigned, HTAGLIST> lists;
  bool ok = false;

  Session() {
    partition = "shmbench" + std::to_string(getpid());
    path = "/tmp/" + partition + ".xml";
    setenv("VARLOK_PARTITION", partition.c_str(), 1);
    if (!shmtest::WriteProject(path, kMaxTags)) return;
    if (!sim.Start(VARLOK_SIM_PATH, {"--symbols", path, "--partition", partition}, 20000)) return;
    varlok = std::make_unique<ZelVarlok>();
    if (varlok->InitializeCom(COM_TYPE_LOCAL, path.c_str()) != 0) return;
    unsigned int e = 0;
    ok = varlok->ConnectToPlcDevice("Local", e) != nullptr;
  }
  ~Session() {
    varlok.reset();
    sim.Stop(SIGTERM);
    std::remove(path.c_str());
    for (const char* m : {"Global_MUTEX_CONNECT", "Global_MUTEX_NOTIFY", "Global_MUTEX_DATASWAP"})
      shm_unlink(("/" + partition + "." + m).c_str());
  }
  HTAGLIST List(unsigned n) {
    auto it = lists.find(n);
    if (it != lists.end()) return it->second;
    std::vector<std::string> names;
    for (unsigned i = 0; i < n; ++i) names.push_back(shmtest::ManyName(i));
    unsigned int e = 0;
    HTAGLIST h = varlok->CreateTagsHandle(names, e);
    lists[n] = h;
    return h;
  }
};

Session& TheSession() {
  static Session session;
  return session;
}

template <typename Op>
void RoundTrips(benchmark::State& state, Op op) {
  Session& s = TheSession();
  if (!s.ok) return state.SkipWithError("varlok-sim session failed");
  const auto n = static_cast<unsigned>(state.range(0));
  HTAGLIST h = s.List(n);
  if (h == nullptr) return state.SkipWithError("define failed");
  std::vector<double> samples;
  const double cpu0 = ProcessCpuUs() + ChildCpuUs(s.sim.pid);
  for (auto _ : state) {
    const auto start = Clock::now();
    const unsigned int r = op(*s.varlok, h, n);
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (r != 0) return state.SkipWithError(("code " + std::to_string(r)).c_str());
  }
  const double cpu = ProcessCpuUs() + ChildCpuUs(s.sim.pid) - cpu0;
  Report(state, samples, n);
  if (!samples.empty()) state.counters["cpu_us"] = cpu / static_cast<double>(samples.size());
}

void BM_ReadTagList(benchmark::State& state) {
  RoundTrips(state, [](ZelVarlok& v, HTAGLIST h, unsigned) {
    tagTagVarValue* values = nullptr;
    unsigned int count = 0;
    return v.ReadTagList(h, &values, count);
  });
}

void BM_WriteTagList(benchmark::State& state) {
  std::vector<unsigned char> image(static_cast<size_t>(state.range(0)) * 4, 0x11);
  RoundTrips(state, [&image](ZelVarlok& v, HTAGLIST h, unsigned n) { return v.WriteTagList(h, image.data(), n); });
}

void BM_WriteTagListText(benchmark::State& state) {
  std::vector<std::string> text(static_cast<size_t>(state.range(0)), "12345");
  RoundTrips(state, [&text](ZelVarlok& v, HTAGLIST h, unsigned) { return v.WriteTagList(h, text); });
}

}  // namespace

// The floor first: the others report their ratio to it.
BENCHMARK(BM_BareSlotRoundTrip)->Iterations(20000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ClearDataSwapArea)->Iterations(5000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadTagList)->Arg(1)->Arg(100)->Arg(1000)->Arg(10000)->Iterations(3000)->UseRealTime()->Unit(
    benchmark::kMicrosecond);
BENCHMARK(BM_WriteTagList)->Arg(1)->Arg(100)->Arg(1000)->Arg(10000)->Iterations(3000)->UseRealTime()->Unit(
    benchmark::kMicrosecond);
BENCHMARK(BM_WriteTagListText)->Arg(1)->Arg(10000)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
