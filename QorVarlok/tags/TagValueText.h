// Text to the controller's binary form of one tag, by tag type code: the one
// conversion of values the library has. Little-endian, no padding.
#pragma once

#include <string>

namespace qorvarlok::tags {

// Writes the binary form of text for a tag of the given type code at dest,
// which holds size bytes. 0 on success, 1 on refusal: empty text, a text the
// integer and floating conversions reject, a type without a text form, or a
// fixed-width type wider than size. Never throws.
//
// Integer codes 0, 1, 2, 5, 6, 7 go through a signed 32-bit conversion and
// keep the low bytes ("300" into a Byte stores 44). Codes 3, 4, 8 and the
// time codes use stream extraction, which refuses nothing. String copies
// min(size, length + 1) bytes of the text; WString widens each byte to one
// 16-bit unit and copies min(size, 2 * (length + 1)) bytes of that.
int EncodeValueText(const std::string& text, int type, unsigned char* dest, int size);

}  // namespace qorvarlok::tags
