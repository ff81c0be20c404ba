// Conversion of the library's GBK (code page 936) texts to UTF-8 for display.
// The converter is opened once, at start, so that a failure met when memory
// has run out is still told in UTF-8, without any allocation.
#pragma once

#include <cstddef>
#include <string>

namespace varlok {

// Opens the converter; main calls it first thing.
void openTextConversion();

// Converts into out (always NUL-terminated) and gives the length written.
// Bytes that are not GBK come out as '?', and so does every non-ASCII byte
// where the system has no GBK converter, so the text is UTF-8 in any case.
size_t gbkToUtf8(const char* gbk, char* out, size_t capacity);
std::string gbkToUtf8(const char* gbk);

}  // namespace varlok
