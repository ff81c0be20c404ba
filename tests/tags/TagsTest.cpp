// The tags manager against real symbol files: which tag a name is, tag lists
// (layout, the first bad name, the chain, the TCP map), and value text.
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <filesystem>
#include <fstream>

#include "LogCapture.h"
#include "SymbolConfigDll.h"
#include "TagsManager.h"
#include "TestSystem.h"
#include "Varlok.h"

using qorvarlok::tags::TagNode;
using qorvarlok::tags::TagsList;
using qorvarlok::tags::TagsManager;
using qvtest::Log;

namespace {

std::string SymbolFile(const std::string& types, const std::string& variables) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Symbolconfiguration>\n<Header><Version>1.0.0.0</Version>"
         "</Header>\n<TypeList>\n" + types + "</TypeList>\n<NodeList><Node name=\"App\"><Node name=\"GVL\">\n" +
         variables + "</Node></Node></NodeList>\n</Symbolconfiguration>\n";
}

// Reads content as a symbol file and fills a manager of that instance id with it;
// the manager gives the document its id, as the backends rely on.
std::unique_ptr<TagsManager> FilledManager(const std::string& content, uint32_t instanceId) {
  const std::string path = testsys::MakeTempDir("qv-tags-") + "/symbols.xml";
  std::ofstream(path, std::ios::binary) << content;
  unsigned int code = 0;
  auto* config = qorvarlok::symbols::ReadSymbolConfig(std::wstring(path.begin(), path.end()), &code);
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
  EXPECT_NE(config, nullptr) << "read failed with 0x" << std::hex << code;
  if (config == nullptr) return nullptr;
  auto manager = std::make_unique<TagsManager>();
  manager->SetInstanceId(instanceId);
  EXPECT_EQ(manager->InitTagsManagerPrivate(config), 0u);
  return manager;
}

// A project with every shape a name can take, in a manager of its own per test.
const char* kTypes = R"x(<TypeSimple name="T_DINT" size="4" iecname="DINT" typeclass="DInt"/>
<TypeSimple name="T_INT" size="2" iecname="INT" typeclass="Int"/>
<TypeSimple name="T_S21" size="21" iecname="STRING(20)" typeclass="String"/>
<TypeSimple name="T_HUGE" size="6000000" iecname="STRING" typeclass="String"/>
<TypeSimple name="T_NEG" size="-5" iecname="STRING" typeclass="String"/>
<TypeUserDef name="T_PT" size="8" iecname="P" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="x" type="T_DINT"/><UserDefElement iecname="y" type="T_DINT"/></TypeUserDef>
<TypeUserDef name="T_C" size="4" iecname="C" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="c" type="T_DINT"/></TypeUserDef>
<TypeUserDef name="T_B" size="16" iecname="B" typeclass="Userdef" pouclass="STRUCTURE">
  <UserDefElement iecname="b" type="T_BA"/></TypeUserDef>
<TypeArray name="T_ARR" size="48" iecname="A" typeclass="Array" basetype="T_PT">
  <D minrange="0" maxrange="1"/><D minrange="1" maxrange="3"/></TypeArray>
<TypeArray name="T_CNT" size="40" iecname="A" typeclass="Array" basetype="T_DINT">
  <D minrange="0" maxrange="9"/></TypeArray>
<TypeArray name="T_NM" size="105" iecname="A" typeclass="Array" basetype="T_S21">
  <D minrange="1" maxrange="5"/></TypeArray>
<TypeArray name="T_PTS" size="24" iecname="A" typeclass="Array" basetype="T_PT">
  <D minrange="-1" maxrange="1"/></TypeArray>
