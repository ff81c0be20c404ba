#include "TagData.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VarlokLog.h"

namespace qorvarlok::symbols {

namespace {

// Members nested deeper than this below a variable are not expanded: no real
// project comes near it, and it bounds the tree however the types chain.
constexpr int kMaxTypeNesting = 64;

char* Dup(const std::string& text) { return tagTagDesc::dupString(text.c_str()); }

std::string FullNameOf(const TagData* parent, const std::string& name) {
  const tagTagDesc& p = parent->Desc();
  if (p.FullName == nullptr) return name;
  if (p.Type == TAG_TYPE_ARRAY) return std::string(p.FullName) + name;  // the member's name brings its "."
  return std::string(p.FullName) + "." + name;
}

TagData* AddChild(TagData* parent, const std::string& name, int typeCode, int size, int access, TypeBase* type,
                  const char* comment) {
  auto node = std::make_unique<TagData>();
  tagTagDesc& d = node->Desc();
  d.AccessType = access;
  node->parent = parent;
  d.Name = Dup(name);
  d.Size = size;
  d.Comment = tagTagDesc::dupString(comment);
  d.Type = typeCode;
  node->type = type;
  d.FullName = Dup(FullNameOf(parent, name));
  if (parent->children == nullptr) parent->children = new std::list<TagData*>();
  parent->children->push_back(node.get());
  return node.release();
}

TagData* AddGroup(TagData* parent, const std::string& name) {
  return AddChild(parent, name, VARLOK_NOT_SET, 0, VARLOK_NOT_SET, nullptr, nullptr);
}

const std::string& BaseTypeName(const TypeBase* type) {
  static const std::string none;
  if (const auto* array = dynamic_cast<const TypeArray*>(type)) return array->baseType;
  if (const auto* userDef = dynamic_cast<const TypeUserDef*>(type)) return userDef->baseType;
  return none;
}

unsigned int AddTypedTag(const SymbolConfiguration& config, TagData* parent, const std::string& name,
                         const std::string& typeName, int access, const char* comment, int varType, char** message) {
  TypeBase* type = config.FindType(typeName, message);
  if (type == nullptr) return ERR_XML_TYPE_DEF_ERROR;
  TagData* node = AddChild(parent, name, type->typeClass, type->size, access, type, comment);
  tagTagDesc& d = node->Desc();
  d.VarType = varType;
  const std::string* baseName = nullptr;
  if (type->typeClass == TAG_TYPE_SUBRANGE) {
    const auto* simple = dynamic_cast<const TypeSimple*>(type);
    static const std::string none;
    d.MinValue = simple != nullptr ? simple->lowerBorder : 0;
    d.MaxValue = simple != nullptr ? simple->upperBorder : 0;
    baseName = simple != nullptr ? &simple->underlyingType : &none;
  } else if (type->typeClass == TAG_TYPE_ENUM || type->typeClass == TAG_TYPE_ARRAY) {
    baseName = &BaseTypeName(type);
  }
  if (baseName != nullptr) {
    const TypeBase* base = config.FindType(*baseName, message);
    if (base == nullptr) return ERR_XML_TYPE_DEF_ERROR;  // the node stays in the tree
    d.BaseType = base->typeClass;
  }
  return ERR_NOERROR;
}

TagsConfig* RootOf(TagData* node) {
  TagData* top = node;
  while (top->parent != nullptr) top = top->parent;
  return dynamic_cast<TagsConfig*>(top);
}

// Members of a structure, union or function block; under an array each name
// carries the prefix ".".
unsigned int ConvertStructTags(const SymbolConfiguration& config, TagData* node, TypeBase* type,
                               const std::string& prefix, char** message) {
  const auto* userDef = dynamic_cast<const TypeUserDef*>(type);
  if (userDef == nullptr) return ERR_NOERROR;  // a simple type element declared with a structure's class
  for (const UserDefElement* element : userDef->elements) {
    if (config.FindType(element->type, message) == nullptr) return ERR_XML_TYPE_DEF_ERROR;
    if (IsReference(nullptr, element)) continue;
    const unsigned int code = AddTypedTag(config, node, prefix + element->iecName, element->type,
                                          node->Desc().AccessType, nullptr, element->varType, message);
    if (code != ERR_NOERROR) return code;
  }
  return ERR_NOERROR;
}

unsigned int ConvertStructArrayTags(const SymbolConfiguration& config, TagData* node, TypeBase* type,
                                    const std::string& prefix, char** message) {
  return ConvertStructTags(config, node, type, prefix, message);
}

unsigned int ConvertArrayTags(const SymbolConfiguration& config, TagData* node, TypeBase* type, char** message) {
  TypeBase* element = config.FindType(BaseTypeName(type), message);
  if (element == nullptr) {
    VLOG(err, "SymbolConfiguration::ConvertArrayTags", "pElemType is nullptr");
    return ERR_XML_TYPE_DEF_ERROR;
  }
  const auto* array = dynamic_cast<const TypeArray*>(type);
  const int dimensions = array != nullptr ? array->Dimensions() : 0;
  if (dimensions >= 4) {
    VLOG(err, "SymbolConfiguration::ConvertArrayTags", "array dim is {}", dimensions);
    return ERR_INVALID_VAR_DEFS;
  }
  // Bounds only: elements are never materialised, whatever the bounds say.
  DimensionBounds bounds;
  for (int i = 0; i < dimensions; ++i) bounds[i] = {array->ranges[i]->minRange, array->ranges[i]->maxRange};
  GetArrayBoundsRegistry()[config.instanceId][ToLocalEncoding(node->Desc().FullName)] = std::move(bounds);
  if (element->typeClass == TAG_TYPE_STRUCTURE) ConvertStructArrayTags(config, node, element, ".", message);
  return ERR_NOERROR;
}

// A type that stands among a node's own ancestors contains itself by value:
// expanding it would never end.
bool MayExpand(const TagData* node, const std::vector<const TypeBase*>* detachedAncestors) {
  std::vector<const TypeBase*> types;
  if (detachedAncestors != nullptr) types = *detachedAncestors;
  for (const TagData* a = node->parent; a != nullptr; a = a->parent) types.push_back(a->type);
  int typedAncestors = 0;
  for (const TypeBase* type : types) {
    if (type == node->type) {
      VLOG(warn, "SymbolConfiguration::ExpandTag", "{} of type {} contains itself, not expanded",
           node->Desc().FullName, node->type->name);
      return false;
    }
    if (type != nullptr) ++typedAncestors;
  }
  if (typedAncestors >= kMaxTypeNesting) {
    VLOG(warn, "SymbolConfiguration::ExpandTag", "{} is nested {} types deep, not expanded", node->Desc().FullName,
         typedAncestors);
    return false;
  }
  return true;
}

// Expansion is a quiet path: a failure leaves the node without (some)
// children and nobody is told; the tag itself is already published.
void ExpandNode(const SymbolConfiguration& config, TagData* node,
                const std::vector<const TypeBase*>* detachedAncestors = nullptr) {
  if (node->children != nullptr || node->type == nullptr) return;
  const int typeClass = node->type->typeClass;
  const bool structured = typeClass == TAG_TYPE_UNION || typeClass == TAG_TYPE_STRUCTURE ||
                          typeClass == TAG_TYPE_FUNCTION_BLOCK || typeClass == TAG_TYPE_ARRAY;
  if (!structured || !MayExpand(node, detachedAncestors)) return;
  char* message = nullptr;
  if (typeClass == TAG_TYPE_ARRAY) {
    ConvertArrayTags(config, node, node->type, &message);
  } else {
    ConvertStructTags(config, node, node->type, "", &message);
  }
  delete[] message;
}

// How many tags expansion would add below nodes of each type, counted from the
// types alone, by the rules ExpandNode and ConvertStructTags follow, and given
// up on once the count passes the limit. A type whose members never lead back
// to a type on their path is counted once per depth; types on a cycle are
// counted path by path, which the limit keeps bounded.
class ExpansionCount {
 public:
  static bool Structured(int typeClass) {
    return typeClass == TAG_TYPE_UNION || typeClass == TAG_TYPE_STRUCTURE || typeClass == TAG_TYPE_FUNCTION_BLOCK ||
           typeClass == TAG_TYPE_ARRAY;
  }

