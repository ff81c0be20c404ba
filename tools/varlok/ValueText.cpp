#include "ValueText.h"

#include <QorVarlok/ZelVarlok.h>

#include <charconv>
#include <cstdint>
#include <cstring>

#include "TagTypes.h"

namespace varlok {

namespace {

uint64_t littleEndian(const unsigned char* bytes, size_t n) {
  uint64_t v = 0;
  for (size_t i = n; i-- > 0;) v = (v << 8) | bytes[i];
  return v;
}

int64_t signExtended(uint64_t v, size_t n) {
  if (n >= 8) return static_cast<int64_t>(v);
  const uint64_t sign = uint64_t{1} << (n * 8 - 1);
  return static_cast<int64_t>((v ^ sign) - sign);
}

template <typename Real>
std::string realText(const unsigned char* bytes) {
  Real r;
  std::memcpy(&r, bytes, sizeof(r));
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), r);  // shortest exact form
  return std::string(buffer, result.ptr);
}

std::string hexText(const unsigned char* bytes, size_t length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < length; ++i) {
    if (i > 0) out += ' ';
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 0x0F];
  }
  return out;
}

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// UTF-16LE units up to the first zero unit; a lone surrogate shows as U+FFFD.
std::string wideText(const unsigned char* bytes, size_t length) {
  std::string out;
  for (size_t i = 0; i + 1 < length; i += 2) {
    const uint32_t unit = static_cast<uint32_t>(littleEndian(bytes + i, 2));
    if (unit == 0) break;
    if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < length) {
      const uint32_t low = static_cast<uint32_t>(littleEndian(bytes + i + 2, 2));
      if (low >= 0xDC00 && low < 0xE000) {
        appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        i += 2;
        continue;
      }
    }
    appendUtf8(out, unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
  }
  return out;
}

std::string quoted(const std::string& s) { return "'" + s + "'"; }

bool isSigned(int type) {
  return type == TAG_TYPE_SINT || type == TAG_TYPE_INT || type == TAG_TYPE_DINT || type == TAG_TYPE_LINT ||
         type == TAG_TYPE_SUBRANGE || type == TAG_TYPE_ENUM;
}

bool isInteger(int type) {
  switch (type) {
    case TAG_TYPE_BYTE: case TAG_TYPE_WORD: case TAG_TYPE_DWORD: case TAG_TYPE_LWORD:
    case TAG_TYPE_TIME: case TAG_TYPE_DATE: case TAG_TYPE_TIME_OF_DAY: case TAG_TYPE_DATE_AND_TIME:
      return true;
    default:
      return isSigned(type);
  }
}

// One elementary value; empty when the type has no text form at this length.
std::string scalarText(int type, const unsigned char* bytes, size_t length) {
  if (type == TAG_TYPE_BOOL && length >= 1) return bytes[0] != 0 ? "TRUE" : "FALSE";
  if (isInteger(type) && (length == 1 || length == 2 || length == 4 || length == 8)) {
    const uint64_t v = littleEndian(bytes, length);
    return isSigned(type) ? std::to_string(signExtended(v, length)) : std::to_string(v);
  }
  if (type == TAG_TYPE_REAL && length == 4) return realText<float>(bytes);
  if (type == TAG_TYPE_LREAL && length == 8) return realText<double>(bytes);
  if (type == TAG_TYPE_STRING) {
    const void* end = std::memchr(bytes, 0, length);
    return quoted(std::string(reinterpret_cast<const char*>(bytes),
                              end ? static_cast<const unsigned char*>(end) - bytes : length));
  }
  if (type == TAG_TYPE_WSTRING) return quoted(wideText(bytes, length));
  return std::string();
}

}  // namespace

std::string valueToText(int type, int elementType, const unsigned char* bytes, size_t length) {
  if (bytes == nullptr) return "(no value)";
  const std::string scalar = scalarText(type, bytes, length);
  if (!scalar.empty()) return scalar;
  const size_t width = static_cast<size_t>(elementWidth(elementType));
  if (type == TAG_TYPE_ARRAY && width > 0 && length % width == 0) {
    std::string out = "[";
    for (size_t at = 0; at < length; at += width) {
      if (at > 0) out += ", ";
      out += scalarText(elementType, bytes + at, width);
    }
    return out + "]";
  }
  return hexText(bytes, length);
}

bool parseHex(const std::string& text, std::vector<unsigned char>& out) {
  out.clear();
  size_t i = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0 ? 2 : 0;
  int high = -1;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == ' ' && high < 0) continue;
    int digit = -1;
    if (c >= '0' && c <= '9') digit = c - '0';
    if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    if (digit < 0) return false;
    if (high < 0) {
      high = digit;
    } else {
      out.push_back(static_cast<unsigned char>(high * 16 + digit));
      high = -1;
    }
  }
  return high < 0 && !out.empty();
}

}  // namespace varlok
