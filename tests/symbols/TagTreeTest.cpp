// The tag tree: level by level and flat, the expansion rules, the bounds
// registry and the low-memory walk.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "SymbolTestFiles.h"
#include "LogCapture.h"

using namespace qorvarlok::symbols;

namespace {

std::vector<std::string> FullNames(const tagTagDesc* descs, unsigned int count) {
  std::vector<std::string> names;
  for (unsigned int i = 0; i < count; ++i) names.emplace_back(descs[i].FullName != nullptr ? descs[i].FullName : "<null>");
  return names;
}

// A project with every expansion rule in it.
const char* kRichTypes =
    "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
    "    <TypeSimple name=\"T_INT\" size=\"2\" iecname=\"INT\" typeclass=\"Int\"/>\n"
    "    <TypeSimple name=\"T_REF\" size=\"8\" iecname=\"REF\" typeclass=\"Reference\"/>\n"
    "    <TypeSimple name=\"T_SR\" size=\"2\" iecname=\"SR\" typeclass=\"Subrange\" underlyingtype=\"T_INT\" "
    "lowerborder=\"-5\" upperborder=\"5\"/>\n"
    "    <TypeUserDef name=\"T_E\" size=\"2\" iecname=\"E\" typeclass=\"Enum\" basetype=\"T_INT\">\n"
    "      <UserDefElement iecname=\"Off\" type=\"T_INT\" enumvalue=\"0\"/>\n"
    "      <UserDefElement iecname=\"On\" type=\"T_INT\" enumvalue=\"1\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_P\" size=\"8\" iecname=\"P\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"x\" type=\"T_DINT\"/>\n"
    "      <UserDefElement iecname=\"y\" type=\"T_DINT\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_OUTER\" size=\"12\" iecname=\"OUTER\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"p\" type=\"T_P\"/>\n"
    "      <UserDefElement iecname=\"mode\" type=\"T_E\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_U\" size=\"4\" iecname=\"U\" typeclass=\"Userdef\" pouclass=\"UNION\">\n"
    "      <UserDefElement iecname=\"asDInt\" type=\"T_DINT\"/>\n"
    "      <UserDefElement iecname=\"asInt\" type=\"T_INT\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_FB\" size=\"16\" iecname=\"FB\" typeclass=\"Userdef\" pouclass=\"FUNCTION_BLOCK\">\n"
    "      <UserDefElement iecname=\"in\" type=\"T_DINT\" vartype=\"VAR_INPUT\"/>\n"
    "      <UserDefElement iecname=\"io\" type=\"T_DINT\" vartype=\"VAR_IN_OUT\"/>\n"
    "      <UserDefElement iecname=\"out\" type=\"T_INT\" vartype=\"VAR_OUTPUT\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_SELF\" size=\"8\" iecname=\"SELF\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"a\" type=\"T_DINT\"/>\n"
    "      <UserDefElement iecname=\"again\" type=\"T_SELF\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_PING\" size=\"8\" iecname=\"PING\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"pong\" type=\"T_PONG\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_PONG\" size=\"8\" iecname=\"PONG\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"ping\" type=\"T_PING\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeUserDef name=\"T_BADM\" size=\"8\" iecname=\"BADM\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"good\" type=\"T_DINT\"/>\n"
    "      <UserDefElement iecname=\"bad\" type=\"T_MISSING\"/>\n"
    "      <UserDefElement iecname=\"never\" type=\"T_DINT\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeArray name=\"T_AD\" size=\"40\" iecname=\"AD\" typeclass=\"Array\" basetype=\"T_DINT\">\n"
    "      <R minrange=\"0\" maxrange=\"9\"/>\n"
    "    </TypeArray>\n"
    "    <TypeArray name=\"T_AP3\" size=\"192\" iecname=\"AP3\" typeclass=\"Array\" basetype=\"T_P\">\n"
    "      <R minrange=\"1\" maxrange=\"2\"/><R minrange=\"0\" maxrange=\"2\"/><R minrange=\"-1\" maxrange=\"2\"/>\n"
    "    </TypeArray>\n"
    "    <TypeArray name=\"T_AU\" size=\"8\" iecname=\"AU\" typeclass=\"Array\" basetype=\"T_U\">\n"
    "      <R minrange=\"0\" maxrange=\"1\"/>\n"
    "    </TypeArray>\n"
    "    <TypeArray name=\"T_A4\" size=\"128\" iecname=\"A4\" typeclass=\"Array\" basetype=\"T_P\">\n"
    "      <R minrange=\"0\" maxrange=\"1\"/><R minrange=\"0\" maxrange=\"1\"/><R minrange=\"0\" maxrange=\"1\"/>"
    "<R minrange=\"0\" maxrange=\"1\"/>\n"
    "    </TypeArray>\n"
    "    <TypeArray name=\"T_HUGE\" size=\"4\" iecname=\"HUGE\" typeclass=\"Array\" basetype=\"T_P\">\n"
    "      <R minrange=\"-2147483648\" maxrange=\"2147483647\"/><R minrange=\"0\" maxrange=\"99999999999\"/>\n"
    "    </TypeArray>\n";

const char* kRichVariables =
    "        <Node name=\"outer\" type=\"T_OUTER\" access=\"ReadWrite\"/>\n"
    "        <Node name=\"u\" type=\"T_U\" access=\"Read\"/>\n"
    "        <Node name=\"fb\" type=\"T_FB\" access=\"ReadWrite\"/>\n"
    "        <Node name=\"e\" type=\"T_E\" access=\"Read\"/>\n"
    "        <Node name=\"sr\" type=\"T_SR\" access=\"Write\"/>\n"
    "        <Node name=\"ad\" type=\"T_AD\" access=\"ReadWrite\"/>\n"
    "        <Node name=\"ap3\" type=\"T_AP3\" access=\"Read\"/>\n"
    "        <Node name=\"au\" type=\"T_AU\" access=\"Read\"/>\n"
    "        <Node name=\"a4\" type=\"T_A4\" access=\"Read\"/>\n"
    "        <Node name=\"ref\" type=\"T_REF\" access=\"Read\" referencetype=\"T_DINT\"/>\n"
    "        <Node name=\"self\" type=\"T_SELF\" access=\"Read\"/>\n"
    "        <Node name=\"ping\" type=\"T_PING\" access=\"Read\"/>\n"
    "        <Node name=\"badm\" type=\"T_BADM\" access=\"Read\"/>\n"
    "        <Node name=\"huge\" type=\"T_HUGE\" access=\"Read\"/>\n";

class TagTree : public ::testing::Test {
 protected:
  void SetUp() override { qvtest::Log().Clear(); }
  symtest::TempDir m_dir;
};

}  // namespace

