// The in-memory image of one symbol configuration file, before any tag
// exists: a header, a table of data types and the tree of published
// variables. The reader fills it; after that only instanceId changes.
//
// Nodes and types are deleted only through their virtual destructors; owners
// hold base pointers. Strings are std::string: an unset string reads empty.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qorvarlok::symbols {

// ------------------------------------------------------------ variable tree
class NodeBase {
 public:
  virtual ~NodeBase() = default;
  std::string name;
};

// One published variable; never has children.
class VariableNode : public NodeBase {
 public:
  std::string type;         // name of an entry of the TypeTable
  int access = 32767;       // 0 read, 1 write, 2 read and write, 32767 not recognised
  std::string comment;      // empty when the file has none
  int isReference = 0;      // 1 when the element has a "referencetype" attribute
};

// A named group; owns its children, in file order.
class NodeWithChildren : public NodeBase {
 public:
  ~NodeWithChildren() override;
  void AppendChild(NodeBase* child);
  // The list's pointers move into the group.
  void AppendChildren(std::vector<NodeBase*>& children);
  const std::vector<NodeBase*>& Children() const { return m_children; }

 private:
  std::vector<NodeBase*> m_children;
};

// The root of the tree: unnamed; its children are the top-level groups.
class AppNodes : public NodeWithChildren {};

// ------------------------------------------------------------------- types
class TypeBase {
 public:
  virtual ~TypeBase() = default;
  std::string name;     // key in the TypeTable
  int size = 0;         // bytes, from the file ("nativesize", else "size")
  std::string iecName;
  int typeClass = 0;    // tag type code; never 32767 in a stored type
};

// Elementary types, strings, time types, pointers, references, subranges.
class TypeSimple : public TypeBase {
 public:
  std::string underlyingType;  // subrange only
  int lowerBorder = 0;
  int upperBorder = 0;
};

struct ArrayRange {
  int minRange = 0;  // inclusive
  int maxRange = 0;  // inclusive
};

class TypeArray : public TypeBase {
 public:
  ~TypeArray() override;
  std::string baseType;  // element type's name
  void AppendRange(ArrayRange* range);
  int Dimensions() const { return static_cast<int>(ranges.size()); }
  std::vector<ArrayRange*> ranges;  // first dimension first; owned
};

// One member of a structure, union or function block, or one enumerator.
class UserDefElement {
 public:
  std::string iecName;
  std::string type;
  int varType = 0;    // 0 ("VAR") when the file gives none
  int enumValue = 0;
};

// Structures, unions, function blocks and enumerations.
class TypeUserDef : public TypeBase {
 public:
  ~TypeUserDef() override;
  std::string baseType;  // enumeration: the underlying type
  void AppendElement(UserDefElement* element);
  const std::vector<UserDefElement*>& Elements() const { return elements; }
  std::vector<UserDefElement*> elements;  // owned
};

// Every type of the file; appended while reading, then sorted once by name
// (strcmp order) and searched by binary search.
class TypeTable {
 public:
  ~TypeTable();
  void Append(TypeBase* type);
  void Sort();
  // Null on a miss; exact, case-sensitive.
  TypeBase* Find(const std::string& name) const;
  int Count() const { return static_cast<int>(m_types.size()); }
  const std::vector<TypeBase*>& Types() const { return m_types; }

 private:
  std::vector<TypeBase*> m_types;
};

struct SymbolHeader {
  uint32_t version = 0;
  uint32_t runtimeId = 0;
  uint32_t compilerVersion = 0;
  std::string profile;
  std::string projectName;
};

// "a.b.c.d" to a<<24 | b<<16 | c<<8 | d, parts unmasked; null or empty gives 0.
uint32_t PackVersion(const char* text);

class TagsConfig;

// The document. Owns header, types and nodes, deleted in that order.
class SymbolConfiguration {
 public:
  SymbolConfiguration(SymbolHeader* header, TypeTable* types, AppNodes* nodes);
  ~SymbolConfiguration();
  SymbolConfiguration(const SymbolConfiguration&) = delete;
  SymbolConfiguration& operator=(const SymbolConfiguration&) = delete;

  // Null on a miss, and *message then receives a new[] text "%s(%s)" with the
  // description of ERR_XML_TYPE_DEF_ERROR and the name; the caller owns it.
  TypeBase* FindType(const std::string& name, char** message) const;

  // Makes the TagsConfig (which takes ownership of this document) and mirrors
  // the variable tree. 0 and *out set, or a code with the document deleted.
  unsigned int CreateTagsConfig(TagsConfig** out, char** message);

  void SetInstanceId(uint32_t id) { instanceId = id; }

  SymbolHeader* header = nullptr;
  TypeTable* types = nullptr;
  AppNodes* nodes = nullptr;
  uint32_t instanceId = 0;
};

// A reference gets no tag: a variable with "referencetype", or a member with
// varType 3 (VAR_IN_OUT). Either argument may be null.
bool IsReference(const VariableNode* variable, const UserDefElement* member);

// ---------------------------------------------------- array bounds registry
// instanceId -> full array name (local form) -> dimension -> (lower, upper).
using DimensionBounds = std::map<int, std::pair<int, int>>;
using ArrayBoundsByName = std::map<std::string, DimensionBounds>;
using ArrayBoundsRegistry = std::map<uint32_t, ArrayBoundsByName>;

// The one process-wide registry. It has no lock: the callers' locks keep its
// writers (tree conversion) and readers (tag name lookup) apart.
ArrayBoundsRegistry& GetArrayBoundsRegistry();

// A copy of text in the encoding of the user's default locale when text is
// real UTF-8 with at least one non-ASCII byte; a plain copy otherwise. Sets
// the process locale to the user's default (setlocale(LC_ALL, "")) the first
// time a default is met, not on every name; safe while other threads run.
// Throws std::range_error when a string that looked like UTF-8 does not decode.
std::string ToLocalEncoding(const char* text);
// True when text is well-formed UTF-8 (by the lead-byte rule) with a non-ASCII byte.
bool IsUtf8(const char* text);

}  // namespace qorvarlok::symbols
