// Symbol files written into a private temporary directory and read with the
// real reader, and a manager filled from them under its own instance id.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "SymbolConfigDll.h"
#include "TagsManager.h"

namespace qvtest {

inline std::string SymbolFile(const std::string& types, const std::string& variables) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Symbolconfiguration>\n"
         "<Header><Version>1.0.0.0</Version>"
         "<SymbolConfigObject compiler=\"1.2.3.4\" runtimeid=\"1.2.3.4\" profile=\"standard\"/>"
         "<ProjectInfo name=\"Demo\"/></Header>\n<TypeList>\n" +
         types + "</TypeList>\n<NodeList><Node name=\"App\"><Node name=\"GVL\">\n" + variables +
         "</Node></Node></NodeList>\n</Symbolconfiguration>\n";
}

// The small valid file of the reader: speed and a 2x3 array of points.
inline const std::string kPointTypes =
    "<TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
    "<TypeSimple name=\"T_STR\" size=\"81\" iecname=\"STRING\" typeclass=\"String\"/>\n"
    "<TypeUserDef name=\"T_POINT\" size=\"8\" iecname=\"POINT\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">"
    "<UserDefElement iecname=\"x\" type=\"T_DINT\" vartype=\"VAR\"/>"
    "<UserDefElement iecname=\"y\" type=\"T_DINT\" vartype=\"VAR\"/></TypeUserDef>\n"
    "<TypeArray name=\"T_ARR\" size=\"48\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_POINT\">"
    "<ArrayDim minrange=\"0\" maxrange=\"1\"/><ArrayDim minrange=\"1\" maxrange=\"3\"/></TypeArray>\n";
inline const std::string kPointVariables =
    "<Node name=\"speed\" type=\"T_DINT\" access=\"ReadWrite\"><Comment>motor speed</Comment></Node>\n"
    "<Node name=\"grid\" type=\"T_ARR\" access=\"Read\"/>\n";

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/qv-tags-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made != nullptr) m_path = made;
  }
  ~TempDir() {
    for (const std::string& file : m_files) std::remove(file.c_str());
    if (!m_path.empty()) rmdir(m_path.c_str());
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string Write(const std::string& name, const std::string& content) {
    const std::string path = m_path + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return std::string();
    std::fwrite(content.data(), 1, content.size(), f);
    std::fclose(f);
    m_files.push_back(path);
    return path;
  }

 private:
  std::string m_path;
  std::vector<std::string> m_files;
};

// Reads content as a symbol file, stamps instanceId on it and fills a
// manager with it. Fails the test when any step fails.
inline std::unique_ptr<qorvarlok::tags::TagsManager> FilledManager(const std::string& content, uint32_t instanceId) {
  TempDir dir;
  const std::string path = dir.Write("symbols.xml", content);
  unsigned int code = 0;
  qorvarlok::symbols::TagsConfig* config =
      qorvarlok::symbols::ReadSymbolConfig(std::wstring(path.begin(), path.end()), &code);
  EXPECT_NE(config, nullptr) << "read failed with 0x" << std::hex << code;
  if (config == nullptr) return nullptr;
  config->symbolConfiguration->SetInstanceId(instanceId);
  auto manager = std::make_unique<qorvarlok::tags::TagsManager>();
  manager->SetInstanceId(instanceId);
  EXPECT_EQ(manager->InitTagsManagerPrivate(config), 0u);
  return manager;
}

// Error lines logged by the tags manager since the last Clear.
inline size_t ManagerErrors() {
  Log().Drain();
  size_t n = 0;
  for (const LogRecord& r : Log().Snapshot())
    if (r.level == spdlog::level::err && r.function.rfind("TagsManager::", 0) == 0) ++n;
  return n;
}

}  // namespace qvtest
