// A byte scan of an XML text that measures how deeply its elements nest,
// before the parser (which recurses once per level) ever sees it, so that a
// hostile file of a million nested elements is refused instead of overflowing
// the stack.
//
// The scan reads the markup the way the parser does: comments up to "-->",
// CDATA up to "]]>", "<!" and "<?" constructs up to ">", the XML declaration
// with its quoted version, encoding and standalone values, quoted attribute
// values after "=", "/>" and "</" as closings. Where the parser could read a
// construct differently (a multi-byte lead byte or a character reference that
// would swallow a markup character), the scan refuses the text instead of
// guessing.
#pragma once

#include <cstddef>
#include <string>

namespace qorvarlok::symbols {

// Deepest element nesting that a symbol file may have.
constexpr int kMaxElementDepth = 128;

struct XmlDepthResult {
  int maxDepth = 0;     // the root element is depth 1
  bool refused = false; // a construct the scan cannot vouch for
  std::string reason;   // why, when refused
  int line = 0;         // 1-based line of the refusal or of the first too deep element
};

// Stops early, at the first element deeper than limit.
XmlDepthResult ScanXmlDepth(const char* data, size_t length, int limit = kMaxElementDepth);

}  // namespace qorvarlok::symbols
