// The tag-access codec: every message round trips through the frame
// assembler; every malformed frame is refused with its reason; the client's
// answer checks; addresses.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "QorVarlok/ZelVarlok.h"
#include "TagAccessClient.h"
#include "TagAccessProtocol.h"

using namespace qorvarlok::tagaccess;

namespace {

// The frames of a byte stream, fed in pieces of `step` bytes.
std::vector<std::pair<Frame, std::vector<uint8_t>>> Assemble(const std::vector<uint8_t>& stream, bool requests,
                                                              size_t step, Refusal& last) {
  FrameAssembler in(requests, 16);
  std::vector<std::pair<Frame, std::vector<uint8_t>>> frames;
  size_t fed = 0;
  while (true) {
    Frame f;
    last = in.Next(f);
    if (last == Refusal::Ok) {
      frames.push_back({f, std::vector<uint8_t>(f.body.data, f.body.data + f.body.size)});
      continue;
    }
    if (last != Refusal::Truncated || fed == stream.size()) return frames;
    size_t room = 0;
    uint8_t* at = in.Space(room);
    const size_t n = std::min({room, step, stream.size() - fed});
    std::memcpy(at, stream.data() + fed, n);
    in.Commit(n);
    fed += n;
  }
}

Bytes View(const std::vector<uint8_t>& b) { return Bytes{b.data(), static_cast<uint32_t>(b.size())}; }

std::vector<uint8_t> Header(uint32_t length, uint8_t type, uint32_t id = 1, uint32_t status = 0) {
  std::vector<uint8_t> h(kHeaderSize);
  EncodeHeader(h.data(), FrameHeader{length, type, id, status});
  return h;
}

}  // namespace

TEST(TagAccessCodec, EveryMessageRoundTripsThroughTheAssemblerInAnyPieces) {
  std::vector<uint8_t> requests, answers;
  AppendHello(requests, 1, Hello{kMagic, kProtocolVersion, "sesame"});
  AppendDefine(requests, 2, DefineRequest{100, {"App.GVL.a", "App.GVL.grid[1,3].y"}, {4, kWidthOfController}});
  AppendListRequest(requests, MsgType::Delete, 3, 7);
  AppendListRequest(requests, MsgType::Read, 4, 8);
  const uint8_t values[] = {1, 2, 3, 4, 5};
  AppendWrite(requests, 5, 9, values, sizeof values);
  AppendKeepAlive(requests, 6);
  AppendHelloAnswer(answers, 1, 0, HelloAnswer{kProtocolVersion, kMaxBody, 60000});
  AppendDefineAnswer(answers, 2, DefineAnswer{12, {{7, 4}, {17, 81}}});
  AppendEmptyAnswer(answers, AnswerOf(MsgType::Delete), 3, ERR_PLC_INVALID_HANDLE);
  const size_t at = AppendReadAnswerHead(answers, 4, 5);
  std::memcpy(answers.data() + at, values, 5);
  for (size_t step : {size_t{1}, size_t{7}, size_t{4096}}) {
    Refusal last = Refusal::Ok;
    auto frames = Assemble(requests, true, step, last);
    ASSERT_EQ(last, Refusal::Truncated);
    ASSERT_EQ(frames.size(), 6u);
    for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i].first.header.requestId, i + 1);
    Hello hello;
    ASSERT_EQ(DecodeHello(View(frames[0].second), hello), Refusal::Ok);
    EXPECT_EQ(hello.token, "sesame");
    DefineRequest define;
    ASSERT_EQ(DecodeDefine(View(frames[1].second), define), Refusal::Ok);
    EXPECT_EQ(define.period, 100u);
    EXPECT_EQ(define.names, (std::vector<std::string>{"App.GVL.a", "App.GVL.grid[1,3].y"}));
    EXPECT_EQ(define.widths, (std::vector<uint32_t>{4, kWidthOfController}));
    uint32_t list = 0;
    EXPECT_EQ(DecodeListRequest(View(frames[2].second), list), Refusal::Ok);
    EXPECT_EQ(list, 7u);
    EXPECT_EQ(frames[3].first.header.type, static_cast<uint8_t>(MsgType::Read));
    WriteRequest write;
    ASSERT_EQ(DecodeWrite(View(frames[4].second), write), Refusal::Ok);
    EXPECT_EQ(std::vector<uint8_t>(write.values.data, write.values.data + write.values.size),
              std::vector<uint8_t>(values, values + 5));
    EXPECT_EQ(DecodeEmpty(View(frames[5].second)), Refusal::Ok);

    frames = Assemble(answers, false, step, last);
    ASSERT_EQ(frames.size(), 4u);
    HelloAnswer info;
    ASSERT_EQ(DecodeHelloAnswer(View(frames[0].second), info), Refusal::Ok);
    EXPECT_EQ(info.idleLimitMs, 60000u);
    DefineAnswer defined;
    ASSERT_EQ(DecodeDefineAnswer(View(frames[1].second), defined), Refusal::Ok);
    EXPECT_EQ(defined.list, 12u);
    EXPECT_EQ(defined.tags[1].type, 17);
    EXPECT_EQ(defined.tags[1].width, 81u);
    EXPECT_EQ(frames[2].first.header.status, ERR_PLC_INVALID_HANDLE);
    Bytes read;
    ASSERT_EQ(DecodeReadAnswer(View(frames[3].second), read), Refusal::Ok);
    EXPECT_EQ(read.size, 5u);
    EXPECT_EQ(read.data[4], 5);
  }
}

