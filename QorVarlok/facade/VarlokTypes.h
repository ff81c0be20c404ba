// Shared conversions of the records: type names of the symbol file to tag
// type codes, variable kinds, access types, and the width of array elements.
#pragma once

namespace qorvarlok {

// typeClass, pouClass and iecName as the symbol file gives them; a null
// argument compares unequal to everything. 32767 when not recognised.
int toTagTypeCode(const char* typeClass, const char* pouClass, const char* iecName);
// "VAR" 0, "VAR_INPUT" 1, "VAR_OUTPUT" 2, "VAR_IN_OUT" 3, else 32767.
int toVarKind(const char* text);
// "Read" 0, "Write" 1, "ReadWrite" 2, else 32767.
int toAccessType(const char* text);
// Bytes of one array element of a type code: 81 for String, 162 for WString,
// 0 for every type that has no fixed element width.
int baseByteLength(int typeCode);

// The language of ReadErrorDescription: 0 Chinese (the default), else English.
void SetVarlokLanguage(int language);

}  // namespace qorvarlok
