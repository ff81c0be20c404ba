// The controller's TCP server: serves the tag-access protocol (TcpSession)
// on one thread of its own, beside the shared-memory channels and on the
// same image. Listens on loopback unless told another address.
//
// Limits, each with a log line when it bites: connections at once (one over
// the limit is told ERR_TOO_MANY_GW_CLIENTS and closed), lists and tags per
// connection, time to the handshake, time for a frame begun or an answer not
// taken, idle time. Connections are checked against the time limits a few
// times a second, so a slow or silent peer holds nothing for long.
//
// Thread-safe: Start, the accessors and the destructor may be called from
// any thread; the destructor closes every connection and joins the thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "CommandHandler.h"
#include "TcpSession.h"

namespace qorvarlok::controller {

struct TcpServerOptions {
  std::string address = "127.0.0.1";
  uint16_t port = 0;  // 0: any free port (see Port())
  std::string token;  // empty: none asked for
  TcpLimits limits;
};

// "PORT" or "ADDR:PORT" ("[v6]:PORT"); false when it is neither.
bool ParseListenAddress(const std::string& text, std::string& address, uint16_t& port);

class TcpServer {
 public:
  // Null with *error set (one line) when the address cannot be served.
  static std::unique_ptr<TcpServer> Start(CommandHandler& handler, const TcpServerOptions& options,
                                          std::string* error);
  ~TcpServer();
  TcpServer(const TcpServer&) = delete;
  TcpServer& operator=(const TcpServer&) = delete;

  uint16_t Port() const { return m_port; }
  const std::string& Address() const { return m_address; }
  size_t Connections() const { return m_connections.load(); }
  uint64_t Refused() const { return m_refused.load(); }

  class Impl;

 private:
  TcpServer() = default;
  std::unique_ptr<Impl> m_pImpl;
  std::thread m_thread;
  std::string m_address;
  uint16_t m_port = 0;
  std::atomic<size_t> m_connections{0};
  std::atomic<uint64_t> m_refused{0};
};

}  // namespace qorvarlok::controller
