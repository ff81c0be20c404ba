// The exported class: guards, the process-wide lock, and forwarding to the
// backend. Every method that takes the lock runs in one try block: a
// std::exception is logged as "exception=...", anything else as "unknown
// exception", and each method then returns its own documented result.
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "SymbolConfigDll.h"
#include "SymbolModel.h"
#include "TagsList.h"
#include "TagsManager.h"
#include "VarlokLog.h"
#include "ZelVarlok_p.h"

using qorvarlok::facade::g_comMutex;
using qorvarlok::facade::g_sessionCounter;
namespace qlog = qorvarlok::log;

namespace {

using Lock = std::lock_guard<std::mutex>;

void logAt(qlog::Site function, qlog::level level, const char* text) {
  qlog::write(function.loc, level, "{}", text);
}

// The two handlers of the exception pattern, at the method's level.
void logException(qlog::Site function, qlog::level level, const std::exception& e) {
  qlog::write(function.loc, level, "exception={}", e.what());
}
void logUnknownException(qlog::Site function, qlog::level level) {
  logAt(function, level, "unknown exception");
}

// What a guarded tag operation logs when the handle is null or not registered.
struct HandleTexts {
  qlog::level nullLevel;
  const char* nullText;  // printf text, given the handle
  qlog::level invalidLevel;
  const char* invalidText;  // printf text, given the handle
};

constexpr HandleTexts kReadTexts{qlog::warn, "handle is %p", qlog::err, "handle is invalid"};
constexpr HandleTexts kWriteListTexts{qlog::warn, "handle is %p", qlog::warn, "handle is not found %p"};
constexpr HandleTexts kReadBuffTexts{qlog::err, "handle is nullptr", qlog::warn, "handle is invalid"};
constexpr HandleTexts kWriteBuffTexts{qlog::err, "handle is %p", qlog::err, "handle is invalid"};

// The guards shared by the list, array, structure and typed operations, in
// their order; 0 when the operation may go to the backend. The caller holds
// g_comMutex.
unsigned int guardTagOperation(ZelVarlok_p* p, HTAGLIST handle, qlog::Site function, const HandleTexts& texts) {
  if (!p->IsVarlokExist()) {
    logAt(function, qlog::err, "!m_ZelVarlokPrivate->IsVarlokExist()");
    return ERR_COMMUNICATION_NOT_INITIALIZED;
  }
  if (!p->IsVarlokClientExist()) {
    logAt(function, qlog::err, "!m_ZelVarlokPrivate->IsVarlokClientExist()");
    return ERR_NOT_CONNECTED;
  }
  if (handle == nullptr) {
    qlog::writePrintf(function.loc, texts.nullLevel, texts.nullText, handle);
    return ERR_INVALID_TAG_HANDLE;
  }
  if (!p->isTagHandleVaild(handle)) {
    qlog::writePrintf(function.loc, texts.invalidLevel, texts.invalidText,
                      handle);
    return ERR_INVALID_TAG_HANDLE;
  }
  return 0;
}

// The pattern of a guarded tag operation: private pointer, lock, guards,
// backend; after an exception the local code (0 unless the backend answered).
template <typename Call>
unsigned int runTagOperation(ZelVarlok_p* p, HTAGLIST handle, qlog::Site function, const HandleTexts& texts,
                             Call&& call) {
  if (p == nullptr) {
    logAt(function, qlog::err, "m_ZelVarlokPrivate==nullptr");
    return ERR_COMMUNICATION_NOT_INITIALIZED;
  }
  unsigned int code = 0;
  try {
    Lock lock(g_comMutex);
    const unsigned int guard = guardTagOperation(p, handle, function, texts);
    if (guard != 0) return guard;
    code = call(*p->m_pVarlok);
    return code;
  } catch (const std::exception& e) {
    logException(function, qlog::info, e);
  } catch (...) {
    logUnknownException(function, qlog::info);
  }
  return code;
}

// A name of the CreateTagsHandle wrappers in the form the tag table holds.
// A name that looks like UTF-8 but has no local form is passed on unchanged:
// the table then simply has no such tag.
std::string toLocalName(const char* name) {
  try {
    return qorvarlok::symbols::ToLocalEncoding(name);
  } catch (const std::exception& e) {
    logException("ZelVarlok::CreateTagsHandle", qlog::info, e);
  }
  return std::string(name);
}

}  // namespace

