// The server against bad input on real loopback sockets, and the client
// library against a server that misbehaves on purpose (a scripted one: a
// real controller cannot answer late or lie on demand).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <chrono>
#include <functional>
#include <thread>

#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "TcpTestSupport.h"
#include "ZelTagAccess.h"

using namespace tcptest;
using spdlog::level::warn;
using Ms = std::chrono::milliseconds;

namespace {

std::string PeerText(int fd) {
  sockaddr_in a{};
  socklen_t n = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  return "tcp 127.0.0.1:" + std::to_string(ntohs(a.sin_port)) + ": ";
}

std::vector<uint8_t> RawFrame(uint32_t length, uint8_t type, std::vector<uint8_t> body = {}, uint32_t id = 3) {
  std::vector<uint8_t> f(kHeaderSize);
  EncodeHeader(f.data(), FrameHeader{length, type, id, 0});
  f.insert(f.end(), body.begin(), body.end());
  return f;
}

// A client of the real library that defines, writes and reads one tag: the server still serves.
void ExpectServes(const std::string& address, int32_t value) {
  uint32_t e = 1;
  void* device = ConnectToDevice(address.c_str(), ZTA_MODE_TCP, &e);
  ASSERT_EQ(e, 0u);
  const char* names[] = {"App.GVL.speed"};
  void* list = DefineTagList(device, names, 1, 100, nullptr, &e);
  ASSERT_EQ(e, 0u);
  void* image = &value;
  ZtaTagValue* records = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(WriteTagListValue(list, &image) + ReadTagListValue(list, &records, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(*static_cast<int32_t*>(records[0].Value), value);
  EXPECT_EQ(DisconnectFromDevice(device), 0u);
}

}  // namespace

TEST(TcpServer, RefusesBadInputWithALogLineAndKeepsServingOthers) {
  auto& log = qvtest::Log();
  ServedProject p;
  ASSERT_NE(p.server, nullptr);
  std::vector<uint8_t> million = RawFrame(8 + 7 * 1000000, 2, {100, 0, 0, 0, 0x40, 0x42, 0x0F, 0});
  million.resize(kHeaderSize + 8 + 7 * 1000000, 1);
  std::vector<uint8_t> longName = RawFrame(8 + 6 + 10000, 2, {100, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 0x10, 0x27});
  longName.resize(longName.size() + 10000, 'q');
  std::vector<uint8_t> reserved = RawFrame(0, 6);
  reserved[6] = 1;
  std::vector<uint8_t> wrongVersion, secondHello, wrongMagic = RawFrame(8, 1, {'H', 'T', 'T', 'P', 1, 0, 0, 0});
  AppendHello(wrongVersion, 1, Hello{kMagic, 7, ""});
  AppendHello(secondHello, 5, Hello{});
  const std::string get = "GET / HTTP/1.1\r\nHost: plc\r\n\r\n";
  struct Case {
    const char* what;
    bool greet;
    std::vector<uint8_t> bytes;
    int64_t status;  // -1: closed without an answer
    bool closes;
    std::string logged;
  };
  const std::vector<Case> cases = {
      {"garbage", false, std::vector<uint8_t>(get.begin(), get.end()), -1, true,
       "connection closed: a frame with a body length beyond the bound"},
      {"a length field of 4 GiB", false, RawFrame(0xFFFFFFFFu, 4), -1, true,
       "connection closed: a frame with a body length beyond the bound"},
      {"a wrong magic", false, wrongMagic, -1, true, "connection closed: a handshake with a wrong magic"},
      {"a wrong version", false, wrongVersion, ERR_VENDER_NOT_MATCHED, true,
       "connection closed: protocol version 7, this controller speaks 1"},
      {"a request first", false, RawFrame(4, 4, {1, 0, 0, 0}), -1, true,
       "connection closed: a read request before the handshake"},
      {"a second handshake", true, secondHello, -1, true, "connection closed: a hello request repeats the handshake"},
      {"reserved bytes", true, reserved, -1, true, "connection closed: a frame with reserved header bytes not zero"},
      {"a define of a million names", true, million, ERR_TOO_MANY_TAGS, false,
       "define refused: more names than a list may hold"},
      {"a name of 10 000 bytes", true, longName, ERR_EXIST_INVAILD_VAR, false, "define refused: a name beyond the bound"},
      {"an unknown name", true, DefineFrame({"App.GVL.speed", "App.GVL.nothing"}), ERR_EXIST_INVAILD_VAR, false,
       "define refused: entry 1 \"App.GVL.nothing\": unknown variable"},
      {"a read of no list", true, RawFrame(4, 4, {99, 0, 0, 0}), ERR_PLC_INVALID_HANDLE, false,
       "read refused: no list 99"},
      {"a write of the wrong size", true, RawFrame(12, 5, {99, 0, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4}),
       ERR_PLC_INVALID_HANDLE, false, "write refused: no list 99"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RawClient raw(p.server->Port());
    ASSERT_TRUE(raw.Connected());
    if (c.greet) {
      ASSERT_TRUE(raw.Greet());
    }
    ASSERT_TRUE(raw.Send(c.bytes));
    EXPECT_EQ(raw.Status(), c.status);
    if (c.closes) {
      EXPECT_TRUE(raw.Closed());
    }
    EXPECT_TRUE(log.WaitFor(warn, PeerText(raw.fd()) + c.logged, "TcpSession"));
    if (!c.closes) {
      std::vector<uint8_t> keepAlive;
      AppendKeepAlive(keepAlive, 9);
      EXPECT_TRUE(raw.Send(keepAlive) && raw.Status() == 0) << "the connection stays";
    }
  }
  // Access is the controller's to check; a write must carry exactly the list's bytes.
  RawClient raw(p.server->Port());
  ASSERT_TRUE(raw.Greet());
  ASSERT_TRUE(raw.Send(DefineFrame({"App.GVL.wo"}, 2)) && raw.Status() == 0);
  ASSERT_TRUE(raw.Send(DefineFrame({"App.GVL.ro"}, 3)) && raw.Status() == 0);
  ASSERT_TRUE(raw.Send(RawFrame(4, 4, {1, 0, 0, 0})));
  EXPECT_EQ(raw.Status(), ERR_TAG_NO_ACCESS_RIGHTS);
  ASSERT_TRUE(raw.Send(RawFrame(12, 5, {2, 0, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4})));
  EXPECT_EQ(raw.Status(), ERR_TAG_NO_ACCESS_RIGHTS);
  ASSERT_TRUE(raw.Send(RawFrame(11, 5, {1, 0, 0, 0, 3, 0, 0, 0, 1, 2, 3})));
  EXPECT_EQ(raw.Status(), ERR_PLC_READ_WRITE_FAILED);
  EXPECT_TRUE(log.WaitFor(warn, PeerText(raw.fd()) + "write refused: 3 bytes for a list of 4", "TcpSession"));
  ExpectServes(p.Address(), 1234);
  EXPECT_EQ(p.Value<int32_t>("App.GVL.speed"), 1234);
}

TEST(TcpServer, ATokenIsRequiredWhenSetAndAThousandConnectionsMeetTheLimit) {
  auto& log = qvtest::Log();
  TcpServerOptions options;
  options.token = "sesame";
  options.limits.maxConnections = 8;
  ServedProject p(options);
  ASSERT_NE(p.server, nullptr);
  for (const auto& [token, logged] : std::vector<std::pair<std::string, std::string>>{
           {"", "connection closed: no token"}, {"sesam", "connection closed: a wrong token"}}) {
    RawClient raw(p.server->Port());
    std::vector<uint8_t> hello;
    AppendHello(hello, 1, Hello{kMagic, kProtocolVersion, token});
    ASSERT_TRUE(raw.Send(hello));
    EXPECT_EQ(raw.Status(), ERR_USER_NAME_OR_PASSWORD);
    EXPECT_TRUE(raw.Closed());
    EXPECT_TRUE(log.WaitFor(warn, PeerText(raw.fd()) + logged, "TcpSession"));
  }
  setenv(ZTA_TOKEN_ENV, "wrong", 1);
  uint32_t e = 0;
  EXPECT_EQ(ConnectToDevice(p.Address().c_str(), ZTA_MODE_TCP, &e), nullptr);
  EXPECT_EQ(e, ERR_USER_NAME_OR_PASSWORD);
  setenv(ZTA_TOKEN_ENV, "sesame", 1);

  std::vector<std::unique_ptr<RawClient>> crowd;
  for (int i = 0; i < 1000; ++i) crowd.push_back(std::make_unique<RawClient>(p.server->Port()));
  for (int i = 0; i < 250 && p.server->Refused() < 992; ++i) std::this_thread::sleep_for(Ms(20));
  EXPECT_EQ(p.server->Refused(), 992u);
  EXPECT_EQ(p.server->Connections(), 8u);
  EXPECT_EQ(crowd.back()->Status(), ERR_TOO_MANY_GW_CLIENTS) << "told why, in a frame of no request";
  EXPECT_TRUE(log.Contains("connections are open, the limit"));
  EXPECT_EQ(ConnectToDevice(p.Address().c_str(), ZTA_MODE_TCP, &e), nullptr);
  EXPECT_EQ(e, ERR_TOO_MANY_GW_CLIENTS);
  crowd.clear();
  for (int i = 0; i < 100 && p.server->Connections() > 0; ++i) std::this_thread::sleep_for(Ms(20));
  ExpectServes(p.Address(), 77);
  unsetenv(ZTA_TOKEN_ENV);
}

// ------------------------------------------------------------- slow ones

namespace {

// Accepts one connection, answers the handshake, then hands each request to
// its step; past the last step it closes.
class ScriptedServer {
 public:
  using Step = std::function<void(int fd, const FrameHeader& request)>;
  explicit ScriptedServer(std::vector<Step> steps) : m_steps(std::move(steps)) {
    m_listen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(m_listen, 4);
    getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &n);
    port = ntohs(a.sin_port);
    m_thread = std::thread([this] { Serve(); });
  }
  ~ScriptedServer() {
    m_thread.join();
    close(m_listen);
  }
  static void Send(int fd, const std::vector<uint8_t>& bytes) { ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  static std::vector<uint8_t> ReadAnswer(uint32_t id, int32_t value) {
    std::vector<uint8_t> f;
    const size_t at = AppendReadAnswerHead(f, id, 4);
    std::memcpy(f.data() + at, &value, 4);
    return f;
  }
  uint16_t port = 0;

 private:
  void Serve() {
    pollfd p{m_listen, POLLIN, 0};
    if (poll(&p, 1, 5000) != 1) return;
    const int fd = accept(m_listen, nullptr, nullptr);
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    FrameAssembler in(true);
    size_t step = 0;
    while (true) {
      qorvarlok::tagaccess::Frame f;
      const Refusal r = in.Next(f);
      if (r == Refusal::Ok) {
        std::vector<uint8_t> out;
        if (f.header.type == static_cast<uint8_t>(MsgType::Hello)) {
          AppendHelloAnswer(out, f.header.requestId, 0, HelloAnswer{kProtocolVersion, kMaxBody, 0});
          Send(fd, out);
        } else if (f.header.type == static_cast<uint8_t>(MsgType::Define)) {
          AppendDefineAnswer(out, f.header.requestId, DefineAnswer{5, {{7, 4}}});
          Send(fd, out);
        } else if (step < m_steps.size()) {
          m_steps[step++](fd, f.header);
        } else {
          break;
        }
        continue;
      }
      size_t room = 0;
      uint8_t* at = in.Space(room);
      const ssize_t n = recv(fd, at, room, 0);
      if (n <= 0) break;
      in.Commit(static_cast<size_t>(n));
    }
    close(fd);
  }
  std::vector<Step> m_steps;
  int m_listen = -1;
  std::thread m_thread;
};

struct ClientOf {
  explicit ClientOf(uint16_t port) {
    uint32_t e = 1;
    device = ConnectToDevice(("127.0.0.1:" + std::to_string(port)).c_str(), ZTA_MODE_TCP, &e);
    const char* names[] = {"App.GVL.speed"};
    if (device != nullptr) list = DefineTagList(device, names, 1, 100, nullptr, &e);
  }
  ~ClientOf() { DisconnectFromDevice(device); }
  // The read's code and how long it took; value gets what it read.
  uint32_t Read(int32_t& value, long long& ms) {
    ZtaTagValue* records = nullptr;
    uint32_t count = 0;
    timespec cpu0{}, cpu1{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu0);
    const auto start = std::chrono::steady_clock::now();
    const uint32_t r = ReadTagListValue(list, &records, &count);
    ms = std::chrono::duration_cast<Ms>(std::chrono::steady_clock::now() - start).count();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu1);
    cpuMs = (cpu1.tv_sec - cpu0.tv_sec) * 1000 + (cpu1.tv_nsec - cpu0.tv_nsec) / 1000000;
    if (r == 0) std::memcpy(&value, records[0].Value, 4);
    return r;
  }
  void* device = nullptr;
  void* list = nullptr;
  long long cpuMs = 0;  // of the last read: a waiting client sleeps, it does not spin
};

}  // namespace

TEST(TcpSlow, TheClientGivesACodeForEveryMisbehaviourWithinItsTimeLimit) {
  setenv(ZTA_TIMEOUT_ENV, "300", 1);
  {
    // Late: the first read times out, its answer arrives later and is dropped; the next read gets its own.
    ScriptedServer s({[](int fd, const FrameHeader& h) {
                        std::this_thread::sleep_for(Ms(450));
                        ScriptedServer::Send(fd, ScriptedServer::ReadAnswer(h.requestId, 1));
                      },
                      [](int fd, const FrameHeader& h) {
                        ScriptedServer::Send(fd, ScriptedServer::ReadAnswer(h.requestId + 100, 2));  // a wrong id
                      },
                      [](int fd, const FrameHeader& h) {
                        ScriptedServer::Send(fd, ScriptedServer::ReadAnswer(h.requestId, 3));
                      }});
    ClientOf c(s.port);
    ASSERT_NE(c.list, nullptr);
    int32_t v = 0;
    long long ms = 0;
    EXPECT_EQ(c.Read(v, ms), ERR_WAIT_TIMEOUT);
    EXPECT_GE(ms, 290);
    EXPECT_LT(ms, 1000);
    EXPECT_LT(c.cpuMs, 50);
    std::this_thread::sleep_for(Ms(250));
    EXPECT_EQ(c.Read(v, ms), ERR_WAIT_TIMEOUT) << "an answer with another id is not this read's";
    EXPECT_EQ(c.Read(v, ms), 0u);
    EXPECT_EQ(v, 3);
  }
  struct Case {
    const char* what;
    ScriptedServer::Step step;
    uint32_t code;
  };
  const std::vector<Case> cases = {
      {"closes mid-answer",
       [](int fd, const FrameHeader& h) {
         auto f = ScriptedServer::ReadAnswer(h.requestId, 1);
         f.resize(10);
         ScriptedServer::Send(fd, f);
         shutdown(fd, SHUT_RDWR);
       },
       ERR_NOT_CONNECTED},
      {"a length of 4 GiB",
       [](int fd, const FrameHeader& h) {
         auto f = ScriptedServer::ReadAnswer(h.requestId, 1);
         f[0] = f[1] = f[2] = f[3] = 0xFF;
         ScriptedServer::Send(fd, f);
         std::this_thread::sleep_for(Ms(400));
       },
       ERR_NOT_CONNECTED},
      {"a length longer than what comes",
       [](int fd, const FrameHeader& h) {
         auto f = ScriptedServer::ReadAnswer(h.requestId, 1);
         f[0] = 100;
         ScriptedServer::Send(fd, f);
         std::this_thread::sleep_for(Ms(400));
       },
       ERR_WAIT_TIMEOUT},
      {"a count that lies inside the body",
       [](int fd, const FrameHeader& h) {
         auto f = ScriptedServer::ReadAnswer(h.requestId, 1);
         f[kHeaderSize] = 3;
         ScriptedServer::Send(fd, f);
         std::this_thread::sleep_for(Ms(100));
       },
       ERR_READ_FAILED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedServer s({c.step});
    ClientOf client(s.port);
    ASSERT_NE(client.list, nullptr);
    int32_t v = 0;
    long long ms = 0;
    EXPECT_EQ(client.Read(v, ms), c.code);
    EXPECT_LT(ms, 1000);
    if (c.code != ERR_NOT_CONNECTED) continue;
    EXPECT_EQ(client.Read(v, ms), ERR_NOT_CONNECTED) << "a broken connection answers at once";
    EXPECT_LT(ms, 50);
  }
  // Nobody listens: refused at once. A listener that never answers the handshake: its time limit.
  auto bound = [](bool listening, uint16_t& port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    if (listening) listen(fd, 1);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
    port = ntohs(a.sin_port);
    return fd;
  };
  for (bool listening : {false, true}) {
    uint16_t port = 0;
    const int fd = bound(listening, port);
    uint32_t e = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ConnectToDevice(("127.0.0.1:" + std::to_string(port)).c_str(), ZTA_MODE_TCP, &e), nullptr);
    EXPECT_EQ(e, ZTA_ERR_UNREACHABLE);
    const auto took = std::chrono::duration_cast<Ms>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(took, listening ? 1000 : 100);
    if (listening) {
      EXPECT_GE(took, 290);
    }
    close(fd);
  }
  unsetenv(ZTA_TIMEOUT_ENV);
}

TEST(TcpSlow, TheServerClosesSlowSilentAndIdlePeersAtItsLimits) {
  auto& log = qvtest::Log();
  TcpServerOptions options;
  options.limits.handshakeLimitMs = options.limits.frameLimitMs = 400;
  options.limits.idleLimitMs = 800;
  ServedProject p(options);
  ASSERT_NE(p.server, nullptr);
  RawClient silent(p.server->Port()), slow(p.server->Port()), idle(p.server->Port());
  ASSERT_TRUE(slow.Greet() && idle.Greet());
  // One byte every 150 ms: the frame is never whole within 400 ms.
  const std::vector<uint8_t> read = RawFrame(4, 4, {1, 0, 0, 0});
  bool sent = true;
  for (size_t i = 0; i < read.size() && sent; ++i) {
    sent = slow.Send({read[i]});
    std::this_thread::sleep_for(Ms(150));
  }
  EXPECT_TRUE(silent.Closed() && slow.Closed() && idle.Closed());
  EXPECT_TRUE(log.WaitFor(warn, PeerText(silent.fd()) + "connection closed: no handshake within 400 ms", "TcpServer"));
  EXPECT_TRUE(log.WaitFor(warn, PeerText(slow.fd()) + "connection closed: a frame was not whole within 400 ms",
                          "TcpServer"));
  EXPECT_TRUE(log.WaitFor(warn, PeerText(idle.fd()) + "connection closed: no request for 800 ms", "TcpServer"));
  // A client of the library sends keep-alives by itself and stays.
  uint32_t e = 1;
  void* device = ConnectToDevice(p.Address().c_str(), ZTA_MODE_TCP, &e);
  ASSERT_NE(device, nullptr);
  std::this_thread::sleep_for(Ms(1500));
  EXPECT_EQ(p.server->Connections(), 1u);
  const char* names[] = {"App.GVL.speed"};
  EXPECT_NE(DefineTagList(device, names, 1, 100, nullptr, &e), nullptr);
  EXPECT_EQ(e, 0u);
  DisconnectFromDevice(device);
}
