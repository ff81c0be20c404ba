// The client's table of the eight RtosLib64 calls. The real library is the
// default; tests replace entries to produce results that a real partition
// cannot produce on demand (a failed open, an unknown wait result, a dead
// partition) and put the defaults back afterwards.
#pragma once

#include "RtosLib64.h"

namespace qorvarlok::platform {

struct RtosApi {
  uint32_t (*Init)();
  uint32_t (*OpenEvent)(uint32_t, uint32_t, const char*, RTOS_EVENT*);
  uint32_t (*SendEvent)(RTOS_EVENT);
  uint32_t (*WaitEvent)(RTOS_EVENT, uint32_t);
  uint32_t (*IsAlive)();
  uint32_t (*QueryShmId)(const wchar_t*, uint32_t, uint32_t*);
  uint32_t (*MapShm)(uint32_t, uint32_t, uint32_t, uint32_t*, void**);
  uint32_t (*QueryShmSize)(uint32_t, uint32_t*);
};

// The process's table, filled with the real library's calls.
RtosApi& Rtos();
// The real library's calls, to restore after a test.
RtosApi RealRtosApi();

}  // namespace qorvarlok::platform
