#include "TagAccessProtocol.h"

#include <cstring>

namespace qorvarlok::tagaccess {

namespace {

template <typename T>
void Put(std::vector<uint8_t>& out, T v) {
  uint8_t bytes[sizeof(T)];
  for (size_t i = 0; i < sizeof(T); ++i) bytes[i] = static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * i));
  out.insert(out.end(), bytes, bytes + sizeof(T));
}

template <typename T>
T Get(const uint8_t* p) {
  uint64_t v = 0;
  for (size_t i = 0; i < sizeof(T); ++i) v |= uint64_t{p[i]} << (8 * i);
  return static_cast<T>(v);
}

template <typename T>
void Set(uint8_t* p, T v) {
  for (size_t i = 0; i < sizeof(T); ++i) p[i] = static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * i));
}

// A bounded cursor over a body: every read checks what is left first.
class Reader {
 public:
  explicit Reader(Bytes b) : m_p(b.data), m_left(b.size) {}
  template <typename T>
  bool Read(T& v) {
    if (m_left < sizeof(T)) return false;
    v = Get<T>(m_p);
    m_p += sizeof(T);
    m_left -= sizeof(T);
    return true;
  }
  bool Take(uint32_t n, Bytes& out) {
    if (m_left < n) return false;
    out = Bytes{m_p, n};
    m_p += n;
    m_left -= n;
    return true;
  }
  uint32_t Left() const { return m_left; }

 private:
  const uint8_t* m_p;
  uint32_t m_left;
};

Refusal End(const Reader& r) { return r.Left() == 0 ? Refusal::Ok : Refusal::TrailingBytes; }

// Header with a body length to be patched by Finish.
size_t Begin(std::vector<uint8_t>& out, uint8_t type, uint32_t id, uint32_t status) {
  const size_t at = out.size();
  out.resize(at + kHeaderSize);
  EncodeHeader(out.data() + at, FrameHeader{0, type, id, status});
  return at;
}

void Finish(std::vector<uint8_t>& out, size_t at) {
  Set<uint32_t>(out.data() + at, static_cast<uint32_t>(out.size() - at - kHeaderSize));
}

}  // namespace

bool IsRequestType(uint8_t type) { return type >= 1 && type <= 6; }
bool IsAnswerType(uint8_t type) { return (type & kAnswerBit) != 0 && IsRequestType(type & ~kAnswerBit & 0xFF); }

const char* TypeName(uint8_t type) {
  switch (type & ~kAnswerBit & 0xFF) {
    case 1: return "hello";
    case 2: return "define";
    case 3: return "delete";
    case 4: return "read";
    case 5: return "write";
    case 6: return "keep-alive";
  }
  return "unknown";
}

const char* ToText(Refusal r) {
  switch (r) {
    case Refusal::Ok: return "ok";
    case Refusal::BodyTooLong: return "a body length beyond the bound";
    case Refusal::BadType: return "an unknown message type";
    case Refusal::BadReserved: return "reserved header bytes not zero";
    case Refusal::Truncated: return "a truncated body";
    case Refusal::TrailingBytes: return "bytes after the body's fields";
    case Refusal::BadMagic: return "a wrong magic";
    case Refusal::TokenTooLong: return "a token beyond the bound";
    case Refusal::TooManyNames: return "more names than a list may hold";
    case Refusal::NameTooLong: return "a name beyond the bound";
    case Refusal::EmptyName: return "an empty name";
    case Refusal::NameWithNul: return "a name with a NUL byte";
    case Refusal::StatusOnRequest: return "a request with a status";
  }
  return "unknown";
}

void EncodeHeader(uint8_t* out, const FrameHeader& h) {
  Set<uint32_t>(out, h.bodyLength);
  out[4] = h.type;
  out[5] = 0;
  Set<uint16_t>(out + 6, 0);
  Set<uint32_t>(out + 8, h.requestId);
  Set<uint32_t>(out + 12, h.status);
}

Refusal DecodeHeader(const uint8_t* in, bool requests, FrameHeader& h) {
  h.bodyLength = Get<uint32_t>(in);
  h.type = in[4];
  h.requestId = Get<uint32_t>(in + 8);
  h.status = Get<uint32_t>(in + 12);
  if (h.bodyLength > kMaxBody) return Refusal::BodyTooLong;
  if (requests ? !IsRequestType(h.type) : !IsAnswerType(h.type)) return Refusal::BadType;
  if (in[5] != 0 || Get<uint16_t>(in + 6) != 0) return Refusal::BadReserved;
  if (requests && h.status != 0) return Refusal::StatusOnRequest;
  return Refusal::Ok;
}

