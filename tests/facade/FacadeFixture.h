// Shared set-up of the facade's tests: a real symbol file on disk, a fake
// backend behind every new object, and the log capture.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "FakeBackend.h"
#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "TestSystem.h"
#include "ZelVarlok_p.h"

namespace qvtest {

// Two DINTs and a STRING under App.GVL.
struct SymbolFile {
  SymbolFile() {
    path = testsys::MakeTempDir("qv_facade_") + "/symbols.xml";
    std::ofstream(path) << R"(<?xml version="1.0" encoding="utf-8"?>
<Symbolconfiguration><Header><Version>1.0.0.0</Version>
<SymbolConfigObject compiler="1.2.3.4" runtimeid="1.2.3.4" profile="standard"/><ProjectInfo name="Demo"/></Header>
<TypeList><TypeSimple name="T_DINT" size="4" iecname="DINT" typeclass="DInt"/>
<TypeSimple name="T_STR" size="81" iecname="STRING" typeclass="String"/></TypeList><NodeList>
<Node name="App"><Node name="GVL"><Node name="speed" type="T_DINT" access="ReadWrite"/>
<Node name="count" type="T_DINT" access="ReadWrite"/><Node name="label" type="T_STR" access="ReadWrite"/>
</Node></Node></NodeList></Symbolconfiguration>)";
  }
  ~SymbolFile() { std::filesystem::remove_all(std::filesystem::path(path).parent_path(), m_ignored); }
  std::wstring WidePath() const { return std::wstring(path.begin(), path.end()); }
  std::string path;
  std::error_code m_ignored;
};

// Every object made while the fixture lives gets a fresh fake backend.
class FacadeFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    log.Clear();
    qorvarlok::facade::SetVarlokFactoryForTests([this](ComType) {
      m_made.push_back(std::make_shared<FakeVarlok>());
      m_made.back()->codes = nextCodes;
      return m_made.back();
    });
  }
  void TearDown() override { qorvarlok::facade::SetVarlokFactoryForTests(nullptr); }
  // The i-th fake made (objects are initialised from the test's thread only); by default the latest.
  std::shared_ptr<FakeVarlok> Fake(int i = -1) { return m_made.at(i < 0 ? m_made.size() - 1 : size_t(i)); }
  size_t MadeCount() const { return m_made.size(); }
  void Connect(ZelVarlok& varlok) {
    unsigned int error = varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()) + 1;
    EXPECT_TRUE(varlok.ConnectToPlcDevice("Local", error) != nullptr && error == 0) << error;
  }
  HTAGLIST Create(ZelVarlok& varlok) {  // a list of one DINT; a failure shows in every step that uses it
    unsigned int error = 0;
    return varlok.CreateTagsHandleAnsi(std::string("App.GVL.speed"), error);
  }

  CaptureSink& log = Log();
  SymbolFile file;
  std::map<std::string, unsigned int> nextCodes;  // given to fakes made from now on
  std::vector<std::shared_ptr<FakeVarlok>> m_made;
};

// The text of a printf-style line that carries one pointer.
inline std::string Printf(const char* format, const void* p) {
  char buffer[512] = {0};
  return std::snprintf(buffer, sizeof(buffer), format, p), buffer;
}

}  // namespace qvtest
