#include "TcpServer.h"

#include <asio.hpp>

#include <algorithm>
#include <chrono>
#include <optional>
#include <set>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"

namespace qorvarlok::controller {

using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using tagaccess::FrameAssembler;

namespace {

constexpr const char* kFunc = "TcpServer";

std::string PeerOf(const tcp::socket& socket) {
  asio::error_code ec;
  const tcp::endpoint e = socket.remote_endpoint(ec);
  return ec ? std::string("unknown peer") : e.address().to_string() + ":" + std::to_string(e.port());
}

long long MsSince(Clock::time_point t, Clock::time_point now) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(now - t).count();
}

}  // namespace

bool ParseListenAddress(const std::string& text, std::string& address, uint16_t& port) {
  std::string digits = text;
  const size_t colon = text.rfind(':');
  if (colon != std::string::npos) {
    address = text.substr(0, colon);
    if (address.size() >= 2 && address.front() == '[' && address.back() == ']')
      address = address.substr(1, address.size() - 2);
    if (address.empty()) return false;
    digits = text.substr(colon + 1);
  }
  if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long v = std::stoul(digits);
  if (v > 65535) return false;
  port = static_cast<uint16_t>(v);
  asio::error_code ec;
  asio::ip::make_address(address, ec);
  return !ec;
}

class Connection;

class TcpServer::Impl {
 public:
  Impl(TcpServer& owner, CommandHandler& handler, const TcpServerOptions& options)
      : m_owner(owner), m_handler(handler), m_options(options), m_acceptor(m_io), m_sweep(m_io), m_retry(m_io) {}

  bool Listen(std::string* error);
  void Run() { m_io.run(); }
  void Stop();
  void Accept();
  void OnAccept(const asio::error_code& ec, tcp::socket socket);
  void Refuse(tcp::socket& socket);
  void Sweep();
  void Forget(const std::shared_ptr<Connection>& c);

  TcpServer& m_owner;
  CommandHandler& m_handler;
  TcpServerOptions m_options;
  asio::io_context m_io;
  tcp::acceptor m_acceptor;
  asio::steady_timer m_sweep;
  asio::steady_timer m_retry;
  std::set<std::shared_ptr<Connection>> m_live;
  // Set on the server's thread when it stops: a timer or an accept that had
  // already completed must not start new work behind the stop.
  bool m_bStopping = false;
  uint64_t m_refusedUnlogged = 0;
  Clock::time_point m_lastRefusalLog{};
};

