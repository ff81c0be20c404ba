// The Windows platform layer: RtosLib64.dll by ordinal, our own DLL against
// the controller's host over named mappings and events, named mutexes with
// the system's own results, and the fault guard on the vectored handler.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "FaultGuard.h"
#include "NamedMutex.h"
#include "RtosApi.h"
#include "RtosHost.h"
#include "RtosLib64.h"
#include "TestSystem.h"

using namespace qorvarlok::platform;
using qorvarlok::rtos::Channel;
using qorvarlok::rtos::RtosHost;

extern "C" int ProbeGuardedClear(void* address, size_t length);

namespace {

struct ScopedPartition {
  explicit ScopedPartition(const std::string& tag) {
    static int serial = 0;
    name = "qvw" + std::to_string(testsys::ProcessId()) + "_" + tag + std::to_string(++serial);
    testsys::SetEnv("VARLOK_PARTITION", name);
  }
  ~ScopedPartition() { testsys::UnsetEnv("VARLOK_PARTITION"); }
  std::string name;
};

std::unique_ptr<RtosHost> StartHost(qorvarlok::rtos::RtosHostStatus* status = nullptr) {
  qorvarlok::rtos::RtosHostOptions options;
  options.notifyAreaSize = 4096;
  options.dataSwapAreaSize = 8192;
  options.claimTimeoutMs = 50;
  return RtosHost::Create(options, status);
}

TEST(WindowsRtos, TheEightCallsByTheirOrdinalsOnly) {
  HMODULE dll = ::LoadLibraryW(L"RtosLib64.dll");
  ASSERT_NE(dll, nullptr);
  for (WORD ordinal : {50, 54, 59, 60, 73, 82, 101, 102})
    EXPECT_NE(::GetProcAddress(dll, MAKEINTRESOURCEA(ordinal)), nullptr) << ordinal;
  EXPECT_EQ(::GetProcAddress(dll, "RtosInit"), nullptr) << "the vendor's names are not exported";
  const RtosApi api = RealRtosApi();  // what the library loads, by the same ordinals
  const auto address = [](auto function) { return reinterpret_cast<void*>(function); };
  EXPECT_EQ(address(api.IsAlive), address(::GetProcAddress(dll, MAKEINTRESOURCEA(73))));
  EXPECT_EQ(address(api.MapShm), address(::GetProcAddress(dll, MAKEINTRESOURCEA(101))));
}

TEST(WindowsRtos, ClientMeetsTheHostOverMappingsAndEvents) {
  ScopedPartition partition("host");
  EXPECT_EQ(RtosIsAlive(), 0u);
  uint32_t id = 0, size = 0, reserved = 7;
  EXPECT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), RTE_ERROR_PARTITION_DOWN);
  auto host = StartHost();
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(RtosIsAlive(), 1u);
  qorvarlok::rtos::RtosHostStatus busy;
  EXPECT_EQ(StartHost(&busy), nullptr);
  EXPECT_EQ(busy.message, "partition '" + partition.name + "' is held by the running controller pid " +
                              std::to_string(testsys::ProcessId()));

  // Exact sizes, not page multiples; the fixed length the client asks for is cut to the area.
  const struct { const wchar_t* name; uint32_t size; Channel channel; } areas[] = {
      {L"ConnectArea", 512, Channel::Connect}, {L"DataSwapArea", 8192, Channel::DataSwap}};
  for (const auto& a : areas) {
    void* address = nullptr;
    ASSERT_EQ(RtosQueryShmId(a.name, 4, &id) | RtosQueryShmSize(id, &size), 0u);
    EXPECT_EQ(size, a.size);
    ASSERT_EQ(RtosMapShm(id, 0, 0x500000, &reserved, &address), 0u);
    EXPECT_EQ(reserved, 0u);
    static_cast<uint8_t*>(address)[a.size - 1] = 0x5A;
    EXPECT_EQ(host->Area(a.channel)[a.size - 1], 0x5A) << "one memory for both sides";
  }
  EXPECT_EQ(RtosQueryShmId(L"NoSuchArea", 4, &id), RTE_ERROR_NOT_FOUND);
  EXPECT_EQ(RtosMapShm(99, 0, 16, nullptr, nullptr), RTE_ERROR_INVALID_PARAMETER);

  RTOS_EVENT tx = nullptr, rx = nullptr;
  ASSERT_EQ(RtosOpenEvent(0, 0, "EVENT_DATASWAP_WIN2RTOS", &tx) | RtosOpenEvent(0, 0, "EVENT_DATASWAP_RTOS2WIN", &rx),
            0u);
  EXPECT_EQ(RtosOpenEvent(0, 0, "EVENT_NONE", &tx), RTE_ERROR_NOT_FOUND);
  ASSERT_EQ(RtosOpenEvent(0, 0, "EVENT_DATASWAP_WIN2RTOS", &tx), 0u);
  EXPECT_EQ(RtosWaitEvent(rx, 20), RTE_ERROR_TIMEOUT);
  EXPECT_EQ(RtosSendEvent(tx), 0u);
  EXPECT_EQ(host->WaitRequest(Channel::DataSwap, 1000), 0u);
  EXPECT_EQ(host->WaitRequest(Channel::DataSwap, 10), RTE_ERROR_TIMEOUT) << "auto-reset";
  EXPECT_EQ(host->SignalAnswer(Channel::DataSwap), 0u);
  EXPECT_EQ(RtosWaitEvent(rx, 1000), 0u);

  host.reset();
  EXPECT_EQ(RtosIsAlive(), 0u);
  EXPECT_EQ(RtosQueryShmId(L"ConnectArea", 4, &id), RTE_ERROR_PARTITION_DOWN) << "held by us, but nobody serves it";
  EXPECT_FALSE(RtosHost::CanCutAreas());
}

