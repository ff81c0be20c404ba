// ShmComClient over the fake partition calls: set-up and its failures, the
// reconnect through GetInstance, the define limit, and the mapping of channel
// results in the three write operations.
#include <gtest/gtest.h>

#include <vector>

#include "FakeRtos.h"
#include "QorVarlok/ZelVarlok.h"
#include "ShmComClient.h"
#include "ShmProbe.h"
#include "LogCapture.h"

using namespace qorvarlok::shm;
using shmtest::FakeRtos;
using shmtest::FakeRtosScope;
using shmtest::WriteAt;
using spdlog::level::err;
using spdlog::level::info;

namespace {

class ShmComClientTest : public testing::Test {
 protected:
  void SetUp() override {
    shmtest::UseOwnPartition("shmunit");
    qvtest::Log().Clear();
    MapAreas();
  }
  void MapAreas() {
    fake->mapTo[L"ConnectArea"] = connect.data();
    fake->mapTo[L"NotifyArea"] = notify.data();
    fake->mapTo[L"DataSwapArea"] = dataSwap.data();
  }
  // A client that is not set up, with the fake's counters at zero.
  ShmComClient* Lost() {
    fake->Reset();
    MapAreas();
    ShmComClient* client = ShmComClient::GetInstance();
    EXPECT_NE(nullptr, client);
    ShmComClientProbe::MarkLost(client);
    fake->aliveCalls = fake->otherCalls = 0;
    fake->mapped.clear();
    qvtest::Log().Clear();
    return client;
  }

  FakeRtosScope fake;
  std::vector<unsigned char> connect = std::vector<unsigned char>(512, 0);
  std::vector<unsigned char> notify = std::vector<unsigned char>(0x500000, 0);
  std::vector<unsigned char> dataSwap = std::vector<unsigned char>(0x500000, 0);
};

TEST_F(ShmComClientTest, DownPartitionCallsNothingButIsAlive) {
  Lost();
  fake->alive = 0;
  EXPECT_EQ(nullptr, ShmComClient::GetInstance());
  EXPECT_EQ(nullptr, ShmComClient::GetInstance());
  EXPECT_EQ(2, fake->aliveCalls);
  EXPECT_EQ(0, fake->otherCalls);
}

TEST_F(ShmComClientTest, SetUpFailuresGiveNullAndTheNextCallMapsAgain) {
  struct Case {
    const char* name;
    std::function<void(FakeRtos&)> arrange;
    uint32_t ret;
    const char* errorLine;  // at error level, or null
  };
  const std::vector<Case> cases = {
      {"init", [](FakeRtos& f) { f.initResult = 5; }, 5, nullptr},
      {"query id", [](FakeRtos& f) { f.queryIdResult[L"NotifyArea"] = 0x77; }, 0x77,
       "Error (0x%X) querying '%s' shared memory id. Please ensure a shared memory with this name is configured for "
       "read and write by any OS."},
      {"connect area small", [](FakeRtos& f) { f.sizeOf[L"ConnectArea"] = 511; }, ERR_INSUFFICIENT_SHMAREA_SIZE,
       nullptr},
      {"notify area small", [](FakeRtos& f) { f.sizeOf[L"NotifyArea"] = 511; }, ERR_INSUFFICIENT_SHMAREA_SIZE,
       "Error querying size is lower than minmum."},
      {"map", [](FakeRtos& f) { f.mapResult = 9; }, 9, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ShmComClient* client = Lost();
    const auto before = client->DataSwapChannel();
    c.arrange(*fake);
    EXPECT_EQ(nullptr, ShmComClient::GetInstance());
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_TRUE(client->IsAnyStateDown());
    EXPECT_EQ(1u, qvtest::Log().CountOf(info, fmt::format("shm client has initialized ret = {}", c.ret),
                                        "ShmComClient::InitShmCom"));
    if (c.errorLine != nullptr) {
      EXPECT_EQ(1u, qvtest::Log().CountOf(err, c.errorLine));
    }
    if (c.ret == ERR_INSUFFICIENT_SHMAREA_SIZE && c.errorLine == nullptr) {
      EXPECT_EQ(0u, qvtest::Log().CountOf(err, "Error querying size is lower than minmum."));
    }
    // Back to health: the next call sets everything up again with new channels.
    fake->Reset();
    MapAreas();
    fake->sizeOf[L"NotifyArea"] = 512;  // exactly the smallest size passes
    EXPECT_EQ(client, ShmComClient::GetInstance());
    EXPECT_FALSE(client->IsAnyStateDown());
    EXPECT_NE(before, client->DataSwapChannel());
    EXPECT_EQ(dataSwap.data(), client->DataSwapChannel()->m_hShmDataSwap);
    const std::vector<std::pair<std::wstring, uint32_t>> lengths = {
        {L"ConnectArea", 512}, {L"NotifyArea", 0x500000}, {L"DataSwapArea", 0x500000}};
    EXPECT_EQ(lengths, fake->mapped);
  }
}

TEST_F(ShmComClientTest, SetUpLogsItsUnfilledTextsAndASetUpClientSkipsIsAlive) {
  Lost();
  ASSERT_NE(nullptr, ShmComClient::GetInstance());
  EXPECT_EQ(3u, qvtest::Log().CountOf(info, "  %-33s : "));
  EXPECT_EQ(3u, qvtest::Log().CountOf(info, "Ok - %u (0x%X) bytes"));
  fake->alive = 0;
  fake->aliveCalls = 0;
  EXPECT_NE(nullptr, ShmComClient::GetInstance());
  EXPECT_EQ(0, fake->aliveCalls);
}

TEST_F(ShmComClientTest, DefineLimitIsCheckedBeforeTheChannel) {
  Lost();
  ShmComClient* client = ShmComClient::GetInstance();
  ASSERT_NE(nullptr, client);
  fake->slot = notify.data();
  fake->snapshotLength = 16;
  fake->answer = [](unsigned char* s) { s[2] = 3; };
  defineCmd tooMany;
  tooMany.Flag = 1;
  tooMany.Size = 19860;
  EXPECT_EQ(ERR_TOO_MANY_TAGS, client->WriteDefineCmd(tooMany));
  EXPECT_TRUE(fake->sends.empty());
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "cmdSize =5243050> MAXSIZE_DEFINE_SHM", "ShmComClient::WriteDefineCmd"));
  defineCmd most;
  most.Flag = 1;
  most.Size = 19859;
  most.entries.resize(19859);
  EXPECT_EQ(0u, client->WriteDefineCmd(most));
  EXPECT_EQ(1u, fake->sends.size());
  EXPECT_EQ(19859u, shmtest::ReadAt<uint32_t>(fake->sends[0].data(), 8));
}

