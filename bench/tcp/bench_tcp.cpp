// One list read and one list write over TCP on loopback, through the whole
// library (ZelVarlok -> TagsTcpCom -> libZelTagAccess -> the controller's TCP
// server), for 1, 100, 1 000 and 10 000 DInt tags, measured in the same run
// beside
//   * its floor: a bare TCP ping-pong of exactly the same bytes (our frames'
//     sizes), blocking sockets, TCP_NODELAY, a thread for the server;
//   * libmodbus reading the same 4 000 bytes from its own server, as 16
//     requests of 125 holding registers.
// Servers run in threads of this process. Samples of the library and its
// floor are taken in alternating blocks, so that a change of load hits both.
//
//   bench_tcp [--quick]     prints the load average, then one line per case:
//                           median and 99th percentile in microseconds, the
//                           floor's, and the ratio of the medians.
#include <QorVarlok/ZelVarlok.h>
#include <modbus/modbus.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "CommandHandler.h"
#include "ShmProject.h"
#include "SymbolConfigReader.h"
#include "TagAccessProtocol.h"
#include "TcpServer.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace qorvarlok::controller;
namespace proto = qorvarlok::tagaccess;

struct Stats {
  double median = 0, p99 = 0, cpu = 0;  // cpu: mean processor time of one, all threads of the process
};

double CpuUs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

// Wall-clock samples, and the processor time they took in all (the servers run in this process).
struct Samples {
  std::vector<double> us;
  double cpuUs = 0;
};

Stats Summarize(Samples s) {
  std::vector<double>& us = s.us;
  std::sort(us.begin(), us.end());
  if (us.empty()) return {};
  return {us[us.size() / 2], us[std::min(us.size() - 1, us.size() * 99 / 100)],
          s.cpuUs / static_cast<double>(us.size())};
}

void Time(Samples& s, const std::function<void()>& f) {
  const double cpu = CpuUs();
  const auto start = Clock::now();
  f();
  s.us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  s.cpuUs += CpuUs() - cpu;
}

std::string LoadAverage() {
  std::ifstream f("/proc/loadavg");
  std::string a, b, c;
  f >> a >> b >> c;
  return a + " " + b + " " + c;
}

bool SendAll(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t k = send(fd, p, n, MSG_NOSIGNAL);
    if (k <= 0) return false;
    p += k, n -= static_cast<size_t>(k);
  }
  return true;
}

bool RecvAll(int fd, uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t k = recv(fd, p, n, 0);
    if (k <= 0) return false;
    p += k, n -= static_cast<size_t>(k);
  }
  return true;
}

int Listener(uint16_t& port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  listen(fd, 4);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  port = ntohs(a.sin_port);
  return fd;
}

void NoDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// The floor: the client sends `request` bytes, the server answers with `answer` bytes.
class PingPong {
 public:
  PingPong() {
    m_listen = Listener(m_port);
    m_server = std::thread([this] {
      const int fd = accept(m_listen, nullptr, nullptr);
      NoDelay(fd);
      std::vector<uint8_t> in, out;
      uint32_t sizes[2];
      while (RecvAll(fd, reinterpret_cast<uint8_t*>(sizes), 8)) {  // the shape of the next exchange
        in.resize(sizes[0]), out.resize(sizes[1]);
        if (!RecvAll(fd, in.data(), in.size()) || !SendAll(fd, out.data(), out.size())) break;
      }
      close(fd);
    });
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK), a.sin_port = htons(m_port);
    connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    NoDelay(m_fd);
  }
  ~PingPong() {
    close(m_fd);
    m_server.join();
    close(m_listen);
  }
  // One round trip; the 8 bytes of shape travel in the same send as the request.
  void Shape(uint32_t request, uint32_t answer) {
    m_request.assign(8 + request, 0);
    std::memcpy(m_request.data(), &request, 4), std::memcpy(m_request.data() + 4, &answer, 4);
    m_answer.resize(answer);
  }
  void RoundTrip() {
    SendAll(m_fd, m_request.data(), m_request.size());
    RecvAll(m_fd, m_answer.data(), m_answer.size());
  }

 private:
  int m_listen = -1, m_fd = -1;
  uint16_t m_port = 0;
  std::thread m_server;
  std::vector<uint8_t> m_request, m_answer;
};

