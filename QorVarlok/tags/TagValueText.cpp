#include "TagValueText.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <exception>
#include <sstream>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"
#include "VarlokTypes.h"

namespace qorvarlok::tags {

namespace {

void putLittleEndian(unsigned char* dest, uint64_t value, int width) {
  for (int i = 0; i < width; ++i) dest[i] = static_cast<unsigned char>(value >> (8 * i));
}

template <typename T>
T extract(const std::string& text) {
  // Extraction that fails leaves 0 (or the limit on overflow): no refusal.
  T value = 0;
  std::istringstream stream(text);
  stream >> value;
  return value;
}

template <typename T>
uint64_t bitsOf(T value) {
  static_assert(sizeof(T) <= sizeof(uint64_t));
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof(T));
  return bits;
}

// The width a fixed-size type stores: the element width, but 0 for strings,
// which take the tag's own size, and for types with no text form.
int fixedWidth(int type) {
  return type == TAG_TYPE_STRING || type == TAG_TYPE_WSTRING ? 0 : qorvarlok::baseByteLength(type);
}

// What std::stoi reads, without its exception and its allocation on the way
// out, since a list write parses one text per tag: white space (as the locale
// has it), a sign, decimal digits up to the first other character. False
// without a digit or for a value outside int, where std::stoi throws.
bool parseInt(const std::string& text, int64_t& out) {
  const char* p = text.c_str();
  while (std::isspace(static_cast<unsigned char>(*p))) ++p;
  const bool negative = *p == '-';
  if (*p == '+' || *p == '-') ++p;
  if (*p < '0' || *p > '9') return false;
  int64_t value = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + (*p - '0');
    if (value > int64_t{INT32_MAX} + 1) return false;  // outside int whatever follows
  }
  if (negative) value = -value;
  if (value > INT32_MAX) return false;
  out = value;
  return true;
}

struct NotANumber {};

// The bits of a fixed-width value; throws what std::stof/stod throw, or NotANumber.
uint64_t fixedBits(const std::string& text, int type) {
  switch (type) {
    case TAG_TYPE_LWORD:
      return extract<uint64_t>(text);
    case TAG_TYPE_LINT:
      return bitsOf(extract<int64_t>(text));
    case TAG_TYPE_DWORD:
    case TAG_TYPE_TIME:
    case TAG_TYPE_DATE:
    case TAG_TYPE_TIME_OF_DAY:
    case TAG_TYPE_DATE_AND_TIME:
      return extract<uint32_t>(text);
    case TAG_TYPE_REAL:
      return bitsOf(std::stof(text));
    case TAG_TYPE_LREAL:
      return bitsOf(std::stod(text));
    default: {  // Bool, Byte, SInt, Word, Int, DInt: through int, low bytes kept
      int64_t value = 0;
      if (!parseInt(text, value)) throw NotANumber();
      return bitsOf(value);
    }
  }
}

void copyString(const std::string& text, unsigned char* dest, int size) {
  const size_t n = std::min(static_cast<size_t>(size), text.size() + 1);
  std::memcpy(dest, text.c_str(), n);
}

void copyWideString(const std::string& text, unsigned char* dest, int size) {
  // Each byte becomes one unit, undecoded: only ASCII comes through as written.
  const size_t units = text.size() + 1;
  const size_t n = std::min(static_cast<size_t>(size), units * 2);
  for (size_t i = 0; i < n; ++i) {
    const unsigned char byte = i / 2 < text.size() ? static_cast<unsigned char>(text[i / 2]) : 0;
    dest[i] = (i % 2 == 0) ? byte : 0;
  }
}

}  // namespace

int EncodeValueText(const std::string& text, int type, unsigned char* dest, int size) {
  if (text.empty()) return 1;
  if (dest == nullptr || size < 0) {
    VLOG(err, "Varlok::serializeString", "no room for type {}: dest={}, size={}", type,
         static_cast<const void*>(dest), size);
    return 1;
  }
  try {
    if (type == TAG_TYPE_STRING) {
      copyString(text, dest, size);
      return 0;
    }
    if (type == TAG_TYPE_WSTRING) {
      copyWideString(text, dest, size);
      return 0;
    }
    const int width = fixedWidth(type);
    if (width == 0) return 1;  // Enum, Subrange, structures and the rest have no text form
    if (width > size) {
      VLOG(err, "Varlok::serializeString", "type {} needs {} bytes, the tag has {}", type, width, size);
      return 1;
    }
    putLittleEndian(dest, fixedBits(text, type), width);
    return 0;
  } catch (...) {
    return 1;
  }
}

}  // namespace qorvarlok::tags
