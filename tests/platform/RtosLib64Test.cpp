// libRtosLib64 against a real RtosHost: finding, sizing and mapping areas,
// events across processes, liveness, and the results for bad input.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "PlatformTestSupport.h"
#include "RtosHost.h"
#include "RtosLib64.h"
#include "RtosObjects.h"

using namespace qorvarlok::rtos;
using platformtest::ReadyPipe;
using platformtest::ScopedPartition;
using platformtest::Spawn;
using platformtest::WaitChild;

extern "C" uint32_t RtosLib64CallsFromC(uint32_t results[4]);

namespace {

RtosHostOptions SmallAreas(uint32_t connect = 512, uint32_t notify = 4096, uint32_t dataSwap = 8192) {
  RtosHostOptions options;
  options.connectAreaSize = connect;
  options.notifyAreaSize = notify;
  options.dataSwapAreaSize = dataSwap;
  options.claimTimeoutMs = 50;
  return options;
}

std::unique_ptr<RtosHost> StartHost(const RtosHostOptions& options = SmallAreas()) {
  RtosHostStatus status;
  auto host = RtosHost::Create(options, &status);
  EXPECT_NE(host, nullptr) << status.message;
  return host;
}

RTOS_EVENT OpenEvent(const char* name) {
  RTOS_EVENT event = nullptr;
  EXPECT_EQ(RtosOpenEvent(0, 0, name, &event), 0u) << name;
  return event;
}

int64_t ElapsedMs(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

TEST(RtosLib64, ResultsForBadInputAndMissingObjects) {
  ScopedPartition partition("bad");
  uint32_t id = 99;
  RTOS_EVENT event = reinterpret_cast<RTOS_EVENT>(1);
  // With no controller, a missing object means the partition is down.
  EXPECT_EQ(RtosIsAlive(), 0u);
  EXPECT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), RTE_ERROR_PARTITION_DOWN);
  EXPECT_EQ(id, 0u);
  EXPECT_EQ(RtosOpenEvent(0, 0, "EVENT_CONNECT_RTOS2WIN", &event), RTE_ERROR_PARTITION_DOWN);
  EXPECT_EQ(event, nullptr);

  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  uint32_t size = 0;
  void* address = nullptr;
  struct Case {
    const char* what;
    uint32_t result;
    uint32_t expected;
  };
  const Case cases[] = {
      {"missing area", RtosQueryShmId(L"NoSuchArea", 4, &id), RTE_ERROR_NOT_FOUND},
      {"missing event", RtosOpenEvent(0, 0, "EVENT_NOSUCH", &event), RTE_ERROR_NOT_FOUND},
      {"area name with slash", RtosQueryShmId(L"Connect/Area", 4, &id), RTE_ERROR_INVALID_PARAMETER},
      {"area name not ASCII", RtosQueryShmId(L"Conn\u00e9ctArea", 4, &id), RTE_ERROR_INVALID_PARAMETER},
      {"empty area name", RtosQueryShmId(L"", 4, &id), RTE_ERROR_INVALID_PARAMETER},
      {"null area name", RtosQueryShmId(nullptr, 4, &id), RTE_ERROR_INVALID_PARAMETER},
      {"null id", RtosQueryShmId(L"ConnectArea", 4, nullptr), RTE_ERROR_INVALID_PARAMETER},
      {"null event name", RtosOpenEvent(0, 0, nullptr, &event), RTE_ERROR_INVALID_PARAMETER},
      {"null event out", RtosOpenEvent(0, 0, "EVENT_CONNECT_RTOS2WIN", nullptr), RTE_ERROR_INVALID_PARAMETER},
      {"area opened as event", RtosOpenEvent(0, 0, "ConnectArea", &event), RTE_ERROR_NOT_FOUND},
      {"send null event", RtosSendEvent(nullptr), RTE_ERROR_INVALID_PARAMETER},
      {"wait null event", RtosWaitEvent(nullptr, 0), RTE_ERROR_INVALID_PARAMETER},
      {"size of unknown id", RtosQueryShmSize(12345, &size), RTE_ERROR_INVALID_PARAMETER},
      {"size of id 0", RtosQueryShmSize(0, &size), RTE_ERROR_INVALID_PARAMETER},
      {"size to null", RtosQueryShmSize(1, nullptr), RTE_ERROR_INVALID_PARAMETER},
      {"map unknown id", RtosMapShm(12345, 0, 512, nullptr, &address), RTE_ERROR_INVALID_PARAMETER},
      {"map to null", RtosMapShm(1, 0, 512, nullptr, nullptr), RTE_ERROR_INVALID_PARAMETER},
  };
  for (const Case& c : cases) EXPECT_EQ(c.result, c.expected) << c.what;
  EXPECT_EQ(address, nullptr);

