// What is this tag name? The table of every tag by full name (local form),
// resolution of names with array indices against the bounds registry, and
// the homes of the defined tag lists. No lock: every use is under the
// owning backend's m_mutex.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "TagData.h"
#include "TagNameSplit.h"
#include "TagNode.h"
#include "TagsList.h"

namespace qorvarlok::tags {

class TagsManager {
 public:
  TagsManager();
  // Frees whatever a missing ReleaseTagsManagerPrivate left: lists, nodes,
  // configuration. The bounds registry is left alone.
  ~TagsManager();
  TagsManager(const TagsManager&) = delete;
  TagsManager& operator=(const TagsManager&) = delete;

  void SetInstanceId(uint32_t id) { instanceId = id; }
  uint32_t InstanceId() const { return instanceId; }

  // Takes ownership of the configuration; fills the table; makes the chain head.
  // Called again with another configuration, it releases the first one fully.
  unsigned int InitTagsManagerPrivate(symbols::TagsConfig* config);
  void ReleaseTagsManagerPrivate();
  unsigned int InitTagsNodeHashByConf();
  void ReleaseTagsNodeHash();

  TagNode* searchNode(const std::string& name);   // logs a miss
  TagNode* findTagNode(const std::string& name);  // plain or indexed name; null on a miss

  // The stricter split that nothing calls: name without brackets, bracket texts.
  bool splitStrict(const std::string& name, std::string& bare, std::vector<std::string>& brackets) const;

  // Node-level access holds a place in the interface: "not support".
  std::string readNode(const TagNode* node);
  int writeNode(TagNode* node, const std::string& value);

  // Tag lists.
  unsigned int createHandleByTagsListNames(TagsList** out, uint32_t seq, const std::vector<std::string>& names);
  unsigned int createTcpTagListByHandle(void* handle, const std::vector<std::string>& names);
  bool pushListBack(TagsList* list, uint32_t seq);
  void deleteFromBack();
  bool deleteFromList(void* handleField);
  TagsList* searchShmTagsList(void* handleField);
  void releaseAllShmTagsList();
  TagsList* searchTcpTagsList(void* handle);
  void deleteTcpTagsList(void* handle);
  void releaseAllTcpTagsList();

  TagsList* ListHead() const { return m_pTagListHead; }
  symbols::TagsConfig* Config() const { return tagsConfig; }
  size_t NodeCount() const { return tagsNodeHash.size(); }

 private:
  // Builds a list: tcpHandle null for shared memory (offsets, records, chained
  // with seq), else for TCP. Null with the first bad name in failed, or null
  // with failed empty when chaining failed.
  TagsList* buildTagsList(const std::vector<std::string>& names, void* tcpHandle, uint32_t seq,
                          std::vector<std::string>& failed);
  bool appendNode(TagsList& list, const std::string& name, bool withOffsets, std::vector<std::string>& failed);
  bool indicesWithinBounds(const IndexMap& indices) const;
  TagNode* insertIndexedNode(const std::string& name, const TagNode& base);
  void releaseAll();
  // The node of a full name, through the index; null when there is none.
  TagNode* lookup(std::string_view name) const;
  void addNode(std::map<std::string, TagNode*>::iterator hint, std::string key, TagNode* node);
  void clearNodes();

  symbols::TagsConfig* tagsConfig = nullptr;
  std::map<std::string, TagNode*> tagsNodeHash;
  // Every name of tagsNodeHash again, hashed: the ordered table's keys are
  // what the names view, and resolving a list finds each name in one probe
  // instead of some twenty string comparisons down the tree.
  std::unordered_map<std::string_view, TagNode*> m_nodeIndex;
  std::map<std::string, std::string> reservedMap;
  std::map<void*, TagsList*> tcpTagLists;
  TagsList* m_pTagListHead = nullptr;
  uint32_t instanceId = 0;
};

}  // namespace qorvarlok::tags