// ------------------------------------------------------------------ lifecycle

ZelVarlok::ZelVarlok() : m_ZelVarlokPrivate(nullptr) {
  try {
    m_ZelVarlokPrivate = new ZelVarlok_p();
    VLOG(info, "ZelVarlok::ZelVarlok", "m_ZelVarlokPrivate = new ZelVarlok_p");
  } catch (const std::exception& e) {
    logException("ZelVarlok::ZelVarlok", qlog::info, e);
  } catch (...) {
    logUnknownException("ZelVarlok::ZelVarlok", qlog::info);
  }
}

ZelVarlok::~ZelVarlok() {
  delete m_ZelVarlokPrivate;
  m_ZelVarlokPrivate = nullptr;
  VLOG(warn, "ZelVarlok::~ZelVarlok", "delete m_ZelVarlokPrivate");
}

// Exported as the plain member-wise assignment; callers must not use it.
ZelVarlok& ZelVarlok::operator=(const ZelVarlok& other) = default;

unsigned int ZelVarlok::InitializeCom(const ComType& comType, void* symbolConfig) {
  constexpr const char* F = "ZelVarlok::InitializeCom";
  unsigned int code = 0;
  try {
    Lock lock(g_comMutex);
    ZelVarlok_p* p = m_ZelVarlokPrivate;
    if (p == nullptr) {
      VLOG(warn, F, "m_ZelVarlokPrivate==nullptr");
      return ERR_UNDEFINED;
    }
    if (comType != COM_TYPE_TCP && comType != COM_TYPE_LOCAL) return ERR_INVALID_COMTYPE;
    p->m_comType = comType;
    if (p->m_pVarlok) p->m_pVarlok->ReleaseTagsManager();
    ZelmonteVarlok::Varlok* backend = p->createVarlok(comType);
    // This form does not test for a missing backend: the call on it is the
    // fault that the catch-all reports.
    if (backend == nullptr) {
      logUnknownException(F, qlog::err);
      return code;
    }
    code = backend->InitTagsManager(static_cast<qorvarlok::symbols::TagsConfig*>(symbolConfig), 1);
    if (code != 0) {
      VLOG(err, F, "{}", code);
      return code;
    }
    code = backend->InitializeCom();
    if (code != 0) {
      VLOG(err, F, "{}", code);
      return code;
    }
    p->m_bInit = true;
    return 0;
  } catch (const std::exception& e) {
    logException(F, qlog::err, e);
  } catch (...) {
    logUnknownException(F, qlog::err);
  }
  return code;
}

namespace {

// Steps shared by the two path forms after the wide path is known: read the
// file, make the backend, fill the tags manager, start the transport.
unsigned int initializeFromPath(ZelVarlok_p* p, ComType comType, const std::wstring& path, bool testBackend,
                                unsigned int& code) {
  constexpr const char* F = "ZelVarlok::InitializeCom";
  qorvarlok::symbols::TagsConfig* config = qorvarlok::symbols::ReadSymbolConfig(std::wstring(path), &code);
  if (code != 0) {
    VLOG(err, F, "{}", code);
    return code;
  }
  ZelmonteVarlok::Varlok* backend = p->createVarlok(comType);
  if (backend == nullptr) {
    delete config;  // nothing took it over
    if (testBackend) {
      VLOG(warn, F, "m_pVarlok==nullptr");
      return ERR_UNDEFINED;
    }
    logUnknownException(F, qlog::err);  // the call on a missing backend faults
    return code;
  }
  code = backend->InitTagsManager(config, p->m_serial);
  if (code != 0) {
    VLOG(err, F, "{}", code);
    return code;
  }
  code = backend->InitializeCom();
  if (code != 0) {
    VLOG(err, F, "{}", code);
    return code;
  }
  p->m_bInit = true;
  return 0;
}

}  // namespace

