// Layout rule and name resolution of the process image.
#include <gtest/gtest.h>

#include <cstring>

#include "DemoTask.h"
#include "ProcessImage.h"
#include "TestProject.h"
#include "LogCapture.h"

using namespace qorvarlok::controller;
using namespace ctltest;

namespace {

struct LayoutCase {
  const char* type;
  uint32_t size;
  uint32_t align;
  std::vector<uint32_t> memberOffsets;
};

TEST(ControllerLayout, ReproducesTheFileSizesByTheRule) {
  auto project = MakeProject({
      Struct("S_PAD", 12, 15, {{"a", "T_BOOL"}, {"b", "T_DINT"}, {"c", "T_INT"}}),
      Struct("S_WIDE", 16, 15, {{"a", "T_BYTE"}, {"b", "T_LREAL"}}),
      Struct("S_STR", 24, 15, {{"a", "T_BOOL"}, {"s", "T_STR20"}, {"c", "T_INT"}}),
      Struct("S_WSTR", 14, 15, {{"a", "T_BYTE"}, {"w", "T_WSTR5"}}),
      Struct("FB_IO", 24, 16, {{"i", "T_INT"}, {"io", "T_DINT"}, {"q", "T_BOOL"}}, 1),
      Struct("E_COLOR", 2, 12, {{"red", ""}, {"green", ""}}),
      Simple("T_SUB", 2, 9),
  });
  static_cast<TypeUserDef*>(project->types->Find("E_COLOR"))->baseType = "T_INT";
  static_cast<TypeSimple*>(project->types->Find("T_SUB"))->underlyingType = "T_INT";
  const std::vector<LayoutCase> cases = {
      {"S_PAD", 12, 4, {0, 4, 8}},       {"S_WIDE", 16, 8, {0, 8}},       {"S_STR", 24, 2, {0, 1, 22}},
      {"S_WSTR", 14, 2, {0, 2}},         {"FB_IO", 24, 8, {0, 8, 16}},    {"E_COLOR", 2, 2, {}},
      {"T_SUB", 2, 2, {}},               {"T_U", 4, 4, {0, 0}},           {"T_GRID", 48, 4, {}},
      {"T_OUTER", 8, 2, {0, 2}},         {"T_MIX", 40, 8, {0, 8, 16, 18}}, {"T_WNAMES", 24, 2, {}},
  };
  LayoutTable table(*project->types);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    const TypeLayout* layout = table.Get(c.type);
    ASSERT_NE(layout, nullptr);
    EXPECT_EQ(layout->size, c.size);
    EXPECT_EQ(layout->ruleSize, c.size) << "the file and the rule agree for every case here";
    EXPECT_EQ(layout->align, c.align);
    ASSERT_EQ(layout->members.size(), c.memberOffsets.size());
    for (size_t i = 0; i < c.memberOffsets.size(); ++i) EXPECT_EQ(layout->members[i].offset, c.memberOffsets[i]);
  }
}

TEST(ControllerLayout, TrustsTheFileWhereItDisagreesAndSaysSo) {
  auto& log = qvtest::Log();
  log.Clear();
  auto project = MakeProject({Struct("S_BIG", 16, 15, {{"a", "T_BOOL"}, {"b", "T_DINT"}}),
                              Struct("S_CUT", 4, 15, {{"a", "T_DINT"}, {"b", "T_DINT"}}),
                              Struct("S_SELF", 8, 15, {{"a", "T_DINT"}, {"me", "S_SELF"}})});
  LayoutTable table(*project->types);
  const TypeLayout* big = table.Get("S_BIG");
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(big->size, 16u);
  EXPECT_EQ(big->ruleSize, 8u);
  EXPECT_EQ(log.CountOf(spdlog::level::warn,
                        "type S_BIG has size 16 in the symbol file and 8 by the layout rule; using 16",
                        "LayoutTable::SettleSize"),
            1u);
  const TypeLayout* cut = table.Get("S_CUT");
  ASSERT_NE(cut, nullptr);
  EXPECT_TRUE(cut->members[0].placed);
  EXPECT_FALSE(cut->members[1].placed) << "a member beyond the file's size has no place";
  EXPECT_TRUE(log.Contains("member S_CUT.b lies beyond the type's size 4; it is not addressable"));
  const TypeLayout* self = table.Get("S_SELF");
  ASSERT_NE(self, nullptr) << "a structure containing itself still has its file size";
  EXPECT_FALSE(self->members[1].placed);
  EXPECT_TRUE(log.Contains("type S_SELF contains itself by value"));
  EXPECT_EQ(table.Get("NO_SUCH_TYPE"), nullptr);
}

struct ResolveCase {
  const char* name;
  ResolveResult result;
  uint32_t offset;
  uint32_t size;
};

