// The three channels over the fake partition calls: slot bytes per attempt,
// answers, refusals, repeats, time-outs without waiting, failed sends and
// opens, unknown wait results, a mapping that faults, an abandoned mutex.
// The named mutexes are the real ones, in this process's own partition.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "ComThread.h"
#include "FakeRtos.h"
#include "NamedMutex.h"
#include "QorVarlok/ZelVarlok.h"
#include "LogCapture.h"

using namespace qorvarlok::shm;
using shmtest::FakeRtos;
using shmtest::FakeRtosScope;
using shmtest::ReadAt;
using shmtest::WriteAt;
using spdlog::level::err;
using spdlog::level::info;
using spdlog::level::warn;

namespace {

constexpr uint32_t kRecvFailed = ERR_RTOS_RECV_EVENT_FAILED;

class ChannelTest : public testing::Test {
 protected:
  void SetUp() override {
    shmtest::UseOwnPartition("shmunit");
    qvtest::Log().Clear();
  }
  FakeRtosScope fake;
  std::vector<unsigned char> area = std::vector<unsigned char>(0x500000, 0);
};

// ------------------------------------------------------------------ connect

struct ConnectCase {
  const char* name;
  uint32_t requestFlag;
  uint32_t requestSeq;
  std::deque<uint32_t> waits;
  uint32_t sendResult;
  ConnectAnswer answer;
  uint32_t result;
  ConnectAnswer record;  // Flag, seq, beat, errInfo of the record afterwards
  size_t sends;
  bool rtosError;
  std::vector<std::pair<spdlog::level::level_enum, std::string>> logs;
};

TEST_F(ChannelTest, ConnectAnswersRefusalsRepeatsAndFailures) {
  const std::vector<ConnectCase> cases = {
      {"connect", 1, 0, {}, 0, {3, 17, 1234, 0}, 0, {1, 17, 1234, 0}, 1, false,
       {{info, "[ConnectCmd beat=1000, errInfo=0, Flag=1, seq=0, SessionId=5]"}}},
      {"disconnect", 0, 17, {}, 0, {3, 17, 1, 0}, 0, {3, 17, 1, 0}, 1, false, {}},
      {"refused 2", 1, 0, {}, 0, {3, 0, 1, 2}, ERR_CONNECT_REFUSED_2, {1, 0, 1000, ERR_CONNECT_REFUSED_2}, 1, false,
       {{err, "WaitEvent, pFlag=3, pErr=2"}}},
      {"refused 3", 1, 0, {}, 0, {3, 0, 1, 3}, ERR_CONNECT_REFUSED_3, {1, 0, 1000, ERR_CONNECT_REFUSED_3}, 1, false,
       {}},
      {"refused 4", 1, 0, {}, 0, {3, 0, 1, 4}, ERR_CONNECT_REFUSED_4, {1, 0, 1000, ERR_CONNECT_REFUSED_4}, 1, false,
       {}},
      {"other answer flag", 1, 0, {}, 0, {5, 9, 1, 0}, 0, {1, 0, 1000, 0}, 1, false,
       {{err, "WaitEvent, pFlag=5, pErr=0"}}},
      {"good on third attempt", 1, 0, {4203, 4203}, 0, {3, 8, 2, 0}, 0, {1, 8, 2, 0}, 3, false,
       {{warn, "RTE_ERROR_TIMEOUT,E:0"}, {warn, "RTE_ERROR_TIMEOUT,E:268436230"}}},
      {"five time-outs", 1, 0, {4203, 4203, 4203, 4203, 4203}, 0, {3, 8, 2, 0}, kRecvFailed,
       {1, 0, 1000, kRecvFailed}, 5, true, {{warn, "RTE_ERROR_TIMEOUT,E:0"}}},
      {"unknown wait result", 1, 0, {77}, 0, {}, kRecvFailed, {1, 0, 1000, kRecvFailed}, 1, true,
       {{warn, "UnknownError(0x4D)"}}},
      {"send fails", 1, 0, {}, 9, {}, ERR_RTOS_SEND_EVENT_FAILED, {1, 0, 1000, ERR_RTOS_SEND_EVENT_FAILED}, 1, true,
       {{err, "SendEvent, Err:9"}}},
  };
  for (const ConnectCase& c : cases) {
    SCOPED_TRACE(c.name);
    qvtest::Log().Clear();
    fake->Reset();
    ConnectCmdThread channel;
    channel.Init();
    channel.m_hShmDataSwap = area.data();
    fake->slot = area.data();
    fake->waitResults = c.waits;
    fake->sendResult = c.sendResult;
    const ConnectAnswer a = c.answer;
    fake->answer = [a](unsigned char* s) {
      WriteAt(s, 4, a.seq);
      WriteAt(s, 8, a.beat);
      WriteAt(s, 12, a.errInfo);
      WriteAt(s, 0, a.Flag);
    };
    connectCmd cmd;
    cmd.Flag = c.requestFlag;
    cmd.seq = c.requestSeq;
    cmd.beat = 1000;
    cmd.SessionId = 5;
    EXPECT_EQ(c.result, channel.Async(cmd));
    EXPECT_EQ(c.record.Flag, cmd.Flag);
    EXPECT_EQ(c.record.seq, cmd.seq);
    EXPECT_EQ(c.record.beat, cmd.beat);
    EXPECT_EQ(c.record.errInfo, cmd.errInfo);
    EXPECT_EQ(5u, cmd.SessionId);
    ASSERT_EQ(c.sends, fake->sends.size());
    // The first attempt carries errInfo 0; every repeat carries 0x10000306.
    for (size_t i = 0; i < fake->sends.size(); ++i) {
      EXPECT_EQ(c.requestFlag, ReadAt<uint32_t>(fake->sends[i].data(), 0));
      EXPECT_EQ(1000u, ReadAt<uint32_t>(fake->sends[i].data(), 8));
      EXPECT_EQ(i == 0 ? 0u : kRecvFailed, ReadAt<uint32_t>(fake->sends[i].data(), 12));
    }
    EXPECT_EQ(c.rtosError, channel.RtosError());
    for (const auto& [level, text] : c.logs) EXPECT_GE(qvtest::Log().CountOf(level, text), 1u) << text;
    if (c.sends == 5) {
      EXPECT_EQ(4u, qvtest::Log().CountOf(warn, "RTE_ERROR_TIMEOUT,E:268436230"));
    }
  }
}

TEST_F(ChannelTest, ConnectWithMissingHandlesOrArea) {
  {  // null Rx: logged, then an unknown wait result of 1, no repeat
    ConnectCmdThread channel;
    channel.Init();
    channel.m_hShmDataSwap = area.data();
    channel.m_hEventRx = nullptr;
    fake->slot = area.data();
    connectCmd cmd;
    cmd.Flag = 1;
    EXPECT_EQ(kRecvFailed, channel.Async(cmd));
    EXPECT_EQ(1u, fake->sends.size());
    EXPECT_EQ(1u, qvtest::Log().CountOf(err, "WaitEvent, m_hEventRx==nullptr", "ConnectCmdThread::WaitEvent"));
    EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "UnknownError(0x1)", "ConnectCmdThread::runAsyncIntf"));
  }
  {  // null Tx: SendEvent gives 1 at once
    ConnectCmdThread channel;
    channel.Init();
    channel.m_hShmDataSwap = area.data();
    channel.m_hEventTx = nullptr;
    connectCmd cmd;
    EXPECT_EQ(ERR_RTOS_SEND_EVENT_FAILED, channel.Async(cmd));
    EXPECT_EQ(1u, qvtest::Log().CountOf(err, "SendEvent, Err:1"));
  }
  {  // first event fails to open: nothing else is opened, the null mutex fails the wait
    fake->openResult["EVENT_CONNECT_RTOS2WIN"] = 0x42;
    ConnectCmdThread channel;
    channel.Init();
    EXPECT_EQ(nullptr, channel.m_hEventTx);
    EXPECT_EQ(nullptr, channel.m_hMutex);
    EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "m_hEventRx,Error(0x42)", "ConnectCmdThread::Init"));
    channel.m_hShmDataSwap = area.data();
    connectCmd cmd;
    EXPECT_EQ(ERR_WAIT_TIMEOUT, channel.Async(cmd));
    EXPECT_EQ(1u, qvtest::Log().CountOf(err, "WaitForSingleObject,E: 4294967295", "ConnectCmdThread::Async"));
    fake->openResult.clear();
  }
  {  // no area: 0, nothing sent, and the mutex stays with this thread
    ConnectCmdThread channel;
    channel.Init();
    connectCmd cmd;
    fake->sends.clear();
    EXPECT_EQ(0u, channel.Async(cmd));
    EXPECT_TRUE(fake->sends.empty());
    EXPECT_EQ(1u, qvtest::Log().CountOf(err, "m_hShmDataSwap == nullptr", "ConnectCmdThread::Async"));
    EXPECT_TRUE(qorvarlok::platform::ReleaseNamedMutex(channel.m_hMutex));
  }
}

