// A load test of the controller's TCP server: N clients (default 64), each on
// its own connection through libZelTagAccess, write their own 10 DInt tags
// and read them back, for a bounded time, against one varlok-sim --tcp. Every
// read is checked against the client's last write, so a wrong answer counts.
//
//   bench_tcp_load [--clients N] [--seconds S]
// prints requests per second, the median and 99th percentile of one request,
// failed requests and wrong answers, and the load average.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "TcpTestSupport.h"
#include "ZelTagAccess.h"

namespace {

using Clock = std::chrono::steady_clock;

struct ClientResult {
  std::vector<float> us;
  uint64_t failed = 0, wrong = 0;
};

std::string LoadAverage() {
  std::ifstream f("/proc/loadavg");
  std::string a, b, c;
  f >> a >> b >> c;
  return a + " " + b + " " + c;
}

void RunClient(const std::string& address, unsigned id, Clock::time_point end, ClientResult& r) {
  uint32_t e = 0;
  void* device = ConnectToDevice(address.c_str(), ZTA_MODE_TCP, &e);
  if (device == nullptr) {
    ++r.failed;
    return;
  }
  std::vector<std::string> names;
  std::vector<const char*> pointers;
  for (unsigned i = 0; i < 10; ++i) names.push_back(shmtest::ManyName(id * 10 + i));
  for (const std::string& n : names) pointers.push_back(n.c_str());
  void* list = DefineTagList(device, pointers.data(), 10, 100, nullptr, &e);
  int32_t values[10];
  for (uint32_t seq = 1; list != nullptr && Clock::now() < end; ++seq) {
    for (int i = 0; i < 10; ++i) values[i] = static_cast<int32_t>(id * 1000000 + seq * 10 + i);
    void* image = values;
    auto t0 = Clock::now();
    if (WriteTagListValue(list, &image) != 0) ++r.failed;
    auto t1 = Clock::now();
    ZtaTagValue* records = nullptr;
    uint32_t count = 0;
    const uint32_t rc = ReadTagListValue(list, &records, &count);
    auto t2 = Clock::now();
    r.us.push_back(std::chrono::duration<float, std::micro>(t1 - t0).count());
    r.us.push_back(std::chrono::duration<float, std::micro>(t2 - t1).count());
    if (rc != 0) {
      ++r.failed;
    } else {
      for (uint32_t i = 0; i < count; ++i)
        if (std::memcmp(records[i].Value, &values[i], 4) != 0) ++r.wrong;
      if (count != 10) ++r.wrong;
    }
  }
  DisconnectFromDevice(device);
}

}  // namespace

int main(int argc, char** argv) {
  unsigned clients = 64, seconds = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--clients") == 0) clients = static_cast<unsigned>(std::max(1, std::atoi(argv[i + 1])));
    if (std::strcmp(argv[i], "--seconds") == 0) seconds = static_cast<unsigned>(std::clamp(std::atoi(argv[i + 1]), 1, 600));
  }
  clients = std::min(clients, 1000u);
  const std::string path = "/tmp/bench_tcp_load" + std::to_string(getpid()) + ".xml";
  if (!shmtest::WriteProject(path, clients * 10)) return 1;
  tcptest::TcpSim sim;
  if (!sim.Start(path, "0", {"--tcp-max-connections", std::to_string(clients + 8)})) {
    std::fprintf(stderr, "bench_tcp_load: varlok-sim did not start\n");
    return 1;
  }
  const std::string address = "127.0.0.1:" + std::to_string(sim.port);
  std::printf("%u TCP clients against one varlok-sim for %u s on loopback; load average %s, %u cores\n", clients,
              seconds, LoadAverage().c_str(), std::thread::hardware_concurrency());
  std::vector<ClientResult> results(clients);
  std::vector<std::thread> threads;
  const auto start = Clock::now(), end = start + std::chrono::seconds(seconds);
  for (unsigned c = 0; c < clients; ++c) threads.emplace_back(RunClient, address, c, end, std::ref(results[c]));
  for (auto& t : threads) t.join();
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<float> all;
  uint64_t failed = 0, wrong = 0;
  for (const ClientResult& r : results) {
    all.insert(all.end(), r.us.begin(), r.us.end());
    failed += r.failed, wrong += r.wrong;
  }
  std::sort(all.begin(), all.end());
  const auto at = [&](double q) { return all.empty() ? 0.0 : all[std::min(all.size() - 1, size_t(all.size() * q))]; };
  std::printf("requests %zu in %.2f s: %.0f per second; one request median %.1f us, p99 %.1f us\n", all.size(), elapsed,
              all.size() / elapsed, at(0.5), at(0.99));
  std::printf("failed requests %lu, wrong answers %lu; load average after %s\n", static_cast<unsigned long>(failed),
              static_cast<unsigned long>(wrong), LoadAverage().c_str());
  std::remove(path.c_str());
  return failed == 0 && wrong == 0 ? 0 : 1;
}
