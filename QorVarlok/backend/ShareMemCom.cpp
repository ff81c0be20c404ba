#include "ShareMemCom.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "ShmComClient.h"
#include "VarlokLog.h"

namespace ZelmonteVarlok {

using qorvarlok::shm::connectCmd;
using qorvarlok::shm::defineCmd;
using qorvarlok::shm::defineTagEntry;
using qorvarlok::shm::rwCmd;
using qorvarlok::shm::ShmComClient;
using qorvarlok::tags::TagNode;

ShareMemCom::ShareMemCom() { VLOG(info, "ShareMemCom::ShareMemCom", "new ShareMemCom"); }

ShareMemCom::~ShareMemCom() { VLOG(info, "ShareMemCom::~ShareMemCom", "delete ShareMemCom"); }

// ------------------------------------------------------------------ lifecycle

unsigned int ShareMemCom::InitializeCom() {
  m_clientSeq = 0;
  if (ShmComClient::GetInstance() == nullptr) {
    VLOG(err, "ShareMemCom::InitializeCom", "create shared mem client failed");
    m_bShmInit = false;
    return ERR_SHM_CLIENT_FAILED;
  }
  m_bShmInit = true;
  VLOG(info, "ShareMemCom::InitializeCom", "shm init");
  return 0;
}

unsigned int ShareMemCom::ExitVarlokCommunication() {
  VLOG(info, "ShareMemCom::ExitVarlokCommunication", "shm exit");
  m_bShmInit = false;
  m_clientSeq = 0;
  return 0;
}

void ShareMemCom::SetPlcDevice(void*) {}

void* ShareMemCom::GetPlcDevice() {
  ShmComClient* client = ShmComClient::GetInstance();
  if (client != nullptr && client->IsInitialized() && m_clientSeq != 0) return client;
  return nullptr;
}

void* ShareMemCom::ConnectToPlcDevice(const std::string&, unsigned int& err) {
  constexpr const char* kFunc = "ShareMemCom::ConnectToPlcDevice";
  if (!m_bShmInit) {
    VLOG(err, kFunc, "shm com has not initialized");
    err = ERR_SHM_NOT_INITIALIZED;
    return nullptr;
  }
  if (m_clientSeq != 0) {
    err = 0;
    return ShmComClient::GetInstance();
  }
  ShmComClient* client = ShmComClient::GetInstance();
  if (client == nullptr) {
    VLOG(err, kFunc, "shm com client has not initialized");
    err = ERR_SHM_NOT_INITIALIZED;
    m_clientSeq = 0;
    return nullptr;
  }
  connectCmd cmd;
  cmd.Flag = qorvarlok::shm::kConnectFlagConnect;
  cmd.beat = qorvarlok::shm::kConnectBeat;
  cmd.SessionId = sessionId();
  err = client->WriteConnectCmd(cmd);
  if (err != 0) {
    VLOG(err, kFunc, "{}", err);
    err = ERR_CONNECT_FAILED;
    return nullptr;
  }
  m_clientSeq = cmd.seq;
  VLOG(info, kFunc, "{}", cmd);
  if (m_clientSeq == 0) {
    // A refusal arrives here with result 0 and the sequence still 0.
    VLOG(err, kFunc, "ShmComClient::GetInstance()->ReadClientSeq()<=0");
    err = ERR_CONNECT_FAILED;
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pTagManager == nullptr || m_pTagManager->ListHead() == nullptr) {
    VLOG(info, kFunc, "pTagManager==nullptr");
    err = ERR_CONNECT_FAILED;
    m_clientSeq = 0;
    return nullptr;
  }
  m_pTagManager->ListHead()->clientSeq = m_clientSeq;
  m_bShmInit = true;
  err = 0;
  return client;
}

unsigned int ShareMemCom::DisconnectFromPlcDevice(void*) {
  constexpr const char* kFunc = "ShareMemCom::DisconnectFromPlcDevice";
  VLOG(info, kFunc, "shm disconnect");
  connectCmd cmd;
  cmd.Flag = qorvarlok::shm::kConnectFlagDisconnect;
  cmd.seq = m_clientSeq;
  cmd.beat = qorvarlok::shm::kConnectBeat;
  cmd.SessionId = sessionId();
  ShmComClient* client = ShmComClient::GetInstance();
  const uint32_t r = client != nullptr ? client->WriteConnectCmd(cmd) : ERR_RTOS_UNAVAILABLE;
  if (r != 0) VLOG(err, kFunc, "disconnect failed {}", r);
  // The lists stay, under the old sequence: their handles answer ERR_INVALID_VAR_DEFS after a reconnect.
  m_bShmInit = true;
  m_clientSeq = 0;
  return 0;
}

// ------------------------------------------------------------- define, delete

defineCmd ShareMemCom::MakeDefineCmd(const TagsList& list) {
  defineCmd cmd;
  cmd.Flag = qorvarlok::shm::kDefineFlagDefine;
  cmd.Seq = static_cast<uint8_t>(m_clientSeq & 0xFF);
  cmd.SessionId = sessionId();
  cmd.entries.reserve(list.nodeArray.size());
  for (const TagNode* node : list.nodeArray) {
    defineTagEntry entry;
    if (node != nullptr) {
      if (node->FullName != nullptr) {
        // A name of 256 bytes or more fills the field without a terminator and is cut there.
        const size_t n = std::min(std::strlen(node->FullName), sizeof(entry.name));
        std::memcpy(entry.name, node->FullName, n);
      }
      entry.size = static_cast<uint32_t>(node->Size);
    }
    cmd.entries.push_back(entry);
    ++cmd.Size;
  }
  cmd.ByteLength = list.totalBytes;
  return cmd;
}

bool ShareMemCom::SendDefineGuarded(defineCmd& cmd, uint32_t& result) {
  try {
    ShmComClient* client = ShmComClient::GetInstance();
    if (client != nullptr) {
      result = client->WriteDefineCmd(cmd);
      return true;
    }
  } catch (...) {
  }
  result = ERR_RTOS_UNAVAILABLE;
  return false;
}

void* ShareMemCom::CreateTagsHandle(const std::string& name, unsigned int period, unsigned int& err) {
  if (m_clientSeq == 0) {
    VLOG(err, "ShareMemCom::CreateTagsHandle", "ShmComClient::GetInstance()->ReadClientSeq() <= 0");
    err = ERR_NOT_CONNECTED;
    return nullptr;
  }
  const std::vector<std::string> names{name};
  return CreateTagsHandle(names, period, err);
}

void* ShareMemCom::CreateTagsHandle(const std::vector<std::string>& names, unsigned int, unsigned int& err) {
  constexpr const char* kFunc = "ShareMemCom::CreateTagsHandle";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ShmComClient::GetInstance()->ReadClientSeq() <= 0");
    err = ERR_NOT_CONNECTED;
    return nullptr;
  }
  TagsList* list = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    err = m_pTagManager != nullptr ? m_pTagManager->createHandleByTagsListNames(&list, m_clientSeq, names)
                                   : ERR_EXIST_INVAILD_VAR;
  }
  if (err != 0 || list == nullptr) {
    if (err == 0) err = ERR_EXIST_INVAILD_VAR;
    VLOG(err, kFunc, "{}", err);
    return nullptr;
  }
  defineCmd cmd = MakeDefineCmd(*list);
  // No client or an exception: the command never completed and the list stays in the chain.
  if (!SendDefineGuarded(cmd, err)) return nullptr;
  VLOG(info, kFunc, "{}", cmd);
  if (err == 0) {
    list->handle = static_cast<int32_t>(cmd.TagsHandle);
    VLOGP(info, kFunc, "i pList->handle=%d, %p", list->handle, static_cast<void*>(&list->handle));
    return &list->handle;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  VLOG(err, kFunc, "WriteDefineCmd err :{}", err);
  m_pTagManager->deleteFromBack();
  return nullptr;
}

