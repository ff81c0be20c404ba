// Tag lists: building (offsets, sizes, records, the first bad name), the
// shared-memory chain with its renumbering, and the TCP map.
#include <gtest/gtest.h>

#include "SymbolFixture.h"

using qorvarlok::tags::TagsList;
using qorvarlok::tags::TagsManager;

namespace {

const std::string kListTypes =
    qvtest::kPointTypes +
    "<TypeSimple name=\"T_INT\" size=\"2\" iecname=\"INT\" typeclass=\"Int\"/>\n"
    "<TypeSimple name=\"T_STR21\" size=\"21\" iecname=\"STRING(20)\" typeclass=\"String\"/>\n"
    "<TypeSimple name=\"T_HUGE\" size=\"6000000\" iecname=\"STRING\" typeclass=\"String\"/>\n"
    "<TypeSimple name=\"T_NEG\" size=\"-5\" iecname=\"STRING\" typeclass=\"String\"/>\n"
    "<TypeArray name=\"T_CNT\" size=\"40\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_DINT\">"
    "<D minrange=\"0\" maxrange=\"9\"/></TypeArray>\n"
    "<TypeArray name=\"T_NAMES\" size=\"105\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_STR21\">"
    "<D minrange=\"1\" maxrange=\"5\"/></TypeArray>\n";
const std::string kListVariables =
    qvtest::kPointVariables +
    "<Node name=\"small\" type=\"T_INT\" access=\"ReadWrite\"/>\n"
    "<Node name=\"counters\" type=\"T_CNT\" access=\"ReadWrite\"/>\n"
    "<Node name=\"names\" type=\"T_NAMES\" access=\"ReadWrite\"/>\n"
    "<Node name=\"huge\" type=\"T_HUGE\" access=\"ReadWrite\"/>\n"
    "<Node name=\"neg\" type=\"T_NEG\" access=\"ReadWrite\"/>\n";

class TagsListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_manager = qvtest::FilledManager(qvtest::SymbolFile(kListTypes, kListVariables), 201);
    ASSERT_NE(m_manager, nullptr);
    ASSERT_NE(m_manager->ListHead(), nullptr);
  }
  void TearDown() override {
    if (m_manager) m_manager->ReleaseTagsManagerPrivate();
  }

  // Chained lists from head.next on.
  std::vector<TagsList*> Chain() const {
    std::vector<TagsList*> lists;
    TagsList* head = m_manager->ListHead();
    for (TagsList* it = head->next; it != head; it = it->next) lists.push_back(it);
    return lists;
  }
  TagsList* Create(const std::vector<std::string>& names, uint32_t seq = 5) {
    TagsList* list = nullptr;
    EXPECT_EQ(m_manager->createHandleByTagsListNames(&list, seq, names), 0u);
    return list;
  }

  std::unique_ptr<TagsManager> m_manager;
};

TEST_F(TagsListTest, BuildLaysOutOffsetsBytesAndRecords) {
  struct Case {
    std::vector<std::string> names;
    std::vector<uint32_t> offsets;
    uint32_t totalBytes;
  };
  const std::vector<Case> cases = {
      {{"App.GVL.speed", "App.GVL.names[1]", "App.GVL.small"}, {0, 4, 85}, 87},
      {{}, {}, 0},
      {{"App.GVL.speed", "App.GVL.speed"}, {0, 4}, 8},  // the same tag twice: two positions
      {{"App.GVL.grid[0,1]", "App.GVL.small"}, {0, 0}, 2},  // a structure element is 0 wide
      {{"App.GVL.grid", "App.GVL.grid[1,2].x"}, {0, 48}, 52},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.names));
    TagsList* list = Create(c.names, 7);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->length, c.names.size());
    EXPECT_EQ(list->offsets, c.offsets);
    EXPECT_EQ(list->totalBytes, c.totalBytes);
    EXPECT_EQ(list->handle, 0);
    EXPECT_EQ(list->clientSeq, 7u);
    EXPECT_EQ(list->kind, 32767);
    ASSERT_NE(list->values, nullptr);
    ASSERT_NE(list->valueBuffer, nullptr);
    for (uint32_t i = 0; i < list->totalBytes; ++i) {  // one default record per byte
      EXPECT_EQ(list->values[i].Type, VARLOK_NOT_SET);
      EXPECT_EQ(list->values[i].Value, nullptr);
      EXPECT_EQ(list->valueBuffer[i], 0);
    }
    for (size_t i = 0; i < c.names.size(); ++i) EXPECT_STREQ(list->nodeArray[i]->FullName, c.names[i].c_str());
    EXPECT_EQ(Chain().back(), list);
  }
  EXPECT_EQ(Chain().size(), cases.size());
}

