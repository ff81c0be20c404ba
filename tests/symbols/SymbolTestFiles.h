// Temporary symbol files for the symbol configuration tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "SymbolConfigDll.h"
#include "WideConv.h"

namespace symtest {

// A directory of its own per test, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvsym-XXXXXX").string();
    char* made = mkdtemp(pattern.data());
    if (made != nullptr) m_path = made;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
  }
  std::string Write(const std::string& name, const std::string& content) const {
    const std::string path = m_path + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string Path(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

inline std::wstring Wide(const std::string& path) { return qorvarlok::platform::narrowToWide(path.c_str()); }

// 1-based line of the first line that contains the marker; 0 if none.
inline int LineOf(const std::string& text, const std::string& marker) {
  const size_t at = text.find(marker);
  if (at == std::string::npos) return 0;
  int line = 1;
  for (size_t i = 0; i < at; ++i)
    if (text[i] == '\n') ++line;
  return line;
}

inline const char* kHeader =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<Symbolconfiguration>\n"
    "  <Header>\n"
    "    <Version>1.0.0.0</Version>\n"
    "    <SymbolConfigObject compiler=\"1.2.3.4\" runtimeid=\"1.2.3.4\" profile=\"standard\"/>\n"
    "    <ProjectInfo name=\"Demo\"/>\n"
    "  </Header>\n";

// A document with the given type elements and the groups below App.GVL
// (variables), each given as XML lines.
inline std::string Document(const std::string& types, const std::string& variables) {
  return std::string(kHeader) + "  <TypeList>\n" + types + "  </TypeList>\n  <NodeList>\n    <Node name=\"App\">\n" +
         "      <Node name=\"GVL\">\n" + variables + "      </Node>\n    </Node>\n  </NodeList>\n" +
         "</Symbolconfiguration>\n";
}

inline const char* kSmallTypes =
    "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
    "    <TypeSimple name=\"T_STR\" size=\"81\" iecname=\"STRING\" typeclass=\"String\"/>\n"
    "    <TypeUserDef name=\"T_POINT\" size=\"8\" iecname=\"POINT\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"x\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
    "      <UserDefElement iecname=\"y\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeArray name=\"T_ARR\" size=\"48\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_POINT\">\n"
    "      <ArrayDim minrange=\"0\" maxrange=\"1\"/>\n"
    "      <ArrayDim minrange=\"1\" maxrange=\"3\"/>\n"
    "    </TypeArray>\n";

inline const char* kSmallVariables =
    "        <Node name=\"speed\" type=\"T_DINT\" access=\"ReadWrite\"><Comment>motor speed</Comment></Node>\n"
    "        <Node name=\"grid\" type=\"T_ARR\" access=\"Read\"/>\n";

inline std::string SmallFile() { return Document(kSmallTypes, kSmallVariables); }

// Owns a TagsConfig read through the internal entry.
struct OpenedConfig {
  qorvarlok::symbols::TagsConfig* config = nullptr;
  unsigned int code = 0;
  explicit OpenedConfig(const std::string& path) { config = qorvarlok::symbols::ReadSymbolConfig(Wide(path), &code); }
  ~OpenedConfig() { delete config; }
  OpenedConfig(const OpenedConfig&) = delete;
  OpenedConfig& operator=(const OpenedConfig&) = delete;
};

}  // namespace symtest
