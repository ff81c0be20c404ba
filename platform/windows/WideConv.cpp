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

}  // namespace qorvarlok::platform
