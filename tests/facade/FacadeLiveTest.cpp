// The exported class with its real shared-memory backend against a real
// controller serving a partition of its own from threads of this process.
#include <atomic>
#include <cstdlib>

#include "Controller.h"
#include "FacadeFixture.h"
#include "ProcessImage.h"
#include "SymbolConfigReader.h"

namespace qvtest {
namespace {

using namespace qorvarlok;

class FacadeLiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log.Clear();
    setenv("VARLOK_PARTITION", ("qvfacade-" + std::to_string(getpid())).c_str(), 1);
    symbols::SymbolConfigReader reader;
    char* message = nullptr;
    std::unique_ptr<symbols::SymbolConfiguration> document(reader.ReadFile(file.WidePath(), &message));
    delete[] message;
    ASSERT_NE(nullptr, document);
    controller::ControllerOptions options;
    options.host.partition = std::getenv("VARLOK_PARTITION");
    options.onVanish = [] {};
    std::string error;
    m_controller = controller::Controller::Start(controller::ProcessImage::Build(*document), options, &error);
    ASSERT_NE(nullptr, m_controller) << error;
  }

  CaptureSink& log = Log();
  SymbolFile file;
  std::unique_ptr<controller::Controller> m_controller;
};

TEST_F(FacadeLiveTest, TypedAndTextValuesMakeTheRoundTripThroughSharedMemory) {
  ZelVarlok varlok;
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  unsigned int error = 1;
  void* device = varlok.ConnectToPlcDevice("Local", error);
  ASSERT_NE(nullptr, device);
  ASSERT_EQ(0u, error);

  HTAGLIST handle = varlok.CreateTagsHandle(std::vector<std::string>{"App.GVL.speed", "App.GVL.label"}, error);
  ASSERT_NE(nullptr, handle);
  ASSERT_EQ(0u, error);
  EXPECT_EQ(2, varlok.GetTagsListLength(handle));

  std::vector<std::string> texts{"77", "world"};
  ASSERT_EQ(0u, varlok.WriteTagList(handle, texts));
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  ASSERT_EQ(0u, varlok.ReadTagList(handle, values, count));
  ASSERT_EQ(2u, count);
  EXPECT_EQ(77, *static_cast<int32_t*>(values[0].Value));
  EXPECT_STREQ("world", static_cast<const char*>(values[1].Value));

  ASSERT_EQ(0u, varlok.WriteTagValues(handle, int32_t{-1234}, std::string("hello")));
  int32_t speed = 0;
  std::string label;
  ASSERT_EQ(0u, varlok.ReadTagValues(handle, speed, label));
  EXPECT_EQ(-1234, speed);
  EXPECT_EQ(81u, label.size());  // the tag's whole text, NUL padding included
  EXPECT_STREQ("hello", label.c_str());

  // A wrong length for a plain value is the backend's refusal, passed on.
  int16_t tooShort = 0;
  EXPECT_EQ(ERR_UNMATCH_WITH_DEFINE, varlok.ReadTagValues(handle, tooShort, label));

  EXPECT_EQ(0u, varlok.DeleteTagsHandle(handle));
  EXPECT_EQ(ERR_INVALID_TAG_HANDLE, varlok.ReadTagList(handle, values, count));
  EXPECT_EQ(0u, varlok.DisconnectFromDevice(device));
  EXPECT_EQ(ERR_COMMUNICATION_NOT_INITIALIZED, varlok.ReadTagList(handle, values, count));
  EXPECT_EQ(0u, varlok.ExitVarlokCommunication());
}

}  // namespace
}  // namespace qvtest
