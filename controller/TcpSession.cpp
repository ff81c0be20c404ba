#include "TcpSession.h"

#include <algorithm>
#include <cstring>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"

namespace qorvarlok::controller {

using namespace tagaccess;

namespace {

constexpr const char* kFunc = "TcpSession";

bool Readable(int access) { return access == ACCESS_READ || access == ACCESS_READWRITE; }
bool Writable(int access) { return access == ACCESS_WRITE || access == ACCESS_READWRITE; }

// Compares in a time that does not depend on where the texts differ.
bool SameToken(const std::string& a, const std::string& b) {
  unsigned char diff = a.size() == b.size() ? 0 : 1;
  const size_t n = std::max(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
    const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
    diff |= static_cast<unsigned char>(x ^ y);
  }
  return diff == 0;
}

uint32_t DefineRefusalCode(Refusal r) {
  switch (r) {
    case Refusal::TooManyNames: return ERR_TOO_MANY_TAGS;
    case Refusal::NameTooLong:
    case Refusal::EmptyName:
    case Refusal::NameWithNul: return ERR_EXIST_INVAILD_VAR;
    default: return ERR_PLC_DEFINE_FAILED;
  }
}

void BuildRuns(TcpList& list) {
  for (uint32_t i = 0; i < list.entries.size(); ++i) {
    const TcpEntry& e = list.entries[i];
    if (e.width != e.size) {
      list.odd.push_back(i);
      continue;
    }
    if (e.width == 0) continue;
    if (!list.runs.empty()) {
      TcpRun& last = list.runs.back();
      if (last.image + last.length == e.offset && last.wire + last.length == e.wire) {
        last.length += e.width;
        continue;
      }
    }
    list.runs.push_back(TcpRun{e.offset, e.wire, e.width});
  }
}

}  // namespace

TcpSession::TcpSession(CommandHandler& handler, const TcpLimits& limits, std::string token, std::string peer)
    : m_handler(handler), m_limits(limits), m_token(std::move(token)), m_peer(std::move(peer)) {}

TcpSession::Verdict TcpSession::Process(FrameAssembler& in, std::vector<uint8_t>& out, size_t& frames) {
  frames = 0;
  while (out.size() < kOutHighWater) {
    Frame frame;
    const Refusal r = in.Next(frame);
    if (r == Refusal::Truncated) return Verdict::Continue;
    if (r != Refusal::Ok) {
      VLOG(warn, kFunc, "tcp {}: connection closed: a frame with {}", m_peer, ToText(r));
      return Verdict::Close;
    }
    ++frames;
    if (OnFrame(frame, out) == Verdict::Close) return Verdict::Close;
  }
  return Verdict::Continue;
}

TcpSession::Verdict TcpSession::OnFrame(const Frame& frame, std::vector<uint8_t>& out) {
  const auto type = static_cast<MsgType>(frame.header.type);
  if (!m_bGreeted || type == MsgType::Hello) {
    if (type != MsgType::Hello || m_bGreeted) {
      VLOG(warn, kFunc, "tcp {}: connection closed: a {} request {}", m_peer, TypeName(frame.header.type),
           m_bGreeted ? "repeats the handshake" : "before the handshake");
      return Verdict::Close;
    }
    return Hello(frame, out);
  }
  switch (type) {
    case MsgType::Define: Define(frame, out); break;
    case MsgType::Delete: Delete(frame, out); break;
    case MsgType::Read: Read(frame, out); break;
    case MsgType::Write: Write(frame, out); break;
    case MsgType::KeepAlive:
      if (DecodeEmpty(frame.body) != Refusal::Ok) {
        VLOG(warn, kFunc, "tcp {}: keep-alive refused: {}", m_peer, ToText(Refusal::TrailingBytes));
        Refuse(frame, AnswerOf(type), ERR_INVALID_PARAMS, out);
      } else {
        AppendEmptyAnswer(out, AnswerOf(type), frame.header.requestId, 0);
      }
      break;
    case MsgType::Hello: break;
  }
  return Verdict::Continue;
}

void TcpSession::Refuse(const Frame& frame, uint8_t answerType, uint32_t code, std::vector<uint8_t>& out) {
  AppendEmptyAnswer(out, answerType, frame.header.requestId, code);
}

TcpSession::Verdict TcpSession::Hello(const Frame& frame, std::vector<uint8_t>& out) {
  tagaccess::Hello hello;
  const Refusal r = DecodeHello(frame.body, hello);
  if (r != Refusal::Ok) {
    VLOG(warn, kFunc, "tcp {}: connection closed: a handshake with {}", m_peer, ToText(r));
    return Verdict::Close;
  }
  uint32_t status = 0;
  if (hello.version != kProtocolVersion) {
    VLOG(warn, kFunc, "tcp {}: connection closed: protocol version {}, this controller speaks {}", m_peer,
         hello.version, kProtocolVersion);
    status = ERR_VENDER_NOT_MATCHED;
  } else if (!m_token.empty() && !SameToken(hello.token, m_token)) {
    VLOG(warn, kFunc, "tcp {}: connection closed: {} token", m_peer, hello.token.empty() ? "no" : "a wrong");
    status = ERR_USER_NAME_OR_PASSWORD;
  }
  HelloAnswer answer;
  answer.idleLimitMs = m_limits.idleLimitMs;
  AppendHelloAnswer(out, frame.header.requestId, status, answer);
  if (status != 0) return Verdict::Close;
  m_bGreeted = true;
  VLOG(info, kFunc, "tcp {}: handshake done", m_peer);
  return Verdict::Continue;
}

void TcpSession::Define(const Frame& frame, std::vector<uint8_t>& out) {
  const uint8_t answerType = AnswerOf(MsgType::Define);
  DefineRequest request;
  const Refusal r = DecodeDefine(frame.body, request);
  if (r != Refusal::Ok) {
    VLOG(warn, kFunc, "tcp {}: define refused: {}", m_peer, ToText(r));
    return Refuse(frame, answerType, DefineRefusalCode(r), out);
  }
  if (m_lists.size() >= m_limits.maxListsPerConnection) {
    VLOG(warn, kFunc, "tcp {}: define refused: the connection holds {} lists, the limit", m_peer, m_lists.size());
    return Refuse(frame, answerType, ERR_PLC_DEFINE_FAILED, out);
  }
  if (m_tags + request.names.size() > m_limits.maxTagsPerConnection) {
    VLOG(warn, kFunc, "tcp {}: define refused: {} more tags than the {} a connection may hold", m_peer,
         m_tags + request.names.size() - m_limits.maxTagsPerConnection, m_limits.maxTagsPerConnection);
    return Refuse(frame, answerType, ERR_TOO_MANY_TAGS, out);
  }
  TcpList list;
  DefineAnswer answer;
  const uint32_t code = Resolve(request, list, answer);
  if (code != 0) return Refuse(frame, answerType, code, out);
  // Numbers of lists are never 0 and not reused while the connection lasts.
  while (m_nextList == 0 || m_lists.count(m_nextList) != 0) ++m_nextList;
  answer.list = m_nextList++;
  m_tags += list.entries.size();
  VLOG(debug, kFunc, "tcp {}: list {} defined with {} tags, {} bytes", m_peer, answer.list, list.entries.size(),
       list.bytes);
  m_lists.emplace(answer.list, std::move(list));
  AppendDefineAnswer(out, frame.header.requestId, answer);
}

uint32_t TcpSession::Resolve(const DefineRequest& request, TcpList& list, DefineAnswer& answer) {
  list.entries.reserve(request.names.size());
  answer.tags.reserve(request.names.size());
  uint64_t wire = 0;
  auto lock = m_handler.Lock();
  for (size_t i = 0; i < request.names.size(); ++i) {
    Location at;
    const ResolveResult r = m_handler.Image().Resolve(request.names[i], at);
    if (r != ResolveResult::Ok) {
      VLOG(warn, kFunc, "tcp {}: define refused: entry {} \"{}\": {}", m_peer, i, request.names[i], ToText(r));
      return ERR_EXIST_INVAILD_VAR;
    }
    const uint32_t width = request.widths[i] == kWidthOfController ? at.size : request.widths[i];
    if (wire + width > kMaxListValueBytes) {
      VLOG(warn, kFunc, "tcp {}: define refused: the values pass {} bytes at entry {}", m_peer, kMaxListValueBytes,
           i);
      return ERR_TOO_MANY_TAGS;
    }
    list.entries.push_back(TcpEntry{at.offset, at.size, width, static_cast<uint32_t>(wire), at.type});
    list.readable = list.readable && Readable(at.access);
    list.writable = list.writable && Writable(at.access);
    answer.tags.push_back(TagInfo{at.type->typeClass, width});
    wire += width;
  }
  list.bytes = static_cast<uint32_t>(wire);
  BuildRuns(list);
  return 0;
}

TcpList* TcpSession::ListOf(const Frame& frame, uint8_t answerType, std::vector<uint8_t>& out) {
  uint32_t id = 0;
  const Refusal r = DecodeListRequest(frame.body, id);
  if (r != Refusal::Ok) {
    VLOG(warn, kFunc, "tcp {}: {} refused: {}", m_peer, TypeName(frame.header.type), ToText(r));
    Refuse(frame, answerType, ERR_PLC_READ_WRITE_FAILED, out);
    return nullptr;
  }
  auto it = m_lists.find(id);
  if (it == m_lists.end()) {
    VLOG(warn, kFunc, "tcp {}: {} refused: no list {}", m_peer, TypeName(frame.header.type), id);
    Refuse(frame, answerType, ERR_PLC_INVALID_HANDLE, out);
    return nullptr;
  }
  return &it->second;
}

void TcpSession::Delete(const Frame& frame, std::vector<uint8_t>& out) {
  const uint8_t answerType = AnswerOf(MsgType::Delete);
  uint32_t id = 0;
  if (ListOf(frame, answerType, out) == nullptr) return;
  DecodeListRequest(frame.body, id);
  m_tags -= m_lists[id].entries.size();
  m_lists.erase(id);
  AppendEmptyAnswer(out, answerType, frame.header.requestId, 0);
}

void TcpSession::Read(const Frame& frame, std::vector<uint8_t>& out) {
  const uint8_t answerType = AnswerOf(MsgType::Read);
  const TcpList* list = ListOf(frame, answerType, out);
  if (list == nullptr) return;
  if (!list->readable) {
    VLOG(warn, kFunc, "tcp {}: read refused: the list holds a tag without read access", m_peer);
    return Refuse(frame, answerType, ERR_TAG_NO_ACCESS_RIGHTS, out);
  }
  // The answer's bytes start out zero: what a narrower value leaves is padding.
  const size_t at = AppendReadAnswerHead(out, frame.header.requestId, list->bytes);
  uint8_t* wire = out.data() + at;
  auto lock = m_handler.Lock();
  const uint8_t* image = m_handler.Image().Data();
  for (const TcpRun& run : list->runs) std::memcpy(wire + run.wire, image + run.image, run.length);
  for (uint32_t i : list->odd) {
    const TcpEntry& e = list->entries[i];
    std::memcpy(wire + e.wire, image + e.offset, std::min(e.width, e.size));
  }
}

void TcpSession::Write(const Frame& frame, std::vector<uint8_t>& out) {
  const uint8_t answerType = AnswerOf(MsgType::Write);
  WriteRequest request;
  const Refusal r = DecodeWrite(frame.body, request);
  if (r != Refusal::Ok) {
    VLOG(warn, kFunc, "tcp {}: write refused: {}", m_peer, ToText(r));
    return Refuse(frame, answerType, ERR_PLC_READ_WRITE_FAILED, out);
  }
  auto it = m_lists.find(request.list);
  if (it == m_lists.end()) {
    VLOG(warn, kFunc, "tcp {}: write refused: no list {}", m_peer, request.list);
    return Refuse(frame, answerType, ERR_PLC_INVALID_HANDLE, out);
  }
  const TcpList& list = it->second;
  if (request.values.size != list.bytes) {
    VLOG(warn, kFunc, "tcp {}: write refused: {} bytes for a list of {}", m_peer, request.values.size, list.bytes);
    return Refuse(frame, answerType, ERR_PLC_READ_WRITE_FAILED, out);
  }
  if (!list.writable) {
    VLOG(warn, kFunc, "tcp {}: write refused: the list holds a tag without write access", m_peer);
    return Refuse(frame, answerType, ERR_TAG_NO_ACCESS_RIGHTS, out);
  }
  {
    auto lock = m_handler.Lock();
    uint8_t* image = m_handler.Image().Data();
    const uint8_t* wire = request.values.data;
    for (const TcpRun& run : list.runs) std::memcpy(image + run.image, wire + run.wire, run.length);
    for (uint32_t i : list.odd) {
      const TcpEntry& e = list.entries[i];
      const uint32_t n = std::min(e.width, e.size);
      if (n != 0) std::memcpy(image + e.offset, wire + e.wire, n);
      TerminateIfCut(image + e.offset, n, e.width, e.type);
    }
  }
  AppendEmptyAnswer(out, answerType, frame.header.requestId, 0);
}

}  // namespace qorvarlok::controller
