// The reading entry below the plain exports: read a file and build its tag
// tree. The facade's InitializeCom with a path calls it directly, outside the
// registry of open configurations.
//
// The plain exports (CreateSymbolConfigHandleW and its siblings, declared in
// the public header) keep one process-wide registry of open configurations
// under a mutex of its own. A released configuration's tree stays allocated,
// so that records a caller still holds stay readable.
#pragma once

#include <string>

#include "TagData.h"

namespace qorvarlok::symbols {

// A new TagsConfig, or null with *errorCode set. *errorCode is written only on failure.
TagsConfig* ReadSymbolConfig(const std::wstring& path, unsigned int* errorCode);

// The message of the last failed reading, empty after a successful one. For
// tools and tests: no export hands it out.
std::string LastParseMessage();

// Frees the trees of every released configuration. Records taken from them
// die with them: only for a process that knows it holds none (benchmarks,
// long-running tools that reopen files again and again).
void ReclaimReleasedSymbolConfigs();
// Number of released configurations whose trees are still kept.
size_t ReleasedSymbolConfigCount();

}  // namespace qorvarlok::symbols