  ASSERT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), 0u);
  EXPECT_EQ(RtosMapShm(id, 0, 0, nullptr, &address), RTE_ERROR_INVALID_PARAMETER) << "length 0";
  EXPECT_EQ(RtosMapShm(id, 100, 512, nullptr, &address), RTE_ERROR_INVALID_PARAMETER) << "offset off a page";
}

TEST(RtosLib64, UnusablePartitionNamesAreRefused) {
  const std::string longName(201, 'p');
  const char* names[] = {"", "a/b", "sp ace", "tab\tname", longName.c_str()};
  for (const char* name : names) {
    setenv("VARLOK_PARTITION", name, 1);
    uint32_t id = 7;
    EXPECT_EQ(RtosInit(), RTE_ERROR_INVALID_PARAMETER) << '"' << name << '"';
    EXPECT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), RTE_ERROR_INVALID_PARAMETER) << name;
    EXPECT_EQ(RtosIsAlive(), 0u) << name;
    EXPECT_EQ(RtosPartitionName(), nullptr) << name;
    RtosHostOptions options;
    options.partition = name;
    RtosHostStatus status;
    if (*name != '\0') {
      EXPECT_EQ(RtosHost::Create(options, &status), nullptr) << name;
      EXPECT_EQ(status.code, RtosHostError::InvalidPartition) << name;
    }
  }
  unsetenv("VARLOK_PARTITION");
  EXPECT_EQ(RtosInit(), 0u);
  EXPECT_STREQ(RtosPartitionName(), "varlok");
}

