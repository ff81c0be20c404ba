// The managed exports called the way the managed runtime calls them, with the
// test's own callbacks recording each pending exception: kind, message and
// parameter name. The library's objects are linked in, so the log shows
// whether a wrapper that raised reached the class.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <clocale>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "ManagedExports.h"
#include "QorVarlok/ZelVarlok.h"

namespace {

enum class Kind { None, Application, OutOfMemory, Argument, ArgumentNull, ArgumentOutOfRange, OtherGeneral };

struct Pending {
  Kind kind = Kind::None;
  std::string message;  // "(null)" for a null pointer
  std::string param;
  int raised = 0;
};
Pending g_pending;
std::vector<const char*> g_strings;  // what the string callback was handed, in order

std::string Text(const char* s) { return s != nullptr ? s : "(null)"; }
void Raise(Kind kind, const char* message, const char* param) {
  g_pending.kind = kind;
  g_pending.message = Text(message);
  g_pending.param = Text(param);
  ++g_pending.raised;
}
void OnApplication(const char* m) { Raise(Kind::Application, m, nullptr); }
void OnOutOfMemory(const char* m) { Raise(Kind::OutOfMemory, m, nullptr); }
void OnOtherGeneral(const char* m) { Raise(Kind::OtherGeneral, m, nullptr); }
void OnArgument(const char* m, const char* p) { Raise(Kind::Argument, m, p); }
void OnArgumentNull(const char* m, const char* p) { Raise(Kind::ArgumentNull, m, p); }
void OnArgumentOutOfRange(const char* m, const char* p) { Raise(Kind::ArgumentOutOfRange, m, p); }
// Hands back the pointer it got, so that tests see which bytes a getter read.
char* OnString(const char* text) {
  g_strings.push_back(text);
  return const_cast<char*>(text);
}

// UTF-16 as .NET marshals a string, NUL-terminated.
std::vector<uint16_t> Utf16(const std::u16string& text) {
  std::vector<uint16_t> units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

class Interop : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    SWIGRegisterExceptionCallbacks_QorVarlok(OnApplication, OnOtherGeneral, OnOtherGeneral, OnOtherGeneral,
                                             OnOtherGeneral, OnOtherGeneral, OnOtherGeneral, OnOtherGeneral,
                                             OnOutOfMemory, OnOtherGeneral, OnOtherGeneral);
    SWIGRegisterExceptionArgumentCallbacks_QorVarlok(OnArgument, OnArgumentNull, OnArgumentOutOfRange);
    SWIGRegisterStringCallback_QorVarlok(OnString);
  }
  void SetUp() override {
    g_pending = Pending{};
    g_strings.clear();
    qvtest::Log().Clear();
  }
  // The pending exception, cleared for the next call.
  Pending Take() {
    Pending p = g_pending;
    g_pending = Pending{};
    return p;
  }
};

// ------------------------------------------------------------ vector ranges
// One row: an operation on a vector of three elements and what it raises.
struct RangeRow {
  const char* op;
  int index;
  int count;
  Kind kind;          // Kind::None: the operation runs
  const char* param;  // parameter name (out of range) or message (argument)
  size_t sizeAfter;   // size of the vector afterwards, when it ran
};

