// The state behind one ZelVarlok: the backend, the registry of the tag lists
// this object defined, and the typed calls in progress. Not exported.
//
// Locks: g_comMutex serialises every operation of every ZelVarlok in the
// process and guards everything here except m_templateData, which m_mutex
// guards (so typed variables can be collected while another thread is inside
// an operation). Order: g_comMutex, then m_mutex, then the backend's mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "Varlok.h"
#include "VarlokLog.h"

namespace qorvarlok::facade {

// Held through every facade operation, including the wait for the controller.
extern std::mutex g_comMutex;
// Serial of the last ZelVarlok_p made; the first object of a process gets 11.
extern std::atomic<uint32_t> g_objectSerial;
// Behind ZelVarlok::sessionId: the keys of the typed calls; the first is 1.
extern std::atomic<uint32_t> g_sessionCounter;

using VarlokFactory = std::function<std::shared_ptr<ZelmonteVarlok::Varlok>(ComType)>;
// Lets tests put a backend of their own behind every object that has none
// yet; an empty function restores the real backends.
void SetVarlokFactoryForTests(VarlokFactory factory);

}  // namespace qorvarlok::facade

// Type codes of a typed call's variables.
constexpr int32_t kTemplateTypeString = 17;
constexpr int32_t kTemplateTypeWString = 18;
constexpr int32_t kTemplateTypeOther = 32767;

// The arguments of one typed read or write, collected per key.
struct TemplateDataRecord {
  std::vector<void*> dataHeads;
  std::vector<int> types;
  std::vector<int> lengths;
};

class ZelVarlok_p {
 public:
  ZelVarlok_p();
  ~ZelVarlok_p();
  ZelVarlok_p(const ZelVarlok_p&) = delete;
  ZelVarlok_p& operator=(const ZelVarlok_p&) = delete;

  // The existing backend whatever the type; otherwise makes one for the type.
  ZelmonteVarlok::Varlok* createVarlok(ComType comType);
  // True while the backend holds a device: "connected", despite the name.
  bool IsVarlokExist();
  bool IsVarlokClientExist();

  bool isTagHandleVaild(void* handle);
  void insertTagHandle(void* handle);
  void deleteTagHandle(void* handle);
  std::wstring charToWstring(const char* text);

  unsigned int ReadVar(unsigned int key, HTAGLIST handle);
  unsigned int WriteVar(unsigned int key, HTAGLIST handle);
  void SaveTemplateData(unsigned int key, void* data, int32_t type, const int& length);

  bool m_bInit = false;
  // Atomic because the description queries read it before they lock.
  std::atomic<int32_t> m_comType{0};
  std::shared_ptr<ZelmonteVarlok::Varlok> m_pVarlok;
  uint32_t m_serial = 0;
  std::mutex m_mutex;
  std::map<void*, bool> m_tagHandles;
  std::map<uint32_t, TemplateDataRecord> m_templateData;

 private:
  using BackendCall = unsigned int (*)(ZelmonteVarlok::Varlok&, HTAGLIST, TemplateDataRecord&);
  unsigned int runTemplateCall(unsigned int key, HTAGLIST handle, qorvarlok::log::Site function, BackendCall call);
};

// The hand-written exports of the managed surface.
extern "C" {
QORVARLOK_API const char* CSharp_ReadErrorDescription(unsigned int code);
QORVARLOK_API int CSharp_GetTagsListLength(ZelVarlok* varlok, HTAGLIST handle);
QORVARLOK_API int CSharp_ReadTagsListDesc(ZelVarlok* varlok, HTAGLIST handle, tagTagDesc** descs);
QORVARLOK_API int CSharp_ReadTagsDescByTagName(ZelVarlok* varlok, const char* name, tagTagDesc** desc);
}
