// The plain browsing exports and their registry, the local form of names,
// hostile files, and files of the generator.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "GenSym.h"
#include "QorVarlok/ZelVarlok.h"
#include "SymbolTestFiles.h"
#include "LogCapture.h"

using namespace qorvarlok::symbols;

namespace {

class SymbolExports : public ::testing::Test {
 protected:
  void SetUp() override { qvtest::Log().Clear(); }
  void* Open(const std::string& path, unsigned int* code) {
    return CreateSymbolConfigHandleW(symtest::Wide(path).c_str(), code);
  }
  size_t Errors(const char* text, const char* function) {
    return qvtest::Log().CountOf(spdlog::level::err, text, function);
  }
  symtest::TempDir m_dir;
};

}  // namespace

TEST_F(SymbolExports, OpenBrowseRelease) {
  const std::string path = m_dir.Write("small.xml", symtest::SmallFile());
  unsigned int code = 7;
  void* handle = Open(path, &code);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(code, 7u);  // written only on failure
  tagTagDesc* top = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetSymbolConfigToppestTagsDesc(handle, &top, &count), 0u);
  ASSERT_EQ(count, 1u);
  tagTagDesc* gvl = nullptr;
  ASSERT_EQ(GetSymbolConfigSubTagsDesc(top[0].TagsHandle, &gvl, &count), 0u);
  EXPECT_STREQ(gvl[0].FullName, "App.GVL");
  tagTagDesc* all = nullptr;
  ASSERT_EQ(GetSymbolConfigParseResult(handle, &all, &count), 0u);
  ASSERT_EQ(count, 4u);
  ReleaseSymbolConfigHandle(handle);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "delete TagConfig", "TagConfig::~TagConfig"), 1u);
  // Records read before the release stay readable.
  EXPECT_STREQ(all[3].FullName, "App.GVL.grid.y");
  EXPECT_STREQ(gvl[0].Name, "GVL");
  // Release twice and use after release: refused, logged, nothing else.
  ReleaseSymbolConfigHandle(handle);
  EXPECT_EQ(Errors("tag handle is released", "ReleaseSymbolConfigHandle"), 1u);
  EXPECT_EQ(GetSymbolConfigParseResult(handle, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(GetSymbolConfigToppestTagsDesc(handle, &top, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("tag handle is released", "GetSymbolConfigParseResult"), 1u);
  EXPECT_EQ(Errors("tag handle is released", "GetSymbolConfigToppestTagsDesc"), 1u);
}

TEST_F(SymbolExports, ReopeningAPathReplacesItsEntry) {
  const std::string path = m_dir.Write("re.xml", symtest::SmallFile());
  unsigned int code = 0;
  void* first = Open(path, &code);
  void* second = Open(path, &code);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "new xml file", "CreateSymbolConfigHandleW"), 1u);
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  EXPECT_EQ(GetSymbolConfigParseResult(first, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("tag handle is released", "GetSymbolConfigParseResult"), 1u);
  EXPECT_EQ(GetSymbolConfigParseResult(second, &all, &count), 0u);
  EXPECT_EQ(count, 4u);

  // The file turns malformed: null handle, its code, and the old entry is gone too.
  m_dir.Write("re.xml", "<Symbolconfiguration><Header>");
  code = 0;
  EXPECT_EQ(Open(path, &code), nullptr);
  EXPECT_EQ(code, ERR_XML_ILLEGL_XML_FORMAT);
  EXPECT_EQ(GetSymbolConfigParseResult(second, &all, &count), ERR_INVALID_TAG_HANDLE);
  // The null handle of the failed reading is registered and refused by the operation.
  EXPECT_EQ(GetSymbolConfigParseResult(nullptr, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("pTagConfig == NULL", "GetAllTagsDescription"), 1u);
  EXPECT_EQ(GetSymbolConfigToppestTagsDesc(nullptr, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("pTagConfig == NULL", "GetToppestTagsDescription"), 1u);
  ReleaseSymbolConfigHandle(nullptr);
  EXPECT_EQ(GetSymbolConfigParseResult(nullptr, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(Errors("tag handle is released", "GetSymbolConfigParseResult"), 3u);
}

TEST_F(SymbolExports, NullAndNarrowEntries) {
  unsigned int code = 0;
  EXPECT_EQ(CreateSymbolConfigHandleW(nullptr, &code), nullptr);
  EXPECT_EQ(code, ERR_XML_ILLEGL_XML_FORMAT);
  ReleaseSymbolConfigHandle(nullptr);
  tagTagDesc* sub = nullptr;
  unsigned int count = 5;
  EXPECT_EQ(GetSymbolConfigSubTagsDesc(nullptr, &sub, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(Errors("hTagsInfo == NULL", "GetSubTagsDescription"), 1u);
  void* handle = CreateSymbolConfigHandle(symtest::Wide(m_dir.Write("n.xml", symtest::SmallFile())), &code);
  ASSERT_NE(handle, nullptr);
  ReleaseSymbolConfigHandle(handle);
}

TEST_F(SymbolExports, HostileFilesAreRefusedOrOpenWithoutHarm) {
  std::string deep = symtest::kHeader;
  for (int i = 0; i < 200000; ++i) deep += "<Node name=\"n\">";
  unsigned int code = 0;
  EXPECT_EQ(Open(m_dir.Write("deep.xml", deep), &code), nullptr);
  EXPECT_EQ(code, ERR_XML_ILLEGL_XML_FORMAT);
  EXPECT_NE(LastParseMessage().find("Elements nested deeper than 128 levels at line 8"), std::string::npos);

  // Huge names and comments open; nothing is cut.
  const std::string longName(1 << 20, 'n');
  const std::string longComment(4 << 20, 'c');
  const std::string big = symtest::Document(
      "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n",
      "        <Node name=\"" + longName + "\" type=\"T_DINT\" access=\"Read\"><Comment>" + longComment +
          "</Comment></Node>\n");
  code = 0;
  void* handle = Open(m_dir.Write("big.xml", big), &code);
  ASSERT_NE(handle, nullptr) << std::hex << code;
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetSymbolConfigParseResult(handle, &all, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(std::string(all[0].FullName), "App.GVL." + longName);
  EXPECT_EQ(std::string(all[0].Comment).size(), longComment.size());
  ReleaseSymbolConfigHandle(handle);

  // Truncated at every few bytes: never a crash, always a code.
  const std::string small = symtest::SmallFile();
  for (size_t cut = 0; cut < small.size(); cut += 37) {
    code = 0;
    void* h = Open(m_dir.Write("cut.xml", small.substr(0, cut)), &code);
    if (h == nullptr) {
      EXPECT_NE(code, 0u) << cut;
    } else {
      ReleaseSymbolConfigHandle(h);
    }
  }
}

TEST_F(SymbolExports, ExceptionsBecomeTheInputParametersCode) {
  // An array whose name passes the UTF-8 test but does not decode: the local
  // form of its name throws while the tree expands.
  const std::string xml =
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<Symbolconfiguration><Header/><TypeList>\n"
      "<TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
      "<TypeArray name=\"A\" size=\"8\" iecname=\"A\" typeclass=\"Array\" basetype=\"T_DINT\"><D minrange=\"0\" "
      "maxrange=\"1\"/></TypeArray>\n</TypeList><NodeList><Node name=\"App\"><Node name=\"GVL\">\n"
      "<Node name=\"\xF8\x80\x80\x80\x80\" type=\"A\" access=\"Read\"/>\n"
      "</Node></Node></NodeList></Symbolconfiguration>\n";
  unsigned int code = 0;
  void* handle = Open(m_dir.Write("bad-name.xml", xml), &code);
  ASSERT_NE(handle, nullptr) << std::hex << code;
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  EXPECT_EQ(GetSymbolConfigParseResult(handle, &all, &count), ERR_INPUT_PARAMETERS);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "exception=wstring_convert::from_bytes",
                                  "GetSymbolConfigParseResult"),
            1u);
  tagTagDesc* level = nullptr;
  ASSERT_EQ(GetSymbolConfigToppestTagsDesc(handle, &level, &count), 0u);
  ASSERT_EQ(GetSymbolConfigSubTagsDesc(level[0].TagsHandle, &level, &count), 0u);
  ASSERT_EQ(GetSymbolConfigSubTagsDesc(level[0].TagsHandle, &level, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(GetSymbolConfigSubTagsDesc(level[0].TagsHandle, &all, &count), ERR_INPUT_PARAMETERS);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "exception=wstring_convert::from_bytes",
                                  "GetSymbolConfigSubTagsDesc"),
            1u);
  ReleaseSymbolConfigHandle(handle);
}

TEST_F(SymbolExports, HandlesOfAReleasedConfigurationStayUsable) {
  unsigned int code = 0;
  void* handle = Open(m_dir.Write("kept.xml", symtest::SmallFile()), &code);
  ASSERT_NE(handle, nullptr);
  tagTagDesc* top = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetSymbolConfigToppestTagsDesc(handle, &top, &count), 0u);
  const size_t keptBefore = qorvarlok::symbols::ReleasedSymbolConfigCount();
  ReleaseSymbolConfigHandle(handle);
  EXPECT_EQ(qorvarlok::symbols::ReleasedSymbolConfigCount(), keptBefore + 1);
  // The tree outlives its registry entry: a held node can still be listed.
  tagTagDesc* gvl = nullptr;
  ASSERT_EQ(GetSymbolConfigSubTagsDesc(top[0].TagsHandle, &gvl, &count), 0u);
  tagTagDesc* vars = nullptr;
  ASSERT_EQ(GetSymbolConfigSubTagsDesc(gvl[0].TagsHandle, &vars, &count), 0u);
  EXPECT_EQ(count, 2u);
  EXPECT_STREQ(vars[1].FullName, "App.GVL.grid");
}

TEST_F(SymbolExports, GeneratedFileHasWhatTheGeneratorPromises) {
  const std::string path = m_dir.Path("gen.xml");
  ASSERT_TRUE(qorvarlok::gensym::WriteSymbolFile(path, 10000));
  const auto expected = qorvarlok::gensym::ExpectedFor(10000);
  symtest::OpenedConfig opened(path);
  ASSERT_NE(opened.config, nullptr) << LastParseMessage();
  opened.config->symbolConfiguration->SetInstanceId(0x5103);
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetAllTagsDescription(opened.config, &all, &count), 0u);
  EXPECT_EQ(count, expected.flatTags);
  EXPECT_EQ(GetArrayBoundsRegistry().at(0x5103).size(), expected.arrays);
  GetArrayBoundsRegistry().erase(0x5103);
  tagTagDesc* top = nullptr;
  ASSERT_EQ(GetToppestTagsDescription(opened.config, &top, &count), 0u);
  tagTagDesc* groups = nullptr;
  ASSERT_EQ(GetSubTagsDescription(top[0].TagsHandle, &groups, &count), 0u);
  EXPECT_EQ(count, expected.groups);
  EXPECT_FALSE(qorvarlok::gensym::WriteSymbolFile(m_dir.Path("no/such/dir.xml"), 10));
}

TEST(LocalEncoding, Utf8TestAndConversion) {
  struct {
    const char* text;
    bool utf8;
  } tests[] = {{"plain", false},          {"", false},
               {"\xE4\xB8\xAD", true},     {"a\xC3\xA9z", true},
               {"\xD6\xD0\xCE\xC4", false} /* GBK */, {"\xC3", false} /* ends inside a sequence */,
               {"\x80x", false},           {"\xF8\x80\x80\x80\x80", true} /* five bytes by the lead-byte rule */,
               {"\xFC\x80\x80\x80\x80\x80", true}};
  for (const auto& t : tests) EXPECT_EQ(IsUtf8(t.text), t.utf8) << t.text;

  const char* saved = std::getenv("LC_ALL");
  const std::string restore = saved != nullptr ? saved : "";
  setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_EQ(ToLocalEncoding("App.GVL.\xE4\xB8\xAD"), "App.GVL.\xE4\xB8\xAD");
  EXPECT_EQ(ToLocalEncoding("\xD6\xD0"), "\xD6\xD0");  // not UTF-8: a plain copy
  EXPECT_EQ(ToLocalEncoding(nullptr), "");
  EXPECT_THROW(ToLocalEncoding("\xF8\x80\x80\x80\x80"), std::range_error);
  std::string longName;
  for (int i = 0; i < 600; ++i) longName += "\xE4\xB8\xAD";
  EXPECT_EQ(ToLocalEncoding(longName.c_str()).size(), 1023u);  // cut at a character boundary

  if (std::setlocale(LC_ALL, "zh_CN.gbk") != nullptr) {
    setenv("LC_ALL", "zh_CN.gbk", 1);
    EXPECT_EQ(ToLocalEncoding("App.\xE4\xB8\xAD\xE6\x96\x87"), "App.\xD6\xD0\xCE\xC4");
  }
  qvtest::Log().Clear();
  setenv("LC_ALL", "C", 1);
  EXPECT_EQ(ToLocalEncoding("x\xE4\xB8\xAD"), "x\xE4\xB8\xAD");  // no form in ASCII: kept, not lost
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::warn, "x\xE4\xB8\xAD has no form in the current locale, kept as it is",
                                  "ToLocalEncoding"),
            1u);
  if (saved != nullptr) {
    setenv("LC_ALL", restore.c_str(), 1);
  } else {
    unsetenv("LC_ALL");
  }
  std::setlocale(LC_ALL, "");
}

// A million variables open and flatten (seconds: labelled slow).
TEST(SymbolsSlow, MillionVariablesOpenAndFlatten) {
  symtest::TempDir dir;
  const std::string path = dir.Path("million.xml");
  ASSERT_TRUE(qorvarlok::gensym::WriteSymbolFile(path, 1000000));
  const auto expected = qorvarlok::gensym::ExpectedFor(1000000);
  unsigned int code = 0;
  void* handle = CreateSymbolConfigHandleW(symtest::Wide(path).c_str(), &code);
  ASSERT_NE(handle, nullptr) << std::hex << code;
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetSymbolConfigParseResult(handle, &all, &count), 0u);
  EXPECT_EQ(count, expected.flatTags);
  EXPECT_STREQ(all[count - 1].FullName, "App.G00999.v999999.ok");
  ReleaseSymbolConfigHandle(handle);
  qorvarlok::symbols::ReclaimReleasedSymbolConfigs();
  EXPECT_EQ(qorvarlok::symbols::ReleasedSymbolConfigCount(), 0u);
}