unsigned int ZelVarlok::InitializeCom(const ComType& comType, const char* path) {
  constexpr const char* F = "ZelVarlok::InitializeCom";
  unsigned int code = 0;
  try {
    Lock lock(g_comMutex);
    ZelVarlok_p* p = m_ZelVarlokPrivate;
    if (p == nullptr) {
      VLOG(warn, F, "m_ZelVarlokPrivate==nullptr");
      return ERR_UNDEFINED;
    }
    if (comType != COM_TYPE_TCP && comType != COM_TYPE_LOCAL) return ERR_INVALID_COMTYPE;
    p->m_comType = comType;
    // Only this form treats a second initialisation as done already.
    if (p->m_bInit) return 0;
    if (p->m_pVarlok) p->m_pVarlok->ReleaseTagsManager();
    return initializeFromPath(p, comType, p->charToWstring(path), false, code);
  } catch (const std::exception& e) {
    logException(F, qlog::err, e);
  } catch (...) {
    logUnknownException(F, qlog::err);
  }
  return code;
}

unsigned int ZelVarlok::InitializeCom(const ComType& comType, std::wstring path) {
  constexpr const char* F = "ZelVarlok::InitializeCom";
  unsigned int code = 0;
  try {
    Lock lock(g_comMutex);
    ZelVarlok_p* p = m_ZelVarlokPrivate;
    if (p == nullptr) {
      VLOG(warn, F, "m_ZelVarlokPrivate==nullptr");
      return ERR_UNDEFINED;
    }
    if (comType != COM_TYPE_TCP && comType != COM_TYPE_LOCAL) return ERR_INVALID_COMTYPE;
    p->m_comType = comType;
    if (p->m_pVarlok) p->m_pVarlok->ReleaseTagsManager();
    return initializeFromPath(p, comType, path, true, code);
  } catch (const std::exception& e) {
    logException(F, qlog::err, e);
  } catch (...) {
    logUnknownException(F, qlog::err);
  }
  return code;
}

namespace {

void* connectFailed(unsigned int& error) {
  VLOG(err, "ZelVarlok::ConnectToPlcDevice", "plcClient==nullptr");
  error = ERR_CONNECT_FAILED;
  return nullptr;
}

}  // namespace

void* ZelVarlok::ConnectToPlcDevice(const char* netIp, unsigned int& error) {
  constexpr const char* F = "ZelVarlok::ConnectToPlcDevice";
  error = 0;
  try {
    Lock lock(g_comMutex);
    ZelVarlok_p* p = m_ZelVarlokPrivate;
    if (p == nullptr || !p->m_bInit || !p->m_pVarlok) {
      VLOG(err, F, "m_ZelVarlokPrivate==nullptr");
      error = ERR_COMMUNICATION_NOT_INITIALIZED;
      return nullptr;
    }
    if (void* device = p->m_pVarlok->GetPlcDevice()) return device;
    // Building the address from a null pointer is the fault the catch-all reports.
    if (netIp == nullptr) {
      logUnknownException(F, qlog::info);
      return connectFailed(error);
    }
    const std::string address(netIp);
    const int32_t comType = p->m_comType;
    if ((comType == COM_TYPE_LOCAL && address != "Local") || (comType == COM_TYPE_TCP && address == "Local")) {
      VLOG(err, F, "{}, {}", comType, address);
      error = ERR_MISMATCH_COMTYPE;
      return nullptr;
    }
    if (!p->m_pVarlok) {
      VLOG(err, F, "m_ZelVarlokPrivate->m_pVarlok==nullptr");
      error = ERR_INVALID_VAR_DEFS;
      return nullptr;
    }
    if (void* device = p->m_pVarlok->ConnectToPlcDevice(std::string(address), error)) return device;
    // The backend's finer code reaches only the log.
    return connectFailed(error);
  } catch (const std::exception& e) {
    logException(F, qlog::info, e);
  } catch (...) {
    logUnknownException(F, qlog::info);
  }
  return connectFailed(error);
}

void* ZelVarlok::ConnectToPlcDevice(std::string netIp, unsigned int& error) {
  return ConnectToPlcDevice(netIp.c_str(), error);
}

