// libRtosLib64 against a real RtosHost: bad input, areas shared byte for byte
// (also called from C), events across processes, the end of a controller.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <vector>

#include "FaultGuard.h"
#include "PlatformTestSupport.h"

using namespace qorvarlok::rtos;
using namespace platformtest;

extern "C" uint32_t RtosLib64CallsFromC(uint32_t results[4]);

TEST(RtosLib64, ClearResultsForBadInputMissingObjectsAndADownPartition) {
  ScopedPartition partition("bad");
  uint32_t id = 99, size = 0;
  RTOS_EVENT event = &id;
  void* address = nullptr;
  std::unique_ptr<RtosHost> host;
  const uint32_t down = RTE_ERROR_PARTITION_DOWN, missing = RTE_ERROR_NOT_FOUND, bad = RTE_ERROR_INVALID_PARAMETER;
  // up: a controller runs the partition. Out values are added in, so a result
  // that leaves them set fails the row.
#define ROW(up, expected, call) {#call, up, [&]() -> uint32_t { return call; }, expected}
  const struct { const char* call; bool up; std::function<uint32_t()> run; uint32_t expected; } cases[] = {
      ROW(false, 0, RtosIsAlive()),
      ROW(false, down, RtosQueryShmId(L"ConnectArea", 4, &id) + id),
      ROW(false, down, RtosOpenEvent(0, 0, "EVENT_CONNECT_RTOS2WIN", &event) + (event != nullptr)),
      ROW(true, missing, RtosQueryShmId(L"NoSuchArea", 4, &id) + id),
      ROW(true, missing, RtosOpenEvent(0, 0, "EVENT_NOSUCH", &event) + (event != nullptr)),
      ROW(true, missing, RtosOpenEvent(0, 0, "ConnectArea", &event)),
      ROW(true, bad, RtosQueryShmId(L"Connect/Area", 4, &id)),
      ROW(true, bad, RtosQueryShmId(L"Conn\u00e9ctArea", 4, &id)),
      ROW(true, bad, RtosQueryShmId(nullptr, 4, &id)),
      ROW(true, bad, RtosQueryShmId(L"ConnectArea", 4, nullptr)),
      ROW(true, bad, RtosOpenEvent(0, 0, nullptr, &event)),
      ROW(true, bad, RtosOpenEvent(0, 0, "EVENT_CONNECT_RTOS2WIN", nullptr)),
      ROW(true, bad, RtosSendEvent(nullptr)),
      ROW(true, bad, RtosWaitEvent(nullptr, 0)),
      ROW(true, bad, RtosQueryShmSize(0, &size)),
      ROW(true, bad, RtosQueryShmSize(1, nullptr)),
      ROW(true, bad, RtosMapShm(12345, 0, 512, nullptr, &address) + (address != nullptr)),
      ROW(true, bad, RtosMapShm(1, 0, 0, nullptr, &address)),
      ROW(true, bad, RtosMapShm(1, 100, 512, nullptr, &address)),
  };
#undef ROW
  for (const auto& c : cases) {
    if (c.up && host == nullptr) host = StartHost();
    ASSERT_TRUE(!c.up || host != nullptr);
    EXPECT_EQ(c.run(), c.expected) << c.call;
  }
  const std::string longName(201, 'p');
  // Unusable partition names, refused by the client and the controller alike.
  RtosHostOptions options;
  RtosHostStatus status;
  for (const char* name : {"", "a/b", "t\tb", longName.c_str()}) {
    setenv("VARLOK_PARTITION", name, 1);
    EXPECT_EQ(RtosInit(), bad) << name;
    EXPECT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), bad) << name;
    EXPECT_EQ(RtosIsAlive(), 0u) << name;
    EXPECT_EQ(RtosHost::Create(options, &status), nullptr) << name;
    EXPECT_EQ(status.code, RtosHostError::InvalidPartition) << name;
  }
  options.partition = partition.name + "z";
  options.connectAreaSize = 0;
  EXPECT_EQ(RtosHost::Create(options, &status), nullptr);
  EXPECT_EQ(status.code, RtosHostError::InvalidSize);
}

