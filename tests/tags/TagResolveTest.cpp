// What is this tag name: the table, the split of indexed names, the bounds
// check and the two ways an index resolves, against real symbol files.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
// GCC 12 with the sanitizers warns falsely inside <regex>'s automaton.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop

#include "SymbolFixture.h"
#include "TagNameSplit.h"

using qorvarlok::tags::IndexList;
using qorvarlok::tags::IndexMap;
using qorvarlok::tags::kIndexOverflow;
using qorvarlok::tags::TagNode;
using qorvarlok::tags::TagsManager;

namespace {

const std::string kRichTypes =
    qvtest::kPointTypes +
    "<TypeSimple name=\"T_INT\" size=\"2\" iecname=\"INT\" typeclass=\"Int\"/>\n"
    "<TypeSimple name=\"T_STR21\" size=\"21\" iecname=\"STRING(20)\" typeclass=\"String\"/>\n"
    "<TypeArray name=\"T_CNT\" size=\"40\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_DINT\">"
    "<D minrange=\"0\" maxrange=\"9\"/></TypeArray>\n"
    "<TypeArray name=\"T_NAMES\" size=\"105\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_STR21\">"
    "<D minrange=\"1\" maxrange=\"5\"/></TypeArray>\n"
    "<TypeArray name=\"T_PTS\" size=\"24\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_POINT\">"
    "<D minrange=\"-1\" maxrange=\"1\"/></TypeArray>\n"
    "<TypeUserDef name=\"T_C\" size=\"4\" iecname=\"C\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">"
    "<UserDefElement iecname=\"c\" type=\"T_DINT\"/></TypeUserDef>\n"
    "<TypeArray name=\"T_BARR\" size=\"16\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_C\">"
    "<D minrange=\"0\" maxrange=\"3\"/></TypeArray>\n"
    "<TypeUserDef name=\"T_B\" size=\"16\" iecname=\"B\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">"
    "<UserDefElement iecname=\"b\" type=\"T_BARR\"/></TypeUserDef>\n"
    "<TypeArray name=\"T_AARR\" size=\"32\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_B\">"
    "<D minrange=\"1\" maxrange=\"2\"/></TypeArray>\n"
    "<TypeArray name=\"T_CUBE\" size=\"64\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_DINT\">"
    "<D minrange=\"0\" maxrange=\"1\"/><D minrange=\"0\" maxrange=\"1\"/>"
    "<D minrange=\"0\" maxrange=\"1\"/><D minrange=\"0\" maxrange=\"1\"/></TypeArray>\n"
    "<TypeUserDef name=\"T_ENUM\" size=\"2\" iecname=\"MODE\" typeclass=\"Enum\" basetype=\"T_INT\">"
    "<UserDefElement iecname=\"Off\" type=\"T_INT\" enumvalue=\"0\"/></TypeUserDef>\n"
    "<TypeArray name=\"T_EARR\" size=\"6\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_ENUM\">"
    "<D minrange=\"0\" maxrange=\"2\"/></TypeArray>\n";

const std::string kRichVariables =
    qvtest::kPointVariables +
    "<Node name=\"speed\" type=\"T_INT\" access=\"Read\"/>\n"  // same full name: the first one wins
    "<Node name=\"small\" type=\"T_INT\" access=\"ReadWrite\"/>\n"
    "<Node name=\"label\" type=\"T_STR21\" access=\"ReadWrite\"/>\n"
    "<Node name=\"counters\" type=\"T_CNT\" access=\"Write\"/>\n"
    "<Node name=\"names\" type=\"T_NAMES\" access=\"ReadWrite\"/>\n"
    "<Node name=\"points\" type=\"T_PTS\" access=\"ReadWrite\"/>\n"
    "<Node name=\"a\" type=\"T_AARR\" access=\"ReadWrite\"/>\n"
    "<Node name=\"cube\" type=\"T_CUBE\" access=\"ReadWrite\"/>\n"
    "<Node name=\"modes\" type=\"T_EARR\" access=\"ReadWrite\"/>\n";

struct Resolution {
  std::string name;
  bool found;
  int type;
  int size;
  std::string shortName;
  bool missLogged;  // "search Node failed <name>"
};

TEST(TagResolve, NamesResolveByTableSplitAndBounds) {
  auto manager = qvtest::FilledManager(qvtest::SymbolFile(kRichTypes, kRichVariables), 101);
  ASSERT_NE(manager, nullptr);
  const std::string huge(10000, '9');
  const std::vector<Resolution> cases = {
      {"App.GVL.speed", true, 7, 4, "speed", false},
      {"App.GVL.grid", true, 14, 48, "grid", false},
      {"App.GVL.grid.x", true, 7, 4, ".x", false},
      {"App.GVL.grid[1,3].y", true, 7, 4, "y", false},
      {"App.GVL.grid[0,1].x", true, 7, 4, "x", false},
      {"App.GVL.grid[1,3]", true, 15, 0, "grid[1,3]", false},
      {"App.GVL.grid[2,3].y", false, 0, 0, "", false},
      {"App.GVL.grid[1,4].y", false, 0, 0, "", false},
      {"App.GVL.grid[1,0].y", false, 0, 0, "", false},
      {"App.GVL.grid[1].y", false, 0, 0, "", false},
      {"App.GVL.grid[1,2,3].y", false, 0, 0, "", false},
      {"App.GVL.nothing", false, 0, 0, "", true},
      {"app.gvl.speed", false, 0, 0, "", true},
      {"App.GVL.counters[0]", true, 7, 4, "counters[0]", false},
      {"App.GVL.counters[9]", true, 7, 4, "counters[9]", false},
      {"App.GVL.counters[10]", false, 0, 0, "", false},
      {"App.GVL.counters[ 2]", true, 7, 4, "counters[ 2]", false},
      {"App.GVL.counters[0000000005]", true, 7, 4, "counters[0000000005]", false},
      {"App.GVL.counters[1,2,3,4]", false, 0, 0, "", false},
      {"App.GVL.counters[4294967297]", false, 0, 0, "", false},  // would wrap to 1 in 32 bits
      {"App.GVL.counters[" + huge + "]", false, 0, 0, "", false},
      {"App.GVL.names", true, 14, 105, "names", false},
      {"App.GVL.names[1]", true, 17, 81, "names[1]", false},
      {"App.GVL.names[5]", true, 17, 81, "names[5]", false},
      {"App.GVL.names[0]", false, 0, 0, "", false},
      {"App.GVL.points[0]", true, 15, 0, "points[0]", false},
      {"App.GVL.points[1].x", true, 7, 4, "x", false},
      {"App.GVL.points[-1].y", true, 7, 4, "y", false},  // "-1" reads as 1
      {"App.GVL.a[1].b[2].c", true, 7, 4, "c", false},
      {"App.GVL.a[2].b[3].c", true, 7, 4, "c", false},
      {"App.GVL.a[3].b[2].c", false, 0, 0, "", false},
      {"App.GVL.a[1].b[4].c", false, 0, 0, "", false},
      {"App.GVL.a[0].b[0].c", false, 0, 0, "", false},
      {"App.GVL.cube[0,0,0,0]", false, 0, 0, "", false},  // four dimensions: never registered
      {"App.GVL.modes[1]", true, 12, 0, "modes[1]", false},
      {"App.GVL.a[x]", false, 0, 0, "", true},
      {"App.GVL.grid[]", false, 0, 0, "", true},
      {"App.GVL.grid[1,3", false, 0, 0, "", true},
      {"App.GVL.grid[1,3].y[", false, 0, 0, "", true},
      {"App.GVL." + std::string(10000, 'x'), false, 0, 0, "", true},
      {"App.GVL.counters" + std::string(10000, '['), false, 0, 0, "", true},
  };
  for (const Resolution& c : cases) {
    SCOPED_TRACE(c.name.substr(0, 60));
    qvtest::Log().Clear();
    TagNode* node = manager->findTagNode(c.name);
    ASSERT_EQ(node != nullptr, c.found);
    EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "search Node failed " + c.name, "TagsManager::searchNode"),
              c.missLogged ? 1u : 0u);
    EXPECT_EQ(qvtest::ManagerErrors(), c.missLogged ? 1u : 0u);
    if (!c.found) continue;
    EXPECT_EQ(node->Type, c.type);
    EXPECT_EQ(node->Size, c.size);
    EXPECT_STREQ(node->Name, c.shortName.c_str());
    EXPECT_STREQ(node->FullName, c.name.c_str());
    EXPECT_EQ(node->Comment, nullptr);
    const size_t count = manager->NodeCount();
    EXPECT_EQ(manager->findTagNode(c.name), node) << "a resolved name is kept";
    EXPECT_EQ(manager->NodeCount(), count);
  }
}