unsigned int ZelVarlok::DisconnectFromDevice(void* device) {
  constexpr const char* F = "ZelVarlok::DisconnectFromDevice";
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  if (p == nullptr) {
    VLOG(err, F, "m_ZelVarlokPrivate==nullptr");
    return ERR_INVALID_VAR_DEFS;
  }
  if (device == nullptr) {
    VLOG(err, F, "handle == nullptr");
    return ERR_INVALID_TAG_HANDLE;
  }
  unsigned int code = 0;
  try {
    Lock lock(g_comMutex);
    if (!p->IsVarlokExist()) {
      VLOG(err, F, "m_ZelVarlokPrivate->IsVarlokExist() == false");
      return ERR_COMMUNICATION_NOT_INITIALIZED;
    }
    if (!p->m_pVarlok) {
      VLOG(err, F, "m_ZelVarlokPrivate->m_pVarlok==nullptr");
      return ERR_INVALID_VAR_DEFS;
    }
    code = p->m_pVarlok->DisconnectFromPlcDevice(device);
    return code;
  } catch (const std::exception& e) {
    logException(F, qlog::info, e);
  } catch (...) {
    logUnknownException(F, qlog::info);
  }
  return code;
}

unsigned int ZelVarlok::ExitVarlokCommunication() {
  constexpr const char* F = "ZelVarlok::ExitVarlokCommunication";
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  if (p == nullptr) {
    VLOG(err, F, "m_ZelVarlokPrivate==nullptr");
    return ERR_INVALID_VAR_DEFS;
  }
  try {
    Lock lock(g_comMutex);
    if (!p->m_pVarlok) {
      VLOG(err, F, "m_pVarlok == nullptr");
      return ERR_INVALID_VAR_DEFS;
    }
    if (p->m_comType == 0) {
      VLOG(info, F, "m_pVarlok has released");
      return 0;
    }
    if (void* device = p->m_pVarlok->GetPlcDevice()) {
      const unsigned int code = p->m_pVarlok->DisconnectFromPlcDevice(device);
      if (code != 0) VLOG(err, F, "disconnect err {}", code);
    }
    p->m_tagHandles.clear();
    if (!p->m_pVarlok) {
      VLOG(err, F, "m_ZelVarlokPrivate->m_pVarlok==nullptr");
      return ERR_INVALID_VAR_DEFS;
    }
    const unsigned int exitCode = p->m_pVarlok->ExitVarlokCommunication();
    if (exitCode != 0) VLOG(err, F, "exit com err {}", exitCode);
    // The release has no failure to report.
    p->m_pVarlok->ReleaseTagsManager();
    // The backend stays for the next InitializeCom.
    p->m_comType = 0;
    p->m_bInit = false;
    return 0;
  } catch (const std::exception& e) {
    logException(F, qlog::info, e);
  } catch (...) {
    logUnknownException(F, qlog::info);
  }
  return 0;
}

unsigned int ZelVarlok::sessionId() {
  // Two separate steps: two threads may get the same key.
  ++g_sessionCounter;
  return g_sessionCounter.load();
}

// ------------------------------------------------------------ tag lists

