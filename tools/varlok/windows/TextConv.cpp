// GBK is Windows code page 936: through UTF-16 to UTF-8. Bytes that are not
// GBK come out as '?', one for each byte, as on Linux.
#include "TextConv.h"

#include <windows.h>

#include <cstring>

namespace varlok {

namespace {

constexpr UINT kGbk = 936;

// The length of the GBK character at text (1 or 2), or 0 when it is not one.
int CharacterLength(const char* text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return 1;
  if (!::IsDBCSLeadByteEx(kGbk, lead) || text[1] == '\0') return 0;
  wchar_t wide = 0;
  return ::MultiByteToWideChar(kGbk, MB_ERR_INVALID_CHARS, text, 2, &wide, 1) == 1 ? 2 : 0;
}

}  // namespace

// The system's converter needs no set-up and allocates nothing.
void openTextConversion() {}

size_t gbkToUtf8(const char* gbk, char* out, size_t capacity) {
  if (capacity == 0) return 0;
  size_t used = 0;
  for (const char* at = gbk != nullptr ? gbk : ""; *at != '\0' && used + 1 < capacity;) {
    const int length = CharacterLength(at);
    if (length == 0) {
      out[used++] = '?';
      ++at;
      continue;
    }
    wchar_t wide = 0;
    char utf8[4];
    ::MultiByteToWideChar(kGbk, 0, at, length, &wide, 1);
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, &wide, 1, utf8, sizeof utf8, nullptr, nullptr);
    if (n <= 0) {
      out[used++] = '?';
    } else {
      if (used + static_cast<size_t>(n) + 1 > capacity) break;  // a character is never cut
      std::memcpy(out + used, utf8, static_cast<size_t>(n));
      used += static_cast<size_t>(n);
    }
    at += length;
  }
  out[used] = '\0';
  return used;
}

std::string gbkToUtf8(const char* gbk) {
  char buffer[1024];
  return std::string(buffer, gbkToUtf8(gbk, buffer, sizeof(buffer)));
}

}  // namespace varlok