// Runs one row on a StringVector {"a","b","c"} or a VectorTagVarValue of three
// records; returns the size afterwards (or of the result, for GetRange/Repeat).
size_t RunString(const RangeRow& row) {
  void* v = QV_EXPORT(new_StringVector__SWIG_0)();
  for (const char* s : {"a", "b", "c"}) QV_EXPORT(StringVector_Add)(v, s);
  void* other = QV_EXPORT(new_StringVector__SWIG_0)();
  for (int i = 0; i < row.count; ++i) QV_EXPORT(StringVector_Add)(other, "x");
  const std::string op = row.op;
  size_t size = 0;
  void* made = nullptr;
  if (op == "getitem") size = QV_EXPORT(StringVector_getitem)(v, row.index) != nullptr ? 3 : 0;
  if (op == "getitemcopy") size = QV_EXPORT(StringVector_getitemcopy)(v, row.index) != nullptr ? 3 : 0;
  if (op == "setitem") QV_EXPORT(StringVector_setitem)(v, row.index, "z");
  if (op == "RemoveAt") QV_EXPORT(StringVector_RemoveAt)(v, row.index);
  if (op == "Insert") QV_EXPORT(StringVector_Insert)(v, row.index, "z");
  if (op == "InsertRange") QV_EXPORT(StringVector_InsertRange)(v, row.index, other);
  if (op == "GetRange") made = QV_EXPORT(StringVector_GetRange)(v, row.index, row.count);
  if (op == "RemoveRange") QV_EXPORT(StringVector_RemoveRange)(v, row.index, row.count);
  if (op == "Reverse") QV_EXPORT(StringVector_Reverse__SWIG_1)(v, row.index, row.count);
  if (op == "SetRange") QV_EXPORT(StringVector_SetRange)(v, row.index, other);
  if (op == "Repeat") made = QV_EXPORT(StringVector_Repeat)("r", row.count);
  if (op == "new") made = QV_EXPORT(new_StringVector__SWIG_2)(row.count);
  if (size == 0) size = made != nullptr ? QV_EXPORT(StringVector_size)(made) : QV_EXPORT(StringVector_size)(v);
  if (made != nullptr) QV_EXPORT(delete_StringVector)(made);
  QV_EXPORT(delete_StringVector)(other);
  QV_EXPORT(delete_StringVector)(v);
  return size;
}

size_t RunRecords(const RangeRow& row) {
  tagTagVarValue record;
  void* v = QV_EXPORT(new_VectorTagVarValue__SWIG_0)();
  for (int i = 0; i < 3; ++i) QV_EXPORT(VectorTagVarValue_Add)(v, &record);
  void* other = QV_EXPORT(new_VectorTagVarValue__SWIG_0)();
  for (int i = 0; i < row.count; ++i) QV_EXPORT(VectorTagVarValue_Add)(other, &record);
  const std::string op = row.op;
  size_t size = 0;
  void* made = nullptr;
  if (op == "getitem") size = QV_EXPORT(VectorTagVarValue_getitem)(v, row.index) != nullptr ? 3 : 0;
  if (op == "getitemcopy") {
    void* copy = QV_EXPORT(VectorTagVarValue_getitemcopy)(v, row.index);
    size = copy != nullptr ? 3 : 0;
    QV_EXPORT(delete_TagVarValue)(copy);
  }
  if (op == "setitem") QV_EXPORT(VectorTagVarValue_setitem)(v, row.index, &record);
  if (op == "RemoveAt") QV_EXPORT(VectorTagVarValue_RemoveAt)(v, row.index);
  if (op == "Insert") QV_EXPORT(VectorTagVarValue_Insert)(v, row.index, &record);
  if (op == "InsertRange") QV_EXPORT(VectorTagVarValue_InsertRange)(v, row.index, other);
  if (op == "GetRange") made = QV_EXPORT(VectorTagVarValue_GetRange)(v, row.index, row.count);
  if (op == "RemoveRange") QV_EXPORT(VectorTagVarValue_RemoveRange)(v, row.index, row.count);
  if (op == "Reverse") QV_EXPORT(VectorTagVarValue_Reverse__SWIG_1)(v, row.index, row.count);
  if (op == "SetRange") QV_EXPORT(VectorTagVarValue_SetRange)(v, row.index, other);
  if (op == "Repeat") made = QV_EXPORT(VectorTagVarValue_Repeat)(&record, row.count);
  if (op == "new") made = QV_EXPORT(new_VectorTagVarValue__SWIG_2)(row.count);
  if (size == 0)
    size = made != nullptr ? QV_EXPORT(VectorTagVarValue_size)(made) : QV_EXPORT(VectorTagVarValue_size)(v);
  if (made != nullptr) QV_EXPORT(delete_VectorTagVarValue)(made);
  QV_EXPORT(delete_VectorTagVarValue)(other);
  QV_EXPORT(delete_VectorTagVarValue)(v);
  return size;
}

