// Value encoding and the shared helpers of the backends: serializeString by
// type code, the node-level operations, access tests, widths, session ids,
// and the manager's life inside a backend.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "SymbolFixture.h"
#include "ShareMemCom.h"

using ZelmonteVarlok::Varlok;

namespace {

struct Encoding {
  std::string text;
  int type;
  int size;
  int result;
  std::vector<unsigned char> bytes;  // written from the start; the byte behind stays 0xEE
};

TEST(ValueText, SerializeStringByTypeCode) {
  using B = std::vector<unsigned char>;
  const std::vector<Encoding> cases = {
      {"1", 0, 1, 0, B{0x01}},
      {"0", 0, 1, 0, B{0x00}},
      {"2", 0, 1, 0, B{0x02}},
      {"true", 0, 1, 1, B{}},
      {"300", 1, 1, 0, B{0x2C}},
      {"255", 1, 1, 0, B{0xFF}},
      {"-1", 5, 1, 0, B{0xFF}},
      {"65535", 2, 2, 0, B{0xFF, 0xFF}},
      {"-2", 6, 2, 0, B{0xFE, 0xFF}},
      {"70000", 6, 2, 0, B{0x70, 0x11}},
      {"1", 7, 4, 0, B{0x01, 0x00, 0x00, 0x00}},
      {"-1", 7, 4, 0, B{0xFF, 0xFF, 0xFF, 0xFF}},
      {" 12abc", 7, 4, 0, B{0x0C, 0x00, 0x00, 0x00}},
      {"2147483648", 7, 4, 1, B{}},
      {"abc", 7, 4, 1, B{}},
      {"4294967295", 3, 4, 0, B{0xFF, 0xFF, 0xFF, 0xFF}},
      {"abc", 3, 4, 0, B{0x00, 0x00, 0x00, 0x00}},  // stream form: refuses nothing
      {"5", 19, 4, 0, B{0x05, 0x00, 0x00, 0x00}},
      {"6", 20, 4, 0, B{0x06, 0x00, 0x00, 0x00}},
      {"7", 21, 4, 0, B{0x07, 0x00, 0x00, 0x00}},
      {"8", 22, 4, 0, B{0x08, 0x00, 0x00, 0x00}},
      {"18446744073709551615", 4, 8, 0, B(8, 0xFF)},
      {"-2", 8, 8, 0, B{0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
      {"xyz", 8, 8, 0, B(8, 0x00)},
      {"1.0", 10, 4, 0, B{0x00, 0x00, 0x80, 0x3F}},
      {"1e50", 10, 4, 1, B{}},
      {"x", 10, 4, 1, B{}},
      {"1.0", 11, 8, 0, B{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
      {"ab", 17, 5, 0, B{'a', 'b', 0}},  // stops at the terminator
      {"abcdef", 17, 4, 0, B{'a', 'b', 'c', 'd'}},  // cut, no terminator
      {"ab", 18, 8, 0, B{'a', 0, 'b', 0, 0, 0}},
      {"abc", 18, 4, 0, B{'a', 0, 'b', 0}},
      {"\xE9", 18, 4, 0, B{0xE9, 0x00, 0x00, 0x00}},  // a byte is a unit, undecoded
      {"", 7, 4, 1, B{}},
      {"", 17, 4, 1, B{}},
      {"5", 7, 2, 1, B{}},  // the tag is narrower than the type
  };
  for (const Encoding& c : cases) {
    SCOPED_TRACE(c.text + " as type " + std::to_string(c.type));
    std::vector<unsigned char> dest(16, 0xEE);
    int size = c.size;
    EXPECT_EQ(Varlok::serializeString(c.text, c.type, dest.data(), size), c.result);
    EXPECT_EQ(std::vector<unsigned char>(dest.begin(), dest.begin() + c.bytes.size()), c.bytes);
    EXPECT_EQ(dest[c.bytes.size()], 0xEE);
  }
  for (int type : {9, 12, 13, 14, 15, 16, 23, 24, 25, 32767, -1}) {
    std::vector<unsigned char> dest(16, 0xEE);
    int size = 8;
    EXPECT_EQ(Varlok::serializeString("5", type, dest.data(), size), 1) << type;
    EXPECT_EQ(dest, std::vector<unsigned char>(16, 0xEE)) << type;
  }
  int size = 4;
  EXPECT_EQ(Varlok::serializeString("5", 7, nullptr, size), 1);
}

TEST(ValueText, NodeLevelAccessIsNotSupported) {
  auto manager = qvtest::FilledManager(qvtest::SymbolFile(qvtest::kPointTypes, qvtest::kPointVariables), 301);
  ASSERT_NE(manager, nullptr);
  auto* node = manager->findTagNode("App.GVL.speed");
  ASSERT_NE(node, nullptr);
  qvtest::Log().Clear();
  EXPECT_EQ(manager->readNode(node), "");
  EXPECT_EQ(manager->writeNode(node, "5"), -1);
  EXPECT_EQ(manager->readNode(nullptr), "");
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::warn, "not support", "TagsManager::readNode"), 2u);
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::warn, "not support", "TagsManager::writeNode"), 1u);
  EXPECT_EQ(node->Size, 4);
}

TEST(VarlokHelpers, AccessAndWidthTables) {
  const std::vector<std::tuple<int, bool, bool>> access = {
      {0, true, false}, {1, false, true}, {2, true, true}, {3, false, false}, {32767, false, false}, {-1, false, false}};
  for (const auto& [value, readable, writable] : access) {
    EXPECT_EQ(Varlok::IsReadable(value), readable) << value;
    EXPECT_EQ(Varlok::IsWritable(value), writable) << value;
  }
  const std::vector<int> widths = {1, 1, 2, 4, 8, 1, 2, 4, 8, 0, 4, 8, 0, 0, 0, 0, 0, 81, 162, 4, 4, 4, 4, 0, 0, 0};
  for (int code = 0; code < static_cast<int>(widths.size()); ++code)
    EXPECT_EQ(Varlok::baseByteLength(code), widths[code]) << code;
  EXPECT_EQ(Varlok::baseByteLength(32767), 0);
}

TEST(VarlokHelpers, SessionIdsAreUniqueAcrossThreads) {
  const uint32_t first = Varlok::sessionId();
  EXPECT_EQ(Varlok::sessionId(), first + 1);
  std::vector<std::vector<uint32_t>> seen(4);
  std::vector<std::thread> threads;
  for (auto& ids : seen)
    threads.emplace_back([&ids] {
      for (int i = 0; i < 2000; ++i) ids.push_back(Varlok::sessionId());
    });
  for (auto& t : threads) t.join();
  std::set<uint32_t> all;
  for (const auto& ids : seen) all.insert(ids.begin(), ids.end());
  EXPECT_EQ(all.size(), 8000u);
  EXPECT_EQ(*all.begin(), first + 2);
  EXPECT_EQ(*all.rbegin(), first + 8001);
}

qorvarlok::symbols::TagsConfig* ReadPointFile(qvtest::TempDir& dir, uint32_t instanceId) {
  const std::string path =
      dir.Write("points.xml", qvtest::SymbolFile(qvtest::kPointTypes, qvtest::kPointVariables));
  unsigned int code = 0;
  auto* config = qorvarlok::symbols::ReadSymbolConfig(std::wstring(path.begin(), path.end()), &code);
  if (config != nullptr) config->symbolConfiguration->SetInstanceId(instanceId);
  return config;
}

TEST(VarlokHelpers, BackendOwnsItsTagsManager) {
  qvtest::TempDir dir;
  // The shared-memory backend, never initialised: the helpers under test are the base's.
  auto backend = std::make_unique<ZelmonteVarlok::ShareMemCom>();
  EXPECT_EQ(backend->GetTagManager(), nullptr);
  auto* config = ReadPointFile(dir, 302);
  ASSERT_NE(config, nullptr);
  ASSERT_EQ(backend->InitTagsManager(config, 302), 0u);
  auto* manager = backend->GetTagManager();
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->InstanceId(), 302u);
  EXPECT_NE(manager->findTagNode("App.GVL.grid[0,1].x"), nullptr);

