#include "XmlDepthScan.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace qorvarlok::symbols {

namespace {

constexpr size_t kNull = static_cast<size_t>(-1);  // where the parser gives up

enum class Encoding { Unknown, Utf8, Legacy };
enum class Kind { None, Declaration, Comment, CData, Unknown, Element };

// Bytes the parser takes as one character in UTF-8 mode, from the lead byte
// alone: it does not look at what follows.
size_t Utf8Step(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 1;
}

void AppendUtf8(unsigned long code, std::string* out) {
  const size_t length = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : code < 0x200000 ? 4 : 0;
  if (length == 0) return;  // the parser writes nothing for these
  static const unsigned char kFirstMark[5] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
  char bytes[4];
  for (size_t i = length - 1; i > 0; --i, code >>= 6) bytes[i] = static_cast<char>((code | 0x80) & 0xBF);
  bytes[0] = static_cast<char>(code | kFirstMark[length]);
  out->append(bytes, length);
}

class Scanner {
 public:
  Scanner(const std::string& text, int limit) : m_limit(limit) {
    for (int c = 0; c < 256; ++c) {  // the parser's classes, taken once in the locale in force
      const char ch = static_cast<char>(c);
      m_space[c] = std::isspace(c) != 0 || ch == '\n' || ch == '\r';
      m_alpha[c] = c < 127 ? std::isalpha(c) != 0 : true;
      m_alnum[c] = c < 127 ? std::isalnum(c) != 0 : true;
    }
    m_s = text.c_str(), m_n = text.size();
    if (std::memchr(m_s, '\r', m_n) == nullptr && std::memchr(m_s, '\0', m_n) == nullptr) return;
    // As the parser loads a file: the text ends at the first NUL, and CR LF
    // and a lone CR become LF.
    m_t.reserve(m_n);
    for (size_t i = 0; i < m_n && m_s[i] != '\0'; ++i) {
      if (m_s[i] == '\r') {
        m_t.push_back('\n');
        if (m_s[i + 1] == '\n') ++i;
      } else {
        m_t.push_back(m_s[i]);
      }
    }
    m_s = m_t.c_str(), m_n = m_t.size();
  }

  XmlDepthResult Run() {
    if (At(0) == '\xEF' && At(1) == '\xBB' && At(2) == '\xBF') m_enc = Encoding::Utf8;
    size_t p = SkipWhiteSpace(0);
    while (p != kNull && At(p) != '\0') {
      const Kind kind = Identify(p);
      if (kind == Kind::None) break;  // text at the top level ends the document
      std::string encoding;
      p = kind == Kind::Element ? Element(p) : Node(kind, p, &encoding);
      // The first declaration at the top level decides the encoding of what follows.
      if (m_enc == Encoding::Unknown && kind == Kind::Declaration) m_enc = EncodingNamed(encoding.c_str());
      p = SkipWhiteSpace(p);
    }
    return m_result;
  }

 private:
  // The scan, like the parser, looks no further than the text's terminating NUL.
  char At(size_t p) const { return m_s[p]; }
  bool IsWhiteSpace(char c) const { return m_space[static_cast<unsigned char>(c)]; }
  bool IsAlpha(char c) const { return m_alpha[static_cast<unsigned char>(c)]; }
  bool IsAlphaNum(char c) const { return m_alnum[static_cast<unsigned char>(c)]; }

  int LineAt(size_t p) const {
    int line = 1;
    for (size_t k = 0; k < p && k < m_n; ++k) line += m_s[k] == '\n';
    return line;
  }

  size_t Refuse(const char* reason, size_t p) {
    if (!m_result.refused) m_result.refused = true, m_result.reason = reason, m_result.line = LineAt(p);
    return kNull;
  }

  int ToLower(char c) const {
    const int v = c;  // signed, as the parser passes it
    if (m_enc == Encoding::Utf8) return v < 128 ? std::tolower(v) : v;
    return std::tolower(v);
  }

