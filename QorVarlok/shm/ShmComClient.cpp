#include "ShmComClient.h"

#include "QorVarlok/ZelVarlok.h"
#include "RtosApi.h"
#include "VarlokLog.h"

namespace qorvarlok::shm {

using platform::Rtos;

namespace {
// The mode argument of the id query, as the partition library expects it.
constexpr uint32_t kShmQueryMode = 4;
}  // namespace

ShmComClient::ShmComClient() { VLOG(info, "ShmComClient::ShmComClient", "new ShmComClient"); }

ShmComClient::~ShmComClient() {
  VLOG(info, "ShmComClient::~ShmComClient", "delete ShmComClient");
  m_bInitialized = false;
  m_pDataSwapThread.reset();
  m_pDefineThread.reset();
  m_pConnectThread.reset();
}

ShmComClient* ShmComClient::GetInstance() {
  static ShmComClient client;
  if (client.m_bInitialized) return &client;
  if (Rtos().IsAlive() == 0) {
    client.m_bInitialized = false;
    return nullptr;
  }
  if (client.InitShmCom() == 0) return &client;
  client.m_bInitialized = false;
  return nullptr;
}

uint32_t ShmComClient::InitShmCom() {
  // A repeated set-up drops the channels of the last one; their mappings stay.
  m_pConnectThread = std::make_shared<ConnectCmdThread>();
  m_pDefineThread = std::make_shared<DefineShmComThread>();
  m_pDataSwapThread = std::make_shared<DataSwapShmComThread>();

  void* connectArea = nullptr;
  void* defineArea = nullptr;
  void* dataSwapArea = nullptr;
  uint32_t ret = Rtos().Init();
  if (ret == 0) ret = InitShmConnect(&connectArea);
  if (ret == 0) ret = InitShmDefine(&defineArea);
  if (ret == 0) ret = InitShmDataSwap(&dataSwapArea);
  if (ret == 0) {
    // Init reports by log only: a missing event or mutex shows at the first command.
    m_pConnectThread->m_hShmDataSwap = connectArea;
    m_pConnectThread->Init();
    m_pDefineThread->m_hShmDataSwap = defineArea;
    m_pDefineThread->Init();
    m_pDataSwapThread->m_hShmDataSwap = dataSwapArea;
    m_pDataSwapThread->Init();
  }
  const uint32_t state = ret == 0 ? 1 : 0;
  m_connectState = m_defineState = m_dataSwapState = state;
  m_bInitialized = ret == 0;
  VLOG(info, "ShmComClient::InitShmCom", "shm client has initialized ret = {}", ret);
  return ret;
}

uint32_t ShmComClient::InitShmConnect(void** address) {
  return MapArea("ShmComClient::InitShmConnect", L"ConnectArea", kConnectMapLength, false, address);
}

uint32_t ShmComClient::InitShmDefine(void** address) {
  return MapArea("ShmComClient::InitShmDefine", L"NotifyArea", kDefineMapLength, true, address);
}

uint32_t ShmComClient::InitShmDataSwap(void** address) {
  return MapArea("ShmComClient::InitShmDataSwap", L"DataSwapArea", kDataSwapMapLength, false, address);
}

uint32_t ShmComClient::MapArea(log::Site func, const wchar_t* name, uint32_t mapLength, bool logSmallSize,
                               void** address) {
  uint32_t id = 0;
  uint32_t r = Rtos().QueryShmId(name, kShmQueryMode, &id);
  if (r != 0) {
    // These texts go to the brace formatter and stay unfilled in the line.
    VLOGU(err, func,
          "Error (0x%X) querying '%s' shared memory id. Please ensure a shared memory with this name is configured "
          "for read and write by any OS.",
          r, "ConnectArea");
    return r;
  }
  VLOGU(info, func, "  %-33s : ", "Querying total size");
  uint32_t size = 0;
  r = Rtos().QueryShmSize(id, &size);
  if (r != 0) {
    VLOGU(err, func, "Error (0x%X)", r);
    return r;
  }
  VLOGU(info, func, "Ok - %u (0x%X) bytes", size, size);
  if (size < kMinAreaSize) {
    if (logSmallSize) VLOG(err, func, "Error querying size is lower than minmum.");
    return ERR_INSUFFICIENT_SHMAREA_SIZE;
  }
  uint32_t unused = 0;
  // The full length is asked for whatever size the area reported.
  return Rtos().MapShm(id, 0, mapLength, &unused, address);
}

uint32_t ShmComClient::MapFailure(uint32_t r, bool rtosError, uint32_t resultWhenClear) {
  if (r == ERR_RTOS_UNAVAILABLE || r == ERR_UNDEFINED) {
    // A fault cut the slot write short: the mapping is not to be trusted.
    m_bInitialized = false;
    return ERR_RTOS_UNAVAILABLE;
  }
  if (rtosError) return Rtos().IsAlive() == 0 ? ERR_RTOS_UNAVAILABLE : r;
  return resultWhenClear;
}

uint32_t ShmComClient::WriteConnectCmd(connectCmd& cmd) {
  const std::shared_ptr<ConnectCmdThread> channel = m_pConnectThread;
  const uint32_t r = channel->Async(cmd);
  if (r == 0) return 0;
  VLOG(err, "ShmComClient::WriteConnectCmd", "connect result = {}, cmd = {}", r, cmd);
  // A refusal with the events intact gives 0: it stays in the record's errInfo.
  return MapFailure(r, channel->RtosError(), 0);
}

uint32_t ShmComClient::WriteDefineCmd(defineCmd& cmd) {
  const int32_t cmdSize = static_cast<int32_t>(cmd.Size * static_cast<uint32_t>(kDefineEntrySize) + 10u);
  if (cmdSize > static_cast<int32_t>(MAXSIZE_DEFINE_SHM)) {
    VLOG(err, "ShmComClient::WriteDefineCmd", "cmdSize ={}> MAXSIZE_DEFINE_SHM", cmdSize);
    return ERR_TOO_MANY_TAGS;
  }
  const std::shared_ptr<DefineShmComThread> channel = m_pDefineThread;
  const uint32_t r = channel->Async(cmd);
  if (r == 0) return 0;
  VLOG(err, "ShmComClient::WriteDefineCmd", "define cmd = {}, result = {}", cmd, r);
  return MapFailure(r, channel->RtosError(), r);
}

uint32_t ShmComClient::WriteRwCmd(rwCmd& cmd) {
  const std::shared_ptr<DataSwapShmComThread> channel = m_pDataSwapThread;
  const uint32_t r = channel->Async(cmd);
  if (r == 0) return 0;
  VLOG(err, "ShmComClient::WriteRwCmd", "dataswap result = {}, cmd={}", r, cmd);
  return MapFailure(r, channel->RtosError(), r);
}

}  // namespace qorvarlok::shm
