// A tiny shared library, compiled at -O2, that writes through the fault guard:
// the guard proven where the client uses it, inside a .so (a DLL on Windows).
#include <cstring>

#include "FaultGuard.h"

extern "C" PROBE_API int ProbeGuardedClear(void* address, size_t length) {
  return qorvarlok::platform::RunFaultGuarded([&] { std::memset(address, 0, length); }) ? 1 : 0;
}
