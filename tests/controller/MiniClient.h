// A minimal shared memory client over the real libRtosLib64: maps the three
// areas of the partition named by VARLOK_PARTITION, opens the six events, and
// runs one exchange (signal, wait for the answer event, spin on Flag) on a
// slot that the test has written.
#pragma once

#include <sys/mman.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "RtosLib64.h"
#include "SlotFormat.h"

namespace ctltest {

class MiniClient {
 public:
  // 0, or the first failing call's result.
  uint32_t Open() {
    static const wchar_t* const areas[3] = {L"ConnectArea", L"NotifyArea", L"DataSwapArea"};
    static const char* const events[3][2] = {{"EVENT_CONNECT_WIN2RTOS", "EVENT_CONNECT_RTOS2WIN"},
                                             {"EVENT_NOTIFY_WIN2RTOS", "EVENT_NOTIFY_RTOS2WIN"},
                                             {"EVENT_DATASWAP_WIN2RTOS", "EVENT_DATASWAP_RTOS2WIN"}};
    for (int c = 0; c < 3; ++c) {
      uint32_t id = 0, reserved = 0;
      void* address = nullptr;
      if (uint32_t r = RtosQueryShmId(areas[c], 4, &id)) return r;
      if (uint32_t r = RtosQueryShmSize(id, &size[c])) return r;
      if (uint32_t r = RtosMapShm(id, 0, size[c], &reserved, &address)) return r;
      area[c] = static_cast<uint8_t*>(address);
      if (uint32_t r = RtosOpenEvent(0, 0, events[c][0], &tx[c])) return r;
      if (uint32_t r = RtosOpenEvent(0, 0, events[c][1], &rx[c])) return r;
      // The library has no call that closes an event: a client keeps them
      // (reachable) for the process's life.
      static auto* kept = new std::vector<RTOS_EVENT>();
      kept->insert(kept->end(), {tx[c], rx[c]});
    }
    return 0;
  }
  ~MiniClient() {
    for (int c = 0; c < 3; ++c)
      if (area[c] != nullptr) munmap(area[c], size[c]);
  }
  // RtosWaitEvent's result; on 0 also waits (bounded) for Flag to leave the request's value.
  uint32_t Exchange(int channel, uint32_t timeoutMs = 2000) {
    const uint32_t noted = FlagOf(channel);
    if (uint32_t r = RtosSendEvent(tx[channel])) return r;
    if (uint32_t w = RtosWaitEvent(rx[channel], timeoutMs)) return w;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    while (FlagOf(channel) == noted && std::chrono::steady_clock::now() < limit) {
    }
    return 0;
  }
  uint32_t FlagOf(int channel) const {
    static const size_t offset[3] = {0, 2, 4};
    return channel == 0 ? __atomic_load_n(reinterpret_cast<uint32_t*>(area[0]), __ATOMIC_ACQUIRE)
                        : __atomic_load_n(area[channel] + offset[channel], __ATOMIC_ACQUIRE);
  }

  uint8_t* area[3] = {};
  uint32_t size[3] = {};
  RTOS_EVENT tx[3] = {};
  RTOS_EVENT rx[3] = {};
};

}  // namespace ctltest