TEST(WindowsRtos, AControllerThreadThatEndsHoldingThePartitionLeavesItFree) {
  ScopedPartition partition("abandon");
  const std::wstring name(partition.name.begin(), partition.name.end());
  // The marker abandoned, as by a killed controller: its holder ended holding it.
  std::thread([&] { ::CreateMutexW(nullptr, TRUE, (name + L".rtos-alive").c_str()); }).join();
  EXPECT_EQ(RtosIsAlive(), 0u);
  qorvarlok::rtos::RtosHostStatus status;
  auto host = StartHost(&status);
  ASSERT_NE(host, nullptr) << status.message;
  EXPECT_TRUE(status.cleanedLeftovers) << "a controller that died held it";
  EXPECT_EQ(RtosIsAlive(), 1u);
}

TEST(WindowsMutex, SystemResultsAbandonedStateAndTheLocalFallback) {
  const std::wstring name = L"Global\\qvt_mutex_" + std::to_wstring(testsys::ProcessId());
  EXPECT_EQ(OpenNamedMutex(name.c_str()), nullptr) << "not made yet";
  NamedMutexHandle made = CreateNamedMutex(name.c_str());
  NamedMutexHandle opened = OpenNamedMutex(name.c_str());
  ASSERT_TRUE(made != nullptr && opened != nullptr);
  EXPECT_EQ(WaitForNamedMutex(made, 0), kWaitObject0);
  EXPECT_EQ(WaitForNamedMutex(opened, 0), kWaitObject0) << "recursive, as any Windows mutex";
  uint32_t other = 0, otherError = 0;
  bool released = true;
  std::thread([&] {
    other = WaitForNamedMutex(opened, 30);
    released = ReleaseNamedMutex(opened);
    otherError = NamedMutexLastError();
  }).join();
  EXPECT_EQ(other, kWaitTimeout);
  EXPECT_FALSE(released);
  EXPECT_EQ(otherError, 288u) << "ERROR_NOT_OWNER";
  EXPECT_TRUE(ReleaseNamedMutex(made) && ReleaseNamedMutex(made));
  std::thread([&] { WaitForNamedMutex(opened, 0); }).join();  // ends holding it
  EXPECT_EQ(WaitForNamedMutex(made, 0), kWaitAbandoned);
  EXPECT_TRUE(ReleaseNamedMutex(made));
  EXPECT_EQ(WaitForNamedMutex(nullptr, 0), kWaitFailed);
  EXPECT_EQ(NamedMutexLastError(), 6u) << "ERROR_INVALID_HANDLE";

  // Made in the session's namespace (where the global one was refused): found under the global name.
  const std::wstring local = L"qvt_local_" + std::to_wstring(testsys::ProcessId());
  HANDLE sessionOnly = ::CreateMutexW(nullptr, FALSE, (L"Local\\" + local).c_str());
  NamedMutexHandle found = OpenNamedMutex((L"Global\\" + local).c_str());
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(WaitForNamedMutex(found, 0), kWaitObject0);
  EXPECT_EQ(::WaitForSingleObject(sessionOnly, 0), static_cast<DWORD>(WAIT_OBJECT_0)) << "the same mutex, recursively";
  ::ReleaseMutex(sessionOnly), ReleaseNamedMutex(found);
}