// ------------------------------------------------------------------ encoders
void AppendHello(std::vector<uint8_t>& out, uint32_t id, const Hello& m) {
  const size_t at = Begin(out, static_cast<uint8_t>(MsgType::Hello), id, 0);
  Put<uint32_t>(out, m.magic);
  Put<uint16_t>(out, m.version);
  Put<uint16_t>(out, static_cast<uint16_t>(m.token.size()));
  out.insert(out.end(), m.token.begin(), m.token.end());
  Finish(out, at);
}

void AppendHelloAnswer(std::vector<uint8_t>& out, uint32_t id, uint32_t status, const HelloAnswer& m) {
  const size_t at = Begin(out, AnswerOf(MsgType::Hello), id, status);
  if (status == 0) {
    Put<uint16_t>(out, m.version);
    Put<uint16_t>(out, 0);
    Put<uint32_t>(out, m.maxBody);
    Put<uint32_t>(out, m.idleLimitMs);
  }
  Finish(out, at);
}

void AppendDefine(std::vector<uint8_t>& out, uint32_t id, const DefineRequest& m) {
  const size_t at = Begin(out, static_cast<uint8_t>(MsgType::Define), id, 0);
  Put<uint32_t>(out, m.period);
  Put<uint32_t>(out, static_cast<uint32_t>(m.names.size()));
  for (size_t i = 0; i < m.names.size(); ++i) {
    Put<uint32_t>(out, i < m.widths.size() ? m.widths[i] : kWidthOfController);
    Put<uint16_t>(out, static_cast<uint16_t>(m.names[i].size()));
    out.insert(out.end(), m.names[i].begin(), m.names[i].end());
  }
  Finish(out, at);
}

void AppendDefineAnswer(std::vector<uint8_t>& out, uint32_t id, const DefineAnswer& m) {
  const size_t at = Begin(out, AnswerOf(MsgType::Define), id, 0);
  Put<uint32_t>(out, m.list);
  Put<uint32_t>(out, static_cast<uint32_t>(m.tags.size()));
  for (const TagInfo& t : m.tags) {
    Put<int32_t>(out, t.type);
    Put<uint32_t>(out, t.width);
  }
  Finish(out, at);
}

void AppendListRequest(std::vector<uint8_t>& out, MsgType type, uint32_t id, uint32_t list) {
  const size_t at = Begin(out, static_cast<uint8_t>(type), id, 0);
  Put<uint32_t>(out, list);
  Finish(out, at);
}

void AppendWrite(std::vector<uint8_t>& out, uint32_t id, uint32_t list, const uint8_t* values, uint32_t size) {
  const size_t at = Begin(out, static_cast<uint8_t>(MsgType::Write), id, 0);
  Put<uint32_t>(out, list);
  Put<uint32_t>(out, size);
  if (size != 0) out.insert(out.end(), values, values + size);
  Finish(out, at);
}

void AppendKeepAlive(std::vector<uint8_t>& out, uint32_t id) {
  Begin(out, static_cast<uint8_t>(MsgType::KeepAlive), id, 0);
}

void AppendEmptyAnswer(std::vector<uint8_t>& out, uint8_t answerType, uint32_t id, uint32_t status) {
  Begin(out, answerType, id, status);
}

size_t AppendReadAnswerHead(std::vector<uint8_t>& out, uint32_t id, uint32_t size) {
  const size_t at = out.size();
  out.resize(at + kHeaderSize + 4 + size_t{size});
  EncodeHeader(out.data() + at, FrameHeader{4 + size, AnswerOf(MsgType::Read), id, 0});
  Set<uint32_t>(out.data() + at + kHeaderSize, size);
  return at + kHeaderSize + 4;
}

// ------------------------------------------------------------------ decoders
Refusal DecodeHello(Bytes body, Hello& m) {
  Reader r(body);
  uint16_t tokenLength = 0;
  if (!r.Read(m.magic)) return Refusal::Truncated;
  if (m.magic != kMagic) return Refusal::BadMagic;
  if (!r.Read(m.version) || !r.Read(tokenLength)) return Refusal::Truncated;
  if (tokenLength > kMaxTokenLength) return Refusal::TokenTooLong;
  Bytes token;
  if (!r.Take(tokenLength, token)) return Refusal::Truncated;
  m.token.assign(reinterpret_cast<const char*>(token.data), token.size);
  return End(r);
}

Refusal DecodeHelloAnswer(Bytes body, HelloAnswer& m) {
  Reader r(body);
  uint16_t reserved = 0;
  if (!r.Read(m.version) || !r.Read(reserved) || !r.Read(m.maxBody) || !r.Read(m.idleLimitMs))
    return Refusal::Truncated;
  return End(r);
}

