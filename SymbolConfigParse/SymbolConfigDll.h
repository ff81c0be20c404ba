// The reading entry below the plain exports: read a file and build its tag
// tree. The facade's InitializeCom with a path calls it directly, outside the
// registry of open configurations.
#pragma once

#include <string>

#include "TagData.h"

namespace qorvarlok::symbols {

// A new TagsConfig, or null with *errorCode set. *errorCode is written only on failure.
TagsConfig* ReadSymbolConfig(const std::wstring& path, unsigned int* errorCode);

}  // namespace qorvarlok::symbols