unsigned int ShareMemCom::DeleteTagsHandle(void*& handle) {
  constexpr const char* kFunc = "ShareMemCom::DeleteTagsHandle";
  if (handle == nullptr) {
    VLOG(warn, kFunc, "tagsListHandle==nullptr");
    return ERR_INVALID_VAR_DEFS;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = m_pTagManager != nullptr ? m_pTagManager->searchShmTagsList(handle) : nullptr;
  if (list == nullptr) {
    VLOG(warn, kFunc, "pTargetList == nullptr");
    return ERR_INVALID_VAR_DEFS;
  }
  defineCmd cmd;
  cmd.Flag = qorvarlok::shm::kDefineFlagDelete;
  cmd.Seq = static_cast<uint8_t>(m_clientSeq & 0xFF);
  cmd.TagsHandle = static_cast<uint32_t>(list->handle);
  cmd.SessionId = sessionId();
  VLOG(info, kFunc, "{}", cmd);
  uint32_t r = 0;
  SendDefineGuarded(cmd, r);
  if (r != 0) {
    VLOG(warn, kFunc, "{}", r);
    return r;
  }
  return m_pTagManager->deleteFromList(handle) ? 0 : ERR_PLC_INVALID_HANDLE;
}

}  // namespace ZelmonteVarlok