TEST_F(Interop, VectorRangesOfBothVectors) {
  constexpr Kind kOut = Kind::ArgumentOutOfRange;
  const RangeRow rows[] = {
      {"getitem", 2, 0, Kind::None, "", 3},         {"getitem", 3, 0, kOut, "index", 0},
      {"getitem", -1, 0, kOut, "index", 0},         {"getitemcopy", 3, 0, kOut, "index", 0},
      {"getitemcopy", 0, 0, Kind::None, "", 3},     {"setitem", 3, 0, kOut, "index", 0},
      {"setitem", -1, 0, kOut, "index", 0},         {"RemoveAt", 3, 0, kOut, "index", 0},
      {"RemoveAt", 2, 0, Kind::None, "", 2},        {"Insert", 3, 0, Kind::None, "", 4},  // at size: an append
      {"Insert", 4, 0, kOut, "index", 0},           {"Insert", -1, 0, kOut, "index", 0},
      {"InsertRange", 3, 2, Kind::None, "", 5},     {"InsertRange", 4, 2, kOut, "index", 0},
      {"GetRange", 1, 2, Kind::None, "", 2},        {"GetRange", 3, 0, Kind::None, "", 0},
      {"GetRange", -1, 0, kOut, "index", 0},        {"GetRange", 0, -1, kOut, "count", 0},
      {"GetRange", 4, 0, Kind::Argument, "invalid range", 0},
      {"GetRange", 2, 2, Kind::Argument, "invalid range", 0},
      {"RemoveRange", 1, 2, Kind::None, "", 1},     {"RemoveRange", -1, 1, kOut, "index", 0},
      {"RemoveRange", 1, -1, kOut, "count", 0},     {"RemoveRange", 2, 2, Kind::Argument, "invalid range", 0},
      {"Reverse", 0, 3, Kind::None, "", 3},         {"Reverse", 0, -2, kOut, "count", 0},
      {"Reverse", 3, 1, Kind::Argument, "invalid range", 0},
      {"SetRange", 1, 2, Kind::None, "", 3},        {"SetRange", 2, 2, kOut, "index", 0},
      {"SetRange", -1, 0, kOut, "index", 0},        {"Repeat", 0, 4, Kind::None, "", 4},
      {"Repeat", 0, -1, kOut, "count", 0},          {"new", 0, 5, Kind::None, "", 0},
      {"new", 0, -1, kOut, "capacity", 0},
  };
  for (const RangeRow& row : rows) {
    for (bool records : {false, true}) {
      SCOPED_TRACE(std::string(row.op) + " " + std::to_string(row.index) + "," + std::to_string(row.count) +
                   (records ? " VectorTagVarValue" : " StringVector"));
      const size_t size = records ? RunRecords(row) : RunString(row);
      const Pending p = Take();
      EXPECT_EQ(p.kind, row.kind);
      if (row.kind == Kind::None) {
        EXPECT_EQ(size, row.sizeAfter);
      } else if (row.kind == Kind::ArgumentOutOfRange) {
        EXPECT_EQ(p.message, "(null)");  // the text travels as the parameter name
        EXPECT_EQ(p.param, row.param);
      } else {
        EXPECT_EQ(p.message, row.param);
        EXPECT_EQ(p.param, "");
      }
    }
  }
}

