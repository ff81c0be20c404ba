#include "TypeLayout.h"

#include <algorithm>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"

namespace qorvarlok::controller {

namespace {

constexpr uint32_t kMaxAlign = 8;
constexpr int kVarInOut = 3;

uint32_t ClampAlign(uint32_t align) { return std::min(std::max(align, 1u), kMaxAlign); }

// The alignment a size implies when the file gives no better hint (an
// enumeration without an underlying type): the largest power of two <= 8 dividing it.
uint32_t AlignOfSize(uint32_t size) {
  for (uint32_t a = kMaxAlign; a > 1; a /= 2)
    if (size % a == 0) return a;
  return 1;
}

}  // namespace

uint32_t NaturalSize(int typeClass) {
  switch (typeClass) {
    case TAG_TYPE_BOOL:
    case TAG_TYPE_BYTE:
    case TAG_TYPE_SINT:
    case TAG_TYPE_BIT:
      return 1;
    case TAG_TYPE_WORD:
    case TAG_TYPE_INT:
      return 2;
    case TAG_TYPE_DWORD:
    case TAG_TYPE_DINT:
    case TAG_TYPE_REAL:
    case TAG_TYPE_TIME:
    case TAG_TYPE_DATE:
    case TAG_TYPE_TIME_OF_DAY:
    case TAG_TYPE_DATE_AND_TIME:
      return 4;
    case TAG_TYPE_LWORD:
    case TAG_TYPE_LINT:
    case TAG_TYPE_LREAL:
    case TAG_TYPE_POINTER:
    case TAG_TYPE_REFERENCE:
      return 8;
    default:
      return 0;
  }
}

uint64_t AlignUp(uint64_t value, uint32_t align) { return (value + align - 1) / align * align; }

const MemberLayout* TypeLayout::FindMember(const std::string& member) const {
  for (const auto& m : members)
    if (m.name == member) return &m;
  return nullptr;
}

LayoutTable::LayoutTable(const symbols::TypeTable& types) {
  // The first of two types with one name counts, as in the table's own search.
  for (const symbols::TypeBase* t : types.Types())
    if (t != nullptr) m_types.emplace(t->name, t);
}

const TypeLayout* LayoutTable::Get(const std::string& typeName) {
  auto done = m_layouts.find(typeName);
  if (done != m_layouts.end()) return done->second.get();
  if (m_failed.count(typeName) != 0) return nullptr;
  auto type = m_types.find(typeName);
  if (type == m_types.end()) {
    VLOG(err, "LayoutTable::Get", "type {} is not in the symbol file", typeName);
    m_failed.insert(typeName);
    return nullptr;
  }
  if (m_inProgress.count(typeName) != 0) {
    VLOG(err, "LayoutTable::Get", "type {} contains itself by value", typeName);
    return nullptr;
  }
  m_inProgress.insert(typeName);
  const TypeLayout* result = Compute(*type->second);
  m_inProgress.erase(typeName);
  if (result == nullptr) m_failed.insert(typeName);
  return result;
}

const TypeLayout* LayoutTable::Compute(const symbols::TypeBase& type) {
  auto layout = std::make_unique<TypeLayout>();
  layout->name = type.name;
  layout->typeClass = type.typeClass;
  bool ok = false;
  if (const auto* array = dynamic_cast<const symbols::TypeArray*>(&type)) {
    ok = LayOutArray(*array, *layout);
  } else if (const auto* userDef = dynamic_cast<const symbols::TypeUserDef*>(&type)) {
    ok = LayOutUserDef(*userDef, *layout);
  } else {
    ok = LayOutSimple(type, *layout);
  }
  if (!ok) return nullptr;
  SettleSize(type, *layout);
  return m_layouts.emplace(type.name, std::move(layout)).first->second.get();
}

bool LayoutTable::LayOutSimple(const symbols::TypeBase& type, TypeLayout& out) {
  const uint32_t fileSize = type.size > 0 ? static_cast<uint32_t>(type.size) : 0;
  switch (type.typeClass) {
    case TAG_TYPE_STRING:
      out.shape = Shape::String;
      out.align = 1;
      out.ruleSize = fileSize;  // n+1: only the file knows n
      return true;
    case TAG_TYPE_WSTRING:
      out.shape = Shape::WString;
      out.align = 2;
      out.ruleSize = fileSize;
      return true;
    case TAG_TYPE_SUBRANGE: {
      const auto* simple = dynamic_cast<const symbols::TypeSimple*>(&type);
      const TypeLayout* under = simple != nullptr ? Get(simple->underlyingType) : nullptr;
      if (under == nullptr) {
        VLOG(err, "LayoutTable::LayOutSimple", "subrange {} has no usable underlying type", type.name);
        return false;
      }
      out.align = under->align;
      out.ruleSize = under->size;
      return true;
    }
    default:
      break;
  }
  const uint32_t natural = NaturalSize(type.typeClass);
  out.align = natural != 0 ? natural : AlignOfSize(fileSize);
  out.ruleSize = natural != 0 ? natural : fileSize;
  return true;
}

bool LayoutTable::LayOutUserDef(const symbols::TypeUserDef& type, TypeLayout& out) {
  if (type.typeClass == TAG_TYPE_ENUM) {
    const uint32_t fileSize = type.size > 0 ? static_cast<uint32_t>(type.size) : 0;
    const TypeLayout* under = type.baseType.empty() ? nullptr : Get(type.baseType);
    out.align = under != nullptr ? under->align : AlignOfSize(fileSize);
    out.ruleSize = under != nullptr ? under->size : fileSize;
    return true;
  }
  const bool isUnion = type.typeClass == TAG_TYPE_UNION;
  out.shape = isUnion ? Shape::Union : Shape::Struct;
  uint64_t offset = 0;
  uint64_t extent = 0;
  uint32_t maxAlign = 1;
  bool lost = false;  // once a member cannot be laid out, nothing behind it has a known place
  for (const symbols::UserDefElement* e : type.Elements()) {
    if (e == nullptr) continue;
    MemberLayout member;
    member.name = e->iecName;
    uint32_t size = 8;
    uint32_t align = 8;  // a VAR_IN_OUT member is a pointer to the caller's variable
    if (e->varType != kVarInOut) {
      member.type = Get(e->type);
      if (member.type == nullptr) {
        VLOG(warn, "LayoutTable::LayOutUserDef", "member {}.{} has no usable type {}", type.name, e->iecName, e->type);
        lost = true;
      } else {
        size = member.type->size;
        align = ClampAlign(member.type->align);
      }
    }
    maxAlign = std::max(maxAlign, align);
    const uint64_t at = isUnion ? 0 : AlignUp(offset, align);
    member.offset = static_cast<uint32_t>(std::min<uint64_t>(at, UINT32_MAX));
    member.placed = !lost && member.type != nullptr && at <= UINT32_MAX;
    if (!isUnion) offset = at + size;
    extent = std::max(extent, at + size);
    out.members.push_back(member);
  }
  out.align = maxAlign;
  out.ruleSize = static_cast<uint32_t>(std::min<uint64_t>(AlignUp(extent, maxAlign), UINT32_MAX));
  return true;
}

bool LayoutTable::LayOutArray(const symbols::TypeArray& type, TypeLayout& out) {
  out.shape = Shape::Array;
  out.element = Get(type.baseType);
  if (out.element == nullptr) {
    VLOG(err, "LayoutTable::LayOutArray", "array {} has no usable element type {}", type.name, type.baseType);
    return false;
  }
  uint64_t count = 1;
  for (const symbols::ArrayRange* r : type.ranges) {
    if (r == nullptr || r->maxRange < r->minRange) {
      VLOG(err, "LayoutTable::LayOutArray", "array {} has an empty dimension", type.name);
      return false;
    }
    out.bounds.emplace_back(r->minRange, r->maxRange);
    count *= static_cast<uint64_t>(static_cast<int64_t>(r->maxRange) - r->minRange + 1);
    count = std::min<uint64_t>(count, UINT32_MAX);  // no image holds more; keeps the product finite
  }
  if (out.bounds.empty()) {
    VLOG(err, "LayoutTable::LayOutArray", "array {} has no dimension", type.name);
    return false;
  }
  out.elementCount = count;
  out.align = out.element->align;
  out.ruleSize = static_cast<uint32_t>(std::min<uint64_t>(count * out.element->size, UINT32_MAX));
  return true;
}

void LayoutTable::SettleSize(const symbols::TypeBase& type, TypeLayout& out) {
  const uint32_t fileSize = type.size > 0 ? static_cast<uint32_t>(type.size) : 0;
  if (fileSize != out.ruleSize) {
    VLOG(warn, "LayoutTable::SettleSize", "type {} has size {} in the symbol file and {} by the layout rule; using {}",
         type.name, fileSize, out.ruleSize, fileSize);
  }
  out.size = fileSize;
  for (auto& m : out.members) {
    if (m.placed && static_cast<uint64_t>(m.offset) + m.type->size > out.size) {
      VLOG(warn, "LayoutTable::SettleSize", "member {}.{} lies beyond the type's size {}; it is not addressable",
           type.name, m.name, out.size);
      m.placed = false;
    }
  }
  if (out.shape == Shape::Array) {
    const uint32_t stride = out.element->size;
    const uint64_t fit = stride == 0 ? out.elementCount : out.size / stride;
    out.usableElements = static_cast<uint32_t>(std::min<uint64_t>(fit, out.elementCount));
  }
}

}  // namespace qorvarlok::controller
