#include "SymbolConfigDll.h"

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "SymbolConfigReader.h"
#include "VarlokLog.h"

namespace qorvarlok::symbols {

namespace {

// Trees of released configurations. They outlive their registry entries so
// that records and handles a caller still holds stay readable; they go at
// exit or on an explicit reclaim.
class ReleasedTrees {
 public:
  // Room for every tree that open entries may hand over, made while an entry
  // is made: Keep runs in a destructor, when memory may have run out.
  void MakeRoom(size_t openEntries) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_roots.reserve(m_roots.size() + openEntries);
  }
  void Keep(TagsConfig* root) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_roots.emplace_back(root);  // never grows here: room was made
  }
  void Reclaim() {
    std::vector<std::unique_ptr<TagsConfig>> roots;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      roots.swap(m_roots);
    }
  }
  size_t Count() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_roots.size();
  }

 private:
  std::mutex m_mutex;
  std::vector<std::unique_ptr<TagsConfig>> m_roots;
};

ReleasedTrees& Released() {
  static ReleasedTrees trees;
  return trees;
}

// The holder of one open file.
class TagConfig {
 public:
  TagConfig(std::wstring p, TagsConfig* h) : path(std::move(p)), valid(true), handle(h) {}
  ~TagConfig() {
    VLOG(info, "TagConfig::~TagConfig", "delete TagConfig");
    if (handle != nullptr) {
      // A tree that a tags manager holds is the manager's to free: keeping it
      // here as well would free it twice at exit.
      if (!heldByManager) Released().Keep(handle);
      handle = nullptr;
      valid = false;
    }
  }
  TagConfig(const TagConfig&) = delete;
  TagConfig& operator=(const TagConfig&) = delete;

  std::wstring path;
  bool valid;
  TagsConfig* handle;
  bool heldByManager = false;
};

class Registry {
 public:
  // The keeper is made first, so that entries released late still find it.
  Registry() { Released(); }
  std::mutex mutex;
  std::map<void*, std::shared_ptr<TagConfig>> entries;
  // Trees that tags managers hold, with the number of managers holding each.
  std::map<TagsConfig*, unsigned int> managerHolds;
};

Registry& TheRegistry() {
  // Never destroyed: a ZelVarlok that lives until static destruction lets its
  // tree go after this function's statics would be gone. Released trees are
  // still freed at exit, by their keeper.
  static Registry* registry = new Registry();
  return *registry;
}

// The last parse message: released by each reading, set by a failed one.
struct LastMessage {
  std::mutex mutex;
  std::unique_ptr<char[]> text;
};

LastMessage& TheLastMessage() {
  static LastMessage last;
  return last;
}

void StoreMessage(char* text) {
  LastMessage& last = TheLastMessage();
  std::lock_guard<std::mutex> lock(last.mutex);
  last.text.reset(text);
}

// Looks the handle up under the registry's mutex and runs op on it, with the
// two refusals and the exception pattern of the browsing exports.
template <typename Op>
unsigned int WithOpenHandle(void* handle, qorvarlok::log::Site function, Op op) {
  try {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto it = registry.entries.find(handle);
    if (it == registry.entries.end()) {
      VLOG(err, function, "tag handle is released");
      return ERR_INVALID_TAG_HANDLE;
    }
    if (!it->second->valid) {
      VLOG(err, function, "tag handle is not valid");
      return ERR_INVALID_TAG_HANDLE;
    }
    return op(static_cast<TagsConfig*>(handle));
  } catch (const std::exception& e) {
    VLOG(info, function, "exception={}", e.what());
  } catch (...) {
    VLOG(info, function, "unknown exception");
  }
  return ERR_INPUT_PARAMETERS;
}

}  // namespace

TagsConfig* ReadSymbolConfig(const std::wstring& path, unsigned int* errorCode) {
  StoreMessage(nullptr);
  SymbolConfigReader reader;
  char* message = nullptr;
  SymbolConfiguration* document = reader.ReadFile(path, &message);
  if (document == nullptr) {
    if (errorCode != nullptr) *errorCode = reader.LastError();
    StoreMessage(message);
    return nullptr;
  }
  TagsConfig* config = nullptr;
  const unsigned int code = document->CreateTagsConfig(&config, &message);  // takes the document
  if (code != ERR_NOERROR) {
    if (errorCode != nullptr) *errorCode = code;
    StoreMessage(message);
    return nullptr;
  }
  delete[] message;
  return config;
}

std::string LastParseMessage() {
  LastMessage& last = TheLastMessage();
  std::lock_guard<std::mutex> lock(last.mutex);
  return last.text ? std::string(last.text.get()) : std::string();
}

void AdoptSymbolConfig(TagsConfig* config) {
  if (config == nullptr) return;
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  ++registry.managerHolds[config];
  auto entry = registry.entries.find(config);
  if (entry != registry.entries.end()) entry->second->heldByManager = true;
}