TEST_F(ChannelTest, AbandonedMutexGivesZeroAndSendsNothing) {
  ConnectCmdThread channel;
  channel.Init();
  channel.m_hShmDataSwap = area.data();
  fake->slot = area.data();
  // A thread that ends while owning the mutex leaves it abandoned.
  std::thread([h = channel.m_hMutex] { EXPECT_EQ(0u, qorvarlok::platform::WaitForNamedMutex(h, 1000)); }).join();
  connectCmd cmd;
  cmd.Flag = 1;
  cmd.seq = 44;
  EXPECT_EQ(0u, channel.Async(cmd));
  EXPECT_EQ(44u, cmd.seq);
  EXPECT_TRUE(fake->sends.empty());
  EXPECT_EQ(1u, qvtest::Log().CountOf(err, "WAIT_ABANDONED", "ConnectCmdThread::Async"));
  // Owned by this thread now, and not released by the channel.
  EXPECT_TRUE(qorvarlok::platform::ReleaseNamedMutex(channel.m_hMutex));
}

TEST_F(ChannelTest, SlotWriteFaultGivesOneOrUnavailableAndLeavesRecords) {
  shmtest::DeadMapping dead(0x500000);
  for (uint32_t alive : {1u, 0u}) {
    SCOPED_TRACE(alive);
    fake->alive = alive;
    const uint32_t expected = alive != 0 ? 1u : ERR_RTOS_UNAVAILABLE;
    ConnectCmdThread connect;
    connect.Init();
    connect.m_hShmDataSwap = dead.get();
    connectCmd c;
    c.Flag = 1;
    c.seq = 3;
    EXPECT_EQ(expected, connect.Async(c));
    EXPECT_EQ(3u, c.seq);  // not written
    DefineShmComThread define;
    define.Init();
    define.m_hShmDataSwap = dead.get();
    defineCmd d;
    d.Flag = 1;
    d.Size = 1;
    d.entries.resize(1);
    EXPECT_EQ(expected, define.Async(d));
    EXPECT_TRUE(d.entries.empty());
    EXPECT_EQ(0u, d.Size);
    DataSwapShmComThread swap;
    swap.Init();
    swap.m_hShmDataSwap = dead.get();
    unsigned char values[4] = {};
    rwCmd r;
    r.Flag = r.Rw = 1;
    r.ByteTotal = 4;
    r.pValue = values;
    EXPECT_EQ(expected, swap.Async(r));
    EXPECT_EQ(nullptr, r.pValue);  // the caller's record stays cleared
    EXPECT_EQ(0u, r.ByteTotal);
  }
}

