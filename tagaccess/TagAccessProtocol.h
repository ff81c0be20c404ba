// The tag-access protocol between ZelTagAccess and the controller's TCP
// server: one codec for both sides.
//
// A frame is a 16-byte header and a body, all little-endian:
//   u32 bodyLength | u8 type | u8 0 | u16 0 | u32 requestId | u32 status
// An answer repeats the request's id, has the request's type | 0x80, and
// carries a code of the client library's table in status (0: done; then the
// body follows). Requests have status 0. Every length a peer sends is checked
// against the bounds below before anything is allocated for it.
//
// Bodies (u16/u32 little-endian, names are bytes without a terminator):
//   Hello      magic u32 "QVTA", version u16, token length u16, token
//   Hello ans. version u16, 0 u16, max body u32, idle limit ms u32
//   Define     period u32, count u32, count x (width u32, name length u16, name)
//   Define ans list u32, count u32, count x (type code i32, width u32)
//   Delete     list u32                         answer: empty
//   Read       list u32                         answer: byte count u32, bytes
//   Write      list u32, byte count u32, bytes  answer: empty
//   KeepAlive  empty                            answer: empty
// A connection begins with Hello; whatever else comes first closes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ZelTagAccess.h"

namespace qorvarlok::tagaccess {

constexpr uint32_t kMagic = 0x41545651;  // the bytes "QVTA"
constexpr uint16_t kProtocolVersion = 1;
constexpr size_t kHeaderSize = 16;
// Bounds; a peer that oversteps one is refused before anything is allocated.
constexpr uint32_t kMaxBody = 16u * 1024 * 1024;
constexpr uint32_t kMaxTokenLength = 256;
constexpr uint32_t kMaxNameLength = 1024;
constexpr uint32_t kMaxNamesPerList = 65536;
// The values of a list travel in one frame: a write carries them behind its list and byte count.
constexpr uint32_t kWriteOverhead = 8;
constexpr uint32_t kMaxListValueBytes = kMaxBody - kWriteOverhead;
constexpr uint32_t kWidthOfController = 0xFFFFFFFFu;
static_assert(kMaxListValueBytes == ZTA_MAX_LIST_VALUE_BYTES, "the documented bound of a list");
static_assert(kWidthOfController == ZTA_WIDTH_OF_CONTROLLER, "the documented width");

enum class MsgType : uint8_t { Hello = 1, Define = 2, Delete = 3, Read = 4, Write = 5, KeepAlive = 6 };
constexpr uint8_t kAnswerBit = 0x80;
constexpr uint8_t AnswerOf(MsgType t) { return static_cast<uint8_t>(static_cast<uint8_t>(t) | kAnswerBit); }
bool IsRequestType(uint8_t type);
bool IsAnswerType(uint8_t type);
const char* TypeName(uint8_t type);

struct FrameHeader {
  uint32_t bodyLength = 0;
  uint8_t type = 0;
  uint32_t requestId = 0;
  uint32_t status = 0;
};

// Why a frame or a body is refused; Ok when it is not.
enum class Refusal {
  Ok,
  BodyTooLong,      // a length field beyond kMaxBody
  BadType,          // a type code the protocol does not have (or the wrong direction)
  BadReserved,      // reserved header bytes not 0
  Truncated,        // the body ends before its fields do
  TrailingBytes,    // the body goes on after its fields
  BadMagic,         // not this protocol
  TokenTooLong,
  TooManyNames,
  NameTooLong,
  EmptyName,
  NameWithNul,
  StatusOnRequest,  // a request with a status
};
const char* ToText(Refusal r);

void EncodeHeader(uint8_t* out, const FrameHeader& header);
// Reads the 16 header bytes; requests true checks a request type, false an answer type.
Refusal DecodeHeader(const uint8_t* in, bool requests, FrameHeader& header);

// ------------------------------------------------------------------ bodies
struct Hello {
  uint32_t magic = kMagic;
  uint16_t version = kProtocolVersion;
  std::string token;
};
struct HelloAnswer {
  uint16_t version = kProtocolVersion;
  uint32_t maxBody = kMaxBody;
  uint32_t idleLimitMs = 0;
};
struct DefineRequest {
  uint32_t period = 0;
  std::vector<std::string> names;
  std::vector<uint32_t> widths;  // one per name
};
struct TagInfo {
  int32_t type = 0;
  uint32_t width = 0;
};
struct DefineAnswer {
  uint32_t list = 0;
  std::vector<TagInfo> tags;
};
// A view of bytes inside a received body.
struct Bytes {
  const uint8_t* data = nullptr;
  uint32_t size = 0;
};
struct WriteRequest {
  uint32_t list = 0;
  Bytes values;
};

// Appends one whole frame (header and body) to out.
void AppendHello(std::vector<uint8_t>& out, uint32_t id, const Hello& m);
void AppendHelloAnswer(std::vector<uint8_t>& out, uint32_t id, uint32_t status, const HelloAnswer& m);
void AppendDefine(std::vector<uint8_t>& out, uint32_t id, const DefineRequest& m);
void AppendDefineAnswer(std::vector<uint8_t>& out, uint32_t id, const DefineAnswer& m);
void AppendListRequest(std::vector<uint8_t>& out, MsgType type, uint32_t id, uint32_t list);  // Delete, Read
void AppendWrite(std::vector<uint8_t>& out, uint32_t id, uint32_t list, const uint8_t* values, uint32_t size);
void AppendKeepAlive(std::vector<uint8_t>& out, uint32_t id);
// An answer without a body: a refusal (status not 0), or Delete, Write, KeepAlive done.
void AppendEmptyAnswer(std::vector<uint8_t>& out, uint8_t answerType, uint32_t id, uint32_t status);
// A read answer's header and byte count; the caller appends the bytes at the returned offset.
size_t AppendReadAnswerHead(std::vector<uint8_t>& out, uint32_t id, uint32_t size);

Refusal DecodeHello(Bytes body, Hello& m);
Refusal DecodeHelloAnswer(Bytes body, HelloAnswer& m);
Refusal DecodeDefine(Bytes body, DefineRequest& m);
Refusal DecodeDefineAnswer(Bytes body, DefineAnswer& m);
Refusal DecodeListRequest(Bytes body, uint32_t& list);
Refusal DecodeReadAnswer(Bytes body, Bytes& values);
Refusal DecodeWrite(Bytes body, WriteRequest& m);
Refusal DecodeEmpty(Bytes body);

// ---------------------------------------------------------- frame assembly
// Collects the bytes of a stream and hands out whole frames. The buffer grows
// only to the size of the frame being received, after its header has been
// checked against kMaxBody.
struct Frame {
  FrameHeader header;
  Bytes body;
};

class FrameAssembler {
 public:
  explicit FrameAssembler(bool requests, size_t initialCapacity = 64 * 1024);
  // Room for at least one byte at the end; receive into it, then Commit.
  uint8_t* Space(size_t& available);
  void Commit(size_t n) { m_end += n; }
  // Ok with a frame (valid until the next Space), Truncated when more bytes
  // are needed, or why the stream can be read no further.
  Refusal Next(Frame& frame);
  // Bytes of a frame begun but not complete.
  bool HasPartial() const { return m_end != m_begin; }
  size_t Buffered() const { return m_end - m_begin; }

 private:
  bool m_bRequests;
  size_t m_initial;
  std::vector<uint8_t> m_buffer;
  size_t m_begin = 0;
  size_t m_end = 0;
  size_t m_need = kHeaderSize;  // bytes the frame at m_begin needs in all
};

}  // namespace qorvarlok::tagaccess
