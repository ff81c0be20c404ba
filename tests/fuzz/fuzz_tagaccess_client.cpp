// The client's side of the tag-access protocol: any byte stream a server may
// send, through the frame assembler and the answer checks of the client
// library, into a list laid out by the last define answer.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "TagAccessClient.h"

using namespace qorvarlok::tagaccess;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t piece = 1 + data[0] % 64;
  ++data, --size;
  FrameAssembler in(false, 16);
  ClientList list;
  while (size > 0) {
    size_t room = 0;
    uint8_t* at = in.Space(room);
    const size_t n = std::min({room, piece, size});
    std::memcpy(at, data, n);
    in.Commit(n);
    data += n, size -= n;
    Frame f;
    Refusal r;
    while ((r = in.Next(f)) == Refusal::Ok) {
      switch (static_cast<MsgType>(f.header.type & ~kAnswerBit & 0xFF)) {
        case MsgType::Hello: {
          HelloAnswer h;
          DecodeHelloAnswer(f.body, h);
          break;
        }
        case MsgType::Define: {
          DefineAnswer a;
          if (DecodeDefineAnswer(f.body, a) != Refusal::Ok) break;
          // As the client asked: one name per tag, its own width for every other one.
          ClientList next;
          std::vector<uint32_t> widths;
          for (size_t i = 0; i < a.tags.size(); ++i) {
            next.names.push_back("t" + std::to_string(i));
            widths.push_back(i % 2 == 0 ? kWidthOfController : a.tags[i].width);
          }
          if (ApplyDefineAnswer(a, widths, next) == 0) list = std::move(next);
          break;
        }
        case MsgType::Read:
          if (ApplyReadAnswer(f.body, list) == 0 && !list.records.empty()) {
            volatile uint8_t sink = 0;
            for (const ZtaTagValue& v : list.records)
              if (v.ValueLength > 0) sink = sink + static_cast<const uint8_t*>(v.Value)[v.ValueLength - 1];
          }
          break;
        default:
          DecodeEmpty(f.body);
      }
    }
    if (r != Refusal::Truncated) return 0;  // the client closes such a connection
  }
  return 0;
}
