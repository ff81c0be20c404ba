// Conversion of the library's GBK (code page 936) texts to UTF-8 for display.
#pragma once

#include <string>

namespace varlok {

// Bytes that are not GBK come out as '?', so a bad text still shows.
std::string gbkToUtf8(const char* gbk);

}  // namespace varlok