// The search operations that only StringVector has, the copy of a string
// item through the string callback, and the sizes cut to 32 bits.
TEST_F(Interop, StringVectorSearchesAndCopies) {
  void* v = QV_EXPORT(new_StringVector__SWIG_0)();
  for (const char* s : {"a", "b", "a"}) QV_EXPORT(StringVector_Add)(v, s);
  EXPECT_EQ(QV_EXPORT(StringVector_IndexOf)(v, "a"), 0);
  EXPECT_EQ(QV_EXPORT(StringVector_LastIndexOf)(v, "a"), 2);
  EXPECT_EQ(QV_EXPORT(StringVector_IndexOf)(v, "z"), -1);
  EXPECT_TRUE(QV_EXPORT(StringVector_Contains)(v, "b"));
  EXPECT_TRUE(QV_EXPORT(StringVector_Remove)(v, "a"));  // the first match only
  EXPECT_EQ(QV_EXPORT(StringVector_size)(v), 2u);
  EXPECT_EQ(QV_EXPORT(StringVector_IndexOf)(v, "a"), 1);
  EXPECT_FALSE(QV_EXPORT(StringVector_Remove)(v, "z"));
  // Both hand the item to the string callback: getitem the vector's own bytes, getitemcopy a copy's.
  const char* item = static_cast<std::vector<std::string>*>(v)->at(1).c_str();
  EXPECT_EQ(QV_EXPORT(StringVector_getitem)(v, 1), item);
  EXPECT_NE(QV_EXPORT(StringVector_getitemcopy)(v, 1), item);
  ASSERT_EQ(g_strings.size(), 2u);
  QV_EXPORT(StringVector_reserve)(v, 40);
  EXPECT_GE(QV_EXPORT(StringVector_capacity)(v), 40u);
  QV_EXPORT(StringVector_Reverse__SWIG_0)(v);
  EXPECT_EQ(QV_EXPORT(StringVector_IndexOf)(v, "a"), 0);
  void* copy = QV_EXPORT(new_StringVector__SWIG_1)(v);
  QV_EXPORT(StringVector_AddRange)(copy, v);
  EXPECT_EQ(QV_EXPORT(StringVector_size)(copy), 4u);
  EXPECT_EQ(Take().kind, Kind::None);
  QV_EXPORT(delete_StringVector)(copy);
  QV_EXPORT(delete_StringVector)(v);
}