TEST(RtosLib64, AreasAreFoundSizedAndSharedByteForByte) {
  ScopedPartition partition("areas");
  auto host = StartHost(SmallAreas(512, 4096, 8192));
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(RtosInit(), 0u);
  EXPECT_EQ(RtosInit(), 0u) << "a repeated init is harmless";
  EXPECT_NE(RtosIsAlive(), 0u);
  const struct {
    const wchar_t* name;
    Channel channel;
    uint32_t size;
  } areas[] = {{L"ConnectArea", Channel::Connect, 512},
               {L"NotifyArea", Channel::Notify, 4096},
               {L"DataSwapArea", Channel::DataSwap, 8192}};
  for (const auto& area : areas) {
    uint32_t id = 0, again = 0, size = 0, reserved = 77;
    ASSERT_EQ(RtosQueryShmId(area.name, 4, &id), 0u);
    ASSERT_EQ(RtosQueryShmId(area.name, 4, &again), 0u);
    EXPECT_EQ(id, again) << "a repeated query keeps the id";
    ASSERT_EQ(RtosQueryShmSize(id, &size), 0u);
    EXPECT_EQ(size, area.size);
    // The client maps its fixed length even over a smaller area.
    void* mapped = nullptr;
    ASSERT_EQ(RtosMapShm(id, 0, 0x500000, &reserved, &mapped), 0u);
    EXPECT_EQ(reserved, 0u);
    auto* client = static_cast<uint8_t*>(mapped);
    uint8_t* controller = host->Area(area.channel);
    EXPECT_EQ(host->AreaSize(area.channel), area.size);
    const uint8_t request[] = {0x01, 0x00, 0x00, 0x00, 0xE8, 0x03, 0x00, 0x00};
    std::memcpy(client + 3, request, sizeof request);  // odd offset, as in the slots
    EXPECT_EQ(std::memcmp(controller + 3, request, sizeof request), 0);
    controller[area.size - 1] = 0xA5;
    EXPECT_EQ(client[area.size - 1], 0xA5);
  }
  struct stat info {};
  ASSERT_EQ(stat(partition.ShmPath("DataSwapArea").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666u) << "any user's client may open the areas";
}

TEST(RtosLib64, EventSignalledInOneProcessWakesWaiterInAnother) {
  ScopedPartition partition("xwake");
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  RTOS_EVENT request = OpenEvent("EVENT_DATASWAP_WIN2RTOS");
  RTOS_EVENT answer = OpenEvent("EVENT_DATASWAP_RTOS2WIN");
  ASSERT_NE(answer, nullptr);
  uint32_t id = 0;
  void* mapped = nullptr;
  ASSERT_EQ(RtosQueryShmId(L"DataSwapArea", 4, &id), 0u);
  ASSERT_EQ(RtosMapShm(id, 0, 8192, nullptr, &mapped), 0u);
  auto* slot = static_cast<uint8_t*>(mapped);

  // The child is a client: it writes a request, signals, and waits for the
  // controller (this process) to answer by changing the byte.
  for (uint32_t spin : {0u, 50u}) {
    slot[4] = 1;
    const pid_t child = Spawn([&] {
      RtosSetEventSpin(spin);
      if (RtosSendEvent(request) != 0) return 10;
      if (RtosWaitEvent(answer, 3000) != 0) return 11;
      return slot[4] == 0x81 ? 0 : 12;
    });
    EXPECT_EQ(host->WaitRequest(Channel::DataSwap, 3000), 0u) << "spin " << spin;
    EXPECT_EQ(slot[4], 1);
    // Late enough that the child is asleep, not spinning: the wake must cross.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    slot[4] = 0x81;
    EXPECT_EQ(host->SignalAnswer(Channel::DataSwap), 0u);
    EXPECT_TRUE(WaitChild(child, 5000).Exited(0)) << "spin " << spin;
  }
}

TEST(RtosLib64, EventsAreAutoResetAndKeepASignalUntilWaited) {
  ScopedPartition partition("autoreset");
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  RTOS_EVENT answer = OpenEvent("EVENT_NOTIFY_RTOS2WIN");
  RTOS_EVENT other = OpenEvent("EVENT_CONNECT_RTOS2WIN");
  ASSERT_NE(answer, nullptr);
  const uint32_t previous = RtosSetEventSpin(0);
  // Two sends before a wait collapse into one signal, and one wait consumes it.
  host->SignalAnswer(Channel::Notify);
  host->SignalAnswer(Channel::Notify);
  EXPECT_EQ(RtosWaitEvent(answer, 0), 0u);
  EXPECT_EQ(RtosWaitEvent(answer, 0), RTE_ERROR_TIMEOUT);
  EXPECT_EQ(RtosWaitEvent(other, 0), RTE_ERROR_TIMEOUT) << "events are separate";
  // The host's side is auto-reset too.
  RTOS_EVENT request = OpenEvent("EVENT_NOTIFY_WIN2RTOS");
  EXPECT_EQ(RtosSendEvent(request), 0u);
  EXPECT_EQ(host->WaitRequest(Channel::Notify, 0), 0u);
  EXPECT_EQ(host->WaitRequest(Channel::Notify, 0), RTE_ERROR_TIMEOUT);
  // A second open of the same object gives the same handle.
  RTOS_EVENT second = OpenEvent("EVENT_NOTIFY_RTOS2WIN");
  EXPECT_EQ(second, answer);
  host->SignalAnswer(Channel::Notify);
  EXPECT_EQ(RtosWaitEvent(second, 0), 0u);
  EXPECT_EQ(RtosWaitEvent(answer, 0), RTE_ERROR_TIMEOUT);
  RtosSetEventSpin(previous);
}

TEST(RtosLib64, TimedOutWaitReturnsTimeoutOnTime) {
  ScopedPartition partition("timeout");
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  RTOS_EVENT answer = OpenEvent("EVENT_CONNECT_RTOS2WIN");
  ASSERT_NE(answer, nullptr);
  for (uint32_t spin : {0u, 50u}) {
    RtosSetEventSpin(spin);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RtosWaitEvent(answer, 60), RTE_ERROR_TIMEOUT);
    const int64_t elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, 60) << "spin " << spin;
    EXPECT_LT(elapsed, 400) << "spin " << spin;
  }
  RtosSetEventSpin(50);
  // A signal from another thread in the middle of the wait ends it early.
  std::thread signaller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    host->SignalAnswer(Channel::Connect);
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RtosWaitEvent(answer, 2000), 0u);
  EXPECT_LT(ElapsedMs(start), 1000);
  signaller.join();
}