  ExpansionCount(const SymbolConfiguration& config, unsigned long long limit) : m_config(config), m_limit(limit) {}

  // Tags below a node of this type with this many typed ancestors.
  unsigned long long Below(const TypeBase* type, int typedAncestors) {
    if (type == nullptr || typedAncestors >= kMaxTypeNesting || !Structured(type->typeClass)) return 0;
    if (std::find(m_path.begin(), m_path.end(), type) != m_path.end()) return 0;  // contains itself
    const bool cacheable = !OnCycle(type);
    const auto key = std::make_pair(type, typedAncestors);
    if (cacheable) {
      auto hit = m_counted.find(key);
      if (hit != m_counted.end()) return hit->second;
    }
    m_path.push_back(type);
    unsigned long long total = 0;
    for (const TypeBase* member : Members(type)) {
      total += 1 + Below(member, typedAncestors + 1);
      if (total > m_limit) break;
    }
    m_path.pop_back();
    if (cacheable) m_counted[key] = total;
    return total;
  }

 private:
  // The types of the member tags that expanding a node of this type adds, in
  // order: none for a type that is not expanded, members up to the first one
  // whose type (or base type) is missing, no references.
  const std::vector<const TypeBase*>& Members(const TypeBase* type) {
    auto known = m_members.find(type);
    if (known != m_members.end()) return known->second;
    std::vector<const TypeBase*>& out = m_members[type];
    const TypeBase* holder = type;
    if (type->typeClass == TAG_TYPE_ARRAY) {
      const auto* array = dynamic_cast<const TypeArray*>(type);
      holder = m_config.FindType(BaseTypeName(type), nullptr);
      if (array == nullptr || array->Dimensions() >= 4 || holder == nullptr || holder->typeClass != TAG_TYPE_STRUCTURE)
        return out;
    } else if (!Structured(type->typeClass)) {
      return out;
    }
    const auto* userDef = dynamic_cast<const TypeUserDef*>(holder);
    if (userDef == nullptr) return out;
    for (const UserDefElement* element : userDef->elements) {
      const TypeBase* member = m_config.FindType(element->type, nullptr);
      if (member == nullptr) break;
      if (IsReference(nullptr, element)) continue;
      out.push_back(member);
      if (!BaseTypeResolves(member)) break;  // the member stays, the rest are not added
    }
    return out;
  }