// libmodbus with its own server: 20 000 holding registers, room for 10 000 DInt.
class Modbus {
 public:
  Modbus() {
    m_mapping = modbus_mapping_new(0, 0, kRegisters, 0);
    for (int i = 0; i < kRegisters; ++i) m_mapping->tab_registers[i] = static_cast<uint16_t>(i);
    m_serverCtx = modbus_new_tcp("127.0.0.1", 0);
    m_listen = modbus_tcp_listen(m_serverCtx, 1);
    sockaddr_in a{};
    socklen_t n = sizeof a;
    getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &n);
    m_server = std::thread([this] {
      int s = m_listen;
      if (modbus_tcp_accept(m_serverCtx, &s) < 0) return;
      uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
      while (true) {
        const int rc = modbus_receive(m_serverCtx, query);
        if (rc > 0) modbus_reply(m_serverCtx, query, rc, m_mapping);
        else if (rc == -1) break;
      }
    });
    m_client = modbus_new_tcp("127.0.0.1", ntohs(a.sin_port));
    m_bOk = modbus_connect(m_client) == 0;
  }
  ~Modbus() {
    modbus_close(m_client);
    modbus_free(m_client);
    m_server.join();
    close(m_listen);
    modbus_close(m_serverCtx);
    modbus_free(m_serverCtx);
    modbus_mapping_free(m_mapping);
  }
  // 4 000 bytes as 16 requests of 125 registers; false on any failure or wrong value.
  bool Read4000() {
    bool ok = m_bOk;
    for (int r = 0; r < 16 && ok; ++r) {
      ok = modbus_read_registers(m_client, r * 125, 125, m_registers + r * 125) == 125;
      ok = ok && m_registers[r * 125 + 124] == r * 125 + 124;
    }
    return ok;
  }
  bool Read125() { return modbus_read_registers(m_client, 0, 125, m_registers) == 125; }
  // n DInt: 2n registers in requests of at most 125.
  bool ReadDInt(unsigned n) {
    bool ok = m_bOk;
    for (int first = 0; ok && first < static_cast<int>(2 * n); first += 125) {
      const int count = std::min(125, static_cast<int>(2 * n) - first);
      ok = modbus_read_registers(m_client, first, count, m_registers + first) == count &&
           m_registers[first + count - 1] == static_cast<uint16_t>(first + count - 1);
    }
    return ok;
  }
  static constexpr int kRegisters = 20000;

 private:
  modbus_mapping_t* m_mapping = nullptr;
  modbus_t* m_serverCtx = nullptr;
  modbus_t* m_client = nullptr;
  int m_listen = -1;
  bool m_bOk = false;
  uint16_t m_registers[kRegisters] = {};
  std::thread m_server;
};

struct Line {
  std::string what;
  Stats ours, floor;
};

FILE* g_csv = nullptr;  // --csv FILE: one line per figure for scripts/bench.sh

void Csv(const char* kind, unsigned n, const Stats& ours, const Stats& floor) {
  if (g_csv == nullptr) return;
  std::fprintf(g_csv, "%s,%u,%.2f,%.2f,%.2f,%.2f,%.2f\n", kind, n, ours.median, ours.p99, floor.median, floor.p99,
               ours.cpu);
}