TEST(TagResolve, IndexedNodeCopiesFromBaseNode) {
  auto manager = qvtest::FilledManager(qvtest::SymbolFile(kRichTypes, kRichVariables), 102);
  ASSERT_NE(manager, nullptr);
  TagNode* base = manager->findTagNode("App.GVL.grid.y");
  TagNode* element = manager->findTagNode("App.GVL.grid[1,3].y");
  ASSERT_NE(base, nullptr);
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(element->AccessType, 0);
  EXPECT_EQ(element->VarType, base->VarType);
  EXPECT_EQ(element->BaseType, VARLOK_NOT_SET);
  EXPECT_EQ(element->MinValue, base->MinValue);
  EXPECT_EQ(element->TagsHandle, nullptr);
  EXPECT_NE(base->TagsHandle, nullptr);  // still the tree node's
  TagNode* counter = manager->findTagNode("App.GVL.counters[5]");
  ASSERT_NE(counter, nullptr);
  EXPECT_EQ(counter->AccessType, 1);
  TagNode* speed = manager->findTagNode("App.GVL.speed");
  ASSERT_NE(speed, nullptr);
  EXPECT_EQ(speed->AccessType, 2) << "of two records with one name the first wins";
  EXPECT_EQ(speed->Comment, nullptr) << "the comment isn't carried over";
}