TEST(ControllerImage, ResolvesEveryNameAClientSends) {
  auto project = MakeProject();
  auto image = ProcessImage::Build(*project);
  EXPECT_EQ(image->Size(), 260u);
  EXPECT_EQ(image->FindVariable("App.GVL.ref"), nullptr) << "references get no storage";
  const std::vector<ResolveCase> cases = {
      {"App.GVL.counter", ResolveResult::Ok, 0, 4},
      {"App.GVL.sine", ResolveResult::Ok, 8, 8},
      {"App.GVL.toggle", ResolveResult::Ok, 16, 1},
      {"App.GVL.grid", ResolveResult::Ok, 24, 48},
      {"App.GVL.grid[0,1]", ResolveResult::Ok, 24, 8},
      {"App.GVL.grid[1,3].y", ResolveResult::Ok, 24 + 5 * 8 + 4, 4},
      {"App.GVL.grid[ 1 , 2 ].x", ResolveResult::Ok, 24 + 4 * 8, 4},
      {"App.GVL.counters[9]", ResolveResult::Ok, 72 + 36, 4},
      {"App.GVL.names[3]", ResolveResult::Ok, 112 + 42, 21},
      {"App.GVL.wnames[1]", ResolveResult::Ok, 176 + 12, 12},
      {"App.GVL.a[1].b[2].c", ResolveResult::Ok, 200 + 8 + 2 + 4, 2},
      {"App.GVL.a[1].flag", ResolveResult::Ok, 208, 1},
      {"App.GVL.a[0].b", ResolveResult::Ok, 202, 6},
      {"App.GVL.mix", ResolveResult::Ok, 216, 40},
      {"App.GVL.mix.s", ResolveResult::Ok, 234, 21},
      {"App.GVL.u.b", ResolveResult::Ok, 256, 1},
      {"App.GVL.grid[2,3].y", ResolveResult::IndexOutOfBounds, 0, 0},
      {"App.GVL.grid[1,0]", ResolveResult::IndexOutOfBounds, 0, 0},
      {"App.GVL.names[0]", ResolveResult::IndexOutOfBounds, 0, 0},
      {"App.GVL.grid[1].y", ResolveResult::WrongDimensions, 0, 0},
      {"App.GVL.counters[1,2]", ResolveResult::WrongDimensions, 0, 0},
      {"App.GVL.grid.y", ResolveResult::NotAddressable, 0, 0},
      {"App.GVL.speed[1]", ResolveResult::NotAnArray, 0, 0},
      {"App.GVL.mix.zz", ResolveResult::UnknownMember, 0, 0},
      {"App.GVL.speed.x", ResolveResult::UnknownMember, 0, 0},
      {"App.GVL.nothing", ResolveResult::UnknownVariable, 0, 0},
      {"app.gvl.speed", ResolveResult::UnknownVariable, 0, 0},
      {"App.GVL", ResolveResult::UnknownVariable, 0, 0},
      {"App.GVL.ref", ResolveResult::UnknownVariable, 0, 0},
      {"App.GVL.counters[x]", ResolveResult::Malformed, 0, 0},
      {"App.GVL.counters[1", ResolveResult::Malformed, 0, 0},
      {"App.GVL.counters[]", ResolveResult::Malformed, 0, 0},
      {"App..GVL.speed", ResolveResult::Malformed, 0, 0},
      {"", ResolveResult::Malformed, 0, 0},
      {"App.GVL.counters[99999999999]", ResolveResult::Malformed, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Location at;
    EXPECT_EQ(image->Resolve(c.name, at), c.result) << ToText(image->Resolve(c.name, at));
    if (c.result != ResolveResult::Ok) continue;
    EXPECT_EQ(at.offset, c.offset);
    EXPECT_EQ(at.size, c.size);
  }
}

}  // namespace

namespace {

TEST(ControllerDemoTask, MovesCounterSineAndToggle) {
  auto project = MakeProject();
  auto image = ProcessImage::Build(*project);
  CommandHandler handler(*image, 4096);
  DemoTask demo(handler, 2500);  // its thread's first cycle comes after the Step calls below
  ASSERT_TRUE(demo.MovesAnything());
  struct Case {
    uint64_t cycle;
    int32_t counter;
    double sine;
    uint8_t toggle;
  };
  // 2.5 s a cycle; the sine has a period of 10 s and amplitude 100, the toggle flips every second.
  for (const Case& c : std::vector<Case>{{1, 1, 100.0, 0}, {2, 2, 0.0, 1}, {3, 3, -100.0, 1}, {4, 4, 0.0, 0}}) {
    demo.Step(c.cycle);
    int32_t counter = 0;
    double sine = 1.0;
    std::memcpy(&counter, image->Data() + 0, 4);
    std::memcpy(&sine, image->Data() + 8, 8);
    EXPECT_EQ(counter, c.counter);
    EXPECT_NEAR(sine, c.sine, 1e-9);
    EXPECT_EQ(image->Data()[16], c.toggle);
  }
}

TEST(ControllerDemoTask, LeavesOutNamesOfAnotherType) {
  auto& log = qvtest::Log();
  log.Clear();
  auto project = MakeProject();
  static_cast<VariableNode*>(
      static_cast<NodeWithChildren*>(static_cast<NodeWithChildren*>(project->nodes->Children()[0])->Children()[0])
          ->Children()[0])
      ->type = "T_INT";  // counter becomes an Int
  auto image = ProcessImage::Build(*project);
  CommandHandler handler(*image, 4096);
  DemoTask demo(handler, 100000);
  EXPECT_TRUE(log.Contains("App.GVL.counter is not moved: type code 6 instead of 7"));
  demo.Step(1);
  EXPECT_EQ(image->Data()[0], 0) << "the counter is not touched";
}

}  // namespace