// Each null argument that a wrapper checks: argument-null with its message
// and no parameter name, a result of 0, and nothing that the class would
// have logged or changed.
TEST_F(Interop, NullArgumentsRaiseAndNeverReachTheClass) {
  void* varlok = QV_EXPORT(new_ZelVarlok)();
  void* strings = QV_EXPORT(new_StringVector__SWIG_0)();
  void* records = QV_EXPORT(new_VectorTagVarValue__SWIG_0)();
  int fakeList = 0;
  void* handle = &fakeList;
  unsigned int error = 77, count = 77;
  const uint64_t* noSize = nullptr;
  auto pointer = [](void* p) { return reinterpret_cast<uintptr_t>(p); };
  const struct {
    const char* call;
    const char* message;
    std::function<uintptr_t()> run;  // the wrapper's result, 0 for none
  } rows[] = {
      {"ZelVarlok_InitializeCom", "null wstring",
       [&] { return QV_EXPORT(ZelVarlok_InitializeCom)(varlok, COM_TYPE_LOCAL, nullptr); }},
      {"ZelVarlok_ConnectToPlcDevice", "null string",
       [&] { return pointer(QV_EXPORT(ZelVarlok_ConnectToPlcDevice)(varlok, nullptr, &error)); }},
      {"ZelVarlok_CreateTagsHandle__SWIG_0", "null string",
       [&] { return pointer(QV_EXPORT(ZelVarlok_CreateTagsHandle__SWIG_0)(varlok, nullptr, &error)); }},
      {"ZelVarlok_CreateTagsHandle__SWIG_1", "Attempt to dereference null std::vector< std::string >",
       [&] { return pointer(QV_EXPORT(ZelVarlok_CreateTagsHandle__SWIG_1)(varlok, nullptr, &error)); }},
      {"ZelVarlok_DeleteTagsHandle", "HTAGLIST & type is null",
       [&] { return QV_EXPORT(ZelVarlok_DeleteTagsHandle)(varlok, nullptr); }},
      {"ZelVarlok_ReadTagList", "std::vector< TagVarValue > & type is null",
       [&] { return QV_EXPORT(ZelVarlok_ReadTagList)(varlok, handle, nullptr, &count); }},
      {"ZelVarlok_ReadTagList_INTERFACE_1", "std::vector< TagVarValue > & type is null",
       [&] { return QV_EXPORT(ZelVarlok_ReadTagList_INTERFACE_1)(varlok, handle, nullptr, &count); }},
      {"ZelVarlok_WriteTagList", "std::vector< std::string > & type is null",
       [&] { return QV_EXPORT(ZelVarlok_WriteTagList)(varlok, handle, nullptr); }},
      {"ZelVarlok_WriteTagList2", "std::vector< std::string > & type is null",
       [&] { return QV_EXPORT(ZelVarlok_WriteTagList2)(varlok, handle, nullptr, 1); }},
      {"CreateSymbolConfigHandle", "null wstring",
       [&] { return pointer(QV_EXPORT(CreateSymbolConfigHandle)(nullptr, &error)); }},
      {"StringVector_Add", "null string", [&] { return QV_EXPORT(StringVector_Add)(strings, nullptr), 0u; }},
      {"StringVector_Contains", "null string", [&] { return QV_EXPORT(StringVector_Contains)(strings, nullptr); }},
      {"StringVector_IndexOf", "null string",
       [&] { return static_cast<uintptr_t>(QV_EXPORT(StringVector_IndexOf)(strings, nullptr)); }},
      {"StringVector_LastIndexOf", "null string",
       [&] { return static_cast<uintptr_t>(QV_EXPORT(StringVector_LastIndexOf)(strings, nullptr)); }},
      {"StringVector_Remove", "null string", [&] { return QV_EXPORT(StringVector_Remove)(strings, nullptr); }},
      {"StringVector_Insert", "null string", [&] { return QV_EXPORT(StringVector_Insert)(strings, 0, nullptr), 0u; }},
      {"StringVector_setitem", "null string",
       [&] { return QV_EXPORT(StringVector_setitem)(strings, 0, nullptr), 0u; }},
      {"StringVector_Repeat", "null string", [&] { return pointer(QV_EXPORT(StringVector_Repeat)(nullptr, 1)); }},
      {"StringVector_AddRange", "std::vector< std::string > const & type is null",
       [&] { return QV_EXPORT(StringVector_AddRange)(strings, nullptr), 0u; }},
      {"StringVector_InsertRange", "std::vector< std::string > const & type is null",
       [&] { return QV_EXPORT(StringVector_InsertRange)(strings, 0, nullptr), 0u; }},
      {"StringVector_SetRange", "std::vector< std::string > const & type is null",
       [&] { return QV_EXPORT(StringVector_SetRange)(strings, 0, nullptr), 0u; }},
      {"new_StringVector__SWIG_1", "std::vector< std::string > const & type is null",
       [&] { return pointer(QV_EXPORT(new_StringVector__SWIG_1)(nullptr)); }},
      {"VectorTagVarValue_Add", "TagVarValue const & type is null",
       [&] { return QV_EXPORT(VectorTagVarValue_Add)(records, nullptr), 0u; }},
      {"VectorTagVarValue_Insert", "TagVarValue const & type is null",
       [&] { return QV_EXPORT(VectorTagVarValue_Insert)(records, 0, nullptr), 0u; }},
      {"VectorTagVarValue_Repeat", "TagVarValue const & type is null",
       [&] { return pointer(QV_EXPORT(VectorTagVarValue_Repeat)(nullptr, 1)); }},
      {"VectorTagVarValue_setitem", "TagVarValue const & type is null",
       [&] { return QV_EXPORT(VectorTagVarValue_setitem)(records, 0, nullptr), 0u; }},
      {"VectorTagVarValue_AddRange", "std::vector< TagVarValue > const & type is null",
       [&] { return QV_EXPORT(VectorTagVarValue_AddRange)(records, nullptr), 0u; }},
      {"VectorTagVarValue_InsertRange", "std::vector< TagVarValue > const & type is null",
       [&] { return QV_EXPORT(VectorTagVarValue_InsertRange)(records, 0, nullptr), 0u; }},
      {"VectorTagVarValue_SetRange", "std::vector< TagVarValue > const & type is null",
       [&] { return QV_EXPORT(VectorTagVarValue_SetRange)(records, 0, nullptr), 0u; }},
      {"new_VectorTagVarValue__SWIG_1", "std::vector< TagVarValue > const & type is null",
       [&] { return pointer(QV_EXPORT(new_VectorTagVarValue__SWIG_1)(nullptr)); }},
      {"VectorTagVarValue_reserve", "Attempt to dereference null std::vector< TagVarValue >::size_type",
       [&] { return QV_EXPORT(VectorTagVarValue_reserve)(records, noSize), 0u; }},
  };
  qvtest::Log().Clear();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.call);
    EXPECT_EQ(row.run(), 0u);
    const Pending p = Take();
    EXPECT_EQ(p.kind, Kind::ArgumentNull);
    EXPECT_EQ(p.message, row.message);
    EXPECT_EQ(p.param, "(null)");
  }
  EXPECT_EQ(error, 77u) << "the class never set the error";
  EXPECT_EQ(count, 77u);
  EXPECT_EQ(QV_EXPORT(StringVector_size)(strings), 0u) << "nothing was added or inserted";
  EXPECT_EQ(QV_EXPORT(VectorTagVarValue_size)(records), 0u);
  qvtest::Log().Drain();
  for (const qvtest::LogRecord& r : qvtest::Log().Snapshot())
    EXPECT_EQ(r.function.rfind("ZelVarlok::", 0), std::string::npos) << "the class logged: " << r.text;
  QV_EXPORT(delete_VectorTagVarValue)(records);
  QV_EXPORT(delete_StringVector)(strings);
  QV_EXPORT(delete_ZelVarlok)(varlok);
  QV_EXPORT(delete_ZelVarlok)(nullptr);  // ignored
}