TEST(RtosLib64, AreasAreFoundSizedAndSharedByteForByteAlsoFromC) {
  ScopedPartition partition("areas");
  uint32_t fromC[4] = {9, 9, 9, 9};  // RtosInit, RtosIsAlive, RtosQueryShmId, RtosOpenEvent
  EXPECT_EQ(RtosLib64CallsFromC(fromC), 0u);
  EXPECT_EQ(std::vector<uint32_t>(fromC, fromC + 4), (std::vector<uint32_t>{0, 0, 4204, 4204}));
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  EXPECT_NE(RtosLib64CallsFromC(fromC), 0u);
  EXPECT_EQ(std::vector<uint32_t>(fromC, fromC + 4), (std::vector<uint32_t>{0, 1, 0, 0}));
  const struct { const wchar_t* name; Channel channel; uint32_t size; } areas[] = {{L"ConnectArea", Channel::Connect, 512},
               {L"NotifyArea", Channel::Notify, 4096},
               {L"DataSwapArea", Channel::DataSwap, 8192}};
  for (const auto& area : areas) {
    uint32_t size = 0, id = 0, again = 0;
    uint8_t* client = MapArea(area.name, &size);  // the client's fixed length, over a smaller area
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(size, area.size);
    EXPECT_TRUE(!RtosQueryShmId(area.name, 4, &id) && !RtosQueryShmId(area.name, 4, &again) && id == again);
    uint8_t* controller = host->Area(area.channel);
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

TEST(RtosLib64, EventsWakeAcrossProcessesResetThemselvesAndTimeOutOnTime) {
  ScopedPartition partition("xwake");
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  RTOS_EVENT request = OpenEvent("EVENT_DATASWAP_WIN2RTOS");
  RTOS_EVENT answer = OpenEvent("EVENT_DATASWAP_RTOS2WIN");
  uint8_t* slot = MapArea(L"DataSwapArea");
  ASSERT_NE(slot, nullptr);
  // The child is the client; this process, the controller, answers in the byte.
  for (uint32_t spin : {0u, 50u}) {
    slot[4] = 1;
    const pid_t child = Spawn([&] {
      RtosSetEventSpin(spin);
      if (RtosSendEvent(request) != 0) return 10;
      if (RtosWaitEvent(answer, 3000) != 0) return 11;
      return slot[4] == 0x81 ? 0 : 12;
    });
    EXPECT_EQ(host->WaitRequest(Channel::DataSwap, 3000), 0u) << "spin " << spin;
    // Late enough that the child sleeps rather than spins: the wake must cross.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    slot[4] = 0x81;
    EXPECT_EQ(host->SignalAnswer(Channel::DataSwap), 0u);
    EXPECT_TRUE(Exited(WaitChild(child, 5000), 0)) << "spin " << spin;
  }
  // Auto-reset: two sends before a wait collapse into one signal, one wait consumes it.
  RTOS_EVENT other = OpenEvent("EVENT_CONNECT_RTOS2WIN");
  const uint32_t previous = RtosSetEventSpin(0);
  host->SignalAnswer(Channel::DataSwap);
  host->SignalAnswer(Channel::DataSwap);
  EXPECT_EQ(RtosWaitEvent(answer, 0), 0u);
  EXPECT_EQ(RtosWaitEvent(answer, 0), RTE_ERROR_TIMEOUT);
  EXPECT_EQ(RtosWaitEvent(other, 0), RTE_ERROR_TIMEOUT) << "events are separate";
  for (uint32_t spin : {0u, 50u}) {  // a timed-out wait ends on time, spinning or not
    RtosSetEventSpin(spin);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RtosWaitEvent(answer, 60), RTE_ERROR_TIMEOUT);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(elapsed >= std::chrono::milliseconds(60) && elapsed < std::chrono::milliseconds(400)) << spin;
  }
  RtosSetEventSpin(previous);
}

// A controller that ends cleanly or is killed: clients see it dead at once, the
// next takes over, and a client's old mapping faults instead of talking to nobody.
TEST(RtosLib64, EndOfAControllerIsSeenAtOnceAndTheNextTakesOver) {
  enum End { Clean, KilledClientLooksFirst, KilledNextStartsFirst };
  for (End end : {Clean, KilledClientLooksFirst, KilledNextStartsFirst}) {
    ScopedPartition partition("end");
    const pid_t controller = SpawnHolder([] { return StartHost(); });
    ASSERT_GT(controller, 0);
    EXPECT_EQ(RtosIsAlive(), 1u);
    RtosHostStatus status;
    EXPECT_EQ(StartHost(&status), nullptr) << "a second controller on a live partition";
    EXPECT_EQ(status.code, RtosHostError::PartitionBusy);
    EXPECT_NE(status.message.find("pid " + std::to_string(controller)), std::string::npos) << status.message;
    uint8_t* slot = MapArea(L"DataSwapArea");
    ASSERT_NE(slot, nullptr);
    EXPECT_TRUE(qorvarlok::platform::RunFaultGuarded([&] { slot[0] = 1; })) << "the refused one removed nothing";
    RTOS_EVENT old = OpenEvent("EVENT_CONNECT_RTOS2WIN");

    kill(controller, end == Clean ? SIGUSR1 : SIGKILL);
    const int exit = WaitChild(controller, 3000);
    EXPECT_TRUE(end == Clean ? Exited(exit, 0) : Killed(exit, SIGKILL)) << end;
    EXPECT_TRUE(end == KilledNextStartsFirst || RtosIsAlive() == 0) << "no grace period, " << end;
    struct stat info {};
    EXPECT_EQ(stat(partition.ShmPath("DataSwapArea").c_str(), &info) == 0, end != Clean) << "leftovers " << end;
    auto next = StartHost(&status);
    ASSERT_NE(next, nullptr) << status.message;
    EXPECT_EQ(status.cleanedLeftovers, end != Clean);
    EXPECT_EQ(RtosIsAlive(), 1u);
    EXPECT_FALSE(qorvarlok::platform::RunFaultGuarded([&] { slot[0] = 1; })) << "old mapping, " << end;
    RTOS_EVENT fresh = OpenEvent("EVENT_CONNECT_RTOS2WIN");  // the new controller's object, not the old one
    next->SignalAnswer(Channel::Connect);
    EXPECT_EQ(RtosWaitEvent(old, 0), RTE_ERROR_TIMEOUT);
    EXPECT_EQ(RtosWaitEvent(fresh, 0), 0u);
  }
}
