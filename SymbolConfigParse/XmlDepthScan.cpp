#include "XmlDepthScan.h"

#include <cctype>
#include <cstring>
#include <strings.h>

namespace qorvarlok::symbols {

namespace {

bool IsSpace(unsigned char c) { return std::isspace(c) != 0 || c == '\n' || c == '\r'; }
// Letters as the parser tells them: every byte from 127 up counts as one.
bool IsNameStart(unsigned char c) { return c >= 127 || std::isalpha(c) != 0 || c == '_'; }
bool IsNameChar(unsigned char c) {
  return c >= 127 || std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.' || c == ':';
}

class Scanner {
 public:
  Scanner(const char* data, size_t length, int limit)
      : m_d(reinterpret_cast<const unsigned char*>(data)), m_n(length), m_limit(limit) {}

  XmlDepthResult Run() {
    if (m_n >= 3 && m_d[0] == 0xEF && m_d[1] == 0xBB && m_d[2] == 0xBF) {
      m_utf8 = true;
      m_modeKnown = true;
    }
    while (m_i < m_n && !Done()) Content();
    return m_result;
  }

 private:
  bool Done() const { return m_result.refused || m_result.maxDepth > m_limit; }

  int LineAt(size_t pos) const {
    int line = 1;
    for (size_t k = 0; k < pos && k < m_n; ++k)
      if (m_d[k] == '\n') ++line;
    return line;
  }

  void Refuse(const char* reason, size_t pos) {
    if (m_result.refused) return;
    m_result.refused = true;
    m_result.reason = reason;
    m_result.line = LineAt(pos);
  }

  bool StartsWith(size_t pos, const char* text, bool ignoreCase) const {
    const size_t len = std::strlen(text);
    if (pos + len > m_n) return false;
    for (size_t k = 0; k < len; ++k) {
      unsigned char a = m_d[pos + k];
      unsigned char b = static_cast<unsigned char>(text[k]);
      if (ignoreCase) {
        a = static_cast<unsigned char>(std::tolower(a));
        b = static_cast<unsigned char>(std::tolower(b));
      }
      if (a != b) return false;
    }
    return true;
  }

  // In UTF-8 mode the parser reads a lead byte and its continuation bytes as
  // one character, whatever they are. A markup byte in that place would be
  // read by it as text and by us as markup: refuse.
  void CheckLead(size_t pos, const char* markup) {
    if (!m_utf8 || m_d[pos] < 0xC0) return;
    const size_t more = m_d[pos] <= 0xDF ? 1 : (m_d[pos] <= 0xEF ? 2 : 3);
    for (size_t k = 1; k <= more && pos + k < m_n; ++k) {
      if (m_d[pos + k] != 0 && std::strchr(markup, m_d[pos + k]) != nullptr) {
        Refuse("a multi-byte character swallows a markup character", pos);
        return;
      }
    }
  }

  // A character reference "&#...;" is read by the parser up to the next ';'.
  // A markup byte inside that span would be swallowed: refuse. The span's end
  // is remembered, so a run of references stays linear.
  void CheckReference(size_t pos) {
    if (pos + 1 >= m_n || m_d[pos + 1] != '#') return;
    if (pos < m_refSpanEnd) {
      if (m_refSpanBad) Refuse("a character reference swallows a markup character", pos);
      return;
    }
    size_t k = pos + 2;
    while (k < m_n && m_d[k] != ';' && std::strchr("<>\"'", m_d[k]) == nullptr) ++k;
    m_refSpanEnd = k;
    m_refSpanBad = k < m_n && m_d[k] != ';';
    if (m_refSpanBad) Refuse("a character reference swallows a markup character", pos);
  }

  // Skips to just behind the terminator, byte by byte.
  void SkipPast(const char* terminator, const char* leadMarkup) {
    const size_t len = std::strlen(terminator);
    while (m_i < m_n && !Done()) {
      if (leadMarkup != nullptr) CheckLead(m_i, leadMarkup);
      if (StartsWith(m_i, terminator, false)) {
        m_i += len;
        return;
      }
      ++m_i;
    }
  }

  void SkipSpace() {
    while (m_i < m_n && IsSpace(m_d[m_i])) ++m_i;
  }

  // A quoted value; m_i stands on the opening quote.
  void Quoted() {
    const unsigned char quote = m_d[m_i++];
    const char markup[2] = {static_cast<char>(quote), 0};
    while (m_i < m_n && !Done()) {
      CheckLead(m_i, markup);
      if (m_d[m_i] == '&') CheckReference(m_i);
      if (m_d[m_i] == quote) {
        ++m_i;
        return;
      }
      ++m_i;
    }
  }