// A C++ exception that would cross into the runtime is raised instead.
TEST_F(Interop, VectorOutOfMemoryIsRaisedNotThrown) {
  void* records = QV_EXPORT(new_VectorTagVarValue__SWIG_0)();
  const uint64_t huge = UINT64_MAX;  // beyond max_size: refused before any allocation
  QV_EXPORT(VectorTagVarValue_reserve)(records, &huge);
  EXPECT_EQ(Take().kind, Kind::OutOfMemory);
  const uint64_t some = 12;
  QV_EXPORT(VectorTagVarValue_reserve)(records, &some);
  EXPECT_EQ(Take().kind, Kind::None);
  EXPECT_GE(QV_EXPORT(VectorTagVarValue_capacity)(records), 12u);
  QV_EXPORT(delete_VectorTagVarValue)(records);
}

// String fields: a setter stores a copy (the old one stays allocated, as
// generated setters do), null stores null and the getter hands null on; the
// record's destructor frees what TagDesc owns and nothing of TagVarValue.
TEST_F(Interop, StringFieldsAndRecordLifetimes) {
  void* desc = QV_EXPORT(new_TagDesc)();
  EXPECT_EQ(QV_EXPORT(TagDesc_Type_get)(desc), VARLOK_NOT_SET);
  EXPECT_EQ(QV_EXPORT(TagDesc_BaseType_get)(desc), VARLOK_NOT_SET);
  EXPECT_EQ(QV_EXPORT(TagDesc_MinValue_get)(desc), 0);
  EXPECT_EQ(QV_EXPORT(TagDesc_TagsHandle_get)(desc), nullptr);
  EXPECT_EQ(QV_EXPORT(TagDesc_Name_get)(desc), nullptr);
  char name[] = "speed";
  QV_EXPORT(TagDesc_Name_set)(desc, name);
  const char* first = QV_EXPORT(TagDesc_Name_get)(desc);
  ASSERT_NE(first, nullptr);
  EXPECT_NE(first, name) << "a copy";
  EXPECT_STREQ(first, "speed");
  QV_EXPORT(TagDesc_Name_set)(desc, "torque");
  EXPECT_STREQ(QV_EXPORT(TagDesc_Name_get)(desc), "torque");
  delete[] first;  // not freed by the second set: a double free would show under AddressSanitizer
  QV_EXPORT(TagDesc_Comment_set)(desc, "a comment");
  const char* comment = QV_EXPORT(TagDesc_Comment_get)(desc);
  QV_EXPORT(TagDesc_Comment_set)(desc, nullptr);
  EXPECT_EQ(QV_EXPORT(TagDesc_Comment_get)(desc), nullptr);
  delete[] comment;
  ASSERT_EQ(g_strings.size(), 5u);
  EXPECT_EQ(g_strings.back(), nullptr) << "null goes through the string callback";
  QV_EXPORT(TagDesc_Type_set)(desc, TAG_TYPE_DINT);
  EXPECT_EQ(QV_EXPORT(TagDesc_Type_get)(desc), TAG_TYPE_DINT);
  QV_EXPORT(TagDesc_Type_set)(nullptr, TAG_TYPE_DINT);  // a null record is left alone
  QV_EXPORT(delete_TagDesc)(desc);  // frees "torque"; a leak would show under LeakSanitizer

  void* value = QV_EXPORT(new_TagVarValue)();
  EXPECT_EQ(QV_EXPORT(TagVarValue_Type_get)(value), VARLOK_NOT_SET);
  QV_EXPORT(TagVarValue_FullName_set)(value, "App.GVL.counter");
  const char* fullName = QV_EXPORT(TagVarValue_FullName_get)(value);
  int bytes = 0;
  QV_EXPORT(TagVarValue_Value_set)(value, &bytes);
  EXPECT_EQ(QV_EXPORT(TagVarValue_Value_get)(value), &bytes);
  void* vector = QV_EXPORT(new_VectorTagVarValue__SWIG_0)();
  QV_EXPORT(VectorTagVarValue_Add)(vector, value);
  void* copy = QV_EXPORT(VectorTagVarValue_getitemcopy)(vector, 0);
  EXPECT_NE(copy, QV_EXPORT(VectorTagVarValue_getitem)(vector, 0)) << "a heap copy that the caller deletes";
  EXPECT_EQ(QV_EXPORT(TagVarValue_FullName_get)(copy), fullName) << "the copy shares the name it does not own";
  QV_EXPORT(delete_TagVarValue)(copy);
  QV_EXPORT(delete_VectorTagVarValue)(vector);
  QV_EXPORT(delete_TagVarValue)(value);
  delete[] fullName;  // the record never owned it
  EXPECT_EQ(Take().kind, Kind::None);
}