TEST_F(TagsListTest, FirstBadNameStopsTheBuild) {
  struct Case {
    std::vector<std::string> names;
    std::string logged;  // the error line of the build itself
  };
  const std::string longName = "App.GVL." + std::string(10000, 'q');
  const std::vector<Case> cases = {
      {{"App.GVL.speed", "App.GVL.nothing", "App.GVL.counters[3]"}, "search Node failed App.GVL.nothing"},
      {{"App.GVL.counters[10]", "App.GVL.counters[4]"}, ""},
      {{"App.GVL.grid[1", "App.GVL.counters[5]"}, "search Node failed App.GVL.grid[1"},
      {{longName, "App.GVL.counters[6]"}, "search Node failed " + longName},
      {{"App.GVL.speed", "App.GVL.huge", "App.GVL.counters[7]"},
       "tag App.GVL.huge of size 6000000 does not fit a list of 4 bytes"},
      {{"App.GVL.neg", "App.GVL.counters[8]"}, "tag App.GVL.neg of size -5 does not fit a list of 0 bytes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.names[0].substr(0, 40));
    const size_t nodes = m_manager->NodeCount();
    qvtest::Log().Clear();
    TagsList* list = reinterpret_cast<TagsList*>(0x1);
    EXPECT_EQ(m_manager->createHandleByTagsListNames(&list, 9, c.names), ERR_EXIST_INVAILD_VAR);
    EXPECT_EQ(list, nullptr);
    EXPECT_TRUE(Chain().empty());
    EXPECT_EQ(m_manager->NodeCount(), nodes) << "names behind the bad one aren't looked up";
    EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "can't find specific handle with seq 9",
                                    "TagsManager::createHandleByTagsListNames"),
              1u);
    if (!c.logged.empty()) {
      EXPECT_TRUE(qvtest::Log().Contains(c.logged));
    }
  }
}

TEST_F(TagsListTest, ListsOfManyNamesAndIndexedNodesOutliveTheirList) {
  std::vector<std::string> names;
  for (int i = 0; i < 100000; ++i) names.push_back("App.GVL.counters[" + std::to_string(i % 10) + "]");
  TagsList* list = Create(names);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->totalBytes, 400000u);
  EXPECT_EQ(list->offsets.back(), 399996u);
  const size_t nodes = m_manager->NodeCount();
  list->handle = 1;
  ASSERT_TRUE(m_manager->deleteFromList(&list->handle));
  EXPECT_EQ(m_manager->NodeCount(), nodes);
  EXPECT_NE(m_manager->findTagNode("App.GVL.counters[9]"), nullptr);

  names.back() = "App.GVL.none";
  TagsList* failed = nullptr;
  EXPECT_EQ(m_manager->createHandleByTagsListNames(&failed, 5, names), ERR_EXIST_INVAILD_VAR);
  EXPECT_EQ(failed, nullptr);
}

TEST_F(TagsListTest, ChainRenumbersOnDeleteAndHandlesFollow) {
  m_manager->ListHead()->clientSeq = 42;
  TagsList* first = Create({"App.GVL.speed"}, 0);
  TagsList* second = Create({"App.GVL.small"}, 3);
  TagsList* third = Create({"App.GVL.speed", "App.GVL.small"}, 0);
  ASSERT_TRUE(first && second && third);
  EXPECT_EQ(first->clientSeq, 42u) << "sequence 0 takes the head's";
  EXPECT_EQ(second->clientSeq, 3u);
  EXPECT_EQ(m_manager->searchShmTagsList(&third->handle), first) << "still being defined: all under 0";
  first->handle = 1;
  second->handle = 2;
  third->handle = 3;
  int32_t* thirdHandle = &third->handle;  // what the caller holds

  ASSERT_TRUE(m_manager->deleteFromList(&second->handle));
  EXPECT_EQ(Chain(), (std::vector<TagsList*>{first, third}));
  EXPECT_EQ(first->handle, 1);
  EXPECT_EQ(*thirdHandle, 2);
  EXPECT_EQ(m_manager->searchShmTagsList(thirdHandle), third);

  ASSERT_TRUE(m_manager->deleteFromList(thirdHandle));  // the last: nothing to renumber
  EXPECT_EQ(first->handle, 1);
  EXPECT_EQ(Chain(), (std::vector<TagsList*>{first}));

  qvtest::Log().Clear();
  int32_t unknown = 7;
  EXPECT_FALSE(m_manager->deleteFromList(&unknown));
  EXPECT_EQ(m_manager->searchShmTagsList(&unknown), nullptr);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "node == nullptr", "TagsManager::deleteFromList"), 1u);

  Create({"App.GVL.small"});
  m_manager->deleteFromBack();  // the controller refused the newest
  EXPECT_EQ(Chain(), (std::vector<TagsList*>{first}));
  Create({"App.GVL.small"});
  m_manager->releaseAllShmTagsList();
  EXPECT_TRUE(Chain().empty());
  EXPECT_EQ(m_manager->ListHead()->next, m_manager->ListHead());
  m_manager->deleteFromBack();  // an empty chain keeps its sentinel
  EXPECT_EQ(m_manager->ListHead()->prev, m_manager->ListHead());
}