TEST(TagResolve, BoundsLiveUnderTheInstanceIdAndGoWithRelease) {
  auto manager = qvtest::FilledManager(qvtest::SymbolFile(qvtest::kPointTypes, qvtest::kPointVariables), 103);
  ASSERT_NE(manager, nullptr);
  auto& registry = qorvarlok::symbols::GetArrayBoundsRegistry();
  ASSERT_EQ(registry.count(103), 1u);
  // Another id sees no bounds: plain names work, indexed ones miss quietly.
  manager->SetInstanceId(104);
  EXPECT_NE(manager->findTagNode("App.GVL.speed"), nullptr);
  EXPECT_EQ(manager->findTagNode("App.GVL.grid[1,3].y"), nullptr);
  manager->SetInstanceId(103);
  EXPECT_NE(manager->findTagNode("App.GVL.grid[1,3].y"), nullptr);

  qvtest::Log().Clear();
  manager->ReleaseTagsManagerPrivate();
  EXPECT_EQ(registry.count(103), 0u);
  EXPECT_EQ(manager->NodeCount(), 0u);
  EXPECT_EQ(manager->ListHead(), nullptr);
  EXPECT_EQ(manager->Config(), nullptr);
  const auto records = qvtest::Log().Snapshot();
  std::vector<std::string> infos;
  for (const auto& r : records)
    if (r.level == spdlog::level::info) infos.push_back(r.text);
  EXPECT_EQ(infos, (std::vector<std::string>{"release tags manager nodes", "ReleaseTagsNodeHash"}));
}