void DisposeSymbolConfig(TagsConfig* config) {
  if (config == nullptr) return;
  std::shared_ptr<TagConfig> entry;  // destroyed after the lock, like the tree
  {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto held = registry.managerHolds.find(config);
    if (held != registry.managerHolds.end() && --held->second > 0) return;  // another manager still holds it
    if (held != registry.managerHolds.end()) registry.managerHolds.erase(held);
    auto open = registry.entries.find(config);
    if (open != registry.entries.end()) {
      entry = std::move(open->second);
      entry->heldByManager = true;
      registry.entries.erase(open);
    }
  }
  delete config;
}

void ReclaimReleasedSymbolConfigs() { Released().Reclaim(); }

size_t ReleasedSymbolConfigCount() { return Released().Count(); }

}  // namespace qorvarlok::symbols

using qorvarlok::symbols::GetAllTagsDescription;
using qorvarlok::symbols::GetSubTagsDescription;
using qorvarlok::symbols::GetToppestTagsDescription;
using qorvarlok::symbols::TagsConfig;

extern "C" QORVARLOK_API void* CreateSymbolConfigHandle(std::wstring path, unsigned int* errorCode) {
  return CreateSymbolConfigHandleW(path.c_str(), errorCode);
}

extern "C" QORVARLOK_API void* CreateSymbolConfigHandleW(const wchar_t* path, unsigned int* errorCode) {
  try {
    auto& registry = qorvarlok::symbols::TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    const std::wstring wanted = path != nullptr ? std::wstring(path) : std::wstring();
    // Read first: a bad new file still removes the old entry of its path.
    TagsConfig* handle = qorvarlok::symbols::ReadSymbolConfig(wanted, errorCode);
    for (auto it = registry.entries.begin(); it != registry.entries.end();) {
      if (it->second->path == wanted) {
        VLOG(info, "CreateSymbolConfigHandleW", "new xml file");
        it = registry.entries.erase(it);
      } else {
        ++it;
      }
    }
    // Under an existing key (null left by an earlier failure) the old entry stays.
    qorvarlok::symbols::Released().MakeRoom(registry.entries.size() + 1);
    registry.entries.emplace(handle, std::make_shared<qorvarlok::symbols::TagConfig>(wanted, handle));
    return handle;
  } catch (const std::exception& e) {
    VLOG(err, "CreateSymbolConfigHandleW", "exception={}", e.what());
  } catch (...) {
    VLOG(err, "CreateSymbolConfigHandleW", "unknown exception");
  }
  return nullptr;
}

extern "C" QORVARLOK_API unsigned int GetSymbolConfigParseResult(void* handle, tagTagDesc** descs,
                                                                 unsigned int* count) {
  return qorvarlok::symbols::WithOpenHandle(handle, "GetSymbolConfigParseResult", [&](TagsConfig* config) {
    return GetAllTagsDescription(config, descs, count);
  });
}

extern "C" QORVARLOK_API unsigned int GetSymbolConfigToppestTagsDesc(void* handle, tagTagDesc** descs,
                                                                     unsigned int* count) {
  return qorvarlok::symbols::WithOpenHandle(handle, "GetSymbolConfigToppestTagsDesc", [&](TagsConfig* config) {
    return GetToppestTagsDescription(config, descs, count);
  });
}

extern "C" QORVARLOK_API unsigned int GetSymbolConfigSubTagsDesc(void* tagsHandle, tagTagDesc** descs,
                                                                 unsigned int* count) {
  // A tree node, not a registry key: no lock and no look at the registry.
  try {
    return GetSubTagsDescription(tagsHandle, descs, count);
  } catch (const std::exception& e) {
    VLOG(info, "GetSymbolConfigSubTagsDesc", "exception={}", e.what());
  } catch (...) {
    VLOG(info, "GetSymbolConfigSubTagsDesc", "unknown exception");
  }
  return ERR_INPUT_PARAMETERS;
}

extern "C" QORVARLOK_API void ReleaseSymbolConfigHandle(void* handle) {
  try {
    auto& registry = qorvarlok::symbols::TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto it = registry.entries.find(handle);
    if (it == registry.entries.end()) {
      VLOG(err, "ReleaseSymbolConfigHandle", "tag handle is released");
      return;
    }
    if (!it->second->valid) {
      VLOG(err, "ReleaseSymbolConfigHandle", "tag handle is not valid");
      return;
    }
    registry.entries.erase(it);
  } catch (const std::exception& e) {
    VLOG(info, "ReleaseSymbolConfigHandle", "exception={}", e.what());
  } catch (...) {
    VLOG(info, "ReleaseSymbolConfigHandle", "unknown exception");
  }
}