namespace {

// After a caught exception, or a fault the platform cannot catch, each
// CreateTagsHandleAnsi form ends like its failed connection guard.
HTAGLIST createFailed(qlog::Site function, qlog::level level, const char* text, unsigned int& error) {
  logAt(function, level, text);
  error = ERR_COMMUNICATION_NOT_INITIALIZED;
  return nullptr;
}

constexpr const char* kCreateAnsi = "ZelVarlok::CreateTagsHandleAnsi";
constexpr const char* kNotExistWarn = "m_ZelVarlokPrivate->IsVarlokExist()";
constexpr const char* kNotExistErr = "!m_ZelVarlokPrivate->IsVarlokExist()";

// Registers what the backend made; a null handle keeps the backend's code.
HTAGLIST registerHandle(ZelVarlok_p* p, HTAGLIST handle) {
  if (handle != nullptr) {
    p->insertTagHandle(handle);
    return handle;
  }
  VLOG(err, kCreateAnsi, "handle is nullptr");
  return nullptr;
}

// The four forms share their guards and their end after a fault; they differ
// in the level and text of the "not initialised" line and in what they check
// before the backend is asked. site: the form's own call, for the lines it logs.
struct CreateForm {
  qlog::level level;
  const char* notExist;
};
constexpr CreateForm kCreateWarn{qlog::warn, kNotExistWarn};
constexpr CreateForm kCreateErr{qlog::err, kNotExistErr};

template <class Make>
HTAGLIST createAnsi(qlog::Site site, ZelVarlok_p* p, CreateForm form, unsigned int& error, Make make) {
  error = 0;
  if (p == nullptr) {
    VLOG(err, site, "m_ZelVarlokPrivate==nullptr");
    error = ERR_COMMUNICATION_NOT_INITIALIZED;
    return nullptr;
  }
  try {
    Lock lock(g_comMutex);
    if (!p->IsVarlokExist()) return createFailed(site, form.level, form.notExist, error);
    return make();
  } catch (const std::exception& e) {
    logException(site, qlog::info, e);
  } catch (...) {
    logUnknownException(site, qlog::info);
  }
  return createFailed(site, form.level, form.notExist, error);
}

}  // namespace

HTAGLIST ZelVarlok::CreateTagsHandleAnsi(const char** names, unsigned int count, unsigned int& error) {
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  return createAnsi(kCreateAnsi, p, kCreateWarn, error, [&]() -> HTAGLIST {
    if (!p->IsVarlokClientExist()) {
      VLOG(err, kCreateAnsi, "!m_ZelVarlokPrivate->IsVarlokClientExist");
      error = ERR_NOT_CONNECTED;
      return nullptr;
    }
    std::vector<std::string> list;
    list.reserve(names == nullptr ? 0 : count);
    for (unsigned int i = 0; i < count; ++i) {
      // Reading a missing name is the fault that the catch-all reports.
      if (names == nullptr || names[i] == nullptr) {
        logUnknownException(kCreateAnsi, qlog::info);
        return createFailed(kCreateAnsi, qlog::warn, kNotExistWarn, error);
      }
      list.emplace_back(names[i]);
    }
    return registerHandle(p, p->m_pVarlok->CreateTagsHandle(list, 100, error));
  });
}

HTAGLIST ZelVarlok::CreateTagsHandleAnsi(const char* name, unsigned int& error) {
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  return createAnsi(kCreateAnsi, p, kCreateWarn, error, [&]() -> HTAGLIST {
    if (!p->m_pVarlok) {
      VLOG(err, kCreateAnsi, "m_ZelVarlokPrivate->m_pVarlok==nullptr");
      error = ERR_COMMUNICATION_NOT_INITIALIZED;
      return nullptr;
    }
    if (name == nullptr) {
      logUnknownException(kCreateAnsi, qlog::info);
      return createFailed(kCreateAnsi, qlog::warn, kNotExistWarn, error);
    }
    return registerHandle(p, p->m_pVarlok->CreateTagsHandle(std::string(name), 100, error));
  });
}

HTAGLIST ZelVarlok::CreateTagsHandleAnsi(std::string name, unsigned int& error) {
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  return createAnsi(kCreateAnsi, p, kCreateErr, error,
                    [&] { return registerHandle(p, p->m_pVarlok->CreateTagsHandle(name, 100, error)); });
}

HTAGLIST ZelVarlok::CreateTagsHandleAnsi(std::vector<std::string> names, unsigned int& error) {
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  return createAnsi(kCreateAnsi, p, kCreateWarn, error,
                    [&] { return registerHandle(p, p->m_pVarlok->CreateTagsHandle(names, 100, error)); });
}

// The wrappers only convert the names; they hold no lock.
HTAGLIST ZelVarlok::CreateTagsHandle(const char** names, unsigned int count, unsigned int& error) {
  std::vector<std::string> list;
  for (unsigned int i = 0; i < count; ++i) {
    if (names == nullptr || names[i] == nullptr) {
      // The conversion of a missing name is the fault; end as the list form does after one.
      error = 0;
      logUnknownException("ZelVarlok::CreateTagsHandle", qlog::info);
      return createFailed(kCreateAnsi, qlog::warn, kNotExistWarn, error);
    }
    list.push_back(toLocalName(names[i]));
  }
  return CreateTagsHandleAnsi(std::move(list), error);
}