TEST(TagResolve, InitWithoutConfigurationLogsAndLeavesNoHead) {
  qvtest::Log().Clear();
  {
    TagsManager manager;
    EXPECT_TRUE(qvtest::Log().WaitFor(spdlog::level::info, "init tag manager", "TagsManager::TagsManager"));
    EXPECT_EQ(manager.InitTagsManagerPrivate(nullptr), ERR_INVALID_TAG_HANDLE);
    EXPECT_EQ(manager.ListHead(), nullptr);
    EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "get symbol failed err=268436483",
                                    "TagsManager::InitTagsNodeHashByConf"),
              1u);
    EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "268436483", "TagsManager::InitTagsManagerPrivate"), 1u);
  }
  EXPECT_TRUE(qvtest::Log().WaitFor(spdlog::level::info, "delete tags manager", "TagsManager::~TagsManager"));
}

// The hand-written index parser must find what the pattern finds.
TEST(TagNameSplit, IndexParserAgreesWithThePattern) {
  const std::regex pattern(R"((\d+)(?:,(\d+)){0,1}(?:,(\d+)){0,1})");
  const std::vector<std::string> texts = {"1",   "1,2",  "1,2,3", "1,2,3,4", "-1",    " 2",   "a1b", "1,,2",
                                          "1,a", "",     "x",     "12,34,56", "1 ,2", ",5",   "7,",  "3,4,x,5",
                                          "00,01", "a,1,2", "1,2,3,",  "x9y8,7"};
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    IndexList expected;
    std::smatch match;
    const bool matched = std::regex_search(text, match, pattern);
    for (size_t g = 1; matched && g <= 3; ++g)
      if (match[g].matched) expected.push_back(std::atoi(match[g].str().c_str()));
    IndexList parsed{99};
    EXPECT_EQ(qorvarlok::tags::ParseIndexList(text, parsed), matched);
    EXPECT_EQ(parsed, expected);
  }
  IndexList parsed;
  ASSERT_TRUE(qorvarlok::tags::ParseIndexList(std::string(10000, '7') + ",2147483648,2", parsed));
  EXPECT_EQ(parsed, (IndexList{kIndexOverflow, 2147483648, 2}));
}

TEST(TagNameSplit, SplitGivesBaseNameAndIndicesPerArray) {
  struct Case {
    std::string name;
    bool ok;
    std::string base;
    IndexMap indices;
  };
  const std::vector<Case> cases = {
      {"App.GVL.grid[1,3].y", true, "App.GVL.grid.y", {{"App.GVL.grid", {1, 3}}}},
      {"a[1].b[2].c", true, "a.b.c", {{"a", {1}}, {"a.b", {2}}}},
      {"a[1][2]", true, "a", {{"a", {2}}}},
      {"a[x].b[2]", true, "a.b", {{"a.b", {2}}}},
      {"plain", true, "plain", {}},
      {"a[]", true, "a", {}},
      {"a[1", false, "", {}},
      {"a[1].b[", false, "", {}},
      {"a]b", true, "a]b", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string base;
    IndexMap indices;
    ASSERT_EQ(qorvarlok::tags::SplitIndexedName(c.name, base, indices), c.ok);
    if (!c.ok) continue;
    EXPECT_EQ(base, c.base);
    EXPECT_EQ(indices, c.indices);
  }
}

TEST(TagNameSplit, StrictSplitAcceptsOnlyPlainIndexBrackets) {
  struct Case {
    std::string name;
    bool ok;
    std::string bare;
    std::vector<std::string> brackets;
  };
  const std::vector<Case> cases = {
      {"a[1].b[2,3]", true, "a.b", {"[1]", "[2,3]"}},
      {"g[1,2,3]", true, "g", {"[1,2,3]"}},
      {"plain", true, "plain", {}},
      {"[1]a", true, "[1]a", {}},
      {"a[1", false, "", {}},
      {"a[x]", false, "", {}},
      {"a[]", false, "", {}},
      {"a[1,2,3,4]", false, "", {}},
      {"a[ 1]", false, "", {}},
      {"a[1,]", false, "", {}},
  };
  TagsManager manager;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string bare;
    std::vector<std::string> brackets{"stale"};
    ASSERT_EQ(manager.splitStrict(c.name, bare, brackets), c.ok);
    EXPECT_EQ(brackets, c.brackets);
    if (c.ok) {
      EXPECT_EQ(bare, c.bare);
    }
  }
}

