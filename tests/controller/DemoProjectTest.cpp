// The demo project's symbol file, read by the real reader: the layout rule
// must reproduce every size the file gives, and the demo task's three
// variables must be there with their types.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "LogCapture.h"
#include "ProcessImage.h"
#include "QorVarlok/ZelVarlok.h"
#include "SymbolConfigReader.h"

using namespace qorvarlok::controller;

namespace {

TEST(ControllerDemoProject, LayoutRuleReproducesEverySizeOfTheDemoFile) {
  const std::string path = std::string(QV_SOURCE_DIR) + "/examples/demo/Demo.xml";
  if (access(path.c_str(), R_OK) != 0) GTEST_SKIP() << path << " is not there yet";
  auto& log = qvtest::Log();
  log.Clear();
  qorvarlok::symbols::SymbolConfigReader reader;
  char* message = nullptr;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config(
      reader.ReadFile(std::wstring(path.begin(), path.end()), &message));
  delete[] message;
  ASSERT_NE(config, nullptr) << std::hex << reader.LastError();
  auto image = ProcessImage::Build(*config);
  EXPECT_FALSE(log.Contains("by the layout rule")) << "a size of the file that the rule does not reproduce";
  EXPECT_FALSE(log.Contains("not addressable"));
  EXPECT_FALSE(log.Contains("gets no storage"));
  struct Case {
    const char* name;
    int typeClass;
  };
  for (const Case& c : {Case{"App.GVL.counter", TAG_TYPE_DINT}, Case{"App.GVL.sine", TAG_TYPE_LREAL},
                        Case{"App.GVL.toggle", TAG_TYPE_BOOL}}) {
    Location at;
    ASSERT_EQ(image->Resolve(c.name, at), ResolveResult::Ok) << c.name;
    EXPECT_EQ(at.type->typeClass, c.typeClass) << c.name;
  }
}

}  // namespace