HTAGLIST ZelVarlok::CreateTagsHandle(const char* name, unsigned int& error) {
  if (name == nullptr) {
    error = 0;
    logUnknownException("ZelVarlok::CreateTagsHandle", qlog::info);
    return createFailed(kCreateAnsi, qlog::err, kNotExistErr, error);
  }
  return CreateTagsHandleAnsi(toLocalName(name), error);
}

HTAGLIST ZelVarlok::CreateTagsHandle(std::string name, unsigned int& error) {
  return CreateTagsHandleAnsi(toLocalName(name.c_str()), error);
}

HTAGLIST ZelVarlok::CreateTagsHandle(std::vector<std::string> names, unsigned int& error) {
  std::vector<std::string> list;
  list.reserve(names.size());
  for (const std::string& name : names) list.push_back(toLocalName(name.c_str()));
  return CreateTagsHandleAnsi(std::move(list), error);
}

unsigned int ZelVarlok::DeleteTagsHandle(HTAGLIST handle) {
  constexpr const char* F = "ZelVarlok::DeleteTagsHandle";
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  if (p == nullptr) {
    VLOG(err, F, "m_ZelVarlokPrivate==nullptr");
    return ERR_COMMUNICATION_NOT_INITIALIZED;
  }
  unsigned int code = 0;
  try {
    Lock lock(g_comMutex);
    if (!p->IsVarlokExist()) {
      VLOG(err, F, "m_ZelVarlokPrivate->IsVarlokExist() == false");
      return ERR_COMMUNICATION_NOT_INITIALIZED;
    }
    if (handle == nullptr) {
      VLOGP(warn, F, "handle is %p", handle);
      return ERR_INVALID_TAG_HANDLE;
    }
    if (!p->isTagHandleVaild(handle)) {
      VLOG(err, F, "handle is invalid");
      return ERR_INVALID_TAG_HANDLE;
    }
    // Out of the registry first: a failed delete in the controller leaves no handle behind.
    p->deleteTagHandle(handle);
    void* local = handle;
    code = p->m_pVarlok->DeleteTagsHandle(local);
    return code;
  } catch (const std::exception& e) {
    logException(F, qlog::info, e);
  } catch (...) {
    logUnknownException(F, qlog::info);
  }
  return code;
}

// ------------------------------------------------------------ reads and writes

unsigned int ZelVarlok::ReadTagList(HTAGLIST handle, std::vector<tagTagVarValue>& values, unsigned int& count) {
  return runTagOperation(m_ZelVarlokPrivate, handle, "ZelVarlok::ReadTagList", kReadTexts,
                         [&](ZelmonteVarlok::Varlok& b) { return b.ReadTag(handle, values, count); });
}

unsigned int ZelVarlok::ReadTagList(HTAGLIST handle, tagTagVarValue** values, unsigned int& count) {
  return runTagOperation(m_ZelVarlokPrivate, handle, "ZelVarlok::ReadTagList", kReadTexts,
                         [&](ZelmonteVarlok::Varlok& b) { return b.ReadTag(handle, values, count); });
}

unsigned int ZelVarlok::WriteTagList(HTAGLIST handle, std::vector<std::string>& values) {
  return runTagOperation(m_ZelVarlokPrivate, handle, "ZelVarlok::WriteTagList", kWriteListTexts,
                         [&](ZelmonteVarlok::Varlok& b) { return b.WriteTag(handle, values); });
}

unsigned int ZelVarlok::WriteTagList(HTAGLIST handle, unsigned char* data, unsigned int count) {
  return runTagOperation(m_ZelVarlokPrivate, handle, "ZelVarlok::WriteTagList", kWriteListTexts,
                         [&](ZelmonteVarlok::Varlok& b) { return b.WriteTagValue(handle, data, count); });
}

unsigned int ZelVarlok::ReadArray(HTAGLIST handle, int length, void* data, unsigned int start, unsigned int count) {
  return runTagOperation(m_ZelVarlokPrivate, handle, "ZelVarlok::ReadArray", kReadTexts,
                         [&](ZelmonteVarlok::Varlok& b) { return b.ReadArray(handle, data, length, start, count); });
}