// ------------------------------------------------------------------- define

TEST_F(ChannelTest, DefineAnswersAndFailures) {
  struct Case {
    const char* name;
    std::deque<uint32_t> waits;
    uint32_t sendResult;
    uint16_t answerErr;
    uint8_t answerFlag;
    uint32_t result;
    uint32_t handle;  // TagsHandle of the record afterwards
    size_t sends;
    const char* log;
  };
  const std::vector<Case> cases = {
      {"defined", {}, 0, 0, 3, 0, 12, 1, nullptr},
      {"flag 0 refused", {}, 0, 0, 0, ERR_PLC_DEFINE_FAILED, 0, 1, "E:0, Flag:0"},
      {"err 7 refused", {}, 0, 7, 3, ERR_PLC_DEFINE_FAILED, 0, 1, "E:7, Flag:3"},
      {"third attempt", {4203, 4203}, 0, 0, 3, 0, 12, 3, "RTE_ERROR_TIMEOUT,E:0"},
      {"five time-outs", {4203, 4203, 4203, 4203, 4203}, 0, 0, 3, kRecvFailed, 0, 5, "RTE_ERROR_TIMEOUT,E:0"},
      {"unknown wait", {4205}, 0, 0, 3, kRecvFailed, 0, 1, "UnknownError(0x106D)"},
      {"send fails", {}, 3, 0, 3, ERR_RTOS_SEND_EVENT_FAILED, 0, 1, "SendEvent, Err:3"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    qvtest::Log().Clear();
    fake->Reset();
    DefineShmComThread channel;
    channel.Init();
    channel.m_hShmDataSwap = area.data();
    fake->slot = area.data();
    fake->snapshotLength = 16 + 2 * 264;
    fake->waitResults = c.waits;
    fake->sendResult = c.sendResult;
    fake->answer = [&c](unsigned char* s) {
      WriteAt<uint16_t>(s, 0, c.answerErr);
      WriteAt<uint32_t>(s, 12, 12);
      s[2] = c.answerFlag;
    };
    defineCmd cmd;
    cmd.Flag = 1;
    cmd.Seq = 4;
    cmd.Size = 2;
    cmd.ByteLength = 85;
    cmd.entries.resize(2);
    std::strcpy(cmd.entries[1].name, "App.GVL.text");
    cmd.entries[1].size = 81;
    EXPECT_EQ(c.result, channel.Async(cmd));
    EXPECT_EQ(c.handle, cmd.TagsHandle);
    EXPECT_EQ(2u, cmd.entries.size());  // moved back to the caller
    EXPECT_EQ(c.result, cmd.Err);
    ASSERT_EQ(c.sends, fake->sends.size());
    for (const auto& s : fake->sends) {  // every attempt writes Err 0 and the entries again
      EXPECT_EQ(0u, ReadAt<uint16_t>(s.data(), 0));
      EXPECT_EQ(85u, ReadAt<uint32_t>(s.data(), 4));
      EXPECT_STREQ("App.GVL.text", reinterpret_cast<const char*>(s.data() + 16 + 264));
    }
    if (c.log != nullptr) {
      const bool errorLine = c.log[0] == 'E' || c.log[0] == 'S';  // "E:..." and "SendEvent..." are errors
      EXPECT_GE(qvtest::Log().CountOf(errorLine ? err : warn, c.log, "DefineShmComThread::runAsyncIntf"), 1u);
    }
  }
}

TEST_F(ChannelTest, DefineDeleteSendsNoEntriesAndTakesTheAnsweredHandle) {
  DefineShmComThread channel;
  channel.Init();
  channel.m_hShmDataSwap = area.data();
  std::fill(area.begin(), area.begin() + 32, 0xAB);
  fake->slot = area.data();
  fake->answer = [](unsigned char* s) {
    WriteAt<uint32_t>(s, 12, 2);
    s[2] = 3;
  };
  defineCmd cmd;
  cmd.Flag = 2;
  cmd.TagsHandle = 3;
  cmd.entries.resize(1);
  EXPECT_EQ(0u, channel.Async(cmd));
  EXPECT_EQ(2u, cmd.TagsHandle);
  EXPECT_EQ(0xAB, fake->sends.at(0)[16]);
  EXPECT_EQ(3u, ReadAt<uint32_t>(fake->sends.at(0).data(), 12));
}

TEST_F(ChannelTest, DefineAsyncTextsDifferFromConnect) {
  DefineShmComThread channel;  // never Init: null mutex
  channel.m_hShmDataSwap = area.data();
  defineCmd cmd;
  EXPECT_EQ(ERR_WAIT_TIMEOUT, channel.Async(cmd));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "WaitForSingleObject,E:-1", "DefineShmComThread::Async"));
  channel.Init();
  channel.m_hShmDataSwap = nullptr;
  EXPECT_EQ(0u, channel.Async(cmd));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "m_hShmDataSwap == nullptr", "DefineShmComThread::Async"));
  EXPECT_TRUE(qorvarlok::platform::ReleaseNamedMutex(channel.m_hMutex));
  // A null Rx gives 1 here without a line of its own.
  channel.m_hShmDataSwap = area.data();
  channel.m_hEventRx = nullptr;
  qvtest::Log().Clear();
  EXPECT_EQ(kRecvFailed, channel.Async(cmd));
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "UnknownError(0x1)", "DefineShmComThread::runAsyncIntf"));
}