TEST(TagAccessCodec, MalformedFramesAndBodiesAreRefusedWithTheirReason) {
  struct HeaderCase {
    const char* what;
    std::vector<uint8_t> bytes;
    Refusal expected;
  };
  std::vector<uint8_t> reserved = Header(0, 6);
  reserved[5] = 1;
  const std::vector<HeaderCase> headers = {
      {"a length field of 4 GiB", Header(0xFFFFFFFFu, 4), Refusal::BodyTooLong},
      {"one byte beyond the bound", Header(kMaxBody + 1, 4), Refusal::BodyTooLong},
      {"garbage", {'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P', '/', '1', '.', '1', '\r', '\n'},
       Refusal::BodyTooLong},
      {"an unknown type", Header(0, 9), Refusal::BadType},
      {"an answer where a request belongs", Header(0, AnswerOf(MsgType::Read)), Refusal::BadType},
      {"reserved bytes", reserved, Refusal::BadReserved},
      {"a request with a status", Header(0, 6, 1, 5), Refusal::StatusOnRequest},
  };
  for (const HeaderCase& c : headers) {
    SCOPED_TRACE(c.what);
    Refusal last = Refusal::Ok;
    EXPECT_TRUE(Assemble(c.bytes, true, 3, last).empty());
    EXPECT_EQ(last, c.expected);
  }
  // Bodies inside sound frames: 32-bit words, then raw bytes, then a run of filler.
  auto body = [](std::vector<uint32_t> words, std::vector<uint8_t> tail = {}, size_t fill = 0) {
    std::vector<uint8_t> b;
    for (uint32_t w : words)
      for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(w >> (8 * i)));
    b.insert(b.end(), tail.begin(), tail.end());
    b.resize(b.size() + fill, 'q');
    return b;
  };
  DefineRequest d;
  DefineAnswer a;
  Hello h;
  WriteRequest w;
  uint32_t list = 0;
  struct BodyCase {
    const char* what;
    std::vector<uint8_t> bytes;
    std::function<Refusal(Bytes)> decode;
    Refusal expected;
  };
  const auto define = [&](Bytes b) { return DecodeDefine(b, d); };
  const std::vector<BodyCase> bodies = {
      {"a define of a million names", body({100, 1000000}), define, Refusal::TooManyNames},
      {"a name of 10 000 bytes", body({100, 1, 4}, {0x10, 0x27}, 10000), define, Refusal::NameTooLong},
      {"a count the body cannot hold", body({100, 5000}), define, Refusal::Truncated},
      {"a name with a NUL", body({100, 1, 4}, {3, 0, 'a', 0, 'b'}), define, Refusal::NameWithNul},
      {"an empty name", body({100, 1, 4}, {0, 0, 0}), define, Refusal::EmptyName},
      {"a wrong magic", {'H', 'T', 'T', 'P', 1, 0, 0, 0}, [&](Bytes b) { return DecodeHello(b, h); },
       Refusal::BadMagic},
      {"a token of 257 bytes", body({kMagic}, {1, 0, 1, 1}, 257), [&](Bytes b) { return DecodeHello(b, h); },
       Refusal::TokenTooLong},
      {"a byte too many", body({7}, {0}), [&](Bytes b) { return DecodeListRequest(b, list); }, Refusal::TrailingBytes},
      {"a write shorter than its count", body({7, 100}, {1}), [&](Bytes b) { return DecodeWrite(b, w); },
       Refusal::Truncated},
      {"an answer of a million tags", body({1, 1000000}), [&](Bytes b) { return DecodeDefineAnswer(b, a); },
       Refusal::TooManyNames},
  };
  for (const BodyCase& c : bodies) EXPECT_EQ(c.decode(View(c.bytes)), c.expected) << c.what;
}