unsigned int ZelVarlok::WriteArray(HTAGLIST handle, int length, void* data, unsigned int start,
                                   unsigned int count) {
  return runTagOperation(m_ZelVarlokPrivate, handle, "ZelVarlok::WriteArray", kReadTexts,
                         [&](ZelmonteVarlok::Varlok& b) { return b.WriteArray(handle, data, length, start, count); });
}

unsigned int ZelVarlok::ReadStructField(HTAGLIST handle, void* data, int length) {
  constexpr const char* F = "ZelVarlok::ReadStructField";
  if (m_ZelVarlokPrivate == nullptr) {
    VLOG(err, F, "m_ZelVarlokPrivate==nullptr");
    return ERR_COMMUNICATION_NOT_INITIALIZED;
  }
  try {
    Lock lock(g_comMutex);
    const unsigned int guard = guardTagOperation(m_ZelVarlokPrivate, handle, F, kReadTexts);
    if (guard != 0) return guard;
    // The backend may point this at its own buffer and change the length.
    void* source = data;
    int sourceLength = length;
    const unsigned int code = m_ZelVarlokPrivate->m_pVarlok->ReadStructField(handle, &source, &sourceLength);
    if (code != 0) {
      VLOGP(warn, F, "handle is %p, E:%d", handle, static_cast<int>(code));
      return code;
    }
    if (sourceLength > 0) {
      // Copying into a missing buffer is the fault that the catch-all reports.
      if (data == nullptr || source == nullptr) {
        logUnknownException(F, qlog::info);
        return 0;
      }
      if (source != data) std::memmove(data, source, static_cast<size_t>(sourceLength));
      VLOG_HEX(F, "ReadStructField result", data, static_cast<size_t>(sourceLength));
    }
    return 0;
  } catch (const std::exception& e) {
    logException(F, qlog::info, e);
  } catch (...) {
    logUnknownException(F, qlog::info);
  }
  return 0;
}

unsigned int ZelVarlok::WriteStructField(HTAGLIST handle, const void* data, int length) {
  return runTagOperation(m_ZelVarlokPrivate, handle, "ZelVarlok::WriteStructField", kReadTexts,
                         [&](ZelmonteVarlok::Varlok& b) { return b.WriteStructField(handle, data, &length); });
}

// ------------------------------------------------------------ typed read and write

unsigned int ZelVarlok::ReadTagInner(unsigned int key, HTAGLIST handle) { return ReadTagDataFromBuff(key, handle); }

unsigned int ZelVarlok::WriteTagInner(unsigned int key, HTAGLIST handle) { return WirteTagDataFromBuff(key, handle); }

unsigned int ZelVarlok::ReadTagDataFromBuff(unsigned int key, HTAGLIST handle) {
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  return runTagOperation(p, handle, "ZelVarlok::ReadTagDataFromBuff", kReadBuffTexts,
                         [&](ZelmonteVarlok::Varlok&) { return p->ReadVar(key, handle); });
}

unsigned int ZelVarlok::WirteTagDataFromBuff(unsigned int key, HTAGLIST handle) {
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  return runTagOperation(p, handle, "ZelVarlok::WirteTagDataFromBuff", kWriteBuffTexts,
                         [&](ZelmonteVarlok::Varlok&) { return p->WriteVar(key, handle); });
}

void ZelVarlok::SaveTemplateData(unsigned int key, void* data, const std::type_info& type, const int& length) {
  int32_t code = kTemplateTypeOther;
  if (type == typeid(std::string)) code = kTemplateTypeString;
  if (type == typeid(std::wstring)) code = kTemplateTypeWString;
  if (m_ZelVarlokPrivate == nullptr) {
    VLOG(err, "ZelVarlok::SaveTemplateData", "m_ZelVarlokPrivate==nullptr");
    return;
  }
  m_ZelVarlokPrivate->SaveTemplateData(key, data, code, length);
}

// ------------------------------------------------------------ descriptions

