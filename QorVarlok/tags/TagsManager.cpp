#include "TagsManager.h"

#include <exception>
#include <memory>

#include "SymbolConfigDll.h"
#include "VarlokLog.h"
#include "VarlokTypes.h"

namespace qorvarlok::tags {

namespace {

// The name in local form. A name that looks like UTF-8 but does not decode
// is kept as the file has it, so the tag stays reachable by its bytes.
std::string localForm(const char* text) {
  if (text == nullptr) return std::string();
  try {
    return symbols::ToLocalEncoding(text);
  } catch (const std::exception& e) {
    VLOG(warn, "TagsManager::InitTagsNodeHashByConf", "name kept as read: {} ({})", text, e.what());
    return std::string(text);
  }
}

std::unique_ptr<TagNode> makeNode(const tagTagDesc& record, const std::string& key) {
  auto node = std::make_unique<TagNode>();
  const std::string name = localForm(record.Name);
  node->Name = tagTagDesc::dupString(name.c_str());
  node->FullName = tagTagDesc::dupString(key.c_str());
  node->Type = record.Type;
  node->Size = record.Size;
  node->AccessType = record.AccessType;
  node->VarType = record.VarType;
  node->BaseType = record.BaseType;
  node->MinValue = record.MinValue;
  node->MaxValue = record.MaxValue;
  node->EnumValue = record.EnumValue;
  node->TagsHandle = record.TagsHandle;
  return node;
}

// The part behind the last ".", or the whole name.
std::string lastComponent(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(dot + 1);
}

}  // namespace

TagsManager::TagsManager() { VLOG(info, "TagsManager::TagsManager", "init tag manager"); }

TagsManager::~TagsManager() {
  VLOG(info, "TagsManager::~TagsManager", "delete tags manager");
  releaseAll();
}

void TagsManager::releaseAll() {
  for (auto& entry : tcpTagLists) delete entry.second;
  tcpTagLists.clear();
  if (m_pTagListHead != nullptr) {
    releaseAllShmTagsList();
    delete m_pTagListHead;
    m_pTagListHead = nullptr;
  }
  clearNodes();
  symbols::DisposeSymbolConfig(tagsConfig);
  tagsConfig = nullptr;
}

void TagsManager::clearNodes() {
  m_nodeIndex.clear();
  for (auto& entry : tagsNodeHash) delete entry.second;
  tagsNodeHash.clear();
}

void TagsManager::addNode(std::map<std::string, TagNode*>::iterator hint, std::string key, TagNode* node) {
  auto added = tagsNodeHash.emplace_hint(hint, std::move(key), node);
  try {
    m_nodeIndex.emplace(std::string_view(added->first), node);
  } catch (...) {
    tagsNodeHash.erase(added);  // the caller still owns node
    throw;
  }
}

TagNode* TagsManager::lookup(std::string_view name) const {
  auto hit = m_nodeIndex.find(name);
  return hit == m_nodeIndex.end() ? nullptr : hit->second;
}

unsigned int TagsManager::InitTagsManagerPrivate(symbols::TagsConfig* config) {
  if (tagsConfig != nullptr && tagsConfig != config) {
    // A second configuration replaces the first: nothing of the first may
    // stay reachable, neither its nodes nor lists that point at them.
    releaseAll();
  }
  // Only a successful fill makes the head: the same configuration given
  // again after that has nothing left to add.
  const bool filled = tagsConfig == config && m_pTagListHead != nullptr;
  if (tagsConfig != config) symbols::AdoptSymbolConfig(config);
  tagsConfig = config;
  // Array bounds are registered under the document's id when the tree is
  // expanded, and looked up under the manager's: the two must agree first.
  if (config != nullptr && config->symbolConfiguration != nullptr) {
    config->symbolConfiguration->SetInstanceId(instanceId);
  }
  if (!filled) {
    const unsigned int code = InitTagsNodeHashByConf();
    if (code != 0) {
      VLOG(err, "TagsManager::InitTagsManagerPrivate", "{}", code);
      return code;
    }
  }
  if (m_pTagListHead == nullptr) m_pTagListHead = new TagsList();
  return 0;
}

unsigned int TagsManager::InitTagsNodeHashByConf() {
  VLOG(info, "TagsManager::InitTagsNodeHashByConf", "InitTagsNodeHashByConf");
  tagTagDesc* records = nullptr;
  unsigned int count = 0;
  const unsigned int code = symbols::GetAllTagsDescription(tagsConfig, &records, &count);
  if (code != 0) {
    VLOG(err, "TagsManager::InitTagsNodeHashByConf", "get symbol failed err={}", code);
    return code;
  }
  m_nodeIndex.reserve(m_nodeIndex.size() + count);
  for (unsigned int i = 0; i < count; ++i) {
    if (records[i].FullName == nullptr) continue;
    std::string key = localForm(records[i].FullName);
    auto slot = tagsNodeHash.lower_bound(key);
    if (slot != tagsNodeHash.end() && slot->first == key) continue;  // the first record wins
    std::unique_ptr<TagNode> node = makeNode(records[i], key);
    addNode(slot, std::move(key), node.get());
    node.release();
  }
  return 0;
}

void TagsManager::ReleaseTagsNodeHash() {
  clearNodes();
  symbols::DisposeSymbolConfig(tagsConfig);
  tagsConfig = nullptr;
  VLOG(info, "TagsManager::ReleaseTagsNodeHash", "ReleaseTagsNodeHash");
}

void TagsManager::ReleaseTagsManagerPrivate() {
  VLOG(info, "TagsManager::ReleaseTagsManagerPrivate", "release tags manager nodes");
  releaseAllTcpTagsList();
  releaseAllShmTagsList();
  reservedMap.clear();
  ReleaseTagsNodeHash();
  symbols::GetArrayBoundsRegistry().erase(instanceId);
  delete m_pTagListHead;
  m_pTagListHead = nullptr;
  tagsConfig = nullptr;
}

TagNode* TagsManager::searchNode(const std::string& name) {
  TagNode* node = lookup(name);
  if (node == nullptr) VLOG(err, "TagsManager::searchNode", "search Node failed {}", name);
  return node;
}

TagNode* TagsManager::findTagNode(const std::string& name) {
  if (TagNode* node = lookup(name)) return node;

  std::string baseName;
  IndexMap indices;
  // A "[" without "]" or brackets without digits: the name as it stands is
  // all there is, and its miss is logged.
  if (!SplitIndexedName(name, baseName, indices) || indices.empty()) return searchNode(name);

  const TagNode* base = lookup(baseName);
  if (base == nullptr) return nullptr;
  if (!indicesWithinBounds(indices)) return nullptr;
  return insertIndexedNode(name, *base);
}

bool TagsManager::indicesWithinBounds(const IndexMap& indices) const {
  const symbols::ArrayBoundsRegistry& registry = symbols::GetArrayBoundsRegistry();
  auto instance = registry.find(instanceId);
  if (instance == registry.end()) return false;
  for (const auto& [arrayName, list] : indices) {
    auto array = instance->second.find(arrayName);
    if (array == instance->second.end()) return false;
    const symbols::DimensionBounds& dims = array->second;
    if (list.size() != dims.size()) return false;
    for (size_t d = 0; d < list.size(); ++d) {
      auto bounds = dims.find(static_cast<int>(d));
      if (bounds == dims.end()) return false;
      if (list[d] < bounds->second.first || list[d] > bounds->second.second) return false;
    }
  }
  return true;
}

TagNode* TagsManager::insertIndexedNode(const std::string& name, const TagNode& base) {
  auto node = std::make_unique<TagNode>();
  node->Name = tagTagDesc::dupString(lastComponent(name).c_str());
  node->FullName = tagTagDesc::dupString(name.c_str());
  if (base.Type == TAG_TYPE_ARRAY) {
    // The name ends at an element: its width is the element type's, not the file's.
    node->Type = base.BaseType;
    node->Size = qorvarlok::baseByteLength(base.BaseType);
  } else {
    node->Type = base.Type;
    node->Size = base.Size;
  }
  node->AccessType = base.AccessType;
  node->VarType = base.VarType;
  node->BaseType = VARLOK_NOT_SET;
  node->MinValue = base.MinValue;
  node->MaxValue = base.MaxValue;
  node->EnumValue = base.EnumValue;
  TagNode* raw = node.get();
  addNode(tagsNodeHash.lower_bound(name), name, raw);
  node.release();
  return raw;
}

bool TagsManager::splitStrict(const std::string& name, std::string& bare, std::vector<std::string>& brackets) const {
  return SplitStrictName(name, bare, brackets);
}

std::string TagsManager::readNode(const TagNode* /*node*/) {
  VLOG(warn, "TagsManager::readNode", "not support");
  return std::string();
}

int TagsManager::writeNode(TagNode* /*node*/, const std::string& /*value*/) {
  VLOG(warn, "TagsManager::writeNode", "not support");
  return -1;
}

}  // namespace qorvarlok::tags
