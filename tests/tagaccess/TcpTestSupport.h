// What the TCP tests share: a controller image with its TCP server in this
// process, a raw client that speaks frames byte by byte, and varlok-sim with
// --tcp in another process.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "CommandHandler.h"
#include "ShmProject.h"
#include "PosixSimProcess.h"
#include "SymbolConfigReader.h"
#include "TagAccessProtocol.h"
#include "TcpServer.h"

namespace tcptest {

using namespace qorvarlok::tagaccess;
using namespace qorvarlok::controller;

// The project of the shared-memory tests, served over TCP by a server in this process.
struct ServedProject {
  explicit ServedProject(TcpServerOptions options = {}, unsigned many = 4) {
    static int serial = 0;
    path = "/tmp/tcptest" + std::to_string(getpid()) + "-" + std::to_string(++serial) + ".xml";
    if (!shmtest::WriteProject(path, many)) return;
    config.reset(qorvarlok::symbols::SymbolConfigReader().ReadFile(std::wstring(path.begin(), path.end()), nullptr));
    if (!config) return;
    image = ProcessImage::Build(*config);
    handler = std::make_unique<CommandHandler>(*image, 0x500000);
    std::string error;
    server = TcpServer::Start(*handler, options, &error);
  }
  ~ServedProject() {
    server.reset();
    std::remove(path.c_str());
  }
  std::string Address() const { return "127.0.0.1:" + std::to_string(server->Port()); }
  template <typename T>
  T Value(const std::string& name) {
    Location at;
    T v{};
    auto lock = handler->Lock();  // the server's thread writes under it
    if (image->Resolve(name, at) == ResolveResult::Ok) std::memcpy(&v, image->Data() + at.offset, sizeof v);
    return v;
  }
  std::string path;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config;
  std::unique_ptr<ProcessImage> image;
  std::unique_ptr<CommandHandler> handler;
  std::unique_ptr<TcpServer> server;
};

// One socket, frames by hand. Every wait is bounded (2 s).
class RawClient {
 public:
  explicit RawClient(uint16_t port) {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval tv{2, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    m_bConnected = connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~RawClient() { close(m_fd); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool Connected() const { return m_bConnected; }
  bool Send(const std::vector<uint8_t>& bytes) {
    return ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // The next answer frame; false when the connection closed (or 2 s passed).
  bool Answer(FrameHeader& header, std::vector<uint8_t>& body) {
    while (true) {
      Frame f;
      const Refusal r = m_in.Next(f);
      if (r == Refusal::Ok) {
        header = f.header;
        body.assign(f.body.data, f.body.data + f.body.size);
        return true;
      }
      if (r != Refusal::Truncated) return false;
      size_t room = 0;
      uint8_t* at = m_in.Space(room);
      const ssize_t n = recv(m_fd, at, room, 0);
      if (n <= 0) return false;
      m_in.Commit(static_cast<size_t>(n));
    }
  }
  // Status of the next answer, or -1 when the connection closed instead.
  int64_t Status() {
    FrameHeader h;
    std::vector<uint8_t> body;
    return Answer(h, body) ? int64_t{h.status} : -1;
  }
  // True when the peer has closed (within 2 s).
  bool Closed() {
    char c;
    return recv(m_fd, &c, 1, 0) == 0;
  }
  bool Greet(const std::string& token = "") {
    std::vector<uint8_t> f;
    AppendHello(f, 1, Hello{kMagic, kProtocolVersion, token});
    return Send(f) && Status() == 0;
  }
  int fd() const { return m_fd; }

 private:
  int m_fd = -1;
  bool m_bConnected = false;
  FrameAssembler m_in{false};
};

inline std::vector<uint8_t> DefineFrame(std::vector<std::string> names, uint32_t id = 2) {
  std::vector<uint8_t> f;
  AppendDefine(f, id, DefineRequest{100, std::move(names), {}});
  return f;
}

// varlok-sim with --tcp on a partition of its own (kept by a restart); port once started.
struct TcpSim {
  bool Start(const std::string& symbols, const std::string& listen, std::vector<std::string> extra = {}) {
    static int serial = 0;
    if (partition.empty()) partition = "tcpsim" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    int fds[2];
    if (pipe(fds) != 0) return false;
    std::vector<std::string> args{VARLOK_SIM_PATH, "--symbols", symbols, "--partition", partition, "--tcp", listen,
                                  "--ready-fd", std::to_string(fds[1]), "--log-level", "warn"};
    args.insert(args.end(), extra.begin(), extra.end());
    sim.pid = shmtest::Spawn(args);
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
    if (sim.pid <= 0 || text.find("ready\n") == std::string::npos || colon == std::string::npos) return false;
    port = static_cast<uint16_t>(std::stoul(text.substr(colon + 1)));
    return true;
  }
  ~TcpSim() {
    sim.Stop(SIGTERM);  // a clean stop removes the partition's objects
    shmtest::RemoveNamedMutexes(partition);
  }
  shmtest::SimProcess sim;
  std::string partition;
  uint16_t port = 0;
};

}  // namespace tcptest