namespace {

qorvarlok::tags::TagsList* findList(qorvarlok::tags::TagsManager* manager, int32_t comType, HTAGLIST handle) {
  if (comType == COM_TYPE_TCP) return manager->searchTcpTagsList(handle);
  return manager->searchShmTagsList(handle);
}

}  // namespace

int ZelVarlok::GetTagDescByDefinedHandle(HTAGLIST handle, tagTagDesc** descs) {
  constexpr const char* F = "ZelVarlok::GetTagDescByDefinedHandle";
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  if (p == nullptr) {
    VLOG(err, F, "m_ZelVarlokPrivate is nullptr");
    return 0;
  }
  int count = 0;
  try {
    const int32_t comType = p->m_comType;
    Lock lock(g_comMutex);
    const bool valid = p->isTagHandleVaild(handle);
    if (comType == 0 || !valid) {
      VLOG(err, F, "m_ZelVarlokPrivate type is {}, is valid {}", comType, valid);
      return 0;
    }
    qorvarlok::tags::TagsManager* manager = p->m_pVarlok ? p->m_pVarlok->GetTagManager() : nullptr;
    if (manager == nullptr) {
      VLOG(err, F, "tagManager is nullptr");
      return 0;
    }
    qorvarlok::tags::TagsList* list = findList(manager, comType, handle);
    if (list == nullptr) {
      VLOG(err, F, "tagsList == nullptr, handle={}", handle);
      return 0;
    }
    const int length = static_cast<int>(list->length);
    // Writing into a missing array is the fault that the catch-all reports.
    if (descs == nullptr && length > 0) {
      logUnknownException(F, qlog::info);
      return 0;
    }
    for (; count < length && count < static_cast<int>(list->nodeArray.size()); ++count)
      descs[count] = list->nodeArray[static_cast<size_t>(count)];
    return count;
  } catch (const std::exception& e) {
    logException(F, qlog::info, e);
  } catch (...) {
    logUnknownException(F, qlog::info);
  }
  return count;
}

int ZelVarlok::GetTagsListLength(HTAGLIST handle) {
  constexpr const char* F = "ZelVarlok::GetTagsListLength";
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  if (p == nullptr) {
    VLOG(err, F, "m_ZelVarlokPrivate==nullptr");
    return 0;
  }
  try {
    Lock lock(g_comMutex);
    const int32_t comType = p->m_comType;
    if (comType == 0 || !p->isTagHandleVaild(handle)) return 0;
    qorvarlok::tags::TagsManager* manager = p->m_pVarlok ? p->m_pVarlok->GetTagManager() : nullptr;
    if (manager == nullptr) {
      VLOG(err, F, "tagManager is nullptr");
      return 0;
    }
    if (comType != COM_TYPE_TCP && comType != COM_TYPE_LOCAL) {
      VLOG(err, F, "invalid com type {}", comType);
      return 0;
    }
    qorvarlok::tags::TagsList* list = findList(manager, comType, handle);
    if (list == nullptr) {
      VLOG(err, F, "tagsList == nullptr, handle = {}", handle);
      return 0;
    }
    return static_cast<int>(list->length);
  } catch (const std::exception& e) {
    logException(F, qlog::info, e);
  } catch (...) {
    logUnknownException(F, qlog::info);
  }
  return 0;
}

tagTagDesc* ZelVarlok::GetTagDescByName(std::string name) {
  constexpr const char* F = "ZelVarlok::GetTagDescByName";
  ZelVarlok_p* p = m_ZelVarlokPrivate;
  if (p == nullptr) {
    VLOG(err, F, "m_ZelVarlokPrivate is nullptr");
    return nullptr;
  }
  const int32_t comType = p->m_comType;
  if (comType == 0) {
    VLOGP(err, F, "m_ZelVarlokPrivate type is %d", comType);
    return nullptr;
  }
  Lock lock(g_comMutex);
  qorvarlok::tags::TagsManager* manager = p->m_pVarlok ? p->m_pVarlok->GetTagManager() : nullptr;
  if (manager == nullptr) {
    VLOG(err, F, "tagManager is nullptr");
    return nullptr;
  }
  return manager->findTagNode(name);
}
