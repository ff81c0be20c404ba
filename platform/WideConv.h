// Narrow/wide conversion in the process locale: under a GBK locale this
// behaves like the Windows ANSI code page 936, under a UTF-8 locale like UTF-8.
#pragma once

#include <string>

namespace qorvarlok::platform {

// Narrow text of the process locale to wide; bytes that do not convert end the text.
std::wstring narrowToWide(const char* text);
// Wide text to the process locale's narrow form; characters that do not convert end the text.
std::string wideToNarrow(const std::wstring& text);

}  // namespace qorvarlok::platform