TEST_F(TagTree, SmallFileLevelByLevel) {
  symtest::OpenedConfig opened(m_dir.Write("small.xml", symtest::SmallFile()));
  ASSERT_NE(opened.config, nullptr);
  tagTagDesc* top = nullptr;
  unsigned int count = 99;
  ASSERT_EQ(GetToppestTagsDescription(opened.config, &top, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_STREQ(top[0].Name, "App");
  EXPECT_STREQ(top[0].FullName, "App");
  EXPECT_EQ(top[0].Type, VARLOK_NOT_SET);
  EXPECT_EQ(top[0].AccessType, VARLOK_NOT_SET);
  EXPECT_EQ(top[0].Comment, nullptr);
  EXPECT_EQ(top[0].MinValue, -1);

  tagTagDesc* gvl = nullptr;
  ASSERT_EQ(GetSubTagsDescription(top[0].TagsHandle, &gvl, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_STREQ(gvl[0].FullName, "App.GVL");

  tagTagDesc* vars = nullptr;
  ASSERT_EQ(GetSubTagsDescription(gvl[0].TagsHandle, &vars, &count), 0u);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(FullNames(vars, count), (std::vector<std::string>{"App.GVL.speed", "App.GVL.grid"}));
  EXPECT_EQ(vars[0].Type, TAG_TYPE_DINT);
  EXPECT_EQ(vars[0].Size, 4);
  EXPECT_EQ(vars[0].AccessType, ACCESS_READWRITE);
  EXPECT_STREQ(vars[0].Comment, "motor speed");
  EXPECT_STREQ(vars[1].Comment, "");  // a variable without comment has an empty one
  EXPECT_EQ(vars[1].BaseType, TAG_TYPE_STRUCTURE);
  EXPECT_EQ(vars[1].VarType, VARLOK_NOT_SET);

  tagTagDesc* members = nullptr;
  ASSERT_EQ(GetSubTagsDescription(vars[1].TagsHandle, &members, &count), 0u);
  ASSERT_EQ(count, 2u);
  EXPECT_STREQ(members[0].Name, ".x");
  EXPECT_STREQ(members[0].FullName, "App.GVL.grid.x");
  EXPECT_EQ(members[0].AccessType, ACCESS_READ);
  EXPECT_EQ(members[0].VarType, VAR_KIND_VAR);

  // A leaf is an error, not an empty list.
  tagTagDesc* none = reinterpret_cast<tagTagDesc*>(&count);
  EXPECT_EQ(GetSubTagsDescription(vars[0].TagsHandle, &none, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "*ppSubTagsDesc == nullptr", "GetSubTagsDescription"), 1u);
  // Asked again, the same cached array.
  tagTagDesc* again = nullptr;
  ASSERT_EQ(GetSubTagsDescription(gvl[0].TagsHandle, &again, &count), 0u);
  EXPECT_EQ(again, vars);
}

TEST_F(TagTree, SmallFileFlatAndItsBounds) {
  symtest::OpenedConfig opened(m_dir.Write("small.xml", symtest::SmallFile()));
  ASSERT_NE(opened.config, nullptr);
  opened.config->symbolConfiguration->SetInstanceId(0x5101);
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetAllTagsDescription(opened.config, &all, &count), 0u);
  EXPECT_EQ(FullNames(all, count), (std::vector<std::string>{"App.GVL.speed", "App.GVL.grid", "App.GVL.grid.x",
                                                             "App.GVL.grid.y"}));
  EXPECT_STREQ(all[2].Name, ".x");
  EXPECT_STREQ(all[3].Name, ".y");
  EXPECT_EQ(all[3].AccessType, ACCESS_READ);
  EXPECT_EQ(all[1].Size, 48);
  tagTagDesc* second = nullptr;
  unsigned int secondCount = 0;
  ASSERT_EQ(GetAllTagsDescription(opened.config, &second, &secondCount), 0u);
  EXPECT_EQ(second, all);
  EXPECT_EQ(secondCount, 4u);

  const auto& byName = GetArrayBoundsRegistry().at(0x5101);
  ASSERT_EQ(byName.count("App.GVL.grid"), 1u);
  const DimensionBounds expected{{0, {0, 1}}, {1, {1, 3}}};
  EXPECT_EQ(byName.at("App.GVL.grid"), expected);
  GetArrayBoundsRegistry().erase(0x5101);

  EXPECT_EQ(GetAllTagsDescription(nullptr, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(all, nullptr);
  EXPECT_EQ(GetToppestTagsDescription(nullptr, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(GetSubTagsDescription(nullptr, &all, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "pTagConfig == NULL", "GetAllTagsDescription"), 1u);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "pTagConfig == NULL", "GetToppestTagsDescription"), 1u);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "hTagsInfo == NULL", "GetSubTagsDescription"), 1u);
}

TEST_F(TagTree, ExpansionRulesInTheFlatList) {
  symtest::OpenedConfig opened(m_dir.Write("rich.xml", symtest::Document(kRichTypes, kRichVariables)));
  ASSERT_NE(opened.config, nullptr) << LastParseMessage();
  opened.config->symbolConfiguration->SetInstanceId(0x5102);
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetAllTagsDescription(opened.config, &all, &count), 0u);
  const std::vector<std::string> expected = {
      "App.GVL.outer", "App.GVL.outer.p", "App.GVL.outer.p.x", "App.GVL.outer.p.y", "App.GVL.outer.mode",
      "App.GVL.u.asDInt", "App.GVL.u.asInt",           // a union only through its members
      "App.GVL.fb.in", "App.GVL.fb.out",               // no VAR_IN_OUT member, no function block record
      "App.GVL.e", "App.GVL.sr", "App.GVL.ad",         // enumerations and arrays of elementary types: leaves
      "App.GVL.ap3", "App.GVL.ap3.x", "App.GVL.ap3.y",  // one set of member tags for every element
      "App.GVL.au",                                    // arrays of unions get no member tags
      "App.GVL.a4",                                    // four dimensions: the tag, nothing below
      "App.GVL.self", "App.GVL.self.a", "App.GVL.self.again",  // stops where the type repeats
      "App.GVL.ping", "App.GVL.ping.pong", "App.GVL.ping.pong.ping",
      "App.GVL.badm", "App.GVL.badm.good",             // members stop at the first unknown type
      "App.GVL.huge", "App.GVL.huge.x", "App.GVL.huge.y",
  };
  EXPECT_EQ(FullNames(all, count), expected);
  auto find = [&](const std::string& name) -> const tagTagDesc& {
    for (unsigned int i = 0; i < count; ++i)
      if (name == all[i].FullName) return all[i];
    static tagTagDesc none;
    ADD_FAILURE() << name;
    return none;
  };
  EXPECT_EQ(find("App.GVL.fb.in").VarType, VAR_KIND_INPUT);
  EXPECT_EQ(find("App.GVL.fb.out").VarType, VAR_KIND_OUTPUT);
  EXPECT_EQ(find("App.GVL.fb.in").AccessType, ACCESS_READWRITE);
  EXPECT_EQ(find("App.GVL.sr").MinValue, -5);
  EXPECT_EQ(find("App.GVL.sr").MaxValue, 5);
  EXPECT_EQ(find("App.GVL.sr").BaseType, TAG_TYPE_INT);
  EXPECT_EQ(find("App.GVL.e").BaseType, TAG_TYPE_INT);
  EXPECT_EQ(find("App.GVL.outer.mode").Type, TAG_TYPE_ENUM);
  EXPECT_EQ(find("App.GVL.ad").BaseType, TAG_TYPE_DINT);
  EXPECT_EQ(find("App.GVL.ap3.x").Name, std::string(".x"));

  auto& log = qvtest::Log();
  EXPECT_EQ(log.CountOf(spdlog::level::err, "array dim is 4", "SymbolConfiguration::ConvertArrayTags"), 1u);
  EXPECT_EQ(log.CountOf(spdlog::level::warn, "App.GVL.self.again of type T_SELF contains itself, not expanded",
                        "SymbolConfiguration::ExpandTag"),
            1u);
  EXPECT_EQ(log.CountOf(spdlog::level::warn, "App.GVL.ping.pong.ping of type T_PING contains itself, not expanded",
                        "SymbolConfiguration::ExpandTag"),
            1u);

  const auto& bounds = GetArrayBoundsRegistry().at(0x5102);
  EXPECT_EQ(bounds.count("App.GVL.a4"), 0u);
  EXPECT_EQ(bounds.at("App.GVL.ad"), (DimensionBounds{{0, {0, 9}}}));
  EXPECT_EQ(bounds.at("App.GVL.ap3"), (DimensionBounds{{0, {1, 2}}, {1, {0, 2}}, {2, {-1, 2}}}));
  EXPECT_EQ(bounds.at("App.GVL.au"), (DimensionBounds{{0, {0, 1}}}));
  EXPECT_EQ(bounds.at("App.GVL.huge"), (DimensionBounds{{0, {-2147483647 - 1, 2147483647}}, {1, {0, 2147483647}}}));
  EXPECT_EQ(bounds.size(), 4u);
  GetArrayBoundsRegistry().erase(0x5102);
}

TEST_F(TagTree, LeavesOfEveryKindHaveNoSubTags) {
  symtest::OpenedConfig opened(m_dir.Write("rich.xml", symtest::Document(kRichTypes, kRichVariables)));
  ASSERT_NE(opened.config, nullptr);
  tagTagDesc* top = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetToppestTagsDescription(opened.config, &top, &count), 0u);
  tagTagDesc* gvl = nullptr;
  ASSERT_EQ(GetSubTagsDescription(top[0].TagsHandle, &gvl, &count), 0u);
  tagTagDesc* vars = nullptr;
  ASSERT_EQ(GetSubTagsDescription(gvl[0].TagsHandle, &vars, &count), 0u);
  ASSERT_EQ(count, 13u);  // the reference has no tag
  struct {
    const char* name;
    unsigned int code;
    unsigned int count;
  } cases[] = {{"App.GVL.e", ERR_INVALID_TAG_HANDLE, 0},  {"App.GVL.sr", ERR_INVALID_TAG_HANDLE, 0},
               {"App.GVL.ad", ERR_INVALID_TAG_HANDLE, 0}, {"App.GVL.a4", ERR_INVALID_TAG_HANDLE, 0},
               {"App.GVL.au", ERR_INVALID_TAG_HANDLE, 0}, {"App.GVL.u", 0, 2},
               {"App.GVL.fb", 0, 2},                      {"App.GVL.outer", 0, 2},
               {"App.GVL.ap3", 0, 2},                     {"App.GVL.badm", 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    void* handle = nullptr;
    for (unsigned int i = 0; i < count; ++i)
      if (std::string(c.name) == vars[i].FullName) handle = vars[i].TagsHandle;
    ASSERT_NE(handle, nullptr);
    tagTagDesc* sub = nullptr;
    unsigned int subCount = 99;
    EXPECT_EQ(GetSubTagsDescription(handle, &sub, &subCount), c.code);
    EXPECT_EQ(subCount, c.count);
  }
}

TEST_F(TagTree, LowMemoryWalkVisitsEveryHandleOnce) {
  symtest::OpenedConfig opened(m_dir.Write("rich.xml", symtest::Document(kRichTypes, kRichVariables)));
  ASSERT_NE(opened.config, nullptr);
  tagTagDesc* level = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetToppestTagsDescriptionWithLowMemory(opened.config, &level, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(opened.config->children->size(), 0u);  // detached: they live through the handles

  std::vector<std::string> seen;
  std::vector<void*> frontier{level[0].TagsHandle};
  seen.emplace_back(level[0].FullName);
  size_t leaves = 0;
  while (!frontier.empty()) {
    void* handle = frontier.back();
    frontier.pop_back();
    tagTagDesc* sub = nullptr;
    unsigned int n = 0;
    const unsigned int code = GetSubTagsDescriptionWithLowMemory(opened.config, handle, &sub, &n);
    if (code != 0) {
      EXPECT_EQ(code, ERR_INVALID_TAG_HANDLE);
      ++leaves;
      continue;
    }
    for (unsigned int i = 0; i < n; ++i) {
      seen.emplace_back(sub[i].FullName);
      frontier.push_back(sub[i].TagsHandle);
    }
  }
  EXPECT_TRUE(opened.config->lowMemoryPending.empty());
  const std::set<std::string> names(seen.begin(), seen.end());
  EXPECT_EQ(names.size(), seen.size());
  for (const char* name : {"App", "App.GVL", "App.GVL.fb.in", "App.GVL.ap3.y", "App.GVL.self.again"})
    EXPECT_EQ(names.count(name), 1u) << name;
  EXPECT_GT(leaves, 10u);

  // A visited handle is dead, and both arguments are required.
  tagTagDesc* sub = nullptr;
  unsigned int n = 0;
  EXPECT_EQ(GetSubTagsDescriptionWithLowMemory(opened.config, level[0].TagsHandle, &sub, &n), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(GetSubTagsDescriptionWithLowMemory(nullptr, level[0].TagsHandle, &sub, &n), ERR_INVALID_TAG_HANDLE);
  char expected[512] = {0};
  std::snprintf(expected, sizeof(expected), "hTagsInfo=%p, pTagConfig=%p", level[0].TagsHandle, nullptr);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, expected, "GetSubTagsDescriptionWithLowMemory"), 1u);
}

TEST_F(TagTree, LowMemoryWalkAbandonedHalfwayReleasesWithTheRoot) {
  // Nodes handed out and never visited go with the TagsConfig (checked by the leak sanitizer).
  symtest::OpenedConfig opened(m_dir.Write("small.xml", symtest::SmallFile()));
  ASSERT_NE(opened.config, nullptr);
  tagTagDesc* level = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetToppestTagsDescriptionWithLowMemory(opened.config, &level, &count), 0u);
  tagTagDesc* sub = nullptr;
  ASSERT_EQ(GetSubTagsDescriptionWithLowMemory(opened.config, level[0].TagsHandle, &sub, &count), 0u);
  EXPECT_STREQ(sub[0].FullName, "App.GVL");
  EXPECT_EQ(opened.config->lowMemoryPending.size(), 1u);
}
