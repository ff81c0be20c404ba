// The reading entry below the plain exports: read a file and build its tag
// tree. The facade's InitializeCom with a path calls it directly, outside the
// registry of open configurations.
//
// The plain exports (CreateSymbolConfigHandleW and its siblings, declared in
// the public header) keep one process-wide registry of open configurations
// under a mutex of its own. A released configuration's tree stays allocated,
// so that records a caller still holds stay readable.
//
// A tree that a tags manager holds belongs to the managers that hold it, not
// to the registry: each tree is freed exactly once, whichever way it came.
#pragma once

#include <string>

#include "TagData.h"

namespace qorvarlok::symbols {

// A new TagsConfig, or null with *errorCode set. *errorCode is written only on failure.
TagsConfig* ReadSymbolConfig(const std::wstring& path, unsigned int* errorCode);

// The message of the last failed reading, empty after a successful one. For
// tools and tests: no export hands it out.
std::string LastParseMessage();

// A tags manager starts holding this tree. A tree of an open handle (given to
// InitializeCom) is no longer the registry's to keep once released.
void AdoptSymbolConfig(TagsConfig* config);
// A tags manager stops holding this tree. The last holder frees it, and an
// open handle of it goes with it: later use of that handle is refused as
// released instead of reaching freed memory.
void DisposeSymbolConfig(TagsConfig* config);

// Frees the trees of every released configuration. Records taken from them
// die with them: only for a process that knows it holds none (benchmarks,
// long-running tools that reopen files again and again).
void ReclaimReleasedSymbolConfigs();
// Number of released configurations whose trees are still kept.
size_t ReleasedSymbolConfigCount();

}  // namespace qorvarlok::symbols