  // A prefix match; the parser calls it only where a character stands.
  bool Equal(size_t p, const char* tag, bool ignoreCase) const {
    for (; At(p) != '\0' && *tag != '\0'; ++p, ++tag) {
      if (ignoreCase ? ToLower(At(p)) != ToLower(*tag) : At(p) != *tag) break;
    }
    return *tag == '\0';
  }

  Encoding EncodingNamed(const char* name) const {
    if (*name == '\0') return Encoding::Utf8;
    const auto is = [name](const char* want) {
      const char* n = name;
      for (; *n != '\0' && *want != '\0' && std::tolower(*n) == std::tolower(*want); ++n, ++want) {
      }
      return *want == '\0';
    };
    return is("UTF-8") || is("UTF8") ? Encoding::Utf8 : Encoding::Legacy;
  }

  // EF BB BF, EF BF BE or EF BF BF; the parser reads no further than a mismatch.
  bool ByteOrderMark(size_t p) const {
    if (At(p) != '\xEF') return false;
    if (At(p + 1) == '\xBB') return At(p + 2) == '\xBF';
    return At(p + 1) == '\xBF' && (At(p + 2) == '\xBE' || At(p + 2) == '\xBF');
  }

  // Null when it starts at the end, as the parser's; else the first byte that
  // is no white space (nor, in UTF-8, a byte order mark).
  size_t SkipWhiteSpace(size_t p) const {
    if (p == kNull || At(p) == '\0') return kNull;
    while (At(p) != '\0') {
      if (m_enc == Encoding::Utf8 && ByteOrderMark(p)) {
        p += 3;
      } else if (IsWhiteSpace(At(p))) {
        ++p;
      } else {
        break;
      }
    }
    return p;
  }

  size_t ReadName(size_t p, std::string_view* name) const {
    const char first = At(p);
    if (first == '\0' || !(IsAlpha(first) || first == '_')) return kNull;
    const size_t start = p;
    for (char c = At(p); c != '\0' && (IsAlphaNum(c) || c == '_' || c == '-' || c == '.' || c == ':'); c = At(++p)) {
    }
    if (name != nullptr) *name = std::string_view(m_s + start, p - start);
    return p;
  }

  // "&#...;" runs to the next ';' wherever it stands, over markup too, and
  // must be all digits back to the '#' or 'x'; a named entity or a lone '&'
  // is what it is.
  size_t Entity(size_t p, std::string* value) {
    if (At(p + 1) == '#' && At(p + 2) != '\0') {
      const bool hex = At(p + 2) == 'x';
      if (hex && At(p + 3) == '\0') return kNull;
      const char* found = std::strchr(m_s + p + (hex ? 3 : 2), ';');
      if (found == nullptr) return kNull;
      const size_t semicolon = static_cast<size_t>(found - m_s);
      unsigned long code = 0;
      unsigned int mult = 1;  // 32 bits, wrapping, as the parser's
      for (size_t q = semicolon - 1; At(q) != (hex ? 'x' : '#'); --q, mult *= hex ? 16 : 10) {
        const char c = At(q);
        unsigned int digit = 0;
        if (c >= '0' && c <= '9') digit = static_cast<unsigned int>(c - '0');
        else if (hex && c >= 'a' && c <= 'f') digit = static_cast<unsigned int>(c - 'a' + 10);
        else if (hex && c >= 'A' && c <= 'F') digit = static_cast<unsigned int>(c - 'A' + 10);
        else return kNull;
        code += mult * digit;
      }
      if (value != nullptr) {
        if (m_enc == Encoding::Utf8) AppendUtf8(code, value);
        else value->push_back(static_cast<char>(code));
      }
      return semicolon + 1;
    }
    static const std::pair<const char*, char> kEntities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    for (const auto& [text, c] : kEntities) {
      if (std::strncmp(m_s + p, text, std::strlen(text)) == 0) {
        if (value != nullptr) value->push_back(c);
        return p + std::strlen(text);
      }
    }
    return p + 1;  // the '&' is dropped
  }

