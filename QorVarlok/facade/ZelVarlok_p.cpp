#include "ZelVarlok_p.h"

#include <exception>
#include <utility>

#include "VarlokLog.h"
#include "WideConv.h"

#if __has_include("ShareMemCom.h")
#include "ShareMemCom.h"
#define QORVARLOK_HAVE_SHM_BACKEND 1
#endif
#include "TagsTcpCom.h"

namespace qorvarlok::facade {

std::mutex g_comMutex;
std::atomic<uint32_t> g_objectSerial{10};
std::atomic<uint32_t> g_sessionCounter{0};

namespace {

std::mutex g_factoryMutex;

VarlokFactory& factorySlot() {
  static VarlokFactory factory;
  return factory;
}

std::shared_ptr<ZelmonteVarlok::Varlok> makeRealBackend(ComType comType) {
  switch (comType) {
    case COM_TYPE_LOCAL:
#ifdef QORVARLOK_HAVE_SHM_BACKEND
      return std::make_shared<ZelmonteVarlok::ShareMemCom>();
#else
      return nullptr;
#endif
    case COM_TYPE_TCP:
      return std::make_shared<ZelmonteVarlok::TagsTcpCom>();
  }
  return nullptr;
}

}  // namespace

void SetVarlokFactoryForTests(VarlokFactory factory) {
  std::lock_guard<std::mutex> lock(g_factoryMutex);
  factorySlot() = std::move(factory);
}

static std::shared_ptr<ZelmonteVarlok::Varlok> makeBackend(ComType comType) {
  VarlokFactory factory;
  {
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    factory = factorySlot();
  }
  return factory ? factory(comType) : makeRealBackend(comType);
}

}  // namespace qorvarlok::facade

using namespace qorvarlok::facade;

ZelVarlok_p::ZelVarlok_p() {
  // Two separate steps: serials are unique only while objects are made one at a time.
  ++g_objectSerial;
  m_serial = g_objectSerial.load();
}

ZelVarlok_p::~ZelVarlok_p() { m_pVarlok.reset(); }

ZelmonteVarlok::Varlok* ZelVarlok_p::createVarlok(ComType comType) {
  // The first backend stays for the object's life, whatever type comes later.
  if (m_pVarlok) return m_pVarlok.get();
  m_pVarlok = makeBackend(comType);
  if (!m_pVarlok) VLOG(err, "ZelVarlok_p::createVarlok", "m_pVarlok = nullptr");
  m_comType = comType;
  return m_pVarlok.get();
}

bool ZelVarlok_p::IsVarlokExist() {
  if (!m_pVarlok) {
    VLOG(err, "ZelVarlok_p::IsVarlokExist", "m_pVarlok == nullptr");
    return false;
  }
  if (m_pVarlok->GetPlcDevice() == nullptr) {
    VLOG(err, "ZelVarlok_p::IsVarlokExist", "m_pVarlok->GetPlcDevice() == nullptr");
    return false;
  }
  return true;
}

bool ZelVarlok_p::IsVarlokClientExist() { return m_pVarlok->GetPlcDevice() != nullptr; }

bool ZelVarlok_p::isTagHandleVaild(void* handle) {
  if (handle != nullptr) {
    auto it = m_tagHandles.find(handle);
    if (it != m_tagHandles.end()) return it->second;
  }
  VLOGP(warn, "ZelVarlok_p::isTagHandleVaild", "handle %p not found", handle);
  return false;
}

void ZelVarlok_p::insertTagHandle(void* handle) {
  if (handle == nullptr) return;
  VLOGP(info, "ZelVarlok_p::insertTagHandle", "handle %p=inserted, handle=%d", handle, *static_cast<int*>(handle));
  m_tagHandles.emplace(handle, true);
}

void ZelVarlok_p::deleteTagHandle(void* handle) {
  if (handle == nullptr) return;
  VLOGP(info, "ZelVarlok_p::deleteTagHandle", "handle %p, %d deleted", handle, *static_cast<int*>(handle));
  m_tagHandles.erase(handle);
}

std::wstring ZelVarlok_p::charToWstring(const char* text) {
  try {
    return qorvarlok::platform::narrowToWide(text);
  } catch (const std::exception& e) {
    VLOG(info, "ZelVarlok_p::charToWstring", "exception={}", e.what());
  } catch (...) {
    VLOG(info, "ZelVarlok_p::charToWstring", "unknown exception");
  }
  return std::wstring();
}

void ZelVarlok_p::SaveTemplateData(unsigned int key, void* data, int32_t type, const int& length) {
  std::lock_guard<std::mutex> lock(m_mutex);
  TemplateDataRecord& record = m_templateData[key];
  record.dataHeads.push_back(data);
  record.types.push_back(type);
  record.lengths.push_back(length);
}

unsigned int ZelVarlok_p::runTemplateCall(unsigned int key, HTAGLIST handle, qorvarlok::log::Site function,
                                          BackendCall call) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_templateData.find(key);
  if (it == m_templateData.end()) {
    qorvarlok::log::write(function.loc, qorvarlok::log::warn, "not found {}",
                          key);
    return 0;
  }
  // The record goes whatever the backend answers, also when it throws.
  struct Erase {
    std::map<uint32_t, TemplateDataRecord>& map;
    std::map<uint32_t, TemplateDataRecord>::iterator it;
    ~Erase() { map.erase(it); }
  } erase{m_templateData, it};
  return call(*m_pVarlok, handle, it->second);
}

unsigned int ZelVarlok_p::ReadVar(unsigned int key, HTAGLIST handle) {
  return runTemplateCall(key, handle, "ZelVarlok_p::ReadVar",
                         [](ZelmonteVarlok::Varlok& backend, HTAGLIST h, TemplateDataRecord& r) {
                           return backend.ReadTagValue(h, r.dataHeads, r.types, r.lengths);
                         });
}

unsigned int ZelVarlok_p::WriteVar(unsigned int key, HTAGLIST handle) {
  return runTemplateCall(key, handle, "ZelVarlok_p::WriteVar",
                         [](ZelmonteVarlok::Varlok& backend, HTAGLIST h, TemplateDataRecord& r) {
                           return backend.WriteTagValue(h, r.dataHeads, r.types, r.lengths);
                         });
}