  // A second configuration replaces the first in the same manager.
  auto* again = ReadPointFile(dir, 303);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(backend->InitTagsManager(again, 303), 0u);
  EXPECT_EQ(backend->GetTagManager(), manager);
  EXPECT_EQ(manager->Config(), again);
  EXPECT_NE(manager->findTagNode("App.GVL.grid[1,1].y"), nullptr);
  const size_t nodes = manager->NodeCount();
  EXPECT_EQ(backend->InitTagsManager(again, 303), 0u);  // the same one again adds nothing
  EXPECT_EQ(manager->NodeCount(), nodes);
  EXPECT_EQ(manager->Config(), again);

  backend->ReleaseTagsManager();
  EXPECT_EQ(backend->GetTagManager(), nullptr);
  EXPECT_EQ(qorvarlok::symbols::GetArrayBoundsRegistry().count(303), 0u);

  ASSERT_EQ(backend->InitTagsManager(ReadPointFile(dir, 304), 304), 0u);
  qvtest::Log().Clear();
  backend.reset();  // the destructor releases what is left
  EXPECT_EQ(qvtest::Log().CountOf(spdlog::level::info, "release tags manager nodes"), 1u);
  EXPECT_EQ(qorvarlok::symbols::GetArrayBoundsRegistry().count(304), 0u);
}

}  // namespace