<TypeArray name="T_BA" size="16" iecname="A" typeclass="Array" basetype="T_C"><D minrange="0" maxrange="3"/></TypeArray>
<TypeArray name="T_AA" size="32" iecname="A" typeclass="Array" basetype="T_B"><D minrange="1" maxrange="2"/></TypeArray>
)x";
const char* kVariables = R"x(<Node name="speed" type="T_DINT" access="ReadWrite"><Comment>m</Comment></Node>
<Node name="speed" type="T_INT" access="Read"/><Node name="grid" type="T_ARR" access="Read"/>
<Node name="small" type="T_INT" access="ReadWrite"/><Node name="counters" type="T_CNT" access="Write"/>
<Node name="names" type="T_NM" access="ReadWrite"/><Node name="points" type="T_PTS" access="ReadWrite"/>
<Node name="a" type="T_AA" access="ReadWrite"/><Node name="huge" type="T_HUGE" access="Read"/>
<Node name="neg" type="T_NEG" access="Read"/><Node name="速度" type="T_DINT" access="Read"/>
<Node name="数组" type="T_CNT" access="Read"/>
)x";

class TagsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_manager = FilledManager(SymbolFile(kTypes, kVariables), 201);
    ASSERT_NE(m_manager, nullptr);
    Log().Clear();
  }
  void TearDown() override { if (m_manager) m_manager->ReleaseTagsManagerPrivate(); }
  std::vector<TagsList*> Chain() const {
    std::vector<TagsList*> lists;
    auto* head = m_manager->ListHead();
    for (auto* it = head->next; it != head; it = it->next) lists.push_back(it);
    return lists;
  }
  TagsList* Create(const std::vector<std::string>& names, uint32_t seq = 5) {
    TagsList* list = nullptr;
    EXPECT_EQ(m_manager->createHandleByTagsListNames(&list, seq, names), 0u);
    return list;
  }
  std::unique_ptr<TagsManager> m_manager;
};

// Type -1: no such tag, and no log line either.
struct Resolution { std::string name; int type = -1, size = 0, access = 0; std::string shortName; };

TEST_F(TagsTest, NamesResolveWithinBoundsAndIndexCount) {
  const std::vector<Resolution> cases = {  // below App.GVL
      {"speed", 7, 4, 2, "speed"} /* of two records with one name the first wins */, {"grid", 14, 48, 0, "grid"},
      {"grid.x", 7, 4, 0, ".x"}, {"grid[0,1].x", 7, 4, 0, "x"}, {"grid[1,3].y", 7, 4, 0, "y"},
      {"grid[1,3]", 15, 0, 0, "grid[1,3]"}, {"counters[0]", 7, 4, 1, "counters[0]"},
      {"counters[9]", 7, 4, 1, "counters[9]"}, {"counters[ 2]", 7, 4, 1, "counters[ 2]"},
      {"counters[0000000005]", 7, 4, 1, "counters[0000000005]"}, {"names[1]", 17, 81, 2, "names[1]"},
      {"names[5]", 17, 81, 2, "names[5]"}, {"points[0]", 15, 0, 2, "points[0]"},
      {"points[-1].y", 7, 4, 2, "y"} /* "-1" reads as 1 */, {"a[1].b[2].c", 7, 4, 2, "c"},
      {"a[2].b[3].c", 7, 4, 2, "c"},
      {"grid[2,3].y"}, {"grid[1,4].y"}, {"grid[1,0].y"}, {"counters[10]"}, {"names[0]"}, {"a[3].b[2].c"},
      {"a[1].b[4].c"}, {"a[0].b[0].c"}, {"grid[1].y"}, {"grid[1,2,3].y"}, {"counters[1,2,3,4]"},  // index count
      {"counters[4294967297]"}, {"counters[" + std::string(10000, '9') + "]"},  // no wrap
  };
  for (const Resolution& c : cases) {
    SCOPED_TRACE(c.name.substr(0, 60));
    const std::string name = "App.GVL." + c.name;
    TagNode* node = m_manager->findTagNode(name);
    ASSERT_EQ(node != nullptr, c.type != -1);
    if (node == nullptr) continue;
    EXPECT_EQ(std::make_tuple(node->Type, node->Size, node->AccessType), std::make_tuple(c.type, c.size, c.access));
    EXPECT_STREQ(node->Name, c.shortName.c_str());
    EXPECT_STREQ(node->FullName, name.c_str());
    EXPECT_EQ(node->Comment, nullptr);
    const size_t count = m_manager->NodeCount();
    EXPECT_EQ(m_manager->findTagNode(name), node) << "a resolved name is kept";
    EXPECT_EQ(m_manager->NodeCount(), count);
  }
  EXPECT_FALSE(Log().Contains("search Node failed"));
  m_manager->SetInstanceId(202);  // bounds live under the instance id: another one sees none
  EXPECT_EQ(m_manager->findTagNode("App.GVL.grid[1,1].x"), nullptr);
  m_manager->SetInstanceId(201);
}

