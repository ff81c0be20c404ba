// Names and element widths of the tag type codes, as the tool shows them.
#pragma once

namespace varlok {

// "DInt", "Structure", ...; "?" for a code the library does not define.
const char* typeName(int code);
// Bytes of one array element of an elementary type; 0 for the others.
int elementWidth(int code);

}  // namespace varlok
