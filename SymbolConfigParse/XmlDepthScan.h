// A scan of an XML text that measures how deeply the parser would nest its
// elements, before the parser (which recurses once per level) ever sees it, so
// that a hostile file of a million nested elements is refused instead of
// overflowing the stack.
//
// The scan is the parser's own reading, step for step, without the recursion:
// the same line-end normalisation, the same end at the first NUL, the same
// encoding choice (byte order mark, then the first declaration), the same
// multi-byte steps in UTF-8 mode, character references, comments, CDATA,
// declarations, attributes, end tags, and the same points at which it gives
// up. So it reaches exactly the elements the parser reaches, and a file is
// never refused for bytes the parser reads (GBK names in a file declared UTF-8
// included). The one text it refuses is one on which the parser would read
// past the end of its buffer: a multi-byte lead byte whose sequence runs over
// the end of the text.
#pragma once

#include <cstddef>
#include <string>

namespace qorvarlok::symbols {

// Deepest element nesting that a symbol file may have.
constexpr int kMaxElementDepth = 128;

struct XmlDepthResult {
  int maxDepth = 0;     // the root element is depth 1; elements the parser would begin, whatever follows
  bool refused = false; // a text on which the parser would read past its end
  std::string reason;   // why, when refused
  int line = 0;         // 1-based line of the refusal or of the first too deep element
};

// The file's bytes as read. Stops early, at the first element deeper than limit.
XmlDepthResult ScanXmlDepth(const std::string& text, int limit = kMaxElementDepth);

}  // namespace qorvarlok::symbols