  // The base type that AddTypedTag looks up for subranges, enumerations and arrays.
  bool BaseTypeResolves(const TypeBase* type) const {
    if (type->typeClass == TAG_TYPE_SUBRANGE) {
      const auto* simple = dynamic_cast<const TypeSimple*>(type);
      return m_config.FindType(simple != nullptr ? simple->underlyingType : std::string(), nullptr) != nullptr;
    }
    if (type->typeClass == TAG_TYPE_ENUM || type->typeClass == TAG_TYPE_ARRAY)
      return m_config.FindType(BaseTypeName(type), nullptr) != nullptr;
    return true;
  }

  // Whether a path of members from this type can reach a type twice. Such a
  // type's count depends on the path it is met on, so it is never cached.
  bool OnCycle(const TypeBase* type) {
    auto known = m_cyclic.find(type);
    if (known != m_cyclic.end()) return known->second;
    // Depth first with an explicit stack; grey types are on the current path.
    enum Colour { kGrey, kBlack };
    std::map<const TypeBase*, Colour> colour;
    std::vector<std::pair<const TypeBase*, size_t>> stack{{type, 0}};
    colour[type] = kGrey;
    bool cyclic = false;
    while (!stack.empty() && !cyclic) {
      auto& [current, next] = stack.back();
      const std::vector<const TypeBase*>& members = Members(current);
      if (next == members.size()) {
        colour[current] = kBlack;
        stack.pop_back();
        continue;
      }
      const TypeBase* member = members[next++];
      auto seen = m_cyclic.find(member);
      if (seen != m_cyclic.end()) {
        cyclic = seen->second;
        continue;
      }
      auto c = colour.find(member);
      if (c == colour.end()) {
        colour[member] = kGrey;
        stack.emplace_back(member, 0);
      } else if (c->second == kGrey) {
        cyclic = true;
      }
    }
    // Every type finished black leads to no cycle; a cycle found taints only the start.
    for (const auto& [t, c] : colour)
      if (c == kBlack) m_cyclic.emplace(t, false);
    m_cyclic[type] = cyclic;
    return cyclic;
  }