// Names in the file are UTF-8; the table holds them in the user's locale.
struct LocaleScope {
  explicit LocaleScope(const char* name) : ok(std::setlocale(LC_ALL, name) != nullptr) { testsys::SetEnv("LC_ALL", name); }
  ~LocaleScope() { testsys::SetEnv("LC_ALL", old), std::setlocale(LC_ALL, "C"); }
  std::string old = getenv("LC_ALL") != nullptr ? getenv("LC_ALL") : "";
  bool ok;
};

TEST(TagLocale, NamesAreKeyedInTheLocalForm) {
  const struct {
    const char* locale;
    std::vector<std::string> found, missing;
  } cases[] = {
      {"C.UTF-8", {"\xE9\x80\x9F\xE5\xBA\xA6", "\xE6\x95\xB0\xE7\xBB\x84[0]"}, {"\xE6\x95\xB0\xE7\xBB\x84[10]"}},
      {"zh_CN.GBK", {"\xCB\xD9\xB6\xC8", "\xCA\xFD\xD7\xE9[3]"},
       {"\xCA\xFD\xD7\xE9[10]", "\xE9\x80\x9F\xE5\xBA\xA6"}},  // the UTF-8 form isn't the key there
  };
  for (const auto& c : cases) {
    LocaleScope locale(c.locale);
    if (!locale.ok) GTEST_SKIP() << c.locale << " missing: localedef -i zh_CN -f GBK zh_CN.GBK";
    auto manager = FilledManager(SymbolFile(kTypes, kVariables), 203);
    ASSERT_NE(manager, nullptr);
    for (const std::string& name : c.found) {
      TagNode* node = manager->findTagNode("App.GVL." + name);
      ASSERT_NE(node, nullptr) << c.locale;
      EXPECT_STREQ(node->Name, name.c_str());
      EXPECT_EQ(node->Size, 4);
    }
    for (const std::string& name : c.missing) EXPECT_EQ(manager->findTagNode("App.GVL." + name), nullptr) << c.locale;
  }
}


TEST_F(TagsTest, BuildLaysOutOffsetsBytesAndRecords) {
  struct Case { std::vector<std::string> names; std::vector<uint32_t> offsets; uint32_t totalBytes; };
  std::vector<Case> cases = {
      {{"App.GVL.speed", "App.GVL.names[1]", "App.GVL.small"}, {0, 4, 85}, 87},
      {{}, {}, 0},
      {{"App.GVL.speed", "App.GVL.speed"}, {0, 4}, 8},       // the same tag twice: two positions
      {{"App.GVL.grid[0,1]", "App.GVL.small"}, {0, 0}, 2},   // a structure element is 0 wide
      {{"App.GVL.grid", "App.GVL.grid[1,2].x"}, {0, 48}, 52},
      {{}, {}, 400000},
  };
  for (uint32_t i = 0; i < 100000; ++i) {
    cases.back().names.push_back("App.GVL.counters[" + std::to_string(i % 10) + "]");
    cases.back().offsets.push_back(4 * i);
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.names.size());
    TagsList* list = Create(c.names, 7);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->length, c.names.size());
    EXPECT_EQ(list->offsets, c.offsets);
    EXPECT_EQ(list->totalBytes, c.totalBytes);
    EXPECT_EQ(list->handle, 0);
    ASSERT_TRUE(list->values != nullptr && list->valueBuffer != nullptr);
    EXPECT_TRUE(std::all_of(list->values, list->values + c.totalBytes,
                            [](const tagTagVarValue& v) { return v.Type == VARLOK_NOT_SET && !v.Value; }));
    EXPECT_EQ(std::count(list->valueBuffer, list->valueBuffer + c.totalBytes, 0), c.totalBytes);
    for (size_t i = 0; i < c.names.size(); ++i) ASSERT_STREQ(list->nodeArray[i]->FullName, c.names[i].c_str());
    EXPECT_EQ(Chain().back(), list);
  }
  EXPECT_EQ(Chain().size(), cases.size());
}