// One accepted socket: read, answer, read again; the session decides.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(TcpServer::Impl& server, tcp::socket socket, std::string peer)
      : m_server(server),
        m_socket(std::move(socket)),
        m_session(server.m_handler, server.m_options.limits, server.m_options.token, std::move(peer)),
        m_accepted(Clock::now()),
        m_lastFrame(m_accepted) {}

  void Start() { Read(); }

  void Close(const char* why, long long ms) {
    if (m_bClosed) return;
    if (why != nullptr) VLOG(warn, kFunc, "tcp {}: connection closed: {} {} ms", m_session.Peer(), why, ms);
    Shut();
  }

  // Closes the connection if a time limit has passed.
  void Check(Clock::time_point now) {
    const TcpLimits& l = m_server.m_options.limits;
    if (!m_session.Greeted() && MsSince(m_accepted, now) > l.handshakeLimitMs)
      return Close("no handshake within", l.handshakeLimitMs);
    if (m_partialSince && MsSince(*m_partialSince, now) > l.frameLimitMs)
      return Close("a frame was not whole within", l.frameLimitMs);
    if (m_writeSince && MsSince(*m_writeSince, now) > l.frameLimitMs)
      return Close("an answer was not taken within", l.frameLimitMs);
    if (l.idleLimitMs != 0 && !m_writeSince && MsSince(m_lastFrame, now) > l.idleLimitMs)
      return Close("no request for", l.idleLimitMs);
  }

  bool Closed() const { return m_bClosed; }

 private:
  void Shut() {
    m_bClosed = true;
    asio::error_code ec;
    m_socket.close(ec);
    m_server.Forget(shared_from_this());
  }

  void Read() {
    size_t room = 0;
    uint8_t* at = m_in.Space(room);
    m_socket.async_read_some(asio::buffer(at, room), [self = shared_from_this()](const asio::error_code& ec, size_t n) {
      self->OnRead(ec, n);
    });
  }

  void OnRead(const asio::error_code& ec, size_t n) {
    if (m_bClosed) return;
    if (ec) {
      if (ec != asio::error::eof && ec != asio::error::operation_aborted)
        VLOG(info, kFunc, "tcp {}: connection ended: {}", m_session.Peer(), ec.message());
      else
        VLOG(info, kFunc, "tcp {}: connection ended by the peer", m_session.Peer());
      return Shut();
    }
    m_in.Commit(n);
    Pump();
  }

  // Answers what has arrived, sends the answers, then reads on.
  void Pump() {
    m_out.clear();
    size_t frames = 0;
    const TcpSession::Verdict v = m_session.Process(m_in, m_out, frames);
    const Clock::time_point now = Clock::now();
    if (frames > 0) {
      m_lastFrame = now;
      m_partialSince.reset();
    }
    if (m_in.HasPartial() && !m_partialSince) m_partialSince = now;
    if (!m_in.HasPartial()) m_partialSince.reset();
    m_bClosing = v == TcpSession::Verdict::Close;
    if (m_out.empty()) return m_bClosing ? Shut() : Read();
    m_writeSince = now;
    asio::async_write(m_socket, asio::buffer(m_out), [self = shared_from_this()](const asio::error_code& ec, size_t) {
      self->OnWritten(ec);
    });
  }

  void OnWritten(const asio::error_code& ec) {
    m_writeSince.reset();
    // The answer to a read of a large list does not keep its room for the connection's life.
    if (m_out.capacity() > 2 * TcpSession::kOutHighWater) std::vector<uint8_t>().swap(m_out);
    if (m_bClosed) return;
    if (ec || m_bClosing) return Shut();
    // Frames may still wait in the buffer when the answers filled a batch.
    if (m_in.Buffered() >= tagaccess::kHeaderSize) return Pump();
    Read();
  }

  TcpServer::Impl& m_server;
  tcp::socket m_socket;
  TcpSession m_session;
  FrameAssembler m_in{true};
  std::vector<uint8_t> m_out;
  Clock::time_point m_accepted;
  Clock::time_point m_lastFrame;
  std::optional<Clock::time_point> m_partialSince;
  std::optional<Clock::time_point> m_writeSince;
  bool m_bClosing = false;
  bool m_bClosed = false;
};

bool TcpServer::Impl::Listen(std::string* error) {
  asio::error_code ec;
  const tcp::endpoint endpoint(asio::ip::make_address(m_options.address, ec), m_options.port);
  if (!ec) m_acceptor.open(endpoint.protocol(), ec);
  if (!ec) m_acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) m_acceptor.bind(endpoint, ec);
  if (!ec) m_acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    if (error != nullptr) *error = "cannot listen on " + m_options.address + ":" + std::to_string(m_options.port) +
                                   ": " + ec.message();
    return false;
  }
  m_owner.m_port = m_acceptor.local_endpoint(ec).port();
  m_owner.m_address = m_options.address;
  Accept();
  Sweep();
  return true;
}

void TcpServer::Impl::Accept() {
  if (m_bStopping) return;
  m_acceptor.async_accept([this](const asio::error_code& ec, tcp::socket socket) { OnAccept(ec, std::move(socket)); });
}

