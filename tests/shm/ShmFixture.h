// A real controller serving a partition of the test's own from threads of this
// process, a ZelVarlok talking to it through COM_TYPE_LOCAL, and helpers that
// run other processes.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include "Controller.h"
#include "FakeRtos.h"
#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "ShmProject.h"
#include "SimProcess.h"
#include "SymbolConfigReader.h"

namespace shmtest {

using qorvarlok::controller::Controller;
using qorvarlok::rtos::Channel;

class ShmFixture : public testing::Test {
 protected:
  virtual unsigned ManyCount() const { return 4; }
  void SetUp() override {
    static std::atomic<int> serial{0};
    partition = "shmint" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    setenv("VARLOK_PARTITION", partition.c_str(), 1);
    path = "/tmp/" + partition + ".xml";
    ASSERT_TRUE(WriteProject(path, ManyCount()));
    char* message = nullptr;
    config.reset(qorvarlok::symbols::SymbolConfigReader().ReadFile(std::wstring(path.begin(), path.end()), &message));
    delete[] message;
    ASSERT_NE(nullptr, config);
    StartController();
    // A singleton left mapped to an earlier test's partition sets up anew.
    if (auto* client = qorvarlok::shm::ShmComClient::GetInstance()) qorvarlok::shm::ShmComClientProbe::MarkLost(client);
    qvtest::Log().Clear();
  }
  void TearDown() override {
    varlok.reset(), controller.reset();
    std::remove(path.c_str()), RemoveNamedMutexes(partition);
  }
  void StartController() {
    qorvarlok::controller::ControllerOptions options;
    options.host.partition = partition;
    options.onVanish = [] {};
    std::string error;
    controller = Controller::Start(qorvarlok::controller::ProcessImage::Build(*config), options, &error);
    ASSERT_NE(nullptr, controller) << error;
  }
  // Initialised and connected; seq is the client sequence granted.
  void Connect() {
    varlok = std::make_unique<ZelVarlok>();
    ASSERT_EQ(0u, varlok->InitializeCom(COM_TYPE_LOCAL, path.c_str()));
    unsigned int e = 1;
    device = varlok->ConnectToPlcDevice("Local", e);
    ASSERT_NE(nullptr, device) << e;
    seq = controller ? Slot<uint32_t>(Channel::Connect, 4) : 0;
  }
  HTAGLIST Define(std::vector<std::string> names) {
    unsigned int e = 1;
    HTAGLIST h = varlok->CreateTagsHandle(std::move(names), e);
    EXPECT_TRUE(e == 0 && h != nullptr) << e;
    return h;
  }
  unsigned int Write(HTAGLIST h, std::vector<std::string> text) { return varlok->WriteTagList(h, text); }
  unsigned int Read(HTAGLIST h) {
    unsigned int count = 0;
    return varlok->ReadTagList(h, values, count);
  }
  template <typename T>
  T Slot(Channel channel, size_t offset) { return ReadAt<T>(controller->Host().Area(channel), offset); }
  // The value of a name in the controller's process image.
  template <typename T>
  T Image(const std::string& name) {
    qorvarlok::controller::Location loc;
    EXPECT_EQ(qorvarlok::controller::ResolveResult::Ok, controller->Image().Resolve(name, loc)) << name;
    return ReadAt<T>(controller->Image().Data(), loc.offset);
  }

  std::string partition, path;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config;
  std::unique_ptr<Controller> controller;
  std::unique_ptr<ZelVarlok> varlok;
  std::vector<tagTagVarValue> values;
  uint32_t seq = 0;
  void* device = nullptr;
};

inline int32_t HandleNumber(HTAGLIST h) { return *static_cast<int32_t*>(h); }

}  // namespace shmtest
