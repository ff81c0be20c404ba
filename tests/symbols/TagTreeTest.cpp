// The tag tree: level by level and flat, the expansion rules, the bounds
// registry and the low-memory walk.
#include <gtest/gtest.h>

#include <set>

#include "SymbolTestFiles.h"

using namespace qorvarlok::symbols;
using symtest::FullNames;

namespace {

// Every expansion rule: nested structures, unions, function blocks, types that
// contain themselves, a member of unknown type, arrays of one to four dimensions.
const char* kRichTypes = R"(<TypeSimple name="T_DINT" size="4" iecname="DINT" typeclass="DInt"/>
<TypeSimple name="T_INT" size="2" iecname="INT" typeclass="Int"/>
<TypeSimple name="T_REF" size="8" iecname="REF" typeclass="Reference"/>
<TypeSimple name="T_SR" size="2" iecname="SR" typeclass="Subrange" underlyingtype="T_INT" lowerborder="-5"
  upperborder="5"/>
<TypeUserDef name="T_E" size="2" iecname="E" typeclass="Enum" basetype="T_INT">
  <UserDefElement iecname="Off" type="T_INT" enumvalue="0"/><UserDefElement iecname="On" type="T_INT" enumvalue="1"/>
</TypeUserDef>
<TypeUserDef name="T_P" size="8" iecname="P" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="x" type="T_DINT"/><UserDefElement iecname="y" type="T_DINT"/></TypeUserDef>
<TypeUserDef name="T_OUTER" size="12" iecname="OUTER" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="p" type="T_P"/><UserDefElement iecname="mode" type="T_E"/></TypeUserDef>
<TypeUserDef name="T_U" size="4" iecname="U" typeclass="Userdef" pouclass="UNION">
  <UserDefElement iecname="asDInt" type="T_DINT"/><UserDefElement iecname="asInt" type="T_INT"/></TypeUserDef>
<TypeUserDef name="T_FB" size="16" iecname="FB" typeclass="Userdef" pouclass="FUNCTION_BLOCK">
  <UserDefElement iecname="in" type="T_DINT" vartype="VAR_INPUT"/><UserDefElement iecname="io" type="T_DINT"
   vartype="VAR_IN_OUT"/><UserDefElement iecname="out" type="T_INT" vartype="VAR_OUTPUT"/></TypeUserDef>
<TypeUserDef name="T_SELF" size="8" iecname="SELF" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="a" type="T_DINT"/><UserDefElement iecname="again" type="T_SELF"/></TypeUserDef>
<TypeUserDef name="T_PING" size="8" iecname="PING" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="pong" type="T_PONG"/></TypeUserDef>
<TypeUserDef name="T_PONG" size="8" iecname="PONG" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="ping" type="T_PING"/></TypeUserDef>
<TypeUserDef name="T_BADM" size="8" iecname="BADM" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="good" type="T_DINT"/><UserDefElement iecname="bad" type="T_MISSING"/>
  <UserDefElement iecname="never" type="T_DINT"/></TypeUserDef>
<TypeArray name="T_AD" size="40" iecname="AD" typeclass="Array" basetype="T_DINT">
  <R minrange="0" maxrange="9"/></TypeArray>
<TypeArray name="T_AP3" size="192" iecname="AP3" typeclass="Array" basetype="T_P">
  <R minrange="1" maxrange="2"/><R minrange="0" maxrange="2"/><R minrange="-1" maxrange="2"/></TypeArray>
<TypeArray name="T_AU" size="8" iecname="AU" typeclass="Array" basetype="T_U"><R minrange="0" maxrange="1"/></TypeArray>
<TypeArray name="T_A4" size="128" iecname="A4" typeclass="Array" basetype="T_P"><R minrange="0" maxrange="1"/>
  <R minrange="0" maxrange="1"/><R minrange="0" maxrange="1"/><R minrange="0" maxrange="1"/></TypeArray>
<TypeArray name="T_HUGE" size="4" iecname="HUGE" typeclass="Array" basetype="T_P">
  <R minrange="-2147483648" maxrange="2147483647"/><R minrange="0" maxrange="99999999999"/></TypeArray>
)";

const char* kRichVariables = R"(<Node name="outer" type="T_OUTER" access="ReadWrite"/>
<Node name="u" type="T_U" access="Read"/><Node name="fb" type="T_FB" access="ReadWrite"/>
<Node name="e" type="T_E" access="Read"/><Node name="sr" type="T_SR" access="Write"/>
<Node name="ad" type="T_AD" access="ReadWrite"/><Node name="ap3" type="T_AP3" access="Read"/>
<Node name="au" type="T_AU" access="Read"/><Node name="a4" type="T_A4" access="Read"/>
<Node name="ref" type="T_REF" access="Read" referencetype="T_DINT"/><Node name="self" type="T_SELF" access="Read"/>
<Node name="ping" type="T_PING" access="Read"/><Node name="badm" type="T_BADM" access="Read"/>
<Node name="huge" type="T_HUGE" access="Read"/>
)";

