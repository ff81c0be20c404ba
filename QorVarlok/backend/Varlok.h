// The interface through which the facade drives a transport. Two backends
// implement it: ShareMemCom (COM_TYPE_LOCAL) and TagsTcpCom (COM_TYPE_TCP).
// The backend owns the session's TagsManager. Every operation reports a code;
// failures of the controller never leave as exceptions.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "TagsManager.h"

namespace ZelmonteVarlok {

// A copy through a buffer the caller gave as null (or typed arguments that do
// not cover the list). A backend throws it at the copy, behind every
// documented check, where the copy would otherwise fault; the facade's
// catch-all reports it as such a fault is reported: "unknown exception".
struct CallerBufferFault {};

// Copies n bytes between a caller's buffer and the library's; nothing for n 0.
void CopyCallerBytes(void* to, const void* from, size_t n);

class Varlok {
 public:
  Varlok();
  virtual ~Varlok() = 0;
  Varlok(const Varlok&) = delete;
  Varlok& operator=(const Varlok&) = delete;

  virtual unsigned int InitializeCom() = 0;
  virtual unsigned int ExitVarlokCommunication() = 0;
  virtual void* ConnectToPlcDevice(const std::string& address, unsigned int& err) = 0;
  virtual unsigned int DisconnectFromPlcDevice(void* device) = 0;
  virtual void* CreateTagsHandle(const std::vector<std::string>& names, unsigned int period, unsigned int& err) = 0;
  virtual void* CreateTagsHandle(const std::string& name, unsigned int period, unsigned int& err) = 0;
  virtual unsigned int DeleteTagsHandle(void*& handle) = 0;
  virtual void SetPlcDevice(void* device) = 0;
  virtual void* GetPlcDevice() = 0;
  virtual unsigned int ReadTag(void* handle, tagTagVarValue** values, unsigned int& count) = 0;
  virtual unsigned int ReadTag(void* handle, std::vector<tagTagVarValue>& values, unsigned int& count) = 0;
  virtual unsigned int WriteTag(void* handle, std::vector<std::string>& values) = 0;
  virtual unsigned int ReadTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                                    std::vector<int>& lengths) = 0;
  virtual unsigned int WriteTagValue(void* handle, unsigned char* data, unsigned int rawCount) = 0;
  virtual unsigned int WriteTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                                     std::vector<int>& lengths) = 0;
  virtual unsigned int ReadArray(void* handle, void* data, int length, unsigned int start, unsigned int count) = 0;
  virtual unsigned int WriteArray(void* handle, void* data, int length, unsigned int start, unsigned int count) = 0;
  virtual unsigned int ReadStructField(void* handle, void** data, int* length) = 0;
  virtual unsigned int WriteStructField(void* handle, const void* data, int* length) = 0;

  // Shared helpers of both backends.
  unsigned int InitTagsManager(qorvarlok::symbols::TagsConfig* config, uint32_t instanceId);
  void ReleaseTagsManager();
  qorvarlok::tags::TagsManager* GetTagManager() const { return m_pTagManager.get(); }
  static bool IsReadable(int accessType);
  static bool IsWritable(int accessType);
  static int baseByteLength(int typeCode);
  // Fresh value per command record; first value 1; process-wide.
  static uint32_t sessionId();
  // Text to controller binary form by type code; 0 or 1 (failure).
  static int serializeString(const std::string& value, int type, unsigned char* dest, int& size);

 protected:
  std::mutex m_mutex;
  std::unique_ptr<qorvarlok::tags::TagsManager> m_pTagManager;
  std::mutex m_auxMutex;
};

}  // namespace ZelmonteVarlok
