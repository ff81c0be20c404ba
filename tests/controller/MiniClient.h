// A minimal shared memory client over the real libRtosLib64: finds and maps
// the three areas of the partition named by VARLOK_PARTITION, opens the six
// events, and runs one exchange (signal, wait for the answer event, spin on
// Flag) on a slot that the test has written.
#pragma once

#include <sys/mman.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "RtosLib64.h"
#include "SlotFormat.h"

namespace ctltest {

class MiniClient {
 public:
  static constexpr const wchar_t* kAreas[3] = {L"ConnectArea", L"NotifyArea", L"DataSwapArea"};
  static constexpr const char* kEvents[3][2] = {{"EVENT_CONNECT_WIN2RTOS", "EVENT_CONNECT_RTOS2WIN"},
                                                {"EVENT_NOTIFY_WIN2RTOS", "EVENT_NOTIFY_RTOS2WIN"},
                                                {"EVENT_DATASWAP_WIN2RTOS", "EVENT_DATASWAP_RTOS2WIN"}};
  static constexpr size_t kFlagOffset[3] = {0, 2, 4};

  // 0, or the first failing call's result.
  uint32_t Open() {
    for (int c = 0; c < 3; ++c) {
      uint32_t id = 0, reserved = 0;
      void* address = nullptr;
      if (uint32_t r = RtosQueryShmId(kAreas[c], 4, &id)) return r;
      if (uint32_t r = RtosQueryShmSize(id, &size[c])) return r;
      if (uint32_t r = RtosMapShm(id, 0, size[c], &reserved, &address)) return r;
      area[c] = static_cast<uint8_t*>(address);
      if (uint32_t r = RtosOpenEvent(0, 0, kEvents[c][0], &tx[c])) return r;
      if (uint32_t r = RtosOpenEvent(0, 0, kEvents[c][1], &rx[c])) return r;
      Kept().push_back(tx[c]);
      Kept().push_back(rx[c]);
    }
    return 0;
  }
  // The library has no call that closes an event: a client keeps its handles
  // for the process's life, as these stay reachable here.
  static std::vector<RTOS_EVENT>& Kept() {
    static auto* kept = new std::vector<RTOS_EVENT>();
    return *kept;
  }
  ~MiniClient() {
    for (int c = 0; c < 3; ++c)
      if (area[c] != nullptr) munmap(area[c], size[c]);
  }

  // RtosWaitEvent's result; on 0 also waits (bounded) for Flag to leave the request's value.
  uint32_t Exchange(int channel, uint32_t timeoutMs = 2000) {
    const uint32_t noted = FlagOf(channel);
    if (uint32_t r = RtosSendEvent(tx[channel])) return r;
    const uint32_t w = RtosWaitEvent(rx[channel], timeoutMs);
    if (w != 0) return w;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    while (FlagOf(channel) == noted && std::chrono::steady_clock::now() < limit) {
    }
    return 0;
  }
  uint32_t FlagOf(int channel) const {
    return channel == 0 ? __atomic_load_n(reinterpret_cast<uint32_t*>(area[0]), __ATOMIC_ACQUIRE)
                        : __atomic_load_n(area[channel] + kFlagOffset[channel], __ATOMIC_ACQUIRE);
  }

  uint8_t* area[3] = {};
  uint32_t size[3] = {};
  RTOS_EVENT tx[3] = {};
  RTOS_EVENT rx[3] = {};
};

}  // namespace ctltest
