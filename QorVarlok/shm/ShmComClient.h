// The process's one link to the controller's partition: maps the three areas,
// owns the three channels and offers one write operation per command, each
// turning what the channel reports into the results the backend acts on.
//
// GetInstance is the only way in and doubles as the reconnect attempt: after
// a lost mapping it sets everything up again once the partition is back. The
// client holds no lock of its own; the channels' named mutexes order the
// commands. Areas, events and mutexes are never given back.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "ComThread.h"
#include "ShmCmd.h"

namespace qorvarlok::shm {

class ShmComClient {
 public:
  // The client, or null when the partition does not run or the set-up failed.
  static ShmComClient* GetInstance();

  uint32_t WriteConnectCmd(connectCmd& cmd);
  uint32_t WriteDefineCmd(defineCmd& cmd);
  uint32_t WriteRwCmd(rwCmd& cmd);

  bool IsInitialized() const { return m_bInitialized; }
  // True when any channel's set-up failed; nothing in the library reads it.
  bool IsAnyStateDown() const { return m_connectState == 0 || m_defineState == 0 || m_dataSwapState == 0; }

  std::shared_ptr<ConnectCmdThread> ConnectChannel() const { return m_pConnectThread; }
  std::shared_ptr<DefineShmComThread> DefineChannel() const { return m_pDefineThread; }
  std::shared_ptr<DataSwapShmComThread> DataSwapChannel() const { return m_pDataSwapThread; }

  ShmComClient(const ShmComClient&) = delete;
  ShmComClient& operator=(const ShmComClient&) = delete;

 private:
  friend class ShmComClientProbe;  // tests: bring the singleton back to "not set up"
  ShmComClient();
  ~ShmComClient();

  uint32_t InitShmCom();
  uint32_t InitShmConnect(void** address);
  uint32_t InitShmDefine(void** address);
  uint32_t InitShmDataSwap(void** address);
  // The one procedure behind the three above.
  uint32_t MapArea(log::Site func, const wchar_t* name, uint32_t mapLength, bool logSmallSize, void** address);
  // The common tail of the three write operations for a non-zero result.
  uint32_t MapFailure(uint32_t r, bool rtosError, uint32_t resultWhenClear);

  bool m_bInitialized = false;
  uint32_t m_connectState = 0;
  uint32_t m_defineState = 0;
  uint32_t m_dataSwapState = 0;
  std::mutex m_connectMutex;  // constructed and destroyed; no operation locks them
  std::mutex m_defineMutex;
  std::mutex m_dataSwapMutex;
  std::shared_ptr<ConnectCmdThread> m_pConnectThread;
  std::shared_ptr<DefineShmComThread> m_pDefineThread;
  std::shared_ptr<DataSwapShmComThread> m_pDataSwapThread;
};

}  // namespace qorvarlok::shm
