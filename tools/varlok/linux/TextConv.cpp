#include "TextConv.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace varlok {

namespace {

const iconv_t kNoConverter = reinterpret_cast<iconv_t>(-1);

struct Converter {
  std::mutex mutex;
  iconv_t cd = kNoConverter;
};

// Opened once and kept to the end: no conversion may depend on memory that
// could be gone by the time a failure is told.
Converter& TheConverter() {
  static Converter converter;
  return converter;
}

}  // namespace

void openTextConversion() {
  Converter& c = TheConverter();
  std::lock_guard<std::mutex> lock(c.mutex);
  if (c.cd == kNoConverter) c.cd = ::iconv_open("UTF-8", "GBK");
}

size_t gbkToUtf8(const char* gbk, char* out, size_t capacity) {
  if (capacity == 0) return 0;
  size_t used = 0;
  const auto put = [&](char ch) {
    if (used + 1 < capacity) out[used++] = ch;
  };
  Converter& c = TheConverter();
  std::lock_guard<std::mutex> lock(c.mutex);
  char* in = const_cast<char*>(gbk != nullptr ? gbk : "");
  size_t inLeft = std::strlen(in);
  if (c.cd != kNoConverter) ::iconv(c.cd, nullptr, nullptr, nullptr, nullptr);  // a fresh state
  while (inLeft > 0 && used + 1 < capacity) {
    if (c.cd == kNoConverter) {
      put(static_cast<unsigned char>(*in) < 0x80 ? *in : '?');
      ++in, --inLeft;
      continue;
    }
    char* to = out + used;
    size_t toLeft = capacity - 1 - used;
    const size_t r = ::iconv(c.cd, &in, &inLeft, &to, &toLeft);
    used = static_cast<size_t>(to - out);
    if (r != static_cast<size_t>(-1) || errno == E2BIG) break;  // done, or out is full
    // EILSEQ or a truncated sequence at the end: show one '?' and go on.
    put('?');
    ++in, --inLeft;
  }
  out[used] = '\0';
  return used;
}

std::string gbkToUtf8(const char* gbk) {
  char buffer[1024];
  return std::string(buffer, gbkToUtf8(gbk, buffer, sizeof(buffer)));
}

}  // namespace varlok