class TagTree : public ::testing::Test {
 protected:
  void SetUp() override { qvtest::Log().Clear(); }
  // Sub tags of the tag with this full name among descs.
  unsigned int Sub(const tagTagDesc* descs, unsigned int count, const std::string& name, tagTagDesc** sub,
                   unsigned int* n) {
    for (unsigned int i = 0; i < count; ++i)
      if (name == descs[i].FullName) return GetSubTagsDescription(descs[i].TagsHandle, sub, n);
    ADD_FAILURE() << name;
    return 0;
  }
  symtest::TempDir m_dir;
};

TEST_F(TagTree, SmallFileLevelByLevelAndFlat) {
  const auto opened = symtest::Read(m_dir.Write("small.xml", symtest::SmallFile()));
  ASSERT_NE(opened, nullptr);
  opened->symbolConfiguration->SetInstanceId(0x5101);
  tagTagDesc *top = nullptr, *gvl = nullptr, *vars = nullptr, *members = nullptr;
  unsigned int count = 99;
  ASSERT_EQ(GetToppestTagsDescription(opened.get(), &top, &count), 0u);
  ASSERT_EQ(FullNames(top, count), std::vector<std::string>{"App"});
  EXPECT_EQ(std::make_tuple(top[0].Type, top[0].AccessType, top[0].Comment, top[0].MinValue),
            std::make_tuple(VARLOK_NOT_SET, VARLOK_NOT_SET, static_cast<char*>(nullptr), -1));
  ASSERT_EQ(Sub(top, count, "App", &gvl, &count), 0u);
  ASSERT_EQ(FullNames(gvl, count), std::vector<std::string>{"App.GVL"});
  ASSERT_EQ(Sub(gvl, count, "App.GVL", &vars, &count), 0u);
  ASSERT_EQ(FullNames(vars, count), (std::vector<std::string>{"App.GVL.speed", "App.GVL.grid"}));
  EXPECT_EQ(std::make_tuple(vars[0].Type, vars[0].Size, vars[0].AccessType, std::string(vars[0].Comment)),
            std::make_tuple(TAG_TYPE_DINT, 4, ACCESS_READWRITE, std::string("motor speed")));
  EXPECT_EQ(std::make_tuple(vars[1].BaseType, vars[1].VarType, std::string(vars[1].Comment)),
            std::make_tuple(TAG_TYPE_STRUCTURE, VARLOK_NOT_SET, std::string()));
  ASSERT_EQ(Sub(vars, 2, "App.GVL.grid", &members, &count), 0u);
  ASSERT_EQ(FullNames(members, count), (std::vector<std::string>{"App.GVL.grid.x", "App.GVL.grid.y"}));
  EXPECT_EQ(std::make_tuple(members[0].AccessType, members[0].VarType), std::make_tuple(ACCESS_READ, VAR_KIND_VAR));
  // A leaf is an error, not an empty list.
  tagTagDesc* none = members;
  EXPECT_EQ(Sub(vars, 2, "App.GVL.speed", &none, &count), ERR_INVALID_TAG_HANDLE);
  EXPECT_EQ(std::make_pair(none, count), std::make_pair(static_cast<tagTagDesc*>(nullptr), 0u));
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "*ppSubTagsDesc == nullptr", "GetSubTagsDescription"), 1u);

  tagTagDesc *all = nullptr, *second = nullptr;
  ASSERT_EQ(GetAllTagsDescription(opened.get(), &all, &count), 0u);
  EXPECT_EQ(FullNames(all, count),
            (std::vector<std::string>{"App.GVL.speed", "App.GVL.grid", "App.GVL.grid.x", "App.GVL.grid.y"}));
  EXPECT_EQ(std::make_tuple(std::string(all[3].Name), all[3].AccessType, all[1].Size),
            std::make_tuple(std::string(".y"), ACCESS_READ, 48));
  ASSERT_EQ(GetAllTagsDescription(opened.get(), &second, &count), 0u);
  EXPECT_EQ(std::make_pair(second, count), std::make_pair(all, 4u));
  EXPECT_EQ(GetArrayBoundsRegistry().at(0x5101).at("App.GVL.grid"), (DimensionBounds{{0, {0, 1}}, {1, {1, 3}}}));
  GetArrayBoundsRegistry().erase(0x5101);
}

