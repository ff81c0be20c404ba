// The nesting scan against the XML parser it guards, on the same bytes, loaded
// as the reader loads a symbol file. They must agree on every input: the scan
// reaches exactly as deep as the parser builds its elements, whether the
// parser reads the text or gives up in it. A text the scan refuses (one the
// parser would read past its buffer) is given to the parser with NULs behind
// its end, where that reading stops harmlessly: the depths agree there too.
#include <tinyxml.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "XmlDepthScan.h"

namespace {

int ElementDepth(const TiXmlNode* node) {
  int deepest = 0;
  for (const TiXmlNode* c = node->FirstChild(); c != nullptr; c = c->NextSibling()) {
    const int below = (c->ToElement() != nullptr ? 1 : 0) + ElementDepth(c);
    if (below > deepest) deepest = below;
  }
  return deepest;
}

// The parser's own loading of a file, into a buffer with room behind its end.
std::string Padded(const uint8_t* data, size_t size) {
  std::string text;
  for (size_t i = 0; i < size && data[i] != 0; ++i) {
    if (data[i] == '\r' && i + 1 < size && data[i + 1] == '\n') continue;
    text.push_back(data[i] == '\r' ? '\n' : static_cast<char>(data[i]));
  }
  return text + std::string(8, '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const auto scan = qorvarlok::symbols::ScanXmlDepth(std::string(reinterpret_cast<const char*>(data), size), 1 << 30);
  TiXmlDocument document;
  if (scan.refused) {
    document.Parse(Padded(data, size).c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
  } else {
    std::FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (file == nullptr) return 0;
    document.LoadFile(file, TIXML_ENCODING_UNKNOWN);
    std::fclose(file);
  }
  const int built = ElementDepth(&document);
  if (built != scan.maxDepth) {
    std::fprintf(stderr, "the scan says depth %d%s, the parser built %d (%s)\n", scan.maxDepth,
                 scan.refused ? " and refuses" : "", built, document.Error() ? document.ErrorDesc() : "read");
    std::abort();
  }
  return 0;
}