// ---------------------------------------------------------------- data swap

TEST_F(ChannelTest, DataSwapReadCopiesValuesBackWriteDoesNot) {
  struct Case {
    const char* name;
    uint8_t rw;
    uint32_t answerErr;
    uint8_t answerFlag;
    uint32_t result;
    bool copiedBack;
  };
  const std::vector<Case> cases = {
      {"read", 1, 0, 3, 0, true},
      {"write", 2, 0, 3, 0, false},
      {"flag 0 refused", 1, 0, 0, ERR_PLC_READ_WRITE_FAILED, false},
      {"err 1 refused", 1, 1, 3, ERR_PLC_READ_WRITE_FAILED, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    qvtest::Log().Clear();
    fake->Reset();
    DataSwapShmComThread channel;
    channel.Init();
    channel.m_hShmDataSwap = area.data();
    std::fill(area.begin(), area.begin() + 0x280000 + 16, 0xCD);
    fake->slot = area.data();
    fake->answer = [&c](unsigned char* s) {
      WriteAt<uint32_t>(s, 0, c.answerErr);
      for (int i = 0; i < 8; ++i) s[23 + i] = static_cast<unsigned char>(0x50 + i);
      s[4] = c.answerFlag;
    };
    uint32_t index[2] = {0, 4};
    unsigned char values[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    rwCmd cmd;
    cmd.Flag = cmd.Rw = c.rw;
    cmd.Seq = 1;
    cmd.Size = 2;
    cmd.ByteTotal = 8;
    cmd.TagsHandle = 1;
    cmd.pIndex = index;
    cmd.pValue = values;
    EXPECT_EQ(c.result, channel.Async(cmd));
    EXPECT_EQ(c.result, cmd.Err);
    EXPECT_EQ(values, cmd.pValue);
    EXPECT_EQ(c.result == 0 ? c.answerFlag : c.rw, cmd.Flag);
    EXPECT_EQ(c.copiedBack ? 0x50 : 1, values[0]);
    EXPECT_EQ(c.copiedBack ? 0x57 : 8, values[7]);
    // Cleared before the attempt, up to 2621440 bytes only.
    EXPECT_EQ(0, area[40]);
    EXPECT_EQ(0, area[0x280000 - 1]);
    EXPECT_EQ(0xCD, area[0x280000]);
    EXPECT_EQ(4u, ReadAt<uint32_t>(fake->sends.at(0).data(), 19));
    EXPECT_EQ(c.rw == 2 ? 1 : 0, fake->sends.at(0)[23]);
    if (c.result != 0) {
      EXPECT_EQ(1u, qvtest::Log().CountOf(err, fmt::format("E:{}, Flag:{}", c.answerErr, c.answerFlag),
                                          "DataSwapShmComThread::runAsyncIntf"));
    }
  }
}

TEST_F(ChannelTest, DataSwapEventFailuresLogRtosError) {
  struct Case {
    const char* name;
    std::deque<uint32_t> waits;
    uint32_t sendResult;
    uint32_t result;
    size_t sends;
    const char* log;
    spdlog::level::level_enum level;
  };
  const std::vector<Case> cases = {
      {"five time-outs", {4203, 4203, 4203, 4203, 4203}, 0, kRecvFailed, 5, "RTE_ERROR_TIMEOUT.E:0", warn},
      {"unknown", {0x55}, 0, kRecvFailed, 1, "UnknownError(0x55)", warn},
      {"send fails", {}, 2, ERR_RTOS_SEND_EVENT_FAILED, 1, "SendEvent, Err:2", err},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    qvtest::Log().Clear();
    fake->Reset();
    DataSwapShmComThread channel;
    channel.Init();
    channel.m_hShmDataSwap = area.data();
    fake->slot = area.data();
    fake->waitResults = c.waits;
    fake->sendResult = c.sendResult;
    rwCmd cmd;
    cmd.Flag = cmd.Rw = 1;
    EXPECT_EQ(c.result, channel.Async(cmd));
    EXPECT_EQ(c.sends, fake->sends.size());
    EXPECT_EQ(c.sends == 5 ? 5u : 1u, qvtest::Log().CountOf(c.level, c.log, "DataSwapShmComThread::runAsyncIntf"));
    EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "Rtos Error", "DataSwapShmComThread::runAsyncIntf"));
    EXPECT_TRUE(channel.RtosError());
  }
}

