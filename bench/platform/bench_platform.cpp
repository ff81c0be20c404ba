// The bare round trip between two processes through libRtosLib64: the client
// writes a slot, signals the request event and waits for the answer event;
// a controller process (RtosHost) waits for the request, marks the slot and
// signals the answer. This is the floor of every shared-memory command.
//
// Arguments: spin in microseconds on both sides (0 = sleep at once), and
// placement: 0 left to the scheduler, 1 both on CPU 0, 2 client on CPU 0 and
// controller on CPU 1. Reports the median and the
// 99th percentile of the round trip in microseconds.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <memory>
#include <vector>

#include "RtosHost.h"
#include "RtosLib64.h"

namespace {

using qorvarlok::rtos::Channel;
using qorvarlok::rtos::RtosHost;
using qorvarlok::rtos::RtosHostOptions;

constexpr uint8_t kStop = 4;
constexpr size_t kPayload = 64;

void PinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

// The controller: answers each request by setting the slot's Flag to 0x80|request.
int Serve(uint32_t spin, int readyFd) {
  RtosHostOptions options;
  options.spinMicroseconds = spin;
  options.notifyAreaSize = 4096;
  options.dataSwapAreaSize = 65536;
  auto host = RtosHost::Create(options, nullptr);
  const char ok = host ? 'r' : 'x';
  (void)!write(readyFd, &ok, 1);
  if (!host) return 1;
  uint8_t* slot = host->Area(Channel::DataSwap);
  for (;;) {
    if (host->WaitRequest(Channel::DataSwap, 5000) != 0) return 2;
    const uint8_t flag = slot[4];
    if (flag == kStop) return 0;
    slot[4] = static_cast<uint8_t>(0x80 | flag);
    host->SignalAnswer(Channel::DataSwap);
  }
}

double Percentile(std::vector<double>& samples, double p) {
  const size_t k = static_cast<size_t>(p * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<long>(k), samples.end());
  return samples[k];
}

void BM_ShmRoundTrip(benchmark::State& state) {
  const auto spin = static_cast<uint32_t>(state.range(0));
  const int64_t placement = state.range(1);
  static int run = 0;
  const std::string partition = "qvbench" + std::to_string(getpid()) + "_" + std::to_string(++run);
  setenv("VARLOK_PARTITION", partition.c_str(), 1);
  int fds[2];
  if (pipe(fds) != 0) return state.SkipWithError("pipe");
  const pid_t child = fork();
  if (child == 0) {
    if (placement != 0) PinTo(placement == 2 ? 1 : 0);
    _exit(Serve(spin, fds[1]));
  }
  char ready = 0;
  if (read(fds[0], &ready, 1) != 1 || ready != 'r') return state.SkipWithError("controller did not start");
  close(fds[0]);
  close(fds[1]);
  cpu_set_t original;
  sched_getaffinity(0, sizeof original, &original);
  if (placement != 0) PinTo(0);
  RtosSetEventSpin(spin);

  RTOS_EVENT request = nullptr, answer = nullptr;
  uint32_t id = 0;
  void* address = nullptr;
  if (RtosOpenEvent(0, 0, "EVENT_DATASWAP_WIN2RTOS", &request) != 0 ||
      RtosOpenEvent(0, 0, "EVENT_DATASWAP_RTOS2WIN", &answer) != 0 ||
      RtosQueryShmId(L"DataSwapArea", 4, &id) != 0 || RtosMapShm(id, 0, 65536, nullptr, &address) != 0) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return state.SkipWithError("client set-up failed");
  }
  auto* slot = static_cast<uint8_t*>(address);
  uint8_t payload[kPayload];
  std::memset(payload, 0x5A, sizeof payload);
  std::vector<double> samples;
  samples.reserve(static_cast<size_t>(state.max_iterations));
  int lost = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    std::memcpy(slot + 15, payload, sizeof payload);
    slot[4] = 1;
    RtosSendEvent(request);
    if (RtosWaitEvent(answer, 1000) != 0 || slot[4] != 0x81) ++lost;
    samples.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  slot[4] = kStop;
  RtosSendEvent(request);
  waitpid(child, nullptr, 0);
  sched_setaffinity(0, sizeof original, &original);
  if (lost != 0) state.SkipWithError("answers lost");
  // Round trips that no sleep took part in: both sides caught the signal spinning.
  const auto fast = std::count_if(samples.begin(), samples.end(), [](double us) { return us < 2.0; });
  state.counters["under_2us_pct"] = 100.0 * static_cast<double>(fast) / static_cast<double>(samples.size());
  state.counters["median_us"] = Percentile(samples, 0.5);
  state.counters["p99_us"] = Percentile(samples, 0.99);
}

// What GetInstance pays per look at a partition, alive and down.
void BM_IsAlive(benchmark::State& state) {
  const std::string partition = "qvbenchalive" + std::to_string(getpid());
  setenv("VARLOK_PARTITION", partition.c_str(), 1);
  std::unique_ptr<RtosHost> host;
  if (state.range(0) != 0) host = RtosHost::Create(RtosHostOptions(), nullptr);
  const uint32_t expected = state.range(0) != 0 ? 1u : 0u;
  for (auto _ : state)
    if (RtosIsAlive() != expected) return state.SkipWithError("wrong liveness");
}

}  // namespace

BENCHMARK(BM_IsAlive)->ArgName("alive")->Arg(1)->Arg(0);
BENCHMARK(BM_ShmRoundTrip)
    ->ArgNames({"spin_us", "cpus"})
    ->Args({0, 0})
    ->Args({50, 0})
    ->Args({0, 1})
    ->Args({50, 1})
    ->Args({0, 2})
    ->Args({50, 2})
    ->Iterations(20000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