// Bad names and tags too wide for a list: the first one stops the build, with its own log line.
TEST_F(TagsTest, FirstBadNameStopsTheBuild) {
  std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"App.GVL.counters[10]", "App.GVL.counters[4]"}, ""},  // out of bounds: quiet
      {{"App.GVL.speed", "App.GVL.huge", "App.GVL.counters[7]"},
       "tag App.GVL.huge of size 6000000 does not fit a list of 4 bytes"},
      {{"App.GVL.neg", "App.GVL.counters[8]"}, "tag App.GVL.neg of size -5 does not fit a list of 0 bytes"},
  };
  for (const std::string& bad : std::vector<std::string>{
           "App.GVL.nothing", "app.gvl.speed", "App.GVL.a[x]", "App.GVL.grid[]", "App.GVL.grid[1,3",
           "App.GVL.grid[1,3].y[", "App.GVL." + std::string(10000, 'q'), "App.GVL.counters" + std::string(10000, '[')})
    cases.push_back({{"App.GVL.speed", bad, "App.GVL.counters[3]"}, "search Node failed " + bad});
  for (const auto& [names, logged] : cases) {
    SCOPED_TRACE(names[1].substr(0, 40));
    const size_t nodes = m_manager->NodeCount();
    Log().Clear();
    TagsList* list = reinterpret_cast<TagsList*>(0x1);
    EXPECT_EQ(m_manager->createHandleByTagsListNames(&list, 9, names), ERR_EXIST_INVAILD_VAR);
    EXPECT_EQ(list, nullptr);
    EXPECT_TRUE(Chain().empty());
    EXPECT_EQ(m_manager->NodeCount(), nodes) << "names behind the bad one aren't looked up";
    EXPECT_EQ(Log().CountOf(spdlog::level::err, "can't find specific handle with seq 9",
                                    "TagsManager::createHandleByTagsListNames"), 1u);
    if (logged.empty()) EXPECT_FALSE(Log().Contains("search Node failed"));
    else EXPECT_EQ(Log().CountOf(spdlog::level::err, logged), 1u);
  }
}

TEST_F(TagsTest, ChainRenumbersOnDeleteAndHandlesFollow) {
  m_manager->ListHead()->clientSeq = 42;
  TagsList* first = Create({"App.GVL.speed"}, 0);
  TagsList* second = Create({"App.GVL.small"}, 3);
  TagsList* third = Create({"App.GVL.speed", "App.GVL.small"}, 0);
  ASSERT_TRUE(first && second && third);
  EXPECT_EQ(first->clientSeq, 42u) << "sequence 0 takes the head's";
  EXPECT_EQ(second->clientSeq, 3u);
  EXPECT_EQ(m_manager->searchShmTagsList(&third->handle), first) << "still being defined: all under 0";
  first->handle = 1, second->handle = 2, third->handle = 3;
  int32_t* thirdHandle = &third->handle;  // what the caller holds
  ASSERT_TRUE(m_manager->deleteFromList(&second->handle));
  EXPECT_EQ(Chain(), (std::vector<TagsList*>{first, third}));
  EXPECT_EQ(first->handle, 1);
  EXPECT_EQ(*thirdHandle, 2);
  EXPECT_EQ(m_manager->searchShmTagsList(thirdHandle), third);
  ASSERT_TRUE(m_manager->deleteFromList(thirdHandle));  // the last: nothing to renumber
  EXPECT_EQ(first->handle, 1);
  EXPECT_EQ(Chain(), (std::vector<TagsList*>{first}));
  int32_t unknown = 7;
  EXPECT_FALSE(m_manager->deleteFromList(&unknown));
  EXPECT_EQ(Log().CountOf(spdlog::level::err, "node == nullptr", "TagsManager::deleteFromList"), 1u);
  Create({"App.GVL.small"});
  m_manager->deleteFromBack();  // the controller refused the newest
  EXPECT_EQ(Chain(), (std::vector<TagsList*>{first}));
  Create({"App.GVL.small"});
  m_manager->releaseAllShmTagsList();
  EXPECT_TRUE(Chain().empty());
  EXPECT_EQ(m_manager->ListHead()->prev, m_manager->ListHead());
  Log().Clear();
  m_manager->ReleaseTagsManagerPrivate();  // nodes, then the table, then the bounds of its id
  EXPECT_EQ(qorvarlok::symbols::GetArrayBoundsRegistry().count(201), 0u);
  std::vector<std::string> infos;
  Log().Drain();
  for (const auto& r : Log().Snapshot())
    if (r.level == spdlog::level::info) infos.push_back(r.text);
  EXPECT_EQ(infos, (std::vector<std::string>{"release tags manager nodes", "ReleaseTagsNodeHash"}));
}