TEST_F(TagTree, ExpansionRules) {
  const auto opened = symtest::Read(m_dir.Write("rich.xml", symtest::Document(kRichTypes, kRichVariables)));
  ASSERT_NE(opened, nullptr) << LastParseMessage();
  opened->symbolConfiguration->SetInstanceId(0x5102);
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetAllTagsDescription(opened.get(), &all, &count), 0u);
  std::vector<std::string> expected = {
      "outer", "outer.p", "outer.p.x", "outer.p.y", "outer.mode", "u.asDInt", "u.asInt",  // a union only by members
      "fb.in", "fb.out",                   // no VAR_IN_OUT member, no function block record
      "e", "sr", "ad",                     // enumerations and arrays of elementary types: leaves
      "ap3", "ap3.x", "ap3.y", "au", "a4",  // members once for all elements; none for unions, nor four dimensions
      "self", "self.a", "self.again", "ping", "ping.pong", "ping.pong.ping",  // stops where a type repeats
      "badm", "badm.good", "huge", "huge.x", "huge.y"};  // members stop at an unknown type; a reference has no tag
  for (std::string& name : expected) name = "App.GVL." + name;
  ASSERT_EQ(FullNames(all, count), expected);
  EXPECT_EQ(std::make_tuple(all[7].VarType, all[8].VarType, all[7].AccessType),
            std::make_tuple(VAR_KIND_INPUT, VAR_KIND_OUTPUT, ACCESS_READWRITE));
  EXPECT_EQ(std::make_tuple(all[10].MinValue, all[10].MaxValue, all[10].BaseType),
            std::make_tuple(-5, 5, TAG_TYPE_INT));
  EXPECT_EQ(std::make_tuple(all[9].BaseType, all[4].Type, all[11].BaseType),
            std::make_tuple(TAG_TYPE_INT, TAG_TYPE_ENUM, TAG_TYPE_DINT));
  auto& log = qvtest::Log();
  EXPECT_EQ(log.CountOf(spdlog::level::err, "array dim is 4", "SymbolConfiguration::ConvertArrayTags"), 1u);
  for (const char* self : {"App.GVL.self.again of type T_SELF", "App.GVL.ping.pong.ping of type T_PING"})
    EXPECT_EQ(log.CountOf(spdlog::level::warn, std::string(self) + " contains itself, not expanded",
                          "SymbolConfiguration::ExpandTag"), 1u);
  const auto& bounds = GetArrayBoundsRegistry().at(0x5102);
  EXPECT_EQ(bounds.size(), 4u) << "no bounds for four dimensions";
  EXPECT_EQ(bounds.at("App.GVL.ad"), (DimensionBounds{{0, {0, 9}}}));
  EXPECT_EQ(bounds.at("App.GVL.ap3"), (DimensionBounds{{0, {1, 2}}, {1, {0, 2}}, {2, {-1, 2}}}));
  EXPECT_EQ(bounds.at("App.GVL.au"), (DimensionBounds{{0, {0, 1}}}));
  EXPECT_EQ(bounds.at("App.GVL.huge"), (DimensionBounds{{0, {-2147483647 - 1, 2147483647}}, {1, {0, 2147483647}}}));
  GetArrayBoundsRegistry().erase(0x5102);

  tagTagDesc *top = nullptr, *gvl = nullptr, *vars = nullptr;  // level by level: which tags have sub tags
  ASSERT_EQ(GetToppestTagsDescription(opened.get(), &top, &count), 0u);
  ASSERT_EQ(Sub(top, 1, "App", &gvl, &count), 0u);
  ASSERT_EQ(Sub(gvl, 1, "App.GVL", &vars, &count), 0u);
  ASSERT_EQ(count, 13u);  // the reference has no tag
  for (const auto& [name, n] : std::vector<std::pair<std::string, unsigned int>>{
           {"e", 0}, {"sr", 0}, {"ad", 0}, {"a4", 0}, {"au", 0}, {"u", 2}, {"fb", 2}, {"outer", 2}, {"ap3", 2},
           {"badm", 1}}) {
    tagTagDesc* sub = nullptr;
    unsigned int subCount = 99;  // a leaf has none: an error, not an empty list
    EXPECT_EQ(Sub(vars, count, "App.GVL." + name, &sub, &subCount), n == 0 ? ERR_INVALID_TAG_HANDLE : 0u) << name;
    EXPECT_EQ(subCount, n) << name;
  }
}

