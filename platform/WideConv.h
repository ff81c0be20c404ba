// Narrow/wide conversion in the process locale: under a GBK locale this
// behaves like the Windows ANSI code page 936, under a UTF-8 locale like UTF-8.
#pragma once

#include <cstddef>
#include <cwchar>
#include <string>

namespace qorvarlok::platform {

// Narrow text of the process locale to wide; bytes that do not convert end the text.
std::wstring narrowToWide(const char* text);
// Wide text to the process locale's narrow form; characters that do not convert end the text.
std::string wideToNarrow(const std::wstring& text);

// Spells wide characters one by one in the user's default narrow encoding
// (the locale the environment names on Linux, the ANSI code page on
// Windows), for the calling thread only: other threads never see the
// process's locale change.
class UserCharEncoder {
 public:
  static constexpr size_t kMaxBytes = 16;  // bytes one character can take
  UserCharEncoder();
  ~UserCharEncoder();
  UserCharEncoder(const UserCharEncoder&) = delete;
  UserCharEncoder& operator=(const UserCharEncoder&) = delete;
  // The bytes of c in out (kMaxBytes long); -1 when the encoding cannot spell it.
  int Encode(wchar_t c, char* out);

 private:
  void* m_pPrevious = nullptr;
  std::mbstate_t m_state{};
};

}  // namespace qorvarlok::platform