  const SymbolConfiguration& m_config;
  const unsigned long long m_limit;
  std::vector<const TypeBase*> m_path;  // types of the typed ancestors of the node being counted
  std::map<const TypeBase*, std::vector<const TypeBase*>> m_members;
  std::map<std::pair<const TypeBase*, int>, unsigned long long> m_counted;
  std::map<const TypeBase*, bool> m_cyclic;
};

// Depth first with an explicit stack, so a deep tree cannot exhaust the thread's stack.
void ExpandDeep(const SymbolConfiguration& config, TagData* start) {
  std::vector<TagData*> stack{start};
  while (!stack.empty()) {
    TagData* node = stack.back();
    stack.pop_back();
    ExpandNode(config, node);
    if (node->children == nullptr) continue;
    for (auto it = node->children->rbegin(); it != node->children->rend(); ++it) stack.push_back(*it);
  }
}

// The flat list: arrays and structures stand before their members; groups,
// unions and function blocks only through their members.
void CollectTags(const TagData* root, std::vector<TagData*>& out) {
  if (root->children == nullptr) return;
  using Range = std::pair<std::list<TagData*>::const_iterator, std::list<TagData*>::const_iterator>;
  std::vector<Range> stack{{root->children->begin(), root->children->end()}};
  while (!stack.empty()) {
    Range& top = stack.back();
    if (top.first == top.second) {
      stack.pop_back();
      continue;
    }
    TagData* node = *top.first++;
    const int type = node->Desc().Type;
    if (node->children != nullptr && type != TAG_TYPE_ENUM) {
      if (type == TAG_TYPE_ARRAY || type == TAG_TYPE_STRUCTURE) out.push_back(node);
      stack.push_back({node->children->begin(), node->children->end()});
    } else {
      out.push_back(node);
    }
  }
}

template <typename Container>
tagTagDesc* BuildDescs(const Container& nodes) {
  if (nodes.empty()) return nullptr;
  auto* descs = new tagTagDesc[nodes.size()];
  size_t i = 0;
  for (const TagData* node : nodes) descs[i++] = node->Desc();  // deep copy; TagsHandle points back
  return descs;
}

void ClearOut(tagTagDesc** descs, unsigned int* count) {
  if (descs != nullptr) *descs = nullptr;
  if (count != nullptr) *count = 0;
}

unsigned int ListChildren(TagData* node, tagTagDesc** descs, unsigned int* count, bool emptyIsError) {
  if (node->subTagsDesc == nullptr && node->children != nullptr && !node->children->empty())
    node->subTagsDesc = BuildDescs(*node->children);
  if (count != nullptr) *count = node->children != nullptr ? static_cast<unsigned int>(node->children->size()) : 0;
  if (node->subTagsDesc == nullptr && emptyIsError) {
    VLOG(err, "GetSubTagsDescription", "*ppSubTagsDesc == nullptr");
    return ERR_INVALID_TAG_HANDLE;
  }
  if (descs != nullptr) *descs = node->subTagsDesc;
  return ERR_NOERROR;
}

// Hands a level out through the retired arrays and detaches its nodes: from
// now on they live only through the handles in that array.
tagTagDesc* RetireLevel(TagsConfig* config, TagData* node, unsigned int* count,
                        const std::vector<const TypeBase*>* ancestorTypes) {
  tagTagDesc* descs = nullptr;
  size_t n = 0;
  if (node->children != nullptr && !node->children->empty()) {
    descs = BuildDescs(*node->children);
    n = node->children->size();
    config->retiredDescArrays.push_back(descs);
    std::vector<const TypeBase*> types;
    if (ancestorTypes != nullptr) {
      types = *ancestorTypes;
      if (node->type != nullptr) types.push_back(node->type);
    }
    for (TagData* child : *node->children) {
      config->lowMemoryPending[child] = types;
      if (ancestorTypes != nullptr) child->parent = nullptr;  // the node goes; its children must not point to it
    }
    node->children->clear();
  }
  if (node->subTagsDesc != nullptr) {
    config->retiredDescArrays.push_back(node->subTagsDesc);  // records handed out before stay readable
    node->subTagsDesc = nullptr;
  }
  if (count != nullptr) *count = static_cast<unsigned int>(n);
  return descs;
}

}  // namespace

// ------------------------------------------------------------------ nodes
TagData::TagData() {
  MinValue = -1;
  MaxValue = -1;
  EnumValue = 0;
  TagsHandle = this;
}

TagData::~TagData() {
  delete[] subTagsDesc;
  if (children != nullptr) {
    for (TagData* child : *children) delete child;
    delete children;
  }
}

TagsConfig::TagsConfig(SymbolConfiguration* configuration) : symbolConfiguration(configuration) {}

TagsConfig::~TagsConfig() {
  delete[] allTagsDesc;
  delete symbolConfiguration;
  for (tagTagDesc* descs : retiredDescArrays) delete[] descs;
  for (auto& pending : lowMemoryPending) delete pending.first;
}

// -------------------------------------------------------------- conversion
namespace {

unsigned int MirrorGroup(const SymbolConfiguration& config, TagData* into, const NodeWithChildren& group,
                         char** message) {
  for (NodeBase* child : group.Children()) {
    if (const auto* variable = dynamic_cast<const VariableNode*>(child)) {
      if (config.FindType(variable->type, message) == nullptr) {
        VLOG(err, "SymbolConfiguration::CreateTagsConfig", "type {} of variable {} is not defined", variable->type,
             variable->name);
        return ERR_XML_TYPE_DEF_ERROR;
      }
      if (IsReference(variable, nullptr)) continue;  // checked, yet no tag
      const unsigned int code = AddTypedTag(config, into, variable->name, variable->type, variable->access,
                                            variable->comment.c_str(), VARLOK_NOT_SET, message);
      if (code != ERR_NOERROR) {
        VLOG(err, "SymbolConfiguration::CreateTagsConfig", "base type of {} ({}) is not defined", variable->name,
             variable->type);
        return code;
      }
      continue;
    }
    TagData* sub = AddGroup(into, child->name);
    if (const auto* nested = dynamic_cast<const NodeWithChildren*>(child)) {
      const unsigned int code = MirrorGroup(config, sub, *nested, message);
      if (code != ERR_NOERROR) return code;
    }
  }
  return ERR_NOERROR;
}

}  // namespace

unsigned long long CountExpandedTags(const SymbolConfiguration& config, const TagsConfig& root) {
  ExpansionCount count(config, kMaxTagsPerConfiguration);
  unsigned long long total = 0;
  std::vector<const TagData*> stack{&root};
  while (!stack.empty() && total <= kMaxTagsPerConfiguration) {
    const TagData* node = stack.back();
    stack.pop_back();
    if (node != &root) total += 1 + count.Below(node->type, 0);
    if (node->children != nullptr)
      for (const TagData* child : *node->children) stack.push_back(child);
  }
  return total;
}

unsigned int SymbolConfiguration::CreateTagsConfig(TagsConfig** out, char** message) {
  if (out != nullptr) *out = nullptr;
  // The root owns this document from here on, on failure too.
  std::unique_ptr<TagsConfig> root(new TagsConfig(this));
  if (nodes != nullptr) {
    for (NodeBase* top : nodes->Children()) {
      TagData* first = AddGroup(root.get(), top->name);
      const auto* topGroup = dynamic_cast<const NodeWithChildren*>(top);
      if (topGroup == nullptr) continue;
      for (NodeBase* child : topGroup->Children()) {
        TagData* second = AddGroup(first, child->name);
        const auto* group = dynamic_cast<const NodeWithChildren*>(child);
        if (group == nullptr) continue;
        const unsigned int code = MirrorGroup(*this, second, *group, message);
        if (code != ERR_NOERROR) return code;  // deletes the root and this document
      }
    }
  }
  const unsigned long long tags = CountExpandedTags(*this, *root);
  if (tags > kMaxTagsPerConfiguration) {
    VLOG(err, "SymbolConfiguration::CreateTagsConfig",
         "the tags of this file would exceed the bound of {} tags (kMaxTagsPerConfiguration) once expanded, refused",
         kMaxTagsPerConfiguration);
    if (message != nullptr) {
      const std::string text = std::string(ReadErrorDescription(ERR_XML_TYPE_DEF_ERROR)) + "(more than " +
                               std::to_string(kMaxTagsPerConfiguration) + " tags)";
      delete[] *message;
      *message = Dup(text);
    }
    return ERR_XML_TYPE_DEF_ERROR;  // deletes the root and this document
  }
  if (out != nullptr) *out = root.release();
  return ERR_NOERROR;
}

// ------------------------------------------------------ description access
unsigned int GetAllTagsDescription(TagsConfig* pTagConfig, tagTagDesc** descs, unsigned int* count) {
  ClearOut(descs, count);
  if (pTagConfig == nullptr) {
    VLOG(err, "GetAllTagsDescription", "pTagConfig == NULL");
    return ERR_INVALID_TAG_HANDLE;
  }
  if (pTagConfig->allTagsDesc == nullptr && pTagConfig->symbolConfiguration != nullptr) {
    ExpandDeep(*pTagConfig->symbolConfiguration, pTagConfig);
    std::vector<TagData*> tags;
    CollectTags(pTagConfig, tags);
    pTagConfig->allTagsCount = static_cast<unsigned int>(tags.size());
    pTagConfig->allTagsDesc = BuildDescs(tags);
  }
  if (descs != nullptr) *descs = pTagConfig->allTagsDesc;
  if (count != nullptr) *count = pTagConfig->allTagsCount;
  return ERR_NOERROR;
}

unsigned int GetToppestTagsDescription(TagsConfig* pTagConfig, tagTagDesc** descs, unsigned int* count) {
  ClearOut(descs, count);
  if (pTagConfig == nullptr) {
    VLOG(err, "GetToppestTagsDescription", "pTagConfig == NULL");
    return ERR_INVALID_TAG_HANDLE;
  }
  return ListChildren(pTagConfig, descs, count, false);
}

unsigned int GetSubTagsDescription(void* hTagsInfo, tagTagDesc** descs, unsigned int* count) {
  ClearOut(descs, count);
  if (hTagsInfo == nullptr) {
    VLOG(err, "GetSubTagsDescription", "hTagsInfo == NULL");
    return ERR_INVALID_TAG_HANDLE;
  }
  auto* node = static_cast<TagData*>(hTagsInfo);
  if (node->children == nullptr) {
    TagsConfig* root = RootOf(node);
    if (root != nullptr && root != node && root->symbolConfiguration != nullptr)
      ExpandNode(*root->symbolConfiguration, node);
  }
  return ListChildren(node, descs, count, true);
}

unsigned int GetToppestTagsDescriptionWithLowMemory(TagsConfig* pTagConfig, tagTagDesc** descs,
                                                    unsigned int* count) {
  ClearOut(descs, count);
  if (pTagConfig == nullptr) {
    VLOG(err, "GetToppestTagsDescriptionWithLowMemory", "pTagConfig == NULL");
    return ERR_INVALID_TAG_HANDLE;
  }
  tagTagDesc* level = RetireLevel(pTagConfig, pTagConfig, count, nullptr);
  if (descs != nullptr) *descs = level;
  return ERR_NOERROR;
}

unsigned int GetSubTagsDescriptionWithLowMemory(TagsConfig* pTagConfig, void* hTagsInfo, tagTagDesc** descs,
                                                unsigned int* count) {
  ClearOut(descs, count);
  if (pTagConfig == nullptr || hTagsInfo == nullptr) {
    VLOGP(err, "GetSubTagsDescriptionWithLowMemory", "hTagsInfo=%p, pTagConfig=%p", hTagsInfo,
          static_cast<void*>(pTagConfig));
    return ERR_INVALID_TAG_HANDLE;
  }
  auto* node = static_cast<TagData*>(hTagsInfo);
  // Only a handle this root handed out and nobody visited yet is alive.
  auto pending = pTagConfig->lowMemoryPending.find(node);
  if (pending == pTagConfig->lowMemoryPending.end()) {
    VLOGP(err, "GetSubTagsDescriptionWithLowMemory", "hTagsInfo=%p is not a pending handle of pTagConfig=%p",
          hTagsInfo, static_cast<void*>(pTagConfig));
    return ERR_INVALID_TAG_HANDLE;
  }
  const std::vector<const TypeBase*> ancestorTypes = std::move(pending->second);
  pTagConfig->lowMemoryPending.erase(pending);
  if (pTagConfig->symbolConfiguration != nullptr) ExpandNode(*pTagConfig->symbolConfiguration, node, &ancestorTypes);
  tagTagDesc* level = RetireLevel(pTagConfig, node, count, &ancestorTypes);
  delete node;  // its children live on through the handles just handed out
  if (level == nullptr) {
    VLOG(err, "GetSubTagsDescriptionWithLowMemory", "*ppSubTagsDesc == nullptr");
    return ERR_INVALID_TAG_HANDLE;
  }
  if (descs != nullptr) *descs = level;
  return ERR_NOERROR;
}

}  // namespace qorvarlok::symbols