void Print(const Line& l) {
  std::printf("%-28s %10.1f %10.1f %12.1f %10.1f %8.2fx %8.1f\n", l.what.c_str(), l.ours.median, l.ours.p99,
              l.floor.median, l.floor.p99, l.floor.median > 0 ? l.ours.median / l.floor.median : 0.0, l.ours.cpu);
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) quick = true;
    if (std::strcmp(argv[i], "--csv") == 0 && i + 1 < argc) g_csv = std::fopen(argv[++i], "w");
  }
  const std::string path = "/tmp/bench_tcp" + std::to_string(getpid()) + ".xml";
  if (!shmtest::WriteProject(path, 10000)) return 1;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config(
      qorvarlok::symbols::SymbolConfigReader().ReadFile(std::wstring(path.begin(), path.end()), nullptr));
  if (!config) return 1;
  auto image = ProcessImage::Build(*config);
  CommandHandler handler(*image, 0x500000);
  std::string error;
  auto server = TcpServer::Start(handler, TcpServerOptions{}, &error);
  if (!server) {
    std::fprintf(stderr, "bench_tcp: %s\n", error.c_str());
    return 1;
  }
  ZelVarlok varlok;
  unsigned int e = 0;
  if (varlok.InitializeCom(COM_TYPE_TCP, path.c_str()) != 0 ||
      varlok.ConnectToPlcDevice("127.0.0.1:" + std::to_string(server->Port()), e) == nullptr) {
    std::fprintf(stderr, "bench_tcp: cannot connect (%u)\n", e);
    return 1;
  }
  PingPong floor;
  std::printf("TCP list read and write on loopback, whole library against its floor (bare ping-pong of the same bytes)\n");
  std::printf("load average %s, %u cores; microseconds\n", LoadAverage().c_str(), std::thread::hardware_concurrency());
  std::printf("%-28s %10s %10s %12s %10s %9s %8s\n", "case", "median", "p99", "floor median", "floor p99", "ratio",
              "cpu");

  bool wrong = false;
  Stats read1000;
  for (unsigned n : {1u, 100u, 1000u, 10000u}) {
    std::vector<std::string> names;
    for (unsigned i = 0; i < n; ++i) names.push_back(shmtest::ManyName(i));
    HTAGLIST h = varlok.CreateTagsHandle(names, e);
    if (h == nullptr || e != 0) {
      std::fprintf(stderr, "bench_tcp: define of %u tags failed (%u)\n", n, e);
      return 1;
    }
    std::vector<int32_t> values(n);
    const unsigned rounds = 10, per = quick ? 20 : (n >= 10000 ? 60 : 300);
    Samples readUs, writeUs, readFloor, writeFloor;
    for (unsigned r = 0; r < rounds; ++r) {
      for (unsigned i = 0; i < n; ++i) values[i] = static_cast<int32_t>(r * 100000 + i);
      tagTagVarValue* records = nullptr;
      unsigned int count = 0;
      for (unsigned k = 0; k < per; ++k) {
        Time(writeUs, [&] { wrong |= varlok.WriteTagList(h, reinterpret_cast<unsigned char*>(values.data()), n) != 0; });
        Time(readUs, [&] { wrong |= varlok.ReadTagList(h, &records, count) != 0; });
      }
      wrong |= count != n || std::memcmp(records[n - 1].Value, &values[n - 1], 4) != 0;
      // The same bytes as our frames: a read is 20 out and 20 + 4n back, a write 24 + 4n out and 16 back.
      floor.Shape(proto::kHeaderSize + 4, proto::kHeaderSize + 4 + 4 * n);
      for (unsigned k = 0; k < per; ++k) Time(readFloor, [&] { floor.RoundTrip(); });
      floor.Shape(proto::kHeaderSize + 8 + 4 * n, proto::kHeaderSize);
      for (unsigned k = 0; k < per; ++k) Time(writeFloor, [&] { floor.RoundTrip(); });
    }
    const Line read{"ReadTagList  " + std::to_string(n) + " DInt", Summarize(readUs), Summarize(readFloor)};
    const Line write{"WriteTagList " + std::to_string(n) + " DInt", Summarize(writeUs), Summarize(writeFloor)};
    Print(read);
    Print(write);
    Csv("tcp_read", n, read.ours, read.floor);
    Csv("tcp_write", n, write.ours, write.floor);
    if (n == 1000) {
      read1000 = read.ours;
      std::printf("%-28s read %.2fx, write %.2fx of the floor (medians; target at most 1.5x)\n", "  1 000 tags:",
                  read.ours.median / read.floor.median, write.ours.median / write.floor.median);
    }
    varlok.DeleteTagsHandle(h);
  }

  Modbus modbus;
  Samples m4000, m125;
  bool modbusOk = true;
  for (unsigned k = 0; k < (quick ? 50u : 1000u); ++k) {
    Time(m4000, [&] { modbusOk &= modbus.Read4000(); });
    Time(m125, [&] { modbusOk &= modbus.Read125(); });
  }
  for (unsigned n : {1u, 100u, 1000u, 10000u}) {  // the same tag counts as above, as DInt in registers
    Samples s;
    for (unsigned k = 0; k < (quick ? 10u : (n >= 10000 ? 100u : 500u)); ++k)
      Time(s, [&] { modbusOk &= modbus.ReadDInt(n); });
    const Stats st = Summarize(s);
    std::printf("libmodbus %5u DInt (%u registers): median %.1f p99 %.1f cpu %.1f\n", n, 2 * n, st.median, st.p99,
                st.cpu);
    Csv("modbus_read", n, st, Stats{});
  }
  const Stats mb = Summarize(m4000), mb125 = Summarize(m125);
  std::printf("\nlibmodbus, its own server: 125 registers median %.1f p99 %.1f; 4 000 bytes (16 x 125) median %.1f p99 %.1f%s\n",
              mb125.median, mb125.p99, mb.median, mb.p99, modbusOk ? "" : "  (FAILED READS)");
  std::printf("ReadTagList of 1 000 DInt (4 000 bytes) against libmodbus: %.1fx faster (medians; target at least 8x)\n",
              read1000.median > 0 ? mb.median / read1000.median : 0.0);
  std::printf("load average after the run %s\n", LoadAverage().c_str());
  if (g_csv != nullptr) std::fclose(g_csv);
  if (wrong) std::printf("SOME READS OR WRITES FAILED OR READ WRONG VALUES\n");
  varlok.ExitVarlokCommunication();
  std::remove(path.c_str());
  return wrong || !modbusOk ? 1 : 0;
}
