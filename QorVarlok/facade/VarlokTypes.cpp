#include "VarlokTypes.h"

#include <cstring>

#include "QorVarlok/ZelVarlok.h"

namespace qorvarlok {

namespace {

bool same(const char* a, const char* b) { return a != nullptr && b != nullptr && std::strcmp(a, b) == 0; }

struct NamedCode {
  const char* name;
  int code;
};

constexpr NamedCode kElementaryTypes[] = {
    {"Bool", TAG_TYPE_BOOL},       {"Byte", TAG_TYPE_BYTE},
    {"USInt", TAG_TYPE_BYTE},      {"Word", TAG_TYPE_WORD},
    {"UInt", TAG_TYPE_WORD},       {"DWord", TAG_TYPE_DWORD},
    {"UDInt", TAG_TYPE_DWORD},     {"LWord", TAG_TYPE_LWORD},
    {"ULInt", TAG_TYPE_LWORD},     {"SInt", TAG_TYPE_SINT},
    {"Int", TAG_TYPE_INT},         {"DInt", TAG_TYPE_DINT},
    {"LInt", TAG_TYPE_LINT},       {"Subrange", TAG_TYPE_SUBRANGE},
    {"Real", TAG_TYPE_REAL},       {"LReal", TAG_TYPE_LREAL},
    {"Enum", TAG_TYPE_ENUM},       {"Array", TAG_TYPE_ARRAY},
    {"String", TAG_TYPE_STRING},   {"WString", TAG_TYPE_WSTRING},
    {"Time", TAG_TYPE_TIME},       {"Date", TAG_TYPE_DATE},
    {"TimeOfDay", TAG_TYPE_TIME_OF_DAY}, {"Tod", TAG_TYPE_TIME_OF_DAY},
    {"DateAndTime", TAG_TYPE_DATE_AND_TIME}, {"Dt", TAG_TYPE_DATE_AND_TIME},
    {"Pointer", TAG_TYPE_POINTER}, {"Reference", TAG_TYPE_REFERENCE},
    {"Bit", TAG_TYPE_BIT},
};

int userDefTypeCode(const char* pouClass, const char* iecName) {
  if (same(pouClass, "UNION")) return TAG_TYPE_UNION;
  if (same(pouClass, "STRUCTURE")) return TAG_TYPE_STRUCTURE;
  if (same(pouClass, "FUNCTION_BLOCK")) return TAG_TYPE_FUNCTION_BLOCK;
  if (pouClass == nullptr && same(iecName, "TYPE_REFERENCE")) return TAG_TYPE_REFERENCE;
  return VARLOK_NOT_SET;
}

}  // namespace

int toTagTypeCode(const char* typeClass, const char* pouClass, const char* iecName) {
  if (same(typeClass, "Userdef")) return userDefTypeCode(pouClass, iecName);
  for (const NamedCode& entry : kElementaryTypes) {
    if (same(typeClass, entry.name)) return entry.code;
  }
  return VARLOK_NOT_SET;
}

int toVarKind(const char* text) {
  if (same(text, "VAR")) return VAR_KIND_VAR;
  if (same(text, "VAR_INPUT")) return VAR_KIND_INPUT;
  if (same(text, "VAR_OUTPUT")) return VAR_KIND_OUTPUT;
  if (same(text, "VAR_IN_OUT")) return VAR_KIND_IN_OUT;
  return VARLOK_NOT_SET;
}

int toAccessType(const char* text) {
  if (same(text, "ReadWrite")) return ACCESS_READWRITE;
  if (same(text, "Read")) return ACCESS_READ;
  if (same(text, "Write")) return ACCESS_WRITE;
  return VARLOK_NOT_SET;
}

int baseByteLength(int typeCode) {
  switch (typeCode) {
    case TAG_TYPE_BOOL:
    case TAG_TYPE_BYTE:
    case TAG_TYPE_SINT:
      return 1;
    case TAG_TYPE_WORD:
    case TAG_TYPE_INT:
      return 2;
    case TAG_TYPE_DWORD:
    case TAG_TYPE_DINT:
    case TAG_TYPE_REAL:
    case TAG_TYPE_TIME:
    case TAG_TYPE_DATE:
    case TAG_TYPE_TIME_OF_DAY:
    case TAG_TYPE_DATE_AND_TIME:
      return 4;
    case TAG_TYPE_LWORD:
    case TAG_TYPE_LINT:
    case TAG_TYPE_LREAL:
      return 8;
    case TAG_TYPE_STRING:
      return 81;
    case TAG_TYPE_WSTRING:
      return 162;
    default:
      return 0;
  }
}

}  // namespace qorvarlok