  size_t GetChar(size_t p, std::string* value) {
    const size_t step = m_enc == Encoding::Utf8 ? Utf8Step(static_cast<unsigned char>(At(p))) : 1;
    if (step == 1) {
      if (At(p) == '&') return Entity(p, value);
      if (value != nullptr) value->push_back(At(p));
      return p + 1;
    }
    // The parser steps over the whole sequence: past the end of the text it
    // would read beyond its buffer.
    if (p + step > m_n) return Refuse("a multi-byte character runs past the end of the text", p);
    if (value != nullptr) value->append(m_s + p, step);
    return p + step;
  }

  // Text up to endTag, which is taken too; null if nothing follows it.
  size_t ReadText(size_t p, bool trim, const char* endTag, std::string* value) {
    if (value != nullptr) value->clear();
    if (trim) p = SkipWhiteSpace(p);
    bool space = false;
    while (p != kNull && At(p) != '\0' && !Equal(p, endTag, false)) {
      if (trim && IsWhiteSpace(At(p))) {
        space = true, ++p;
        continue;
      }
      if (space && value != nullptr) value->push_back(' ');
      space = false;
      p = GetChar(p, value);
    }
    if (p != kNull && At(p) != '\0') p += std::strlen(endTag);
    return p != kNull && At(p) != '\0' ? p : kNull;
  }

  // name = value, quoted or not; value as far as it was read, also on failure.
  size_t Attribute(size_t p, std::string_view* name, std::string* value) {
    p = SkipWhiteSpace(p);
    if (p == kNull) return kNull;
    p = ReadName(p, name);
    if (p == kNull || At(p) == '\0') return kNull;
    p = SkipWhiteSpace(p);
    if (p == kNull || At(p) != '=') return kNull;
    p = SkipWhiteSpace(p + 1);
    if (p == kNull || At(p) == '\0') return kNull;
    if (At(p) == '\'' || At(p) == '"') return ReadText(p + 1, false, At(p) == '"' ? "\"" : "'", value);
    if (value != nullptr) value->clear();
    for (; At(p) != '\0' && !IsWhiteSpace(At(p)) && At(p) != '/' && At(p) != '>'; ++p) {
      if (At(p) == '\'' || At(p) == '"') return kNull;
      if (value != nullptr) value->push_back(At(p));
    }
    return p;
  }

  Kind Identify(size_t p) const {
    if (At(p) != '<') return Kind::None;
    if (Equal(p, "<?xml", true)) return Kind::Declaration;
    if (Equal(p, "<!--", false)) return Kind::Comment;
    if (Equal(p, "<![CDATA[", false)) return Kind::CData;
    if (Equal(p, "<!", false)) return Kind::Unknown;
    if (IsAlpha(At(p + 1)) || At(p + 1) == '_') return Kind::Element;
    return Kind::Unknown;
  }

  // Every node but an element; a declaration tells its encoding value.
  size_t Node(Kind kind, size_t p, std::string* encoding) {
    switch (kind) {
      case Kind::Declaration: return Declaration(p, encoding);
      case Kind::Comment:
        for (p += 4; At(p) != '\0' && !Equal(p, "-->", false); ++p) {
        }
        return At(p) != '\0' ? p + 3 : p;
      case Kind::CData:
        for (p += 9; At(p) != '\0' && !Equal(p, "]]>", false); ++p) {
        }
        return ReadText(p, false, "]]>", nullptr);
      default:
        for (++p; At(p) != '\0' && At(p) != '>'; ++p) {
        }
        return At(p) == '>' ? p + 1 : p;
    }
  }

