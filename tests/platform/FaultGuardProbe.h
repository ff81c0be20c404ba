// A tiny shared library that writes through the fault guard, compiled at -O2,
// so the guard is proven where it is used: inside a .so.
#pragma once

#include <cstddef>

extern "C" __attribute__((visibility("default"))) int ProbeGuardedClear(void* address, size_t length);
