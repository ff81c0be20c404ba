// Shared set-up of the facade's tests: a real symbol file on disk, a fake
// backend behind every new object, and the log capture.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FakeVarlok.h"
#include "QorVarlok/ZelVarlok.h"
#include "ZelVarlok_p.h"
#include "LogCapture.h"

namespace qvtest {

// Two DINTs, a STRING and a WSTRING under App.GVL.
inline const char* kSymbolXml = R"(<?xml version="1.0" encoding="utf-8"?>
<Symbolconfiguration>
  <Header>
    <Version>1.0.0.0</Version>
    <SymbolConfigObject compiler="1.2.3.4" runtimeid="1.2.3.4" profile="standard"/>
    <ProjectInfo name="Demo"/>
  </Header>
  <TypeList>
    <TypeSimple name="T_DINT" size="4" iecname="DINT" typeclass="DInt"/>
    <TypeSimple name="T_STR" size="81" iecname="STRING" typeclass="String"/>
    <TypeSimple name="T_WSTR" size="162" iecname="WSTRING" typeclass="WString"/>
  </TypeList>
  <NodeList>
    <Node name="App">
      <Node name="GVL">
        <Node name="speed" type="T_DINT" access="ReadWrite"/>
        <Node name="count" type="T_DINT" access="ReadWrite"/>
        <Node name="label" type="T_STR" access="ReadWrite"/>
        <Node name="wlabel" type="T_WSTR" access="ReadWrite"/>
      </Node>
    </Node>
  </NodeList>
</Symbolconfiguration>
)";

class SymbolFile {
 public:
  SymbolFile() {
    char pattern[] = "/tmp/qv_facade_XXXXXX";
    m_dir = mkdtemp(pattern) ? pattern : "/tmp";
    path = m_dir + "/symbols.xml";
    std::ofstream(path) << kSymbolXml;
  }
  ~SymbolFile() {
    std::remove(path.c_str());
    rmdir(m_dir.c_str());
  }
  std::wstring WidePath() const { return std::wstring(path.begin(), path.end()); }
  std::string path;

 private:
  std::string m_dir;
};

// Every object made while the fixture lives gets a fresh fake backend.
class FacadeFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    log.Clear();
    qorvarlok::facade::SetVarlokFactoryForTests([this](ComType) {
      auto fake = std::make_shared<FakeVarlok>();
      std::lock_guard<std::mutex> lock(m_madeMutex);
      for (const auto& [operation, code] : nextCodes) fake->SetCode(operation, code);
      made.push_back(fake);
      return fake;
    });
  }
  void TearDown() override { qorvarlok::facade::SetVarlokFactoryForTests(nullptr); }

  std::shared_ptr<FakeVarlok> Fake(size_t i = 0) {
    std::lock_guard<std::mutex> lock(m_madeMutex);
    return i < made.size() ? made[i] : nullptr;
  }
  size_t MadeCount() {
    std::lock_guard<std::mutex> lock(m_madeMutex);
    return made.size();
  }
  // Initialised and connected through a fake; the device comes back.
  void* Connect(ZelVarlok& varlok) {
    EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
    unsigned int error = 1;
    void* device = varlok.ConnectToPlcDevice("Local", error);
    EXPECT_EQ(0u, error);
    EXPECT_NE(nullptr, device);
    return device;
  }

  CaptureSink& log = Log();
  SymbolFile file;
  std::map<std::string, unsigned int> nextCodes;  // given to fakes made from now on
  std::vector<std::shared_ptr<FakeVarlok>> made;

 private:
  std::mutex m_madeMutex;
};

// The text a printf-style line carries for a handle.
inline std::string Printf(const char* format, const void* handle) {
  char buffer[512] = {0};
  std::snprintf(buffer, sizeof(buffer), format, handle);
  return buffer;
}

}  // namespace qvtest
