// The ANSI code page of the process (CP_ACP): 936 on a Chinese Windows, so
// GBK texts convert as there.
#include "WideConv.h"

#include <windows.h>

#include <vector>

namespace qorvarlok::platform {

std::wstring narrowToWide(const char* text) {
  if (text == nullptr) return std::wstring();
  const int size = ::MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
  if (size <= 0) return std::wstring();
  std::vector<wchar_t> buffer(static_cast<size_t>(size) + 1, L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, text, -1, buffer.data(), size);
  return std::wstring(buffer.data());
}

std::string wideToNarrow(const std::wstring& text) {
  if (text.empty()) return std::string();
  const int size = ::WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
  if (size <= 0) return std::string();
  std::vector<char> buffer(static_cast<size_t>(size) + 1, '\0');
  ::WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, buffer.data(), size, nullptr, nullptr);
  return std::string(buffer.data());
}

// The ANSI code page is the process's own and never changes while it runs.
UserCharEncoder::UserCharEncoder() = default;
UserCharEncoder::~UserCharEncoder() = default;

int UserCharEncoder::Encode(wchar_t c, char* out) {
  BOOL usedDefault = FALSE;
  const bool utf8 = ::GetACP() == CP_UTF8;  // UTF-8 spells everything and takes neither flag nor default
  const int n = ::WideCharToMultiByte(CP_ACP, utf8 ? 0 : WC_NO_BEST_FIT_CHARS, &c, 1, out, static_cast<int>(kMaxBytes),
                                      nullptr, utf8 ? nullptr : &usedDefault);
  return n <= 0 || usedDefault ? -1 : n;
}

}  // namespace qorvarlok::platform
