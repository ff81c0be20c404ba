#include "SymbolModel.h"

#include <algorithm>
#include <climits>
#include <cwchar>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>

#include "QorVarlok/ZelVarlok.h"
#include "TagData.h"
#include "VarlokLog.h"
#include "WideConv.h"

namespace qorvarlok::symbols {

// ------------------------------------------------------------ variable tree
NodeWithChildren::~NodeWithChildren() {
  for (NodeBase* child : m_children) delete child;
}

void NodeWithChildren::AppendChild(NodeBase* child) { m_children.push_back(child); }

void NodeWithChildren::AppendChildren(std::vector<NodeBase*>& children) {
  m_children.insert(m_children.end(), children.begin(), children.end());
  children.clear();
}

// ------------------------------------------------------------------- types
TypeArray::~TypeArray() {
  for (ArrayRange* range : ranges) delete range;
}

void TypeArray::AppendRange(ArrayRange* range) { ranges.push_back(range); }

TypeUserDef::~TypeUserDef() {
  for (UserDefElement* element : elements) delete element;
}

void TypeUserDef::AppendElement(UserDefElement* element) { elements.push_back(element); }

TypeTable::~TypeTable() {
  for (TypeBase* type : m_types) delete type;
}

void TypeTable::Append(TypeBase* type) { m_types.push_back(type); }

void TypeTable::Sort() {
  // Stable, so that of two equal names the one earlier in the file is met first.
  std::stable_sort(m_types.begin(), m_types.end(), [](const TypeBase* a, const TypeBase* b) {
    return std::strcmp(a->name.c_str(), b->name.c_str()) < 0;
  });
}

TypeBase* TypeTable::Find(const std::string& name) const {
  int lower = 0;
  int upper = static_cast<int>(m_types.size());
  while (lower <= upper) {
    const int middle = (lower + upper) / 2;
    // The upper index starts one behind the table: that position is a miss.
    if (middle >= static_cast<int>(m_types.size())) return nullptr;
    const int order = std::strcmp(name.c_str(), m_types[middle]->name.c_str());
    if (order == 0) return m_types[middle];
    if (order > 0) {
      lower = middle + 1;
    } else {
      upper = middle - 1;
    }
  }
  return nullptr;
}

// ------------------------------------------------------------------ header
namespace {

// One decimal part of a version text; saturates instead of overflowing.
long long ParseVersionPart(const char*& p) {
  long long value = 0;
  bool negative = false;
  if (*p == '-' || *p == '+') negative = (*p++ == '-');
  while (*p >= '0' && *p <= '9') {
    if (value < 0xFFFFFFFFLL) value = value * 10 + (*p - '0');
    ++p;
  }
  return negative ? -value : value;
}

}  // namespace

uint32_t PackVersion(const char* text) {
  if (text == nullptr) return 0;
  const char* p = text;
  while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') ++p;
  uint32_t packed = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (*p != '.') break;  // missing parts count as 0
      ++p;
    }
    const uint32_t value = static_cast<uint32_t>(ParseVersionPart(p));
    packed |= value << (24 - 8 * part);  // unmasked: a part above 255 spills over
  }
  return packed;
}

// ----------------------------------------------------------- the document
SymbolConfiguration::SymbolConfiguration(SymbolHeader* h, TypeTable* t, AppNodes* n)
    : header(h), types(t), nodes(n) {}

SymbolConfiguration::~SymbolConfiguration() {
  delete header;
  delete types;
  delete nodes;
}

TypeBase* SymbolConfiguration::FindType(const std::string& name, char** message) const {
  TypeBase* found = types != nullptr ? types->Find(name) : nullptr;
  if (found == nullptr && message != nullptr) {
    const char* description = ReadErrorDescription(ERR_XML_TYPE_DEF_ERROR);
    const size_t length = std::strlen(description) + name.size() + 3;
    char* text = new char[length];
    std::snprintf(text, length, "%s(%s)", description, name.c_str());
    delete[] *message;  // a message not yet collected is replaced, never leaked
    *message = text;
  }
  return found;
}

