// The controller's side of the tag-access protocol: any byte stream a peer
// may send, through the frame assembler into one connection's session, over
// a real process image. Whatever comes, the session answers or closes.
#include <spdlog/spdlog.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "CommandHandler.h"
#include "ProcessImage.h"
#include "TcpSession.h"
#include "TestProject.h"

using namespace qorvarlok::controller;
using qorvarlok::tagaccess::FrameAssembler;

namespace {

struct World {
  World() : config(ctltest::MakeProject()), image(ProcessImage::Build(*config)), handler(*image, 0x500000) {
    limits.maxListsPerConnection = 8;
    limits.maxTagsPerConnection = 4096;
  }
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config;
  std::unique_ptr<ProcessImage> image;
  CommandHandler handler;
  TcpLimits limits;
};

World& TheWorld() {
  static World* world = new World();
  return *world;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  spdlog::set_level(spdlog::level::off);  // refusals log a line each
  TheWorld();
  return 0;
}

// The first byte picks how the stream is cut into receives; the second whether a token is asked for.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  World& w = TheWorld();
  const size_t piece = 1 + data[0] % 64;
  TcpSession session(w.handler, w.limits, (data[1] & 1) != 0 ? "token" : "", "fuzz");
  data += 2, size -= 2;
  FrameAssembler in(true, 16);
  std::vector<uint8_t> out;
  while (size > 0) {
    size_t room = 0;
    uint8_t* at = in.Space(room);
    const size_t n = std::min({room, piece, size});
    std::memcpy(at, data, n);
    in.Commit(n);
    data += n, size -= n;
    size_t frames = 0;
    do {
      out.clear();
      if (session.Process(in, out, frames) == TcpSession::Verdict::Close) return 0;
    } while (frames > 0 && out.size() >= TcpSession::kOutHighWater);
  }
  return 0;
}
