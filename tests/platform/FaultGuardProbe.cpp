#include "FaultGuardProbe.h"

#include <cstring>

#include "FaultGuard.h"

extern "C" int ProbeGuardedClear(void* address, size_t length) {
  return qorvarlok::platform::RunFaultGuarded([&] { std::memset(address, 0, length); }) ? 1 : 0;
}