bool IsReference(const VariableNode* variable, const UserDefElement* member) {
  if (variable != nullptr) return variable->isReference != 0;
  if (member != nullptr) return member->varType == 3;
  return false;
}

ArrayBoundsRegistry& GetArrayBoundsRegistry() {
  // Never destroyed: a tags manager of a ZelVarlok that lives until static
  // destruction erases its entry after this function's statics would be gone.
  static ArrayBoundsRegistry* registry = new ArrayBoundsRegistry();
  return *registry;
}

// --------------------------------------------------------- local encoding
bool IsUtf8(const char* text) {
  if (text == nullptr) return false;
  bool nonAscii = false;
  int pending = 0;  // continuation bytes still expected
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
    const unsigned char c = *p;
    if (c & 0x80) nonAscii = true;
    if (pending > 0) {
      if (c < 0x80 || c > 0xBF) return false;
      --pending;
      continue;
    }
    if (c < 0x80) continue;
    if (c <= 0xBF) return false;
    if (c <= 0xDF) {
      pending = 1;
    } else if (c <= 0xEF) {
      pending = 2;
    } else if (c <= 0xF7) {
      pending = 3;
    } else if (c == 0xFC || c == 0xFD) {
      pending = 5;
    } else {
      pending = 4;
    }
  }
  return pending == 0 && nonAscii;
}

namespace {

// UTF-8 to wide characters. Sequences the lead-byte test accepts but that
// encode no character (5 and 6 bytes, beyond U+10FFFF) are refused the way the
// standard converter refuses them.
std::wstring DecodeUtf8(const char* text) {
  std::wstring out;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  while (*p != 0) {
    const unsigned char c = *p++;
    if (c < 0x80) {
      out.push_back(static_cast<wchar_t>(c));
      continue;
    }
    int more = 0;
    uint32_t code = 0;
    if (c >= 0xC0 && c <= 0xDF) {
      more = 1;
      code = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      more = 2;
      code = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF7) {
      more = 3;
      code = c & 0x07;
    } else {
      throw std::range_error("wstring_convert::from_bytes");
    }
    for (int i = 0; i < more; ++i) {
      if ((*p & 0xC0) != 0x80) throw std::range_error("wstring_convert::from_bytes");
      code = (code << 6) | (*p++ & 0x3F);
    }
    if (code > 0x10FFFF) throw std::range_error("wstring_convert::from_bytes");
    out.push_back(static_cast<wchar_t>(code));
  }
  return out;
}

constexpr size_t kMaxLocalBytes = 1024;  // including the terminating NUL

}  // namespace

std::string ToLocalEncoding(const char* text) {
  if (text == nullptr) return std::string();
  if (!IsUtf8(text)) return std::string(text);
  const std::wstring wide = DecodeUtf8(text);
  // Character by character, so that a long name is cut at a character
  // boundary and never beyond the byte limit.
  std::string local;
  bool spelled = true;
  {
    qorvarlok::platform::UserCharEncoder user;
    char buffer[qorvarlok::platform::UserCharEncoder::kMaxBytes];
    for (wchar_t wc : wide) {
      const int n = user.Encode(wc, buffer);
      if (n < 0) {
        spelled = false;
        break;
      }
      if (local.size() + static_cast<size_t>(n) >= kMaxLocalBytes) break;
      local.append(buffer, static_cast<size_t>(n));
    }
  }
  if (!spelled) {
    // The user's locale cannot spell this name: keep its bytes rather than
    // lose it, so that it still matches what an application passes in.
    VLOG(warn, "ToLocalEncoding", "{} has no form in the current locale, kept as it is", text);
    return std::string(text);
  }
  return local;
}

}  // namespace qorvarlok::symbols
