// The demo project: it opens, it has what the demo and the integration tests
// rely on, and every size in it follows the layout rule stated at its top.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <utility>

#include "QorVarlok/ZelVarlok.h"
#include "SymbolTestFiles.h"

using namespace qorvarlok::symbols;

namespace {

const char* kDemo = QORVARLOK_DEMO_XML;

// (size, alignment) of a type by the layout rule.
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
      const auto* userDef = dynamic_cast<const TypeUserDef*>(type);
      int offset = 0, largest = 0, align = 1;
      for (const UserDefElement* m : userDef->elements) {
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

}  // namespace

TEST(DemoProject, EverySizeFollowsTheLayoutRule) {
  symtest::OpenedConfig opened(kDemo);
  ASSERT_NE(opened.config, nullptr) << LastParseMessage();
  const SymbolConfiguration& doc = *opened.config->symbolConfiguration;
  std::set<int> classes;
  for (const TypeBase* type : doc.types->Types()) {
    classes.insert(type->typeClass);
    if (type->iecName == "TYPE_REFERENCE") continue;
    EXPECT_EQ(Layout(doc, type).first, type->size) << type->name;
  }
  for (int code = 0; code <= TAG_TYPE_REFERENCE; ++code) EXPECT_EQ(classes.count(code), 1u) << "type class " << code;
}

TEST(DemoProject, HasTheVariablesTheDemoAndTheTestsUse) {
  symtest::OpenedConfig opened(kDemo);
  ASSERT_NE(opened.config, nullptr);
  opened.config->symbolConfiguration->SetInstanceId(0x5104);
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetAllTagsDescription(opened.config, &all, &count), 0u);
  auto find = [&](const std::string& name) -> const tagTagDesc* {
    for (unsigned int i = 0; i < count; ++i)
      if (name == all[i].FullName) return &all[i];
    return nullptr;
  };
  struct {
    const char* name;
    int type;
    int size;
    int access;
  } expected[] = {
      {"App.GVL.counter", TAG_TYPE_DINT, 4, ACCESS_READWRITE},
      {"App.GVL.sine", TAG_TYPE_LREAL, 8, ACCESS_READ},
      {"App.GVL.toggle", TAG_TYPE_BOOL, 1, ACCESS_READ},
      {"App.GVL.counters", TAG_TYPE_ARRAY, 40, ACCESS_READWRITE},
      {"App.GVL.message", TAG_TYPE_STRING, 81, ACCESS_READWRITE},
      {"App.GVL.motor", TAG_TYPE_STRUCTURE, 48, ACCESS_READWRITE},
      {"App.GVL.motor.speed", TAG_TYPE_REAL, 4, ACCESS_READWRITE},
      {"App.GVL.grid", TAG_TYPE_ARRAY, 48, ACCESS_READ},
      {"App.GVL.grid.x", TAG_TYPE_DINT, 4, ACCESS_READ},
      {"App.GVL.setpoint", TAG_TYPE_LREAL, 8, ACCESS_WRITE},
      {"App.GVL.serialNo", TAG_TYPE_STRING, 21, ACCESS_READ},
      {"App.GVL.temp\xC3\xA9rature", TAG_TYPE_REAL, 4, ACCESS_READ},
      {"App.Machine.Axes.axis1.pid.limits.hi", TAG_TYPE_LREAL, 8, ACCESS_READWRITE},
      {"App.Machine.Conveyors.conv1.timer.ET", TAG_TYPE_TIME, 4, ACCESS_READWRITE},
      {"App.Types.ws40", TAG_TYPE_WSTRING, 82, ACCESS_READWRITE},
  };
  for (const auto& e : expected) {
    const tagTagDesc* d = find(e.name);
    ASSERT_NE(d, nullptr) << e.name;
    EXPECT_EQ(d->Type, e.type) << e.name;
    EXPECT_EQ(d->Size, e.size) << e.name;
    EXPECT_EQ(d->AccessType, e.access) << e.name;
  }
  EXPECT_EQ(find("App.GVL.refCounter"), nullptr);  // references have no tag
  EXPECT_EQ(find("App.Machine.Conveyors.conv1.drive"), nullptr);
  EXPECT_EQ(GetArrayBoundsRegistry().at(0x5104).at("App.GVL.counters"), (DimensionBounds{{0, {0, 9}}}));
  EXPECT_EQ(GetArrayBoundsRegistry().at(0x5104).at("App.GVL.grid"), (DimensionBounds{{0, {0, 1}}, {1, {1, 3}}}));
  GetArrayBoundsRegistry().erase(0x5104);
}
