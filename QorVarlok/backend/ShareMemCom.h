// The backend for COM_TYPE_LOCAL: the controller runs on this machine and
// every operation is one command record handed to the process's ShmComClient.
// The object holds two fields of its own (whether the client is up, and the
// client sequence the controller granted); the lists live in the TagsManager.
//
// Each operation repeats its own checks in a fixed order before any traffic.
// m_mutex covers the use of the TagsManager and, for reads and writes, the
// whole exchange. Failures of the transport come back as codes; a lost
// mapping or a missing client reads as ERR_RTOS_UNAVAILABLE.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "ShmCmd.h"
#include "Varlok.h"
#include "VarlokLog.h"

namespace ZelmonteVarlok {

class ShareMemCom : public Varlok {
 public:
  ShareMemCom();
  ~ShareMemCom() override;

  unsigned int InitializeCom() override;
  unsigned int ExitVarlokCommunication() override;
  void* ConnectToPlcDevice(const std::string& address, unsigned int& err) override;
  unsigned int DisconnectFromPlcDevice(void* device) override;
  void* CreateTagsHandle(const std::vector<std::string>& names, unsigned int period, unsigned int& err) override;
  void* CreateTagsHandle(const std::string& name, unsigned int period, unsigned int& err) override;
  unsigned int DeleteTagsHandle(void*& handle) override;
  void SetPlcDevice(void* device) override;
  void* GetPlcDevice() override;
  unsigned int ReadTag(void* handle, tagTagVarValue** values, unsigned int& count) override;
  unsigned int ReadTag(void* handle, std::vector<tagTagVarValue>& values, unsigned int& count) override;
  unsigned int WriteTag(void* handle, std::vector<std::string>& values) override;
  unsigned int ReadTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                            std::vector<int>& lengths) override;
  unsigned int WriteTagValue(void* handle, unsigned char* data, unsigned int rawCount) override;
  unsigned int WriteTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                             std::vector<int>& lengths) override;
  unsigned int ReadArray(void* handle, void* data, int length, unsigned int start, unsigned int count) override;
  unsigned int WriteArray(void* handle, void* data, int length, unsigned int start, unsigned int count) override;
  unsigned int ReadStructField(void* handle, void** data, int* length) override;
  unsigned int WriteStructField(void* handle, const void* data, int* length) override;

  uint32_t ClientSeq() const { return m_clientSeq; }
  bool ShmInitialized() const { return m_bShmInit.load(); }

 private:
  using TagsList = qorvarlok::tags::TagsList;
  // Which of the texts of the node walk an operation logs.
  enum class Walk { ArrayRead, VectorRead, Write, ReadValue, WriteValue };
  enum class Step3 { Short, WithLength, Numbered };

  // Steps 2 and 3 of every list operation: lookup and the list's own test.
  uint32_t FindList(void* handle, qorvarlok::log::Site func, Step3 text, bool requireTags, TagsList*& list);
  // The typed forms' checks, in their order, under the caller's lock: the
  // list, one pointer per tag, the caller's arrays, then the walk.
  uint32_t CheckTypedCall(void* handle, qorvarlok::log::Site func, Walk walk, const std::vector<void*>& dataHeads,
                          const std::vector<int>& types, const std::vector<int>& lengths, TagsList*& list);
  uint32_t WalkNodes(TagsList& list, Walk walk, qorvarlok::log::Site func, const std::vector<int>* types,
                     const std::vector<int>* lengths);
  uint32_t CheckTypedLength(const qorvarlok::tags::TagNode& node, size_t i, Walk walk, qorvarlok::log::Site func,
                            const std::vector<int>& types, const std::vector<int>& lengths);
  // The command for this list; index entries and value buffer are the list's.
  qorvarlok::shm::rwCmd MakeRwCmd(TagsList& list, uint8_t rw, uint32_t size, uint32_t byteTotal);
  // Runs a data swap command; a missing client reads as ERR_RTOS_UNAVAILABLE. May throw.
  static uint32_t SendRw(qorvarlok::shm::rwCmd& cmd);
  // SendRw with every exception read as ERR_RTOS_UNAVAILABLE.
  static uint32_t SendRwGuarded(qorvarlok::shm::rwCmd& cmd);
  // False when there was no client or the call threw; result is then ERR_RTOS_UNAVAILABLE.
  static bool SendDefineGuarded(qorvarlok::shm::defineCmd& cmd, uint32_t& result);
  unsigned int ReadList(void* handle, qorvarlok::log::Site func, Walk walk, TagsList*& list);
  void FillRecords(TagsList& list, tagTagVarValue* records, size_t count);
  void CopyOutTyped(TagsList& list, std::vector<void*>& dataHeads);
  uint32_t CopyInTyped(TagsList& list, std::vector<void*>& dataHeads, qorvarlok::log::Site func);
  unsigned int WriteTagValueRaw(void* handle, unsigned char* data, unsigned int rawCount);
  uint32_t ArrayHead(void* handle, qorvarlok::log::Site func, bool write, TagsList*& list);
  uint32_t StructHead(void* handle, qorvarlok::log::Site func, bool write, TagsList*& list);
  qorvarlok::shm::defineCmd MakeDefineCmd(const TagsList& list);

  std::atomic<bool> m_bShmInit{false};
  uint32_t m_clientSeq = 0;
};

}  // namespace ZelmonteVarlok