  size_t Declaration(size_t p, std::string* encoding) {
    p += 5;
    while (p != kNull && At(p) != '\0') {
      if (At(p) == '>') return p + 1;
      p = SkipWhiteSpace(p);
      if (p == kNull || At(p) == '\0') break;
      if (Equal(p, "version", true) || Equal(p, "standalone", true)) {
        p = Attribute(p, nullptr, nullptr);
      } else if (Equal(p, "encoding", true)) {
        p = Attribute(p, nullptr, encoding);
      } else {
        while (At(p) != '\0' && At(p) != '>' && !IsWhiteSpace(At(p))) ++p;
      }
    }
    return kNull;
  }

  static bool Unique(std::vector<std::string_view>& names, std::string_view name) {
    for (std::string_view seen : names)
      if (seen == name) return false;
    names.push_back(name);
    return true;
  }

  // The start tag of an element, from its '<'. The element counts from here,
  // as the parser keeps an element it began even when it fails in it. Behind
  // "/>" *open is false; behind '>' its content follows.
  size_t StartTag(size_t p, std::string_view* name, bool* open) {
    if (++m_depth > m_result.maxDepth) {
      m_result.maxDepth = m_depth;
      if (m_depth > m_limit) {
        m_result.line = LineAt(p);
        return kNull;
      }
    }
    p = ReadName(SkipWhiteSpace(p + 1), name);
    if (p == kNull || At(p) == '\0') return kNull;
    m_attributes.clear();  // the parser refuses a name twice in one tag
    while (true) {
      p = SkipWhiteSpace(p);
      if (p == kNull || At(p) == '\0') return kNull;
      if (At(p) == '/') return At(p + 1) == '>' ? (*open = false, p + 2) : kNull;
      if (At(p) == '>') return *open = true, p + 1;
      std::string_view attribute;
      p = Attribute(p, &attribute, nullptr);
      if (p == kNull || At(p) == '\0' || !Unique(m_attributes, attribute)) return kNull;
    }
  }

  // An element and all it holds, with a stack of open elements for the
  // parser's recursion. A failure anywhere fails every open element.
  size_t Element(size_t p) {
    std::vector<std::string_view> open(1);  // names of the elements begun and not yet ended
    bool hasContent = false;
    p = StartTag(p, &open.back(), &hasContent);
    if (p == kNull) return kNull;
    if (!hasContent) {
      --m_depth;
      return p;
    }
    while (true) {
      p = SkipWhiteSpace(p);
      if (p == kNull) return kNull;
      if (At(p) != '<') {
        p = ReadText(p, true, "<", nullptr);
        if (p == kNull) return kNull;
        --p;  // the text ends before its '<'
        continue;
      }
      if (Equal(p, "</", false)) {
        const std::string_view name = open.back();
        if (std::string_view(m_s + p + 2, std::min(name.size(), m_n - p - 2)) != name) return kNull;
        p = SkipWhiteSpace(p + 2 + name.size());
        if (p == kNull || At(p) != '>') return kNull;
        ++p, --m_depth;
        open.pop_back();
        if (open.empty()) return p;
        continue;
      }
      const Kind kind = Identify(p);
      if (kind != Kind::Element) {
        p = Node(kind, p, nullptr);
        continue;
      }
      open.emplace_back();
      p = StartTag(p, &open.back(), &hasContent);
      if (p == kNull) return kNull;
      if (!hasContent) --m_depth, open.pop_back();
    }
  }

  std::string m_t;            // the normalised text, where it differs from the file's
  const char* m_s = nullptr;  // the text as the parser holds it, ending in a NUL
  size_t m_n = 0;
  bool m_space[256], m_alpha[256], m_alnum[256];
  std::vector<std::string_view> m_attributes;
  const int m_limit;
  Encoding m_enc = Encoding::Unknown;
  int m_depth = 0;
  XmlDepthResult m_result;
};

}  // namespace

XmlDepthResult ScanXmlDepth(const std::string& text, int limit) { return Scanner(text, limit).Run(); }

}  // namespace qorvarlok::symbols
