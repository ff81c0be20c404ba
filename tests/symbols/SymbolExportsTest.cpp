// The plain exports and their registry, hostile files, local names, the demo's sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <set>

#include "GenSym.h"
#include "SymbolTestFiles.h"

using namespace qorvarlok::symbols;

namespace {

class SymbolExports : public ::testing::Test {
 protected:
  void SetUp() override { qvtest::Log().Clear(); }
  void* Open(const std::string& p, unsigned int* c) { return CreateSymbolConfigHandleW(symtest::Wide(p).c_str(), c); }
  size_t Errors(const char* text, const char* fn) { return qvtest::Log().CountOf(spdlog::level::err, text, fn); }
  symtest::TempDir m_dir;
  tagTagDesc* m_all = nullptr;
  unsigned int m_count = 0;
};

TEST_F(SymbolExports, RegistryReopenReleaseTwiceAndUseAfterRelease) {
  const std::string path = m_dir.Write("re.xml", symtest::SmallFile());
  unsigned int code = 7;
  void* first = Open(path, &code);
  void* second = Open(path, &code);  // the same path again replaces the entry
  ASSERT_TRUE(first != nullptr && second != nullptr && first != second);
  EXPECT_EQ(code, 7u) << "written only on failure";
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "new xml file", "CreateSymbolConfigHandleW"), 1u);
  EXPECT_EQ(GetSymbolConfigParseResult(first, &m_all, &m_count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("tag handle is released", "GetSymbolConfigParseResult"), 1u);
  ASSERT_EQ(GetSymbolConfigParseResult(second, &m_all, &m_count), 0u);
  ASSERT_EQ(m_count, 4u);
  tagTagDesc* top = nullptr;
  ASSERT_EQ(GetSymbolConfigToppestTagsDesc(second, &top, &m_count), 0u);
  qvtest::Log().Clear();
  ReleaseSymbolConfigHandle(second);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "delete TagConfig", "TagConfig::~TagConfig"), 1u);
  EXPECT_STREQ(m_all[3].FullName, "App.GVL.grid.y") << "records read before the release stay readable";
  tagTagDesc* gvl = nullptr;  // and so do the nodes behind their handles
  ASSERT_EQ(GetSymbolConfigSubTagsDesc(top[0].TagsHandle, &gvl, &m_count), 0u);
  EXPECT_STREQ(gvl[0].FullName, "App.GVL");
  ReleaseSymbolConfigHandle(second);
  EXPECT_EQ(Errors("tag handle is released", "ReleaseSymbolConfigHandle"), 1u);
  EXPECT_EQ(GetSymbolConfigParseResult(second, &m_all, &m_count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(GetSymbolConfigToppestTagsDesc(second, &top, &m_count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("tag handle is released", "GetSymbolConfigToppestTagsDesc"), 1u);
  // A file turned malformed: a null handle and its code; the null handle is refused too.
  void* third = Open(path, &code);
  ASSERT_NE(third, nullptr);
  m_dir.Write("re.xml", "<Symbolconfiguration><Header>");
  EXPECT_EQ(Open(path, &code), nullptr);
  EXPECT_EQ(code, ERR_XML_ILLEGL_XML_FORMAT);
  EXPECT_EQ(GetSymbolConfigParseResult(third, &m_all, &m_count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(GetSymbolConfigParseResult(nullptr, &m_all, &m_count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("pTagConfig == NULL", "GetAllTagsDescription"), 1u);
  EXPECT_EQ(GetSymbolConfigSubTagsDesc(nullptr, &m_all, &m_count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("hTagsInfo == NULL", "GetSubTagsDescription"), 1u);
  EXPECT_EQ(CreateSymbolConfigHandleW(nullptr, &code), nullptr);
}

TEST_F(SymbolExports, HostileFilesAreRefusedOrOpenWithoutHarm) {
  std::string deep = symtest::kHeader, name(1 << 20, 'n'), comment(4 << 20, 'c');
  for (int i = 0; i < 200000; ++i) deep += "<Node name=\"n\">";
  const std::string dint = "<TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n";
  const std::string array = "<TypeArray name=\"A\" size=\"4\" iecname=\"A\" typeclass=\"Array\" basetype=\"";
  // A name that passes the UTF-8 test by its lead byte but does not decode: expanding it throws.
  std::string badName = symtest::Document(dint + array + "T_DINT\"><D minrange=\"0\" maxrange=\"1\"/></TypeArray>\n",
                                          "<Node name=\"\xF8\x80\x80\x80\x80\" type=\"A\" access=\"Read\"/>\n");
  badName.replace(badName.find("utf-8"), 5, "ISO-8859-1");
  // file, code of the opening, code of the flat list, its one tag and the length of its comment
  const std::vector<std::tuple<std::string, unsigned int, unsigned int, std::string, size_t>> cases = {
      {deep, ERR_XML_ILLEGL_XML_FORMAT, 0, "", 0},
      {symtest::Document(dint, "<Node name=\"" + name + "\" type=\"T_DINT\" access=\"Read\"><Comment>" + comment +
                                   "</Comment></Node>\n"), 0, 0, "App.GVL." + name, comment.size()},  // nothing cut
      {symtest::Document(dint + array + "A\"><D minrange=\"-2147483648\" maxrange=\"2147483647\"/></TypeArray>\n",
                         "<Node name=\"a\" type=\"A\" access=\"Read\"/>\n"), 0, 0, "App.GVL.a", 0},  // of itself
      {badName, 0, ERR_INPUT_PARAMETERS, "", 0},
  };
  for (const auto& [xml, code, listCode, tag, commentLength] : cases) {
    unsigned int got = 0;
    void* handle = Open(m_dir.Write("h.xml", xml), &got);
    EXPECT_EQ(got, code);
    if (handle == nullptr) continue;
    EXPECT_EQ(GetSymbolConfigParseResult(handle, &m_all, &m_count), listCode);
    if (listCode == 0) {
      ASSERT_EQ(m_count, 1u);
      EXPECT_EQ(std::make_pair(std::string(m_all[0].FullName), std::string(m_all[0].Comment).size()),
                std::make_pair(tag, commentLength));
    }
    ReleaseSymbolConfigHandle(handle);
  }
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "refused before parsing: Elements nested deeper than 128 levels "
                                                      "at line 8"), 1u);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "exception=wstring_convert::from_bytes",
                                  "GetSymbolConfigParseResult"), 1u);
  const std::string small = symtest::SmallFile();  // truncated anywhere: a code, never a crash
  for (size_t cut = 0; cut < small.size(); cut += 37) {
    unsigned int got = 0;
    void* handle = Open(m_dir.Write("cut.xml", small.substr(0, cut)), &got);
    EXPECT_TRUE(handle != nullptr || got != 0) << cut;
    if (handle != nullptr) ReleaseSymbolConfigHandle(handle);
  }
}

TEST(LocalEncoding, NamesTakeTheLocaleFormOrStayAsTheyAre) {
  const std::string saved = getenv("LC_ALL") != nullptr ? getenv("LC_ALL") : "";
  std::string longName;
  for (int i = 0; i < 600; ++i) longName += "\xE4\xB8\xAD";
  for (const auto& [locale, text, local] : std::vector<std::tuple<const char*, std::string, std::string>>{
           {"C.UTF-8", "\xD6\xD0", "\xD6\xD0"},                        // not UTF-8: a plain copy
           {"C.UTF-8", longName, longName.substr(0, 1023)},             // cut at a character boundary
           {"C", "x\xE4\xB8\xAD", "x\xE4\xB8\xAD"}}) {  // no form in ASCII: kept, not lost
    if (std::setlocale(LC_ALL, locale) == nullptr) continue;
    testsys::SetEnv("LC_ALL", locale);
    qvtest::Log().Clear();
    EXPECT_EQ(ToLocalEncoding(text.c_str()), local) << locale;
  }
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::warn, "x\xE4\xB8\xAD has no form in the current locale, kept as it is",
                                  "ToLocalEncoding"), 1u);
  EXPECT_THROW(ToLocalEncoding("\xF8\x80\x80\x80\x80"), std::range_error);
  testsys::SetEnv("LC_ALL", saved);
  std::setlocale(LC_ALL, "");
}