TEST(TagAccessCodec, TheClientChecksAnswersAgainstItsListAndParsesAddresses) {
  ClientList list;
  list.names = {"a", "b"};
  EXPECT_EQ(ApplyDefineAnswer(DefineAnswer{3, {{7, 4}}}, {}, list), ERR_PLC_DEFINE_FAILED) << "one tag short";
  EXPECT_EQ(ApplyDefineAnswer(DefineAnswer{3, {{7, 4}, {7, 8}}}, {4, 4}, list), ERR_PLC_DEFINE_FAILED)
      << "a width the client did not ask for";
  EXPECT_EQ(ApplyDefineAnswer(DefineAnswer{3, {{7, kMaxListValueBytes}, {7, 1}}}, {}, list), ERR_TOO_MANY_TAGS);
  ASSERT_EQ(ApplyDefineAnswer(DefineAnswer{3, {{7, 4}, {17, 3}}}, {4, kWidthOfController}, list), 0u);
  EXPECT_EQ(list.values.size(), 7u);
  EXPECT_STREQ(list.records[1].FullName, "b");
  EXPECT_EQ(list.records[1].Type, 17);
  EXPECT_EQ(list.records[1].Value, list.values.data() + 4);
  std::vector<uint8_t> body = {7, 0, 0, 0, 1, 2, 3, 4, 'x', 'y', 0};
  EXPECT_EQ(ApplyReadAnswer(View(body), list), 0u);
  EXPECT_EQ(list.values[4], 'x');
  body[0] = 6;  // a count that lies
  EXPECT_EQ(ApplyReadAnswer(View(body), list), ERR_READ_FAILED);
  body = {6, 0, 0, 0, 1, 2, 3, 4, 5, 6};  // fewer bytes than the list
  EXPECT_EQ(ApplyReadAnswer(View(body), list), ERR_READ_FAILED);

  // "text", or "text=host:port" when it parses.
  for (const std::string c : {"plc1=plc1:4850", "127.0.0.1:502=127.0.0.1:502", "[::1]:7000=::1:7000", "[::1]=::1:4850",
                              "::1", "host:", "host:0", "host:65536", "host:12x", ":80", ""}) {
    const size_t eq = c.find('=');
    std::string host;
    uint16_t port = 0;
    EXPECT_EQ(ParseAddress(c.substr(0, eq), host, port), eq != std::string::npos) << c;
    if (eq != std::string::npos) {
      EXPECT_EQ(host + ":" + std::to_string(port), c.substr(eq + 1));
    }
  }
}