// Results of the three write operations for one channel outcome.
struct Mapping {
  const char* name;
  std::function<void(FakeRtos&)> arrange;
  bool deadArea;
  uint32_t connect, define, rw;
  bool stillInitialized;
};

TEST_F(ShmComClientTest, WriteOperationsMapChannelResults) {
  shmtest::DeadMapping dead(0x500000);
  const auto timeouts = [](FakeRtos& f) { f.waitResults = {4203, 4203, 4203, 4203, 4203}; };
  const std::vector<Mapping> cases = {
      {"refusal", [](FakeRtos& f) { f.answer = [](unsigned char* s) { WriteAt<uint32_t>(s, 12, 2); s[0] = 3; s[2] = 0; s[4] = 0; }; },
       false, 0, ERR_PLC_DEFINE_FAILED, ERR_PLC_READ_WRITE_FAILED, true},
      {"silent, partition alive", timeouts, false, ERR_RTOS_RECV_EVENT_FAILED, ERR_RTOS_RECV_EVENT_FAILED,
       ERR_RTOS_RECV_EVENT_FAILED, true},
      {"silent, partition gone",
       [timeouts](FakeRtos& f) {
         timeouts(f);
         f.alive = 0;
       },
       false, ERR_RTOS_UNAVAILABLE, ERR_RTOS_UNAVAILABLE, ERR_RTOS_UNAVAILABLE, true},
      {"mapping gone, partition alive", [](FakeRtos&) {}, true, ERR_RTOS_UNAVAILABLE, ERR_RTOS_UNAVAILABLE,
       ERR_RTOS_UNAVAILABLE, false},
  };
  for (const Mapping& c : cases) {
    for (int op = 0; op < 3; ++op) {
      SCOPED_TRACE(testing::Message() << c.name << " op " << op);
      ShmComClient* client = Lost();
      ASSERT_EQ(client, ShmComClient::GetInstance());
      c.arrange(*fake);
      uint32_t r = 0;
      if (op == 0) {
        fake->slot = connect.data();
        if (c.deadArea) client->ConnectChannel()->m_hShmDataSwap = dead.get();
        connectCmd cmd;
        cmd.Flag = 1;
        r = client->WriteConnectCmd(cmd);
        EXPECT_EQ(c.connect, r);
        if (c.connect == 0) {
          EXPECT_EQ(ERR_CONNECT_REFUSED_2, cmd.errInfo);
        }
      } else if (op == 1) {
        fake->slot = notify.data();
        if (c.deadArea) client->DefineChannel()->m_hShmDataSwap = dead.get();
        defineCmd cmd;
        cmd.Flag = 1;
        r = client->WriteDefineCmd(cmd);
        EXPECT_EQ(c.define, r);
      } else {
        fake->slot = dataSwap.data();
        if (c.deadArea) client->DataSwapChannel()->m_hShmDataSwap = dead.get();
        rwCmd cmd;
        cmd.Flag = cmd.Rw = 1;
        r = client->WriteRwCmd(cmd);
        EXPECT_EQ(c.rw, r);
      }
      EXPECT_EQ(c.stillInitialized, client->IsInitialized());
    }
  }
  EXPECT_TRUE(qvtest::Log().Contains("dataswap result = 1, cmd=[DataSwapCmd"));
}

}  // namespace
