// A real controller serving a partition of this test's own from threads of
// this process, and a ZelVarlok talking to it through COM_TYPE_LOCAL, the
// areas, events and named mutexes all real.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Controller.h"
#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "ShmProbe.h"
#include "ShmProject.h"
#include "SymbolConfigReader.h"

namespace shmtest {

using qorvarlok::controller::Controller;
using qorvarlok::rtos::Channel;

inline void RemoveNamedMutexesOf(const std::string& partition) {
  for (const char* m : {"Global_MUTEX_CONNECT", "Global_MUTEX_NOTIFY", "Global_MUTEX_DATASWAP"})
    shm_unlink(("/" + partition + "." + m).c_str());
}

class ShmFixture : public testing::Test {
 protected:
  virtual unsigned ManyCount() const { return 4; }

  void SetUp() override {
    static std::atomic<int> serial{0};
    partition = "shmint" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    setenv("VARLOK_PARTITION", partition.c_str(), 1);
    path = "/tmp/" + partition + ".xml";
    ASSERT_TRUE(WriteProject(path, ManyCount()));
    qorvarlok::symbols::SymbolConfigReader reader;
    char* message = nullptr;
    config.reset(reader.ReadFile(std::wstring(path.begin(), path.end()), &message));
    delete[] message;
    ASSERT_NE(nullptr, config);
    StartController();
    // A singleton left mapped to an earlier test's partition sets up anew.
    qorvarlok::shm::ShmComClientProbe::ForceNewSetUp();
    qvtest::Log().Clear();
  }

  void TearDown() override {
    varlok.reset();
    controller.reset();
    std::remove(path.c_str());
    RemoveNamedMutexesOf(partition);
  }

  void StartController() {
    qorvarlok::controller::ControllerOptions options;
    options.host.partition = partition;
    options.onVanish = [] {};
    std::string error;
    controller = Controller::Start(qorvarlok::controller::ProcessImage::Build(*config), options, &error);
    ASSERT_NE(nullptr, controller) << error;
  }

  // A ZelVarlok initialised and connected; seq is the client sequence granted.
  void Connect() {
    varlok = std::make_unique<ZelVarlok>();
    ASSERT_EQ(0u, varlok->InitializeCom(COM_TYPE_LOCAL, path.c_str()));
    unsigned int e = 1;
    device = varlok->ConnectToPlcDevice("Local", e);
    ASSERT_NE(nullptr, device);
    ASSERT_EQ(0u, e);
    seq = Load<uint32_t>(Channel::Connect, 4);
  }

  HTAGLIST Define(std::vector<std::string> names) {
    unsigned int e = 1;
    HTAGLIST h = varlok->CreateTagsHandle(std::move(names), e);
    EXPECT_EQ(0u, e);
    EXPECT_NE(nullptr, h);
    return h;
  }

  template <typename T>
  T Load(Channel channel, size_t offset) {
    T v;
    std::memcpy(&v, controller->Host().Area(channel) + offset, sizeof(T));
    return v;
  }

  // The bytes of a name in the controller's process image.
  template <typename T>
  T Image(const std::string& name) {
    qorvarlok::controller::Location loc;
    EXPECT_EQ(qorvarlok::controller::ResolveResult::Ok, controller->Image().Resolve(name, loc)) << name;
    T v{};
    std::memcpy(&v, controller->Image().Data() + loc.offset, std::min<size_t>(sizeof(T), loc.size));
    return v;
  }

  std::string partition;
  std::string path;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config;
  std::unique_ptr<Controller> controller;
  std::unique_ptr<ZelVarlok> varlok;
  uint32_t seq = 0;
  void* device = nullptr;
};

inline int32_t HandleNumber(HTAGLIST h) { return *static_cast<int32_t*>(h); }

}  // namespace shmtest
