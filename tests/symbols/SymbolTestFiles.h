// Symbol files in a temporary directory of their own, read with the real reader.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "SymbolConfigDll.h"
#include "TestSystem.h"
#include "WideConv.h"

namespace symtest {

class TempDir {
 public:
  ~TempDir() { std::filesystem::remove_all(m_path, m_ignored); }
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
  }
  std::string Path(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path = testsys::MakeTempDir("qvsym-");
  std::error_code m_ignored;
};

inline std::wstring Wide(const std::string& path) { return qorvarlok::platform::narrowToWide(path.c_str()); }

inline const char* kHeader =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Symbolconfiguration>\n  <Header>\n    <Version>1.0.0.0</Version>\n"
    "    <SymbolConfigObject compiler=\"1.2.3.4\" runtimeid=\"1.2.3.4\" profile=\"standard\"/>\n"
    "    <ProjectInfo name=\"Demo\"/>\n  </Header>\n";

// A document with these type lines and these variable lines below App.GVL.
inline std::string Document(const std::string& types, const std::string& variables) {
  return std::string(kHeader) + "  <TypeList>\n" + types + "  </TypeList>\n  <NodeList>\n    <Node name=\"App\">\n" +
         "      <Node name=\"GVL\">\n" + variables + "      </Node>\n    </Node>\n  </NodeList>\n" +
         "</Symbolconfiguration>\n";
}

// speed, and grid: a 2x3 array of points.
inline std::string SmallFile() {
  return Document(R"(    <TypeSimple name="T_DINT" size="4" iecname="DINT" typeclass="DInt"/>
    <TypeUserDef name="T_POINT" size="8" iecname="POINT" typeclass="Userdef" pouclass="STRUCTURE">
      <UserDefElement iecname="x" type="T_DINT" vartype="VAR"/><UserDefElement iecname="y" type="T_DINT" vartype="VAR"/>
    </TypeUserDef>
    <TypeArray name="T_ARR" size="48" iecname="ARRAY" typeclass="Array" basetype="T_POINT">
      <ArrayDim minrange="0" maxrange="1"/><ArrayDim minrange="1" maxrange="3"/>
    </TypeArray>
)",
                  R"(<Node name="speed" type="T_DINT" access="ReadWrite"><Comment>motor speed</Comment></Node>
<Node name="grid" type="T_ARR" access="Read"/>
)");
}

inline std::vector<std::string> FullNames(const tagTagDesc* descs, unsigned int count) {
  std::vector<std::string> names;
  for (unsigned int i = 0; i < count; ++i) names.emplace_back(descs[i].FullName);
  return names;
}

// A TagsConfig read through the internal entry; null on failure.
inline std::unique_ptr<qorvarlok::symbols::TagsConfig> Read(const std::string& path, unsigned int* code = nullptr) {
  unsigned int ignored = 0;
  return std::unique_ptr<qorvarlok::symbols::TagsConfig>(
      qorvarlok::symbols::ReadSymbolConfig(Wide(path), code != nullptr ? code : &ignored));
}

}  // namespace symtest