void TcpServer::Impl::OnAccept(const asio::error_code& ec, tcp::socket socket) {
  if (ec == asio::error::operation_aborted || m_bStopping) return;
  if (ec) {
    if (!m_acceptor.is_open()) return;
    // Out of descriptors, most likely: wait a little instead of spinning.
    VLOG(warn, kFunc, "tcp: accept failed: {}; trying again in 100 ms", ec.message());
    m_retry.expires_after(std::chrono::milliseconds(100));
    m_retry.async_wait([this](const asio::error_code& e) {
      if (!e) Accept();
    });
    return;
  }
  if (m_live.size() >= m_options.limits.maxConnections) {
    Refuse(socket);
  } else {
    asio::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    std::string peer = PeerOf(socket);
    VLOG(info, kFunc, "tcp {}: connection accepted, {} open", peer, m_live.size() + 1);
    auto c = std::make_shared<Connection>(*this, std::move(socket), std::move(peer));
    m_live.insert(c);
    m_owner.m_connections = m_live.size();
    c->Start();
  }
  Accept();
}

void TcpServer::Impl::Refuse(tcp::socket& socket) {
  // Told why in a frame of no request, then closed. A burst of refusals logs a line a second.
  std::vector<uint8_t> frame;
  tagaccess::AppendEmptyAnswer(frame, tagaccess::AnswerOf(tagaccess::MsgType::Hello), 0, ERR_TOO_MANY_GW_CLIENTS);
  asio::error_code ec;
  socket.non_blocking(true, ec);
  socket.send(asio::buffer(frame), 0, ec);
  const std::string peer = PeerOf(socket);
  socket.close(ec);
  ++m_owner.m_refused;
  ++m_refusedUnlogged;
  const Clock::time_point now = Clock::now();
  if (MsSince(m_lastRefusalLog, now) >= 1000) {
    VLOG(warn, kFunc, "tcp {}: connection refused: {} connections are open, the limit ({} refused since the last line)",
         peer, m_live.size(), m_refusedUnlogged);
    m_refusedUnlogged = 0;
    m_lastRefusalLog = now;
  }
}

void TcpServer::Impl::Sweep() {
  if (m_bStopping) return;
  const TcpLimits& l = m_options.limits;
  uint32_t shortest = std::min({l.handshakeLimitMs, l.frameLimitMs, l.idleLimitMs == 0 ? 1000u : l.idleLimitMs});
  const auto period = std::chrono::milliseconds(std::clamp<uint32_t>(shortest / 4, 10, 250));
  const Clock::time_point now = Clock::now();
  // Check closes, and closing changes the set: walk a copy.
  const std::vector<std::shared_ptr<Connection>> live(m_live.begin(), m_live.end());
  for (const auto& c : live) c->Check(now);
  m_sweep.expires_after(period);
  m_sweep.async_wait([this](const asio::error_code& e) {
    if (!e) Sweep();
  });
}

void TcpServer::Impl::Forget(const std::shared_ptr<Connection>& c) {
  m_live.erase(c);
  m_owner.m_connections = m_live.size();
}

void TcpServer::Impl::Stop() {
  asio::post(m_io, [this] {
    m_bStopping = true;
    asio::error_code ec;
    m_acceptor.close(ec);
    m_sweep.cancel();
    m_retry.cancel();
    const std::vector<std::shared_ptr<Connection>> live(m_live.begin(), m_live.end());
    for (const auto& c : live) c->Close(nullptr, 0);
  });
}

std::unique_ptr<TcpServer> TcpServer::Start(CommandHandler& handler, const TcpServerOptions& options,
                                            std::string* error) {
  std::unique_ptr<TcpServer> server(new TcpServer());
  server->m_pImpl = std::make_unique<Impl>(*server, handler, options);
  if (!server->m_pImpl->Listen(error)) {
    VLOG(err, kFunc, "tcp: {}", error != nullptr ? *error : std::string("cannot listen"));
    return nullptr;
  }
  server->m_thread = std::thread([impl = server->m_pImpl.get()] { impl->Run(); });
  VLOG(info, kFunc, "tcp: serving on {}:{}{}", server->m_address, server->m_port,
       options.token.empty() ? "" : " (token required)");
  return server;
}

TcpServer::~TcpServer() {
  if (m_pImpl) {
    m_pImpl->Stop();
    if (m_thread.joinable()) m_thread.join();
  }
}

}  // namespace qorvarlok::controller