TEST(WindowsFaultGuard, GuardedFaultsBecomeResultsHereAndInADll) {
  void* dead = testsys::ReserveNoAccess(65536);
  void* readOnly = ::VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READONLY);
  uint8_t live[64] = {};
  ASSERT_TRUE(dead != nullptr && readOnly != nullptr);
  const struct { const char* where; bool (*clear)(void*, size_t); } writers[] = {
      {"executable", [](void* p, size_t n) { return RunFaultGuarded([&] { std::memset(p, 0, n); }); }},
      {"DLL at -O2", [](void* p, size_t n) { return ProbeGuardedClear(p, n) == 1; }},
  };
  for (const auto& writer : writers) {
    live[10] = 0x5A;
    EXPECT_TRUE(writer.clear(live, sizeof live)) << writer.where;
    EXPECT_EQ(live[10], 0) << writer.where;
    EXPECT_FALSE(writer.clear(dead, 65536)) << writer.where << ": no access";
    EXPECT_FALSE(writer.clear(readOnly, 16)) << writer.where << ": read-only";
    EXPECT_EQ(CurrentFaultGuardFrame(), nullptr) << writer.where << ": the frame is taken down";
  }
  bool inner = true;
  EXPECT_TRUE(RunFaultGuarded([&] { inner = RunFaultGuarded([&] { static_cast<volatile uint8_t*>(dead)[0] = 1; }); }));
  EXPECT_FALSE(inner);
  testsys::FreeNoAccess(dead, 65536);
  ::VirtualFree(readOnly, 0, MEM_RELEASE);
}

// Runs only as a helper process of the next test.
TEST(WindowsFaultGuardHelper, UnguardedFault) {
  if (std::getenv("QV_UNGUARDED_FAULT") == nullptr) GTEST_SKIP() << "helper of another test";
  InstallFaultGuard();
  static_cast<volatile uint8_t*>(testsys::ReserveNoAccess(4096))[0] = 1;
}

TEST(WindowsFaultGuard, FaultsOutsideAGuardEndTheProcessAsBefore) {
  testsys::Child child;
  testsys::ChildOptions options;
  options.env = {{"QV_UNGUARDED_FAULT", "1"}};
  char self[MAX_PATH] = {0};
  ::GetModuleFileNameA(nullptr, self, MAX_PATH);
  ASSERT_TRUE(child.Start(self, {"--gtest_filter=WindowsFaultGuardHelper.UnguardedFault"}, options));
  EXPECT_EQ(static_cast<uint32_t>(child.Wait(30000)), 0xC0000005u) << "EXCEPTION_ACCESS_VIOLATION";
}

}  // namespace
