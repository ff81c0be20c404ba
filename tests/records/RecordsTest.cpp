// The shared records and conversions: type codes from the symbol file's
// names, variable kinds, access types, element widths, tagTagDesc and
// tagTagVarValue with their defaults and deep copies.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokTypes.h"

namespace {

using qorvarlok::baseByteLength;
using qorvarlok::toAccessType;
using qorvarlok::toTagTypeCode;
using qorvarlok::toVarKind;

struct TypeCase {
  const char* typeClass;
  const char* pouClass;
  const char* iecName;
  int expected;
};

TEST(Conversions, TypeCodeOfEveryNameAndClass) {
  const TypeCase cases[] = {
      {"Bool", nullptr, "BOOL", 0},        {"Byte", nullptr, "BYTE", 1},
      {"USInt", nullptr, "USINT", 1},      {"Word", nullptr, "WORD", 2},
      {"UInt", nullptr, "UINT", 2},        {"DWord", nullptr, "DWORD", 3},
      {"UDInt", nullptr, "UDINT", 3},      {"LWord", nullptr, "LWORD", 4},
      {"ULInt", nullptr, "ULINT", 4},      {"SInt", nullptr, "SINT", 5},
      {"Int", nullptr, "INT", 6},          {"DInt", nullptr, "DINT", 7},
      {"LInt", nullptr, "LINT", 8},        {"Subrange", nullptr, "SR", 9},
      {"Real", nullptr, "REAL", 10},       {"LReal", nullptr, "LREAL", 11},
      {"Enum", nullptr, "E_MODE", 12},     {"Array", nullptr, "ARRAY", 14},
      {"String", nullptr, "STRING", 17},   {"WString", nullptr, "WSTRING", 18},
      {"Time", nullptr, "TIME", 19},       {"Date", nullptr, "DATE", 20},
      {"TimeOfDay", nullptr, "TOD", 21},   {"Tod", nullptr, "TOD", 21},
      {"DateAndTime", nullptr, "DT", 22},  {"Dt", nullptr, "DT", 22},
      {"Pointer", nullptr, "POINTER", 23}, {"Reference", nullptr, "REF", 24},
      {"Bit", nullptr, "BIT", 25},
      // Userdef: the POU class decides; the IEC name only for a reference.
      {"Userdef", "UNION", "U", 13},
      {"Userdef", "STRUCTURE", "S", 15},
      {"Userdef", "FUNCTION_BLOCK", "FB", 16},
      {"Userdef", "STRUCTURE", "TYPE_REFERENCE", 15},
      {"Userdef", nullptr, "TYPE_REFERENCE", 24},
      {"Userdef", nullptr, "POINT", VARLOK_NOT_SET},
      {"Userdef", nullptr, nullptr, VARLOK_NOT_SET},
      {"Userdef", "PROGRAM", "P", VARLOK_NOT_SET},
      {"Userdef", "structure", "S", VARLOK_NOT_SET},
      // A class that is not Userdef ignores POU class and IEC name.
      {"DInt", "STRUCTURE", "TYPE_REFERENCE", 7},
      // Exact, case-sensitive names; null compares unequal to everything.
      {"bool", nullptr, "BOOL", VARLOK_NOT_SET},
      {"DINT", nullptr, "DINT", VARLOK_NOT_SET},
      {"Union", nullptr, "U", VARLOK_NOT_SET},
      {"Structure", nullptr, "S", VARLOK_NOT_SET},
      {"TIME_OF_DAY", nullptr, "TOD", VARLOK_NOT_SET},
      {"DInt ", nullptr, "DINT", VARLOK_NOT_SET},
      {"", nullptr, "", VARLOK_NOT_SET},
      {nullptr, nullptr, nullptr, VARLOK_NOT_SET},
      {nullptr, "STRUCTURE", "TYPE_REFERENCE", VARLOK_NOT_SET},
  };
  for (const TypeCase& c : cases) {
    EXPECT_EQ(toTagTypeCode(c.typeClass, c.pouClass, c.iecName), c.expected)
        << (c.typeClass ? c.typeClass : "(null)") << " / " << (c.pouClass ? c.pouClass : "(null)") << " / "
        << (c.iecName ? c.iecName : "(null)");
  }
}

struct TextCase {
  const char* text;
  int expected;
};

TEST(Conversions, VarKinds) {
  const TextCase cases[] = {{"VAR", 0},         {"VAR_INPUT", 1},  {"VAR_OUTPUT", 2},
                            {"VAR_IN_OUT", 3},  {"var", 32767},    {"VAR_TEMP", 32767},
                            {"VAR_IN", 32767},  {"", 32767},       {nullptr, 32767}};
  for (const TextCase& c : cases) EXPECT_EQ(toVarKind(c.text), c.expected) << (c.text ? c.text : "(null)");
}

TEST(Conversions, AccessTypes) {
  const TextCase cases[] = {{"Read", 0},          {"Write", 1},         {"ReadWrite", 2},
                            {"READWRITE", 32767}, {"read", 32767},      {"ReadWriteX", 32767},
                            {"Read ", 32767},     {"", 32767},          {nullptr, 32767}};
  for (const TextCase& c : cases) EXPECT_EQ(toAccessType(c.text), c.expected) << (c.text ? c.text : "(null)");
}

TEST(Conversions, ElementWidthOfEveryTypeCode) {
  // Index is the type code 0..25; strings count their fixed slot, whatever their declared length.
  const int widths[26] = {1, 1, 2, 4, 8, 1, 2, 4, 8, 0, 4, 8, 0, 0, 0, 0, 0, 81, 162, 4, 4, 4, 4, 0, 0, 0};
  for (int code = 0; code < 26; ++code) EXPECT_EQ(baseByteLength(code), widths[code]) << "type code " << code;
  for (int code : {VARLOK_NOT_SET, -1, 26, 1000}) EXPECT_EQ(baseByteLength(code), 0) << "type code " << code;
}

TEST(Records, ConstantsAndEnumerations) {
  EXPECT_EQ(MAX_NAME_LEN, 255);
  EXPECT_EQ(MAX_VALUE_LEN, 1024);
  EXPECT_EQ(static_cast<int>(COM_TYPE_TCP), 1);
  EXPECT_EQ(static_cast<int>(COM_TYPE_LOCAL), 2);
  EXPECT_EQ(sizeof(ComType), 4u);
  EXPECT_EQ(sizeof(HTAGLIST), sizeof(void*));
}

TEST(Records, DefaultTagDescIsNotSetRatherThanBool) {
  const tagTagDesc d;
  EXPECT_EQ(d.Name, nullptr);
  EXPECT_EQ(d.FullName, nullptr);
  EXPECT_EQ(d.Comment, nullptr);
  EXPECT_EQ(d.TagsHandle, nullptr);
  EXPECT_EQ(d.Type, 32767);
  EXPECT_EQ(d.AccessType, 32767);
  EXPECT_EQ(d.VarType, 32767);
  EXPECT_EQ(d.BaseType, 32767);
  EXPECT_EQ(d.Size, 0);
  EXPECT_EQ(d.MinValue, 0);
  EXPECT_EQ(d.MaxValue, 0);
  EXPECT_EQ(d.EnumValue, 0);
}

TEST(Records, DefaultTagVarValue) {
  const tagTagVarValue v;
  EXPECT_EQ(v.FullName, nullptr);
  EXPECT_EQ(v.Type, 32767);
  EXPECT_EQ(v.ValueLength, 0);
  EXPECT_EQ(v.Value, nullptr);
}

// A filled record whose strings live on the heap, as the tree's do.
tagTagDesc makeDesc(const char* name, const char* fullName, const char* comment) {
  tagTagDesc d;
  d.Name = tagTagDesc::dupString(name);
  d.FullName = tagTagDesc::dupString(fullName);
  d.Comment = tagTagDesc::dupString(comment);
  d.Type = TAG_TYPE_ARRAY;
  d.Size = 48;
  d.AccessType = ACCESS_READ;
  d.VarType = VAR_KIND_OUTPUT;
  d.BaseType = TAG_TYPE_STRUCTURE;
  d.MinValue = -5;
  d.MaxValue = 9;
  d.EnumValue = 3;
  d.TagsHandle = &d;
  return d;
}

void expectSameFields(const tagTagDesc& copy, const tagTagDesc& source) {
  EXPECT_EQ(copy.Type, source.Type);
  EXPECT_EQ(copy.Size, source.Size);
  EXPECT_EQ(copy.AccessType, source.AccessType);
  EXPECT_EQ(copy.VarType, source.VarType);
  EXPECT_EQ(copy.BaseType, source.BaseType);
  EXPECT_EQ(copy.MinValue, source.MinValue);
  EXPECT_EQ(copy.MaxValue, source.MaxValue);
  EXPECT_EQ(copy.EnumValue, source.EnumValue);
  EXPECT_EQ(copy.TagsHandle, source.TagsHandle);  // the one field that points back, not copied deep
}

TEST(Records, CopiesOwnTheirStrings) {
  auto source = std::make_unique<tagTagDesc>(makeDesc("grid", "App.GVL.grid", "\xE7\xBD\x91\xE6\xA0\xBC"));
  const void* handle = source->TagsHandle;
  tagTagDesc copy(*source);
  EXPECT_NE(copy.Name, source->Name);
  EXPECT_NE(copy.FullName, source->FullName);
  EXPECT_NE(copy.Comment, source->Comment);
  expectSameFields(copy, *source);
  source.reset();  // the copy must outlive what it came from
  EXPECT_STREQ(copy.Name, "grid");
  EXPECT_STREQ(copy.FullName, "App.GVL.grid");
  EXPECT_STREQ(copy.Comment, "\xE7\xBD\x91\xE6\xA0\xBC");
  EXPECT_EQ(copy.TagsHandle, handle);
}

TEST(Records, NullStringsStayNullInCopies) {
  tagTagDesc source;
  source.Name = tagTagDesc::dupString("x");
  const tagTagDesc copy(source);
  EXPECT_STREQ(copy.Name, "x");
  EXPECT_EQ(copy.FullName, nullptr);
  EXPECT_EQ(copy.Comment, nullptr);
}

TEST(Records, AssignmentReplacesAndSurvivesSelf) {
  tagTagDesc target = makeDesc("old", "App.old", nullptr);
  const tagTagDesc source = makeDesc("new", "App.new", "c");
  target = source;
  EXPECT_STREQ(target.Name, "new");
  EXPECT_STREQ(target.FullName, "App.new");
  EXPECT_STREQ(target.Comment, "c");
  EXPECT_NE(target.Name, source.Name);
  expectSameFields(target, source);

  const char* before = target.FullName;
  tagTagDesc& alias = target;
  target = alias;
  EXPECT_EQ(target.FullName, before);
  EXPECT_STREQ(target.FullName, "App.new");
}

TEST(Records, ReleaseNullsEveryString) {
  tagTagDesc d = makeDesc("a", "b", "c");
  d.releaseStrings();
  EXPECT_EQ(d.Name, nullptr);
  EXPECT_EQ(d.FullName, nullptr);
  EXPECT_EQ(d.Comment, nullptr);
  d.releaseStrings();  // twice is harmless
}

TEST(Records, ArrayOfDeepCopiesOutlivesItsSource) {
  // As the symbol browsing hands records out: array new, each element a deep copy.
  tagTagDesc* array = nullptr;
  {
    const tagTagDesc first = makeDesc("speed", "App.GVL.speed", "motor speed");
    const tagTagDesc second = makeDesc(".x", "App.GVL.grid.x", nullptr);
    array = new tagTagDesc[2];
    array[0] = first;
    array[1] = second;
  }
  EXPECT_STREQ(array[0].FullName, "App.GVL.speed");
  EXPECT_STREQ(array[0].Comment, "motor speed");
  EXPECT_STREQ(array[1].Name, ".x");
  EXPECT_EQ(array[1].Comment, nullptr);
  delete[] array;
}

TEST(Records, DupStringOfNullAndEmpty) {
  EXPECT_EQ(tagTagDesc::dupString(nullptr), nullptr);
  char* empty = tagTagDesc::dupString("");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty[0], '\0');
  delete[] empty;
}

}  // namespace
