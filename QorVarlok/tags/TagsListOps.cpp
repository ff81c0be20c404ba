// The homes of the defined tag lists: the sentinel chain for shared memory,
// whose handle numbers follow the controller's, and the map for TCP.
#include <memory>
#include <new>

#include "TagsManager.h"
#include "ZelTagAccess.h"
#include "VarlokLog.h"

namespace qorvarlok::tags {

namespace {

// No shared-memory list may outgrow what one data swap can carry (the mapped
// area). Beyond it the record array alone, one record per byte, would run to
// gigabytes. A TCP list never passes through that area: its bound is the one
// frame its values travel in.
constexpr uint64_t kMaxShmListBytes = 0x500000;
constexpr uint64_t kMaxTcpListBytes = ZTA_MAX_LIST_VALUE_BYTES;

}  // namespace

bool TagsManager::appendNode(TagsList& list, const std::string& name, bool withOffsets,
                             std::vector<std::string>& failed) {
  TagNode* node = findTagNode(name);
  if (node == nullptr) {
    failed.push_back(name);
    return false;
  }
  const uint64_t total = uint64_t{list.totalBytes} + static_cast<uint64_t>(node->Size);
  const uint64_t bound = withOffsets ? kMaxShmListBytes : kMaxTcpListBytes;
  if (node->Size < 0 || total > bound) {
    VLOG(err, withOffsets ? "TagsManager::createHandleByTagsListNames" : "TagsManager::createTcpTagListByHandle",
         "tag {} of size {} does not fit a list of {} bytes", name, node->Size, list.totalBytes);
    failed.push_back(name);
    return false;
  }
  list.m_shapes.push_back({node->FullName, node->Type, node->Size});
  list.nodeArray.push_back(node);
  ++list.length;
  if (withOffsets) list.offsets.push_back(list.totalBytes);
  list.totalBytes = static_cast<uint32_t>(total);
  return true;
}

TagsList* TagsManager::buildTagsList(const std::vector<std::string>& names, void* tcpHandle, uint32_t seq,
                                     std::vector<std::string>& failed) {
  const bool shm = tcpHandle == nullptr;
  auto list = std::make_unique<TagsList>();
  if (!shm) list->handle = -1;
  list->nodeArray.reserve(names.size());
  list->m_shapes.reserve(names.size());
  if (shm) list->offsets.reserve(names.size());
  for (const std::string& name : names) {
    if (!appendNode(*list, name, shm, failed)) return nullptr;  // later names aren't looked at
  }
  if (!shm) {
    if (list->totalBytes != 0) list->valueBuffer = new unsigned char[list->totalBytes]();
    return list.release();
  }
  list->values = new tagTagVarValue[list->totalBytes];
  list->valueBuffer = new unsigned char[list->totalBytes]();
  if (!pushListBack(list.get(), seq)) return nullptr;
  return list.release();  // the chain owns it now
}

unsigned int TagsManager::createHandleByTagsListNames(TagsList** out, uint32_t seq,
                                                      const std::vector<std::string>& names) {
  if (out == nullptr) {
    VLOG(err, "TagsManager::createHandleByTagsListNames", "out == nullptr");
    return ERR_EXIST_INVAILD_VAR;
  }
  std::vector<std::string> failed;
  TagsList* list = nullptr;
  try {
    list = buildTagsList(names, nullptr, seq, failed);
  } catch (const std::bad_alloc&) {
    VLOG(err, "TagsManager::createHandleByTagsListNames", "out of memory for {} names", names.size());
    list = nullptr;
  }
  *out = list;
  if (!failed.empty()) {
    VLOG(err, "TagsManager::createHandleByTagsListNames", "can't find specific handle with seq {}", seq);
    return ERR_EXIST_INVAILD_VAR;
  }
  if (list == nullptr) {
    VLOG(err, "TagsManager::createHandleByTagsListNames", "create handle with invalid variables, seq = {}", seq);
    return ERR_EXIST_INVAILD_VAR;
  }
  return 0;
}

unsigned int TagsManager::createTcpTagListByHandle(void* handle, const std::vector<std::string>& names) {
  if (handle == nullptr) {
    VLOG(err, "TagsManager::createTcpTagListByHandle", "handle == nullptr");
    return ERR_INVALID_VAR_DEFS;
  }
  std::vector<std::string> failed;
  std::unique_ptr<TagsList> list;
  try {
    list.reset(buildTagsList(names, handle, 0, failed));
  } catch (const std::bad_alloc&) {
    VLOG(err, "TagsManager::createTcpTagListByHandle", "out of memory for {} names", names.size());
    failed.push_back(std::string());
  }
  if (!failed.empty() || list == nullptr) {
    VLOG(err, "TagsManager::createTcpTagListByHandle", "can't find specific handle");
    return ERR_EXIST_INVAILD_VAR;
  }
  // A handle already in the map keeps its old list; the new one goes.
  if (tcpTagLists.emplace(handle, list.get()).second) list.release();
  return 0;
}

bool TagsManager::pushListBack(TagsList* list, uint32_t seq) {
  if (list == nullptr) {
    VLOG(err, "TagsManager::pushListBack", "pNewTagsList == nullptr");
    return false;
  }
  if (m_pTagListHead == nullptr) {
    VLOG(err, "TagsManager::pushListBack", "m_pTagListHead is nullptr");
    return false;
  }
  TagsList* last = m_pTagListHead->prev;
  list->prev = last;
  list->next = m_pTagListHead;
  last->next = list;
  m_pTagListHead->prev = list;
  list->handle = 0;
  list->clientSeq = seq != 0 ? seq : m_pTagListHead->clientSeq;
  return true;
}

void TagsManager::deleteFromBack() {
  if (m_pTagListHead == nullptr) {
    VLOG(err, "TagsManager::deleteFromBack", "m_pTagListHead is nullptr");
    return;
  }
  TagsList* last = m_pTagListHead->prev;
  if (last == m_pTagListHead) return;  // an empty chain: the sentinel is no list
  last->prev->next = m_pTagListHead;
  m_pTagListHead->prev = last->prev;
  delete last;
}

bool TagsManager::deleteFromList(void* handleField) {
  TagsList* list = searchShmTagsList(handleField);
  if (list == nullptr) {
    VLOG(err, "TagsManager::deleteFromList", "node == nullptr");
    return false;
  }
  TagsList* following = list->next;
  list->handle = 0;
  list->prev->next = list->next;
  list->next->prev = list->prev;
  list->prev = nullptr;
  list->next = nullptr;
  delete list;
  // The controller closes the gap in its numbering; the chain follows suit.
  for (TagsList* it = following; it != m_pTagListHead; it = it->next) --it->handle;
  return true;
}

TagsList* TagsManager::searchShmTagsList(void* handleField) {
  if (handleField == nullptr) {
    VLOG(err, "TagsManager::searchShmTagsList", "handle == nullptr");
    return nullptr;
  }
  const int32_t number = *static_cast<const int32_t*>(handleField);
  if (m_pTagListHead == nullptr) {
    VLOG(err, "TagsManager::searchShmTagsList", "m_pTagListHead is nullptr");
    return nullptr;
  }
  for (TagsList* it = m_pTagListHead->next; it != m_pTagListHead; it = it->next) {
    if (it->handle == number) return it;
  }
  return nullptr;
}

void TagsManager::releaseAllShmTagsList() {
  if (m_pTagListHead == nullptr) {
    VLOG(err, "TagsManager::releaseAllShmTagsList", "m_pTagListHead is nullptr");
    return;
  }
  TagsList* it = m_pTagListHead->next;
  while (it != m_pTagListHead) {
    TagsList* next = it->next;
    delete it;
    it = next;
  }
  m_pTagListHead->next = m_pTagListHead;
  m_pTagListHead->prev = m_pTagListHead;
}

TagsList* TagsManager::searchTcpTagsList(void* handle) {
  auto hit = tcpTagLists.find(handle);
  return hit == tcpTagLists.end() ? nullptr : hit->second;
}

void TagsManager::deleteTcpTagsList(void* handle) {
  auto hit = tcpTagLists.find(handle);
  if (hit == tcpTagLists.end()) return;
  delete hit->second;
  tcpTagLists.erase(hit);
}

void TagsManager::releaseAllTcpTagsList() {
  for (auto& entry : tcpTagLists) delete entry.second;
  tcpTagLists.clear();
}

}  // namespace qorvarlok::tags
