// Values of the controller's binary form as text for display, and hex text
// as bytes for writing whole arrays and structures.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace varlok {

// Integers, reals, Bool, String, WString (as UTF-8) and the time types as
// numbers; arrays of elementary types as "[a, b, c]" when elementType is
// given and divides the length; anything else as hex bytes.
std::string valueToText(int type, int elementType, const unsigned char* bytes, size_t length);

// "01 02 ff", "0102ff" or "0x0102ff": false on anything else.
bool parseHex(const std::string& text, std::vector<unsigned char>& out);

}  // namespace varlok