TEST_F(TagsTest, TcpMapKeepsListsByHandle) {
  void* h1 = reinterpret_cast<void*>(0x10);
  void* h2 = reinterpret_cast<void*>(0x20);
  EXPECT_EQ(m_manager->createTcpTagListByHandle(nullptr, {"App.GVL.speed"}), ERR_INVALID_VAR_DEFS);
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h1, {"App.GVL.speed", "App.GVL.names[2]"}), 0u);
  TagsList* list = m_manager->searchTcpTagsList(h1);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->handle, -1);
  EXPECT_EQ(list->totalBytes, 85u);
  EXPECT_TRUE(Chain().empty()) << "TCP lists aren't chained";
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h1, {"App.GVL.small"}), 0u);
  EXPECT_EQ(m_manager->searchTcpTagsList(h1), list) << "the map keeps the old list";
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h2, {"App.GVL.small", "App.GVL.nothing"}), ERR_EXIST_INVAILD_VAR);
  EXPECT_EQ(m_manager->searchTcpTagsList(h2), nullptr);
  EXPECT_EQ(Log().CountOf(spdlog::level::err, "can't find specific handle",
                                  "TagsManager::createTcpTagListByHandle"), 1u);
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h2, {"App.GVL.small"}), 0u);
  m_manager->deleteTcpTagsList(h1);
  EXPECT_EQ(m_manager->searchTcpTagsList(h1), nullptr);
  EXPECT_NE(m_manager->searchTcpTagsList(h2), nullptr);
  // A TCP list never passes the data swap area: 6 000 000 bytes fit, its bound is the one frame of its values.
  void* h3 = reinterpret_cast<void*>(0x30);
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h3, {"App.GVL.huge", "App.GVL.speed"}), 0u);
  EXPECT_EQ(m_manager->searchTcpTagsList(h3)->totalBytes, 6000004u);
  Log().Clear();
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h2, {"App.GVL.huge", "App.GVL.huge", "App.GVL.huge"}),
            ERR_EXIST_INVAILD_VAR);
  EXPECT_EQ(Log().CountOf(spdlog::level::err, "tag App.GVL.huge of size 6000000 does not fit a list of 12000000 bytes",
                          "TagsManager::createTcpTagListByHandle"), 1u);
  m_manager->releaseAllTcpTagsList();
  EXPECT_EQ(m_manager->searchTcpTagsList(h2), nullptr);
}

