// One TCP connection's side of the tag-access protocol, without the socket:
// the handshake, the connection's own lists, and the answer to each request,
// worked on the same process image as the shared-memory channels.
//
// Values are copied under the image's lock (CommandHandler::Lock), so one
// answer never mixes two cycles of a task that writes under it. Each list is
// laid out by the widths the client asked for: a value wider than the
// client's is cut (a cut string keeps its terminator), a narrower one is
// padded with zeros, as on the data swap channel.
//
// What a peer sends is checked against the protocol's bounds and the limits
// below before anything is allocated for it; every refusal logs one line. A
// frame that breaks the protocol, a handshake that fails, or anything but a
// handshake first ends the connection (Verdict::Close, after the answer in
// out, if any, has been sent).
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "CommandHandler.h"
#include "TagAccessProtocol.h"

namespace qorvarlok::controller {

struct TcpLimits {
  uint32_t maxConnections = 128;
  uint32_t maxListsPerConnection = 256;
  uint32_t maxTagsPerConnection = 262144;  // over all lists of a connection
  uint32_t idleLimitMs = 60000;            // no request for this long ends the connection; 0: never
  uint32_t handshakeLimitMs = 5000;        // from accept to a handshake
  uint32_t frameLimitMs = 5000;            // a frame begun must be whole, an answer taken, within this
};

struct TcpEntry {
  uint32_t offset = 0;  // in the image
  uint32_t size = 0;    // in the image
  uint32_t width = 0;   // on the wire
  uint32_t wire = 0;    // offset on the wire
  const TypeLayout* type = nullptr;
};

// Entries that lie one after the other in the image and on the wire, with
// the same widths, copied in one piece.
struct TcpRun {
  uint32_t image = 0;
  uint32_t wire = 0;
  uint32_t length = 0;
};

struct TcpList {
  std::vector<TcpEntry> entries;
  std::vector<TcpRun> runs;
  std::vector<uint32_t> odd;  // entries whose width differs from their size
  uint32_t bytes = 0;
  bool readable = true;
  bool writable = true;
};

class TcpSession {
 public:
  enum class Verdict { Continue, Close };

  TcpSession(CommandHandler& handler, const TcpLimits& limits, std::string token, std::string peer);

  // Answers the whole frames in `in`, until none is left or `out` holds
  // enough to be sent first; frames counts those answered.
  Verdict Process(tagaccess::FrameAssembler& in, std::vector<uint8_t>& out, size_t& frames);
  Verdict OnFrame(const tagaccess::Frame& frame, std::vector<uint8_t>& out);

  bool Greeted() const { return m_bGreeted; }
  size_t ListCount() const { return m_lists.size(); }
  const std::string& Peer() const { return m_peer; }

  static constexpr size_t kOutHighWater = 1024 * 1024;

 private:
  Verdict Hello(const tagaccess::Frame& frame, std::vector<uint8_t>& out);
  void Define(const tagaccess::Frame& frame, std::vector<uint8_t>& out);
  uint32_t Resolve(const tagaccess::DefineRequest& request, TcpList& list, tagaccess::DefineAnswer& answer);
  void Delete(const tagaccess::Frame& frame, std::vector<uint8_t>& out);
  void Read(const tagaccess::Frame& frame, std::vector<uint8_t>& out);
  void Write(const tagaccess::Frame& frame, std::vector<uint8_t>& out);
  // The list of a request's body, or null with the refusal answered.
  TcpList* ListOf(const tagaccess::Frame& frame, uint8_t answerType, std::vector<uint8_t>& out);
  void Refuse(const tagaccess::Frame& frame, uint8_t answerType, uint32_t code, std::vector<uint8_t>& out);

  CommandHandler& m_handler;
  const TcpLimits& m_limits;
  std::string m_token;
  std::string m_peer;
  bool m_bGreeted = false;
  std::unordered_map<uint32_t, TcpList> m_lists;
  uint32_t m_nextList = 1;
  uint64_t m_tags = 0;  // entries over all lists
};

}  // namespace qorvarlok::controller
