#include "TagTypes.h"

#include <QorVarlok/ZelVarlok.h>

namespace varlok {

namespace {

struct TypeInfo {
  const char* name;
  int width;  // of one array element; strings take their fixed slot
};

// Indexed by the tag type code.
constexpr TypeInfo kTypes[] = {
    {"Bool", 1},      {"Byte", 1},          {"Word", 2},          {"DWord", 4},   {"LWord", 8},
    {"SInt", 1},      {"Int", 2},           {"DInt", 4},          {"LInt", 8},    {"Subrange", 0},
    {"Real", 4},      {"LReal", 8},         {"Enum", 0},          {"Union", 0},   {"Array", 0},
    {"Structure", 0}, {"FunctionBlock", 0}, {"String", 81},       {"WString", 162}, {"Time", 4},
    {"Date", 4},      {"TimeOfDay", 4},     {"DateAndTime", 4},   {"Pointer", 0}, {"Reference", 0},
    {"Bit", 0},
};

constexpr int kCount = static_cast<int>(sizeof(kTypes) / sizeof(kTypes[0]));

}  // namespace

const char* typeName(int code) { return code >= 0 && code < kCount ? kTypes[code].name : "?"; }

int elementWidth(int code) { return code >= 0 && code < kCount ? kTypes[code].width : 0; }

}  // namespace varlok