TEST(ValueText, SerializeStringByTypeCode) {
  using B = std::vector<unsigned char>;
  const B ff4(4, 0xFF), ff8(8, 0xFF), no;
  const std::vector<std::tuple<std::string, int, int, int, B>> cases = {  // text, type, size, result, bytes
      {"1", 0, 1, 0, {1}}, {"0", 0, 1, 0, {0}}, {"2", 0, 1, 0, {2}}, {"true", 0, 1, 1, no}, {"300", 1, 1, 0, {44}},
      {"255", 1, 1, 0, {255}}, {"-1", 5, 1, 0, {0xFF}}, {"65535", 2, 2, 0, {0xFF, 0xFF}}, {"-2", 6, 2, 0, {0xFE, 0xFF}},
      {"70000", 6, 2, 0, {0x70, 0x11}}, {"-1", 7, 4, 0, ff4}, {" 12abc", 7, 4, 0, {12, 0, 0, 0}},
      {"2147483648", 7, 4, 1, no}, {"abc", 7, 4, 1, no}, {"4294967295", 3, 4, 0, ff4},
      {"abc", 3, 4, 0, {0, 0, 0, 0}}, {"xyz", 8, 8, 0, B(8, 0)},  // the stream forms refuse nothing
      {"5", 19, 4, 0, {5, 0, 0, 0}}, {"6", 20, 4, 0, {6, 0, 0, 0}}, {"7", 21, 4, 0, {7, 0, 0, 0}},
      {"8", 22, 4, 0, {8, 0, 0, 0}}, {"18446744073709551615", 4, 8, 0, ff8},
      {"-2", 8, 8, 0, {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}, {"1.0", 10, 4, 0, {0, 0, 0x80, 0x3F}},
      {"1e50", 10, 4, 1, no}, {"x", 10, 4, 1, no}, {"1.0", 11, 8, 0, {0, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
      {"ab", 17, 5, 0, {'a', 'b', 0}}, {"abcdef", 17, 4, 0, {'a', 'b', 'c', 'd'}} /* no terminator */,
      {"ab", 18, 8, 0, {'a', 0, 'b', 0, 0, 0}}, {"abc", 18, 4, 0, {'a', 0, 'b', 0}},
      {"\xE9", 18, 4, 0, {0xE9, 0, 0, 0}} /* a byte is a unit */, {"", 7, 4, 1, no}, {"", 17, 4, 1, no},
      {"5", 7, 2, 1, no} /* the tag is narrower than the type */, {"5", 9, 8, 1, no}, {"5", 12, 8, 1, no},
      {"5", 15, 8, 1, no}, {"5", 23, 8, 1, no}, {"5", 32767, 8, 1, no}, {"5", -1, 8, 1, no},
      // the integer reading of std::stoi: white space, one sign, digits up to the first other character
      {"+5", 7, 4, 0, {5, 0, 0, 0}}, {"\t\n -7x", 7, 4, 0, {0xF9, 0xFF, 0xFF, 0xFF}}, {"0x10", 7, 4, 0, {0, 0, 0, 0}},
      {"2147483647", 7, 4, 0, {0xFF, 0xFF, 0xFF, 0x7F}}, {"-2147483648", 7, 4, 0, {0, 0, 0, 0x80}},
      {"-2147483649", 7, 4, 1, no}, {"99999999999999999999999", 6, 2, 1, no}, {"-", 7, 4, 1, no},
      {"+-1", 7, 4, 1, no}, {" ", 7, 4, 1, no}, {"- 1", 0, 1, 1, no}, {std::string("\0" "5", 2), 7, 4, 1, no},
  };
  for (const auto& [text, type, size, result, bytes] : cases) {
    SCOPED_TRACE(text + " as type " + std::to_string(type));
    B dest(16, 0xEE);
    int width = size;
    EXPECT_EQ(ZelmonteVarlok::Varlok::serializeString(text, type, dest.data(), width), result);
    EXPECT_EQ(B(dest.begin(), dest.begin() + bytes.size()), bytes);
    EXPECT_EQ(std::count(dest.begin() + bytes.size(), dest.end(), 0xEE), 16 - bytes.size()) << "nothing behind";
  }
  int width = 4;
  EXPECT_EQ(ZelmonteVarlok::Varlok::serializeString("5", 7, nullptr, width), 1);
}

}  // namespace