// A path crosses as UTF-16: characters beyond the basic plane arrive whole,
// a lone surrogate as U+FFFD, and the file opens under a UTF-8 locale.
TEST_F(Interop, WidePathsCrossAsUtf16) {
  // Windows opens narrow paths in its ANSI code page, which spells no emoji.
  if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "no UTF-8 locale for paths here";
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("qvinterop-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const struct {
    std::u16string utf16;
    const char* onDisk;  // UTF-8
  } rows[] = {
      {u"D\u00e9mo-\u7b26\u53f7-\U0001F600.xml", "D\xc3\xa9mo-\xe7\xac\xa6\xe5\x8f\xb7-\xf0\x9f\x98\x80.xml"},
      {u"lone-\xd83d.xml", "lone-\xef\xbf\xbd.xml"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.onDisk);
    const fs::path file = dir / row.onDisk;
    fs::copy_file(QORVARLOK_DEMO_XML, file, fs::copy_options::overwrite_existing);
    const std::u16string full = dir.u16string() + u"/" + row.utf16;
    unsigned int code = 0;
    void* config = QV_EXPORT(CreateSymbolConfigHandle)(Utf16(full).data(), &code);
    ASSERT_NE(config, nullptr) << std::hex << code;
    tagTagDesc* top = nullptr;
    unsigned int count = 0;
    EXPECT_EQ(QV_EXPORT(GetSymbolConfigToppestTagsDesc)(config, &top, &count), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_STREQ(top[0].FullName, "App");
    QV_EXPORT(ReleaseSymbolConfigHandle)(config);
  }
  unsigned int code = 0;
  EXPECT_EQ(QV_EXPORT(CreateSymbolConfigHandle)(Utf16(dir.u16string() + u"/none.xml").data(), &code), nullptr);
  EXPECT_NE(code, 0u);
  fs::remove_all(dir);
  std::setlocale(LC_ALL, "C");
}

}  // namespace
