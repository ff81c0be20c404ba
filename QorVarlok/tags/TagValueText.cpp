#include "TagValueText.h"

#include <algorithm>
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

// The bits of a fixed-width value; throws what std::stoi/stof/stod throw.
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
    default:  // Bool, Byte, SInt, Word, Int, DInt: through int, low bytes kept
      return bitsOf(static_cast<int64_t>(std::stoi(text)));
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
