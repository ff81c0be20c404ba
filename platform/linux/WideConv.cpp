#include "WideConv.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

namespace qorvarlok::platform {

std::wstring narrowToWide(const char* text) {
  if (text == nullptr) return std::wstring();
  std::mbstate_t state{};
  const char* source = text;
  std::wstring out;
  wchar_t wc = 0;
  size_t left = std::strlen(text);
  while (left > 0) {
    const size_t n = std::mbrtowc(&wc, source, left, &state);
    if (n == 0 || n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) break;
    out.push_back(wc);
    source += n;
    left -= n;
  }
  return out;
}

std::string wideToNarrow(const std::wstring& text) {
  std::mbstate_t state{};
  std::string out;
  char buffer[MB_LEN_MAX];
  for (wchar_t wc : text) {
    const size_t n = std::wcrtomb(buffer, wc, &state);
    if (n == static_cast<size_t>(-1)) break;
    out.append(buffer, n);
  }
  return out;
}

}  // namespace qorvarlok::platform