// Names in the file are UTF-8; the table holds them in the user's locale.
class LocaleScope {
 public:
  explicit LocaleScope(const char* name) {
    const char* old = std::getenv("LC_ALL");
    m_hadOld = old != nullptr;
    if (m_hadOld) m_old = old;
    m_ok = std::setlocale(LC_ALL, name) != nullptr;
    setenv("LC_ALL", name, 1);
  }
  ~LocaleScope() {
    if (m_hadOld) setenv("LC_ALL", m_old.c_str(), 1);
    else unsetenv("LC_ALL");
    std::setlocale(LC_ALL, "C");
  }
  bool Ok() const { return m_ok; }

 private:
  bool m_ok = false;
  bool m_hadOld = false;
  std::string m_old;
};

const std::string kChineseTypes =
    "<TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
    "<TypeArray name=\"T_CNT\" size=\"16\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_DINT\">"
    "<D minrange=\"0\" maxrange=\"3\"/></TypeArray>\n";
const std::string kChineseVariables =
    "<Node name=\"\xE9\x80\x9F\xE5\xBA\xA6\" type=\"T_DINT\" access=\"ReadWrite\"/>\n"  // 速度
    "<Node name=\"\xE6\x95\xB0\xE7\xBB\x84\" type=\"T_CNT\" access=\"ReadWrite\"/>\n";  // 数组

TEST(TagResolve, GbkNamesResolveUnderGbkLocale) {
  LocaleScope locale("zh_CN.GBK");
  if (!locale.Ok()) GTEST_SKIP() << "locale zh_CN.GBK missing: localedef -i zh_CN -f GBK zh_CN.GBK";
  auto manager = qvtest::FilledManager(qvtest::SymbolFile(kChineseTypes, kChineseVariables), 105);
  ASSERT_NE(manager, nullptr);
  TagNode* speed = manager->findTagNode("App.GVL.\xCB\xD9\xB6\xC8");
  ASSERT_NE(speed, nullptr);
  EXPECT_STREQ(speed->Name, "\xCB\xD9\xB6\xC8");
  EXPECT_EQ(speed->Type, 7);
  TagNode* element = manager->findTagNode("App.GVL.\xCA\xFD\xD7\xE9[3]");
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(element->Size, 4);
  EXPECT_STREQ(element->Name, "\xCA\xFD\xD7\xE9[3]");
  EXPECT_EQ(manager->findTagNode("App.GVL.\xCA\xFD\xD7\xE9[4]"), nullptr);
  qvtest::Log().Clear();
  EXPECT_EQ(manager->findTagNode("App.GVL.\xE9\x80\x9F\xE5\xBA\xA6"), nullptr) << "the UTF-8 form isn't the key";
  EXPECT_EQ(qvtest::ManagerErrors(), 1u);
}

TEST(TagResolve, Utf8NameFoundByItsLocalFormUnderUtf8Locale) {
  LocaleScope locale("C.UTF-8");
  if (!locale.Ok()) GTEST_SKIP() << "locale C.UTF-8 missing";
  auto manager = qvtest::FilledManager(qvtest::SymbolFile(kChineseTypes, kChineseVariables), 106);
  ASSERT_NE(manager, nullptr);
  EXPECT_NE(manager->findTagNode("App.GVL.\xE9\x80\x9F\xE5\xBA\xA6"), nullptr);
  EXPECT_NE(manager->findTagNode("App.GVL.\xE6\x95\xB0\xE7\xBB\x84[0]"), nullptr);
}

}  // namespace
