// The backend for COM_TYPE_TCP: a thin adapter over the seven calls of
// ZelTagAccess (reached through the table of TagAccessApi.h), which owns
// the socket, the lists on its side and the records a read returns. This
// object keeps the device, mirrors each list in the TagsManager so that
// sizes and node data are known here, and fits the flat calls to the
// operations of Varlok.
//
// It is deliberately less careful than ShareMemCom: no connection test at
// the head of an operation, no access or type walk (the controller checks),
// lists dropped at disconnect instead of compared by client sequence, a
// refused text value left zero, raw bytes for strings, ERR_UNMATCH_TYPE_PARA
// for a length mismatch, a whole-array write whatever the range. Where a
// missing buffer would be touched, it stops at the copy and lets the
// facade report the fault as its catch-all does ("unknown exception").
#pragma once

#include <string>
#include <vector>

#include "Varlok.h"
#include "VarlokLog.h"

namespace ZelmonteVarlok {

class TagsTcpCom : public Varlok {
 public:
  TagsTcpCom();
  ~TagsTcpCom() override;

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

 private:
  using TagsList = qorvarlok::tags::TagsList;
  // The manager's list of a handle, or null after logging "tagslist == nullptr" at the given level.
  TagsList* LookUp(void* handle, qorvarlok::log::level level, qorvarlok::log::Site func);
  // The bytes this side lays out for each name: the width the controller is asked to keep.
  std::vector<uint32_t> WidthsOf(const std::vector<std::string>& names);
  // The length walk of ReadTagValue and the typed WriteTagValue.
  static unsigned int CheckLengths(const TagsList& list, std::vector<void*>& dataHeads, std::vector<int>& lengths,
                                   int& sum);

  void* m_pPlcDevice = nullptr;
};

}  // namespace ZelmonteVarlok