Refusal DecodeDefine(Bytes body, DefineRequest& m) {
  Reader r(body);
  uint32_t count = 0;
  if (!r.Read(m.period) || !r.Read(count)) return Refusal::Truncated;
  if (count > kMaxNamesPerList) return Refusal::TooManyNames;
  // Each name takes at least 7 bytes: never reserve for more names than the body can hold.
  if (count > r.Left() / 7) return Refusal::Truncated;
  m.names.clear();
  m.widths.clear();
  m.names.reserve(count);
  m.widths.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t width = 0;
    uint16_t length = 0;
    Bytes name;
    if (!r.Read(width) || !r.Read(length)) return Refusal::Truncated;
    if (length == 0) return Refusal::EmptyName;
    if (length > kMaxNameLength) return Refusal::NameTooLong;
    if (!r.Take(length, name)) return Refusal::Truncated;
    if (std::memchr(name.data, 0, name.size) != nullptr) return Refusal::NameWithNul;
    m.names.emplace_back(reinterpret_cast<const char*>(name.data), name.size);
    m.widths.push_back(width);
  }
  return End(r);
}

Refusal DecodeDefineAnswer(Bytes body, DefineAnswer& m) {
  Reader r(body);
  uint32_t count = 0;
  if (!r.Read(m.list) || !r.Read(count)) return Refusal::Truncated;
  if (count > kMaxNamesPerList) return Refusal::TooManyNames;
  if (count > r.Left() / 8) return Refusal::Truncated;
  m.tags.resize(count);
  for (TagInfo& t : m.tags) {
    if (!r.Read(t.type) || !r.Read(t.width)) return Refusal::Truncated;
  }
  return End(r);
}

Refusal DecodeListRequest(Bytes body, uint32_t& list) {
  Reader r(body);
  if (!r.Read(list)) return Refusal::Truncated;
  return End(r);
}

Refusal DecodeReadAnswer(Bytes body, Bytes& values) {
  Reader r(body);
  uint32_t size = 0;
  if (!r.Read(size) || !r.Take(size, values)) return Refusal::Truncated;
  return End(r);
}

Refusal DecodeWrite(Bytes body, WriteRequest& m) {
  Reader r(body);
  uint32_t size = 0;
  if (!r.Read(m.list) || !r.Read(size) || !r.Take(size, m.values)) return Refusal::Truncated;
  return End(r);
}

Refusal DecodeEmpty(Bytes body) { return body.size == 0 ? Refusal::Ok : Refusal::TrailingBytes; }

// ----------------------------------------------------------- frame assembly
FrameAssembler::FrameAssembler(bool requests, size_t initialCapacity)
    : m_bRequests(requests),
      m_initial(initialCapacity < kHeaderSize ? kHeaderSize : initialCapacity),
      m_buffer(m_initial) {}

uint8_t* FrameAssembler::Space(size_t& available) {
  if (m_begin == m_end) {
    m_begin = m_end = 0;
    // A frame of many megabytes does not keep its room once it is done.
    if (m_buffer.size() > 4 * m_initial) std::vector<uint8_t>(m_initial).swap(m_buffer);
  } else if (m_begin != 0 && m_buffer.size() - m_begin < m_need) {
    // Move the frame begun to the front, so that it fits once grown.
    std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
  }
  // m_need has passed the header's bound check, so this growth is bounded.
  if (m_buffer.size() - m_begin < m_need) m_buffer.resize(m_begin + m_need);
  // Full only when a whole frame waits that the caller has not taken yet.
  if (m_end == m_buffer.size()) m_buffer.resize(m_end + kHeaderSize);
  available = m_buffer.size() - m_end;
  return m_buffer.data() + m_end;
}

Refusal FrameAssembler::Next(Frame& frame) {
  const size_t have = m_end - m_begin;
  if (have < kHeaderSize) {
    m_need = kHeaderSize;
    return Refusal::Truncated;
  }
  const Refusal r = DecodeHeader(m_buffer.data() + m_begin, m_bRequests, frame.header);
  if (r != Refusal::Ok) return r;
  m_need = kHeaderSize + size_t{frame.header.bodyLength};
  if (have < m_need) return Refusal::Truncated;
  frame.body = Bytes{m_buffer.data() + m_begin + kHeaderSize, frame.header.bodyLength};
  m_begin += m_need;
  m_need = kHeaderSize;
  return Refusal::Ok;
}

}  // namespace qorvarlok::tagaccess