// Types T1..Tn, each holding two members of the type below; one variable of type Tn.
std::string Doubling(int levels) {
  std::string types = "<TypeSimple name=\"T0\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n";
  for (int i = 1; i <= levels; ++i) {
    const std::string below = "T" + std::to_string(i - 1), name = "T" + std::to_string(i);
    types += "<TypeUserDef name=\"" + name + "\" size=\"4\" iecname=\"S\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">"
             "<UserDefElement iecname=\"a\" type=\"" + below + "\"/><UserDefElement iecname=\"b\" type=\"" + below +
             "\"/></TypeUserDef>\n";
  }
  return symtest::Document(types, "<Node name=\"v\" type=\"T" + std::to_string(levels) + "\" access=\"Read\"/>\n");
}

size_t TreeNodes(const TagData* node) {
  size_t n = 0;
  if (node->children != nullptr)
    for (const TagData* child : *node->children) n += 1 + TreeNodes(child);
  return n;
}

// The count of tags a file expands to, taken from the types alone at opening,
// is the tree that expansion builds; beyond the bound the file is refused at once.
TEST_F(TagTree, ExpansionIsBoundedByTheNumberOfTags) {
  for (const auto& [xml, flat] : {std::make_pair(symtest::Document(kRichTypes, kRichVariables), 28u),
                                  std::make_pair(Doubling(16), 131071u)}) {  // the variable and all its members
    const auto counted = symtest::Read(m_dir.Write("count.xml", xml));
    const auto built = symtest::Read(m_dir.Write("count.xml", xml));
    ASSERT_TRUE(counted != nullptr && built != nullptr) << LastParseMessage();
    tagTagDesc* all = nullptr;
    unsigned int count = 0;
    ASSERT_EQ(GetAllTagsDescription(built.get(), &all, &count), 0u);
    EXPECT_EQ(CountExpandedTags(*counted->symbolConfiguration, *counted), TreeNodes(built.get()));
    EXPECT_EQ(count, flat);
  }
  GetArrayBoundsRegistry().erase(0);
  unsigned int code = 0;
  EXPECT_EQ(symtest::Read(m_dir.Write("bomb.xml", Doubling(30)), &code), nullptr);  // 2^31 tags from 7 KB
  EXPECT_EQ(code, ERR_XML_TYPE_DEF_ERROR);
  EXPECT_EQ(LastParseMessage(), std::string(ReadErrorDescription(ERR_XML_TYPE_DEF_ERROR)) + "(more than 10000000 tags)");
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err,
                                  "the tags of this file would exceed the bound of 10000000 tags "
                                  "(kMaxTagsPerConfiguration) once expanded, refused",
                                  "SymbolConfiguration::CreateTagsConfig"), 1u);
}

TEST_F(TagTree, LowMemoryWalkVisitsEveryHandleOnce) {
  const auto opened = symtest::Read(m_dir.Write("rich.xml", symtest::Document(kRichTypes, kRichVariables)));
  ASSERT_NE(opened, nullptr);
  tagTagDesc* level = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetToppestTagsDescriptionWithLowMemory(opened.get(), &level, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(opened->children->size(), 0u);  // detached: they live through the handles
  std::vector<std::string> seen{level[0].FullName};
  size_t leaves = 0;
  for (std::vector<void*> frontier{level[0].TagsHandle}; !frontier.empty();) {
    tagTagDesc* sub = nullptr;
    unsigned int n = 0;
    const unsigned int code = GetSubTagsDescriptionWithLowMemory(opened.get(), frontier.back(), &sub, &n);
    frontier.pop_back();
    leaves += code != 0;
    ASSERT_TRUE(code == 0 || code == ERR_INVALID_TAG_HANDLE) << code;
    for (unsigned int i = 0; code == 0 && i < n; ++i)
      seen.emplace_back(sub[i].FullName), frontier.push_back(sub[i].TagsHandle);
  }
  EXPECT_TRUE(opened->lowMemoryPending.empty());
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), seen.size()) << "each tag once";
  EXPECT_EQ(std::make_pair(seen.size(), leaves), std::make_pair(size_t{32}, size_t{20}));  // as level by level
  // A visited handle is dead, and both arguments are required.
  tagTagDesc* sub = nullptr;
  for (TagsConfig* config : {opened.get(), static_cast<TagsConfig*>(nullptr)})
    EXPECT_EQ(GetSubTagsDescriptionWithLowMemory(config, level[0].TagsHandle, &sub, &count), ERR_INVALID_TAG_HANDLE);
  char expected[512] = {0};
  std::snprintf(expected, sizeof(expected), "hTagsInfo=%p, pTagConfig=%p", level[0].TagsHandle, nullptr);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, expected, "GetSubTagsDescriptionWithLowMemory"), 1u);
}

}  // namespace
