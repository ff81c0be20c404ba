// Reads a symbol configuration file (XML) into a SymbolConfiguration, in one
// pass: header, types, nodes. The first missing mandatory item is reported by
// its line number (ERR_XML_LINE_ERROR | line).
#pragma once

#include <cstdio>
#include <string>

#include "SymbolModel.h"

namespace qorvarlok::symbols {

class SymbolConfigReader {
 public:
  // A new document owned by the caller, or null with LastError() set and
  // *message receiving a new[] text that the caller owns.
  SymbolConfiguration* ReadFile(const std::wstring& path, char** message);
  unsigned int LastError() const { return m_lastError; }

 private:
  SymbolConfiguration* Read(std::FILE* file, char** message);
  SymbolConfiguration* Refuse(unsigned int code, const char* detail, char** message);

  unsigned int m_lastError = 0;
};

}  // namespace qorvarlok::symbols