TEST(TagsListNoHead, OperationsWithoutChainHeadLogAndRefuse) {
  TagsManager manager;
  qvtest::Log().Clear();
  TagsList* list = nullptr;
  EXPECT_EQ(manager.createHandleByTagsListNames(&list, 3, {}), ERR_EXIST_INVAILD_VAR);
  EXPECT_EQ(list, nullptr);
  int32_t number = 0;
  EXPECT_EQ(manager.searchShmTagsList(&number), nullptr);
  EXPECT_FALSE(manager.deleteFromList(&number));
  manager.deleteFromBack();
  manager.releaseAllShmTagsList();
  EXPECT_FALSE(manager.pushListBack(nullptr, 1));
  auto& log = qvtest::Log();
  EXPECT_EQ(log.CountOf(spdlog::level::err, "create handle with invalid variables, seq = 3",
                        "TagsManager::createHandleByTagsListNames"),
            1u);
  EXPECT_EQ(log.CountOf(spdlog::level::err, "m_pTagListHead is nullptr"), 5u);
  EXPECT_EQ(log.CountOf(spdlog::level::err, "node == nullptr", "TagsManager::deleteFromList"), 1u);
  EXPECT_EQ(log.CountOf(spdlog::level::err, "pNewTagsList == nullptr", "TagsManager::pushListBack"), 1u);
}

TEST_F(TagsListTest, TcpMapKeepsListsByHandle) {
  void* h1 = reinterpret_cast<void*>(0x10);
  void* h2 = reinterpret_cast<void*>(0x20);
  qvtest::Log().Clear();
  EXPECT_EQ(m_manager->createTcpTagListByHandle(nullptr, {"App.GVL.speed"}), ERR_INVALID_VAR_DEFS);
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h1, {"App.GVL.speed", "App.GVL.names[2]"}), 0u);
  TagsList* list = m_manager->searchTcpTagsList(h1);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->handle, -1);
  EXPECT_EQ(list->totalBytes, 85u);
  EXPECT_TRUE(list->offsets.empty());
  EXPECT_EQ(list->values, nullptr);
  EXPECT_NE(list->valueBuffer, nullptr);
  EXPECT_TRUE(Chain().empty()) << "TCP lists aren't chained";

  EXPECT_EQ(m_manager->createTcpTagListByHandle(h1, {"App.GVL.small"}), 0u);
  EXPECT_EQ(m_manager->searchTcpTagsList(h1), list) << "the map keeps the old list";
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h2, {"App.GVL.small", "App.GVL.nothing"}), ERR_EXIST_INVAILD_VAR);
  EXPECT_EQ(m_manager->searchTcpTagsList(h2), nullptr);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::err, "can't find specific handle",
                                  "TagsManager::createTcpTagListByHandle"),
            1u);
  EXPECT_EQ(m_manager->createTcpTagListByHandle(h2, {}), 0u);
  EXPECT_EQ(m_manager->searchTcpTagsList(h2)->valueBuffer, nullptr);

  m_manager->deleteTcpTagsList(reinterpret_cast<void*>(0x30));  // unknown: nothing happens
  m_manager->deleteTcpTagsList(h1);
  EXPECT_EQ(m_manager->searchTcpTagsList(h1), nullptr);
  EXPECT_NE(m_manager->searchTcpTagsList(h2), nullptr);
  m_manager->releaseAllTcpTagsList();
  EXPECT_EQ(m_manager->searchTcpTagsList(h2), nullptr);
}

}  // namespace