  // name = value, as the parser reads an attribute; false where it would fail.
  bool Attribute(std::string* value) {
    SkipSpace();
    if (m_i >= m_n || !IsNameStart(m_d[m_i])) return false;
    while (m_i < m_n && IsNameChar(m_d[m_i])) ++m_i;
    SkipSpace();
    if (m_i >= m_n || m_d[m_i] != '=') return false;
    ++m_i;
    SkipSpace();
    if (m_i >= m_n) return false;
    const size_t start = m_i + 1;
    if (m_d[m_i] == '"' || m_d[m_i] == '\'') {
      Quoted();
      if (value != nullptr && m_i > start) value->assign(reinterpret_cast<const char*>(m_d + start), m_i - 1 - start);
      return true;
    }
    while (m_i < m_n && !IsSpace(m_d[m_i]) && m_d[m_i] != '/' && m_d[m_i] != '>') {
      if (m_d[m_i] == '"' || m_d[m_i] == '\'') return false;
      ++m_i;
    }
    return true;
  }

  // "<?xml ... >": only version, encoding and standalone have quoted values.
  void Declaration(bool topLevel) {
    m_i += 5;
    std::string encoding;
    bool sawEncoding = false;
    while (m_i < m_n && !Done()) {
      if (m_d[m_i] >= 0x80) {
        Refuse("non-ASCII byte in the XML declaration", m_i);
        return;
      }
      if (m_d[m_i] == '>') {
        ++m_i;
        break;
      }
      SkipSpace();
      if (m_i >= m_n) break;
      const bool isEncoding = StartsWith(m_i, "encoding", true);
      if (StartsWith(m_i, "version", true) || isEncoding || StartsWith(m_i, "standalone", true)) {
        std::string value;
        if (!Attribute(&value)) {
          m_i = m_n;  // the parser stops here; nothing behind it is read
          return;
        }
        if (isEncoding) {
          encoding = value;
          sawEncoding = true;
        }
      } else {
        while (m_i < m_n && m_d[m_i] != '>' && !IsSpace(m_d[m_i])) ++m_i;
      }
    }
    if (topLevel && !m_modeKnown) {
      m_modeKnown = true;
      const char* enc = encoding.c_str();
      m_utf8 = !sawEncoding || encoding.empty() || strncasecmp(enc, "UTF-8", 5) == 0 || strncasecmp(enc, "UTF8", 4) == 0;
    }
  }

  void StartTag() {
    ++m_depth;
    if (m_depth > m_result.maxDepth) {
      m_result.maxDepth = m_depth;
      if (m_depth > m_limit) {
        m_result.line = LineAt(m_i);
        return;
      }
    }
    ++m_i;  // the '<'
    while (m_i < m_n && IsNameChar(m_d[m_i])) ++m_i;
    bool afterEquals = false;
    while (m_i < m_n && !Done()) {
      const unsigned char c = m_d[m_i];
      if (afterEquals && (c == '"' || c == '\'')) {
        Quoted();
        afterEquals = false;
        continue;
      }
      if (c == '>') {
        ++m_i;
        return;
      }
      if (c == '/' && m_i + 1 < m_n && m_d[m_i + 1] == '>') {
        m_i += 2;
        --m_depth;
        return;
      }
      if (c == '=') {
        afterEquals = true;
      } else if (IsSpace(c) || (m_utf8 && c >= 0xEF)) {
        // white space, and in UTF-8 mode the byte order marks the parser skips with it
      } else {
        afterEquals = false;
      }
      ++m_i;
    }
  }

  void Content() {
    const unsigned char c = m_d[m_i];
    if (c != '<') {
      if (m_depth > 0) {
        CheckLead(m_i, "<");
        if (c == '&') CheckReference(m_i);
      }
      ++m_i;
      return;
    }
    if (StartsWith(m_i, "<?xml", true)) {
      Declaration(m_depth == 0);
    } else if (StartsWith(m_i, "<!--", false)) {
      m_i += 4;
      SkipPast("-->", "->");
    } else if (StartsWith(m_i, "<![CDATA[", false)) {
      m_i += 9;
      SkipPast("]]>", ">");
    } else if (m_i + 1 < m_n && m_d[m_i + 1] == '/') {
      if (m_depth > 0) --m_depth;
      SkipPast(">", nullptr);
    } else if (m_i + 1 < m_n && IsNameStart(m_d[m_i + 1])) {
      if (m_depth == 0 && !m_modeKnown) m_modeKnown = true;  // no declaration before the root
      StartTag();
    } else {
      SkipPast(">", nullptr);
    }
  }

  const unsigned char* m_d;
  size_t m_n;
  int m_limit;
  size_t m_i = 0;
  int m_depth = 0;
  bool m_utf8 = false;
  bool m_modeKnown = false;
  size_t m_refSpanEnd = 0;
  bool m_refSpanBad = false;
  XmlDepthResult m_result;
};

}  // namespace

XmlDepthResult ScanXmlDepth(const char* data, size_t length, int limit) {
  if (data == nullptr) return XmlDepthResult();
  return Scanner(data, length, limit).Run();
}

}  // namespace qorvarlok::symbols