// (size, alignment) of a type by the layout rule the demo project states.
std::pair<int, int> Layout(const SymbolConfiguration& doc, const TypeBase* type) {
  auto roundUp = [](int x, int a) { return (x + a - 1) / a * a; };
  switch (type->typeClass) {
    case TAG_TYPE_STRING: return {type->size, 1};
    case TAG_TYPE_WSTRING: return {type->size, 2};
    case TAG_TYPE_SUBRANGE:
      return Layout(doc, doc.FindType(dynamic_cast<const TypeSimple*>(type)->underlyingType, nullptr));
    case TAG_TYPE_ENUM: return Layout(doc, doc.FindType(dynamic_cast<const TypeUserDef*>(type)->baseType, nullptr));
    case TAG_TYPE_ARRAY: {
      const auto* array = dynamic_cast<const TypeArray*>(type);
      const auto element = Layout(doc, doc.FindType(array->baseType, nullptr));
      int count = 1;
      for (const ArrayRange* r : array->ranges) count *= r->maxRange - r->minRange + 1;
      return {element.first * count, element.second};
    }
    case TAG_TYPE_STRUCTURE:
    case TAG_TYPE_FUNCTION_BLOCK:
    case TAG_TYPE_UNION: {
      int offset = 0, largest = 0, align = 1;
      for (const UserDefElement* m : dynamic_cast<const TypeUserDef*>(type)->elements) {
        auto member = m->varType == 3 ? std::make_pair(8, 8) : Layout(doc, doc.FindType(m->type, nullptr));
        member.second = std::min(member.second, 8);
        offset = roundUp(offset, member.second) + member.first;
        largest = std::max(largest, member.first);
        align = std::max(align, member.second);
      }
      return {roundUp(type->typeClass == TAG_TYPE_UNION ? largest : offset, align), align};
    }
    default: return {type->size, type->size};  // elementary: natural alignment is the size
  }
}

