// The controller's process image: storage for every published variable of a
// symbol file, laid out by the rule of TypeLayout.h, and the resolution of any
// name a client may send (App.GVL.speed, App.GVL.grid[1,3].y, a[1].b[2].c,
// whole arrays and structures, array elements) to its bytes.
//
// Variables follow each other in file order, each aligned to min(its
// alignment, 8). References get no storage, as they get no tag on the client.
//
// Not thread-safe: the owner serialises resolution and access to the bytes.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "SymbolModel.h"
#include "TypeLayout.h"

namespace qorvarlok::controller {

struct Variable {
  std::string fullName;
  const TypeLayout* type = nullptr;
  uint32_t offset = 0;  // in the image
  int access = 0;
};

// The bytes a name stands for.
struct Location {
  uint32_t offset = 0;  // in the image
  uint32_t size = 0;
  const TypeLayout* type = nullptr;
  int access = 0;  // that of the variable the name begins with
};

enum class ResolveResult {
  Ok,
  Malformed,          // not a name: empty, a bracket without its end, an index that is no number
  UnknownVariable,    // no published variable begins the name
  UnknownMember,      // a member the type does not have, or that has no place
  NotAnArray,         // an index on something that is no array
  WrongDimensions,    // more or fewer indices than the array has dimensions
  IndexOutOfBounds,   // an index outside its dimension, or an element the file's size cuts off
  NotAddressable,     // a name that ends below an array without an index (App.GVL.grid.y)
};

const char* ToText(ResolveResult r);

class ProcessImage {
 public:
  // Lays out every variable of the document. Never null; variables whose
  // type cannot be laid out are left out, with a log line each.
  static std::unique_ptr<ProcessImage> Build(const symbols::SymbolConfiguration& config);

  ResolveResult Resolve(const std::string& name, Location& out) const;

  uint8_t* Data() { return reinterpret_cast<uint8_t*>(m_storage.data()); }
  const uint8_t* Data() const { return reinterpret_cast<const uint8_t*>(m_storage.data()); }
  uint32_t Size() const { return m_size; }
  const std::map<std::string, Variable>& Variables() const { return m_variables; }
  const Variable* FindVariable(const std::string& fullName) const;

 private:
  explicit ProcessImage(const symbols::TypeTable& types) : m_layouts(types) {}
  void AddGroup(const symbols::NodeWithChildren& group, const std::string& prefix, uint64_t& offset);
  void AddVariable(const symbols::VariableNode& node, const std::string& fullName, uint64_t& offset);

  LayoutTable m_layouts;
  std::map<std::string, Variable> m_variables;
  std::vector<uint64_t> m_storage;  // 8-byte aligned base, so that offsets keep their alignment
  uint32_t m_size = 0;
};

}  // namespace qorvarlok::controller