TEST(RtosLib64, KilledControllerIsDeadAtOnceAndItsLeftoversAreCleaned) {
  // The next controller may arrive before or after a client has looked.
  for (bool clientLooksFirst : {true, false}) {
    ScopedPartition partition("kill9");
    ReadyPipe ready;
    const pid_t controller = Spawn([&] {
      auto host = RtosHost::Create(SmallAreas(), nullptr);
      if (host == nullptr) return 1;
      ready.Signal();
      pause();
      return 0;
    });
    ASSERT_EQ(ready.Wait(3000), 'r');
    EXPECT_EQ(RtosIsAlive(), 1u);
    // A second controller on a live partition is refused.
    RtosHostStatus status;
    EXPECT_EQ(RtosHost::Create(SmallAreas(), &status), nullptr);
    EXPECT_EQ(status.code, RtosHostError::PartitionBusy);
    EXPECT_NE(status.message.find("pid " + std::to_string(controller)), std::string::npos) << status.message;

    kill(controller, SIGKILL);
    EXPECT_TRUE(WaitChild(controller, 3000).Signalled(SIGKILL));
    if (clientLooksFirst) {
      EXPECT_EQ(RtosIsAlive(), 0u) << "no grace period after kill -9";
      uint32_t id = 0;
      EXPECT_EQ(RtosQueryShmId(L"NoSuchArea", 4, &id), RTE_ERROR_PARTITION_DOWN);
    }
    // The next controller takes the partition over and starts from fresh objects.
    struct stat before {};
    ASSERT_EQ(stat(partition.ShmPath("DataSwapArea").c_str(), &before), 0) << "the crash left its area";
    auto host = RtosHost::Create(SmallAreas(), &status);
    ASSERT_NE(host, nullptr) << status.message;
    EXPECT_TRUE(status.cleanedLeftovers) << clientLooksFirst;
    EXPECT_EQ(RtosIsAlive(), 1u);
    struct stat after {};
    ASSERT_EQ(stat(partition.ShmPath("DataSwapArea").c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
  }
}

TEST(RtosLib64, EndedControllerRemovesWhatItCreated) {
  ScopedPartition partition("clean");
  RtosHostStatus status;
  RTOS_EVENT old = nullptr;
  {
    auto host = RtosHost::Create(SmallAreas(), &status);
    ASSERT_NE(host, nullptr) << status.message;
    EXPECT_FALSE(status.cleanedLeftovers);
    EXPECT_EQ(RtosIsAlive(), 1u);
    // A refused second controller must not remove the first one's objects.
    EXPECT_EQ(RtosHost::Create(SmallAreas(), nullptr), nullptr);
    EXPECT_EQ(RtosIsAlive(), 1u);
    uint32_t id = 0;
    EXPECT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), 0u);
    old = OpenEvent("EVENT_CONNECT_RTOS2WIN");
  }
  EXPECT_EQ(RtosIsAlive(), 0u);
  for (const char* object : {"ConnectArea", "NotifyArea", "DataSwapArea", "EVENT_CONNECT_WIN2RTOS",
                             "EVENT_DATASWAP_RTOS2WIN", "rtos-alive"}) {
    struct stat info {};
    EXPECT_NE(stat(partition.ShmPath(object).c_str(), &info), 0) << object;
  }
  RTOS_EVENT event = nullptr;
  EXPECT_EQ(RtosOpenEvent(0, 0, "EVENT_CONNECT_RTOS2WIN", &event), RTE_ERROR_PARTITION_DOWN);
  // A clean end leaves nothing to clean for the next one.
  auto next = RtosHost::Create(SmallAreas(), &status);
  ASSERT_NE(next, nullptr);
  EXPECT_FALSE(status.cleanedLeftovers);
  // The new controller's event is a new object with a handle of its own.
  RTOS_EVENT fresh = OpenEvent("EVENT_CONNECT_RTOS2WIN");
  EXPECT_NE(fresh, old);
  next->SignalAnswer(Channel::Connect);
  EXPECT_EQ(RtosWaitEvent(old, 0), RTE_ERROR_TIMEOUT);
  EXPECT_EQ(RtosWaitEvent(fresh, 0), 0u);
}

TEST(RtosLib64, HostRefusesZeroSizedAreas) {
  ScopedPartition partition("zero");
  RtosHostStatus status;
  EXPECT_EQ(RtosHost::Create(SmallAreas(0, 4096, 4096), &status), nullptr);
  EXPECT_EQ(status.code, RtosHostError::InvalidSize);
  EXPECT_EQ(RtosIsAlive(), 0u) << "a refused start holds nothing";
}

TEST(RtosLib64, FailedSpinsAreFollowedByGrowingRunsOfWaitsThatSleepAtOnce) {
  detail::SpinGovernor governor;
  // Each step: the outcome of a spin, then how many waits must skip spinning.
  const struct {
    bool caught;
    int skipped;
  } steps[] = {{false, 1}, {false, 3}, {false, 7}, {true, 0}, {false, 1},
               {false, 3}, {false, 7}, {false, 15}, {false, 31}, {false, 63}, {false, 63}};
  for (size_t i = 0; i < sizeof steps / sizeof steps[0]; ++i) {
    ASSERT_TRUE(governor.ShouldSpin()) << "step " << i;
    governor.Record(steps[i].caught);
    for (int k = 0; k < steps[i].skipped; ++k) ASSERT_FALSE(governor.ShouldSpin()) << "step " << i << " wait " << k;
  }
  EXPECT_TRUE(governor.ShouldSpin());
}

TEST(RtosLib64, CallableFromC) {
  ScopedPartition partition("fromc");
  uint32_t results[4] = {9, 9, 9, 9};
  EXPECT_EQ(RtosLib64CallsFromC(results), 0u);
  EXPECT_EQ(results[0], 0u);
  EXPECT_EQ(results[1], 0u);
  EXPECT_EQ(results[2], RTE_ERROR_PARTITION_DOWN);
  EXPECT_EQ(results[3], RTE_ERROR_PARTITION_DOWN);
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  EXPECT_NE(RtosLib64CallsFromC(results), 0u);
  const uint32_t up[4] = {0, 1, 0, 0};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(results[i], up[i]) << i;
}
