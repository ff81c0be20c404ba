// Where the bytes of a value of each type of a symbol file lie in the
// controller's process image.
//
// The layout rule (the one the engineering tool uses when it exports with the
// compatible layout, and which reproduces the sizes of the file):
//   * every member sits at an offset aligned to min(natural alignment, 8);
//   * the natural alignment of an elementary type is its size: Bool, Byte,
//     SInt 1; Word, Int 2; DWord, DInt, Real, Time, Date, TimeOfDay,
//     DateAndTime 4; LWord, LInt, LReal, Pointer, Reference 8;
//   * String(n) takes n+1 bytes with alignment 1, WString(n) 2(n+1) bytes with
//     alignment 2; the file gives the size;
//   * an enumeration or a subrange is laid out as its underlying integer;
//   * a structure or function block takes the alignment of its most aligned
//     member and its size is rounded up to that alignment; a union is its
//     largest member, rounded the same way; a VAR_IN_OUT member is a pointer;
//   * an array is its element size times the element count, with the
//     element's alignment, elements in row-major order.
// Where the size in the file disagrees with the rule, the file wins (it is
// what the client sizes its buffers by) and the disagreement is logged once.
// Members or elements that the file's smaller size cuts off are not placed.
//
// Not thread-safe: built once, then only read.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "SymbolModel.h"

namespace qorvarlok::controller {

enum class Shape { Scalar, String, WString, Struct, Union, Array };

struct TypeLayout;

struct MemberLayout {
  std::string name;
  const TypeLayout* type = nullptr;  // null for a VAR_IN_OUT member (a pointer) or an unknown type
  uint32_t offset = 0;
  bool placed = false;  // false when not addressable: unknown type, reference, cut off by the file's size
};

struct TypeLayout {
  std::string name;
  int typeClass = 0;
  Shape shape = Shape::Scalar;
  uint32_t size = 0;   // bytes; the file's size
  uint32_t align = 1;  // 1, 2, 4 or 8
  uint32_t ruleSize = 0;
  std::vector<MemberLayout> members;              // Struct, Union
  const TypeLayout* element = nullptr;            // Array
  std::vector<std::pair<int32_t, int32_t>> bounds;  // Array: inclusive, first dimension first
  uint64_t elementCount = 0;                        // Array
  uint32_t usableElements = 0;  // Array: elements that lie wholly inside the file's size

  const MemberLayout* FindMember(const std::string& member) const;
};

class LayoutTable {
 public:
  explicit LayoutTable(const symbols::TypeTable& types);
  LayoutTable(const LayoutTable&) = delete;
  LayoutTable& operator=(const LayoutTable&) = delete;

  // Null (and a log line) when the type is unknown, recursive by value, or
  // refers to an unknown element or underlying type.
  const TypeLayout* Get(const std::string& typeName);

 private:
  const TypeLayout* Compute(const symbols::TypeBase& type);
  bool LayOutSimple(const symbols::TypeBase& type, TypeLayout& out);
  bool LayOutUserDef(const symbols::TypeUserDef& type, TypeLayout& out);
  bool LayOutArray(const symbols::TypeArray& type, TypeLayout& out);
  void SettleSize(const symbols::TypeBase& type, TypeLayout& out);

  std::map<std::string, const symbols::TypeBase*> m_types;
  std::map<std::string, std::unique_ptr<TypeLayout>> m_layouts;
  std::set<std::string> m_failed;
  std::set<std::string> m_inProgress;
};

// Natural size of an elementary type code; 0 for codes without one.
uint32_t NaturalSize(int typeClass);
uint64_t AlignUp(uint64_t value, uint32_t align);

}  // namespace qorvarlok::controller
