// The tag tree that callers see, made from a SymbolConfiguration. Variables
// are mirrored when the TagsConfig is made; members of structures and arrays
// are added on demand. Array elements are never expanded: an array's bounds go
// into the array bounds registry instead.
#pragma once

#include <list>
#include <unordered_map>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "SymbolModel.h"

namespace qorvarlok::symbols {

// The most tags the tree of one symbol file may reach with every structure
// and array member expanded; a file beyond it is refused when it is opened.
// Nesting depth alone bounds nothing: thirty structure types that each hold
// two members of the type below expand to 2^30 tags from a few kilobytes.
// Each tag costs about 0.5 KB in the tree, its flat copy and the tags
// manager, so the bound keeps one file to a few gigabytes at most, while real
// projects (a file of a million variables included) stay far below it.
constexpr unsigned long long kMaxTagsPerConfiguration = 10000000;

// One node of the tree. Its tagTagDesc part is what callers get (as deep
// copies); TagsHandle points back to the node.
class TagData : protected tagTagDesc {
 public:
  TagData();
  virtual ~TagData();
  TagData(const TagData&) = delete;
  TagData& operator=(const TagData&) = delete;

  const tagTagDesc& Desc() const { return *this; }
  tagTagDesc& Desc() { return *this; }

  std::list<TagData*>* children = nullptr;  // made with the first child; owned
  tagTagDesc* subTagsDesc = nullptr;        // children in flat form, cached; owned
  TagData* parent = nullptr;
  TypeBase* type = nullptr;                 // null for groups and the root
};

// The root of the tree; owns the document. Its address is the handle of an
// open symbol configuration.
class TagsConfig : public TagData {
 public:
  explicit TagsConfig(SymbolConfiguration* configuration);
  ~TagsConfig() override;

  tagTagDesc* allTagsDesc = nullptr;
  SymbolConfiguration* symbolConfiguration = nullptr;
  unsigned int allTagsCount = 0;
  std::list<tagTagDesc*> retiredDescArrays;  // handed out by the low-memory operations
  // Nodes that the low-memory operations handed out and that nobody has
  // visited yet: only they may be visited, each once, and the rest go with the
  // root. Each keeps the types of its ancestors, which are gone by then, so a
  // type that contains itself is still seen.
  std::unordered_map<TagData*, std::vector<const TypeBase*>> lowMemoryPending;
};

// Every node the tree reaches once fully expanded (groups, variables, members),
// counted from the types without expanding anything; above the bound the count
// stops as soon as it passes it.
unsigned long long CountExpandedTags(const SymbolConfiguration& config, const TagsConfig& root);

// Description access. Arrays belong to the tree; callers never free them.
unsigned int GetAllTagsDescription(TagsConfig* pTagConfig, tagTagDesc** descs, unsigned int* count);
unsigned int GetToppestTagsDescription(TagsConfig* pTagConfig, tagTagDesc** descs, unsigned int* count);
unsigned int GetSubTagsDescription(void* hTagsInfo, tagTagDesc** descs, unsigned int* count);
unsigned int GetToppestTagsDescriptionWithLowMemory(TagsConfig* pTagConfig, tagTagDesc** descs,
                                                    unsigned int* count);
unsigned int GetSubTagsDescriptionWithLowMemory(TagsConfig* pTagConfig, void* hTagsInfo, tagTagDesc** descs,
                                                unsigned int* count);

}  // namespace qorvarlok::symbols