TEST_F(ChannelTest, DataSwapNullRxIsLoggedAtInfo) {
  DataSwapShmComThread channel;
  channel.Init();
  channel.m_hShmDataSwap = area.data();
  channel.m_hEventRx = nullptr;
  rwCmd cmd;
  EXPECT_EQ(kRecvFailed, channel.Async(cmd));
  EXPECT_EQ(1u, qvtest::Log().CountOf(info, "m_hEventRx==nullptr", "DataSwapShmComThread::WaitEvent"));
}

TEST_F(ChannelTest, DataSwapQueuePathPairsAnswersBySession) {
  DataSwapShmComThread channel;
  rwCmd answer;
  answer.SessionId = 31;
  answer.Flag = 2;
  EXPECT_EQ(0u, channel.HandleResMessage(answer));  // not Flag 3: nothing filed
  EXPECT_EQ(0u, channel.SessionCount());
  answer.Flag = 3;
  answer.Seq = 1;
  answer.ByteTotal = 11;
  EXPECT_EQ(0u, channel.HandleResMessage(answer));
  answer.ByteTotal = 22;
  EXPECT_EQ(0u, channel.HandleResMessage(answer));  // duplicate: the first stays
  EXPECT_EQ(1u, qvtest::Log().CountOf(warn, "session 31 is duplicate"));
  rwCmd waiting;
  waiting.SessionId = 31;
  EXPECT_EQ(0u, channel.ReadyCmdAndWaitForRes(waiting));
  EXPECT_EQ(11u, waiting.ByteTotal);
  EXPECT_EQ(0u, channel.SessionCount());
  rwCmd front;
  EXPECT_EQ(0u, channel.GetDataSwapCmd(front));
  EXPECT_EQ(31u, front.SessionId);
  EXPECT_EQ(0u, channel.GetDataSwapOperationRes(front));
  rwCmd stop;
  stop.Flag = 1;
  EXPECT_FALSE(channel.StopLoopTask(stop));
  stop.Flag = 4;
  EXPECT_TRUE(channel.StopLoopTask(stop));
  EXPECT_EQ(1u, channel.QueueLength());
}

}  // namespace