TEST(DemoProject, EverySizeFollowsTheLayoutRule) {
  const auto opened = symtest::Read(QORVARLOK_DEMO_XML);
  ASSERT_NE(opened, nullptr) << LastParseMessage();
  const SymbolConfiguration& doc = *opened->symbolConfiguration;
  std::set<int> classes;
  for (const TypeBase* type : doc.types->Types()) {
    classes.insert(type->typeClass);
    if (type->iecName != "TYPE_REFERENCE") {
      EXPECT_EQ(Layout(doc, type).first, type->size) << type->name;
    }
  }
  for (int code = 0; code <= TAG_TYPE_REFERENCE; ++code) EXPECT_EQ(classes.count(code), 1u) << "type class " << code;
}

}  // namespace

// A million variables open and flatten (seconds: labelled slow).
TEST(SymbolsSlow, MillionVariablesOpenAndFlatten) {
  symtest::TempDir dir;
  const std::string path = dir.Path("million.xml");
  ASSERT_TRUE(qorvarlok::gensym::WriteSymbolFile(path, 1000000));
  unsigned int code = 0;
  void* handle = CreateSymbolConfigHandleW(symtest::Wide(path).c_str(), &code);
  ASSERT_NE(handle, nullptr) << std::hex << code;
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetSymbolConfigParseResult(handle, &all, &count), 0u);
  EXPECT_EQ(count, qorvarlok::gensym::ExpectedFor(1000000).flatTags);
  EXPECT_STREQ(all[count - 1].FullName, "App.G00999.v999999.ok");
  ReleaseSymbolConfigHandle(handle);
  ReclaimReleasedSymbolConfigs();
  EXPECT_EQ(ReleasedSymbolConfigCount(), 0u);
}
