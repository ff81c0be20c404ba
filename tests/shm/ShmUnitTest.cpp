// The three channels and the client over the fake partition calls: slot bytes
// of every attempt, answers, refusals, repeats, failed sends and opens, unknown
// wait results, missing handles, an abandoned mutex, cut areas, a dead partition.
#include <gtest/gtest.h>

#include <thread>

#include "FakeRtos.h"
#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"

using namespace qorvarlok::shm;
using namespace shmtest;
using spdlog::level::err, spdlog::level::info, spdlog::level::warn;

namespace {

constexpr uint32_t kRecv = ERR_RTOS_RECV_EVENT_FAILED, kSend = ERR_RTOS_SEND_EVENT_FAILED;
enum Ch { kConnect, kDefine, kSwap };
const char* const kClass[] = {"ConnectCmdThread", "DefineShmComThread", "DataSwapShmComThread"};

// What a command left in the caller's record. key: the connect's seq, the
// define's TagsHandle, the first value byte of a data swap.
struct Outcome {
  uint32_t result, recordErr, flag, key;
  bool cleared;  // the record was emptied (entries or value pointer gone)
  qorvarlok::platform::NamedMutexHandle mutex;
};
using Tweak = std::function<void(ComChannelBase&)>;

template <typename C, typename Cmd>
Outcome Run(C& channel, Cmd& cmd, void* area, const Tweak& tweak) {
  channel.Init();
  channel.m_hShmDataSwap = area;
  if (tweak) tweak(channel);
  return Outcome{channel.Async(cmd), 0, 0, 0, false, channel.m_hMutex};
}

Outcome Drive(Ch ch, uint8_t flag, void* area, const Tweak& tweak = {}) {
  if (ch == kConnect) {
    ConnectCmdThread channel;
    connectCmd c;
    c.Flag = flag, c.seq = 3, c.beat = 1000, c.SessionId = 5;
    Outcome o = Run(channel, c, area, tweak);
    return o.recordErr = c.errInfo, o.flag = c.Flag, o.key = c.seq, o;
  }
  if (ch == kDefine) {
    DefineShmComThread channel;
    defineCmd d;
    d.Flag = flag, d.Seq = 4, d.Size = 2, d.ByteLength = 85;
    d.entries.resize(2);
    std::strcpy(d.entries[1].name, "App.GVL.text");
    Outcome o = Run(channel, d, area, tweak);
    return o.recordErr = d.Err, o.flag = d.Flag, o.key = d.TagsHandle, o.cleared = d.entries.empty(), o;
  }
  DataSwapShmComThread channel;
  uint32_t index[2] = {0, 4};
  unsigned char values[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  rwCmd r;
  r.Flag = r.Rw = flag, r.Size = 2, r.ByteTotal = 8, r.TagsHandle = 1, r.pIndex = index, r.pValue = values;
  Outcome o = Run(channel, r, area, tweak);
  return o.recordErr = r.Err, o.flag = r.Flag, o.key = values[0], o.cleared = r.pValue == nullptr, o;
}

// The controller's answer in each slot's layout.
void Answer(Ch ch, unsigned char* s, uint8_t flag, uint32_t error) {
  if (ch == kConnect) {
    WriteAt(s, 4, 17u), WriteAt(s, 8, 1234u), WriteAt(s, 12, error), WriteAt<uint32_t>(s, 0, flag);
  } else if (ch == kDefine) {
    WriteAt(s, 0, static_cast<uint16_t>(error)), WriteAt(s, 12, 12u), s[2] = flag;
  } else {
    WriteAt(s, 0, error), std::memset(s + 23, 0x50, 8), s[4] = flag;
  }
}

// The slot as Drive's request leaves it, up to the first entry or value.
std::vector<unsigned char> Request(Ch ch, uint8_t flag, bool repeat) {
  if (ch == kConnect) {  // a repeat carries the time-out code in errInfo
    std::vector<unsigned char> v = {flag, 0, 0, 0, 3, 0, 0, 0, 0xE8, 3, 0, 0, 0, 0, 0, 0};
    return WriteAt(v.data(), 12, repeat ? kRecv : 0u), v;
  }
  if (ch == kDefine) return {0, 0, flag, 4, 85, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0};  // ByteLength before Size
  return {0, 0, 0, 0, flag, 0, flag, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0};
}

class ShmUnit : public testing::Test {
 protected:
  void SetUp() override { UseOwnPartition(), qvtest::Log().Clear(); }
  // The client not set up, the fake mapping the three buffers, counters at zero.
  ShmComClient* Lost() {
    fake.Reset();
    fake->mapTo = area.data();
    ShmComClient* client = ShmComClient::GetInstance();
    EXPECT_NE(nullptr, client);
    ShmComClientProbe::MarkLost(client);
    fake->aliveCalls = fake->otherCalls = 0, fake->mapped.clear(), qvtest::Log().Clear();
    return client;
  }
  FakeRtosScope fake;
  std::vector<unsigned char> area = std::vector<unsigned char>(0x500000, 0);
};

TEST_F(ShmUnit, ChannelsAnswersRefusalsRepeatsAndEventFailures) {
  struct Case {
    Ch ch;
    const char* name;
    uint8_t flag;
    std::deque<uint32_t> waits;
    uint32_t send, answerFlag, answerErr, result, flagAfter, key, sends;
    spdlog::level::level_enum level;
    const char* log;  // of <class>::runAsyncIntf, and how many times
    size_t logs;
  };
  const std::deque<uint32_t> five = {4203, 4203, 4203, 4203, 4203}, two = {4203, 4203};
  const std::vector<Case> cases = {
      {kConnect, "connect", 1, {}, 0, 3, 0, 0, 1, 17, 1, info,
       "[ConnectCmd beat=1000, errInfo=0, Flag=1, seq=3, SessionId=5]", 1},
      {kConnect, "disconnect takes the flag", 0, {}, 0, 3, 0, 0, 3, 17, 1, info,
       "[ConnectCmd beat=1000, errInfo=0, Flag=0, seq=3, SessionId=5]", 1},
      {kConnect, "refused 2", 1, {}, 0, 3, 2, ERR_CONNECT_REFUSED_2, 1, 3, 1, err, "WaitEvent, pFlag=3, pErr=2", 1},
      {kConnect, "refused 3", 1, {}, 0, 3, 3, ERR_CONNECT_REFUSED_3, 1, 3, 1, err, "WaitEvent, pFlag=3, pErr=3", 1},
      {kConnect, "refused 4", 1, {}, 0, 3, 4, ERR_CONNECT_REFUSED_4, 1, 3, 1, err, "WaitEvent, pFlag=3, pErr=4", 1},
      {kConnect, "other answer flag", 1, {}, 0, 5, 0, 0, 1, 3, 1, err, "WaitEvent, pFlag=5, pErr=0", 1},
      {kConnect, "third attempt", 1, two, 0, 3, 0, 0, 1, 17, 3, warn, "RTE_ERROR_TIMEOUT,E:268436230", 1},
      {kConnect, "five time-outs", 1, five, 0, 3, 0, kRecv, 1, 3, 5, warn, "RTE_ERROR_TIMEOUT,E:268436230", 4},
      {kConnect, "unknown wait", 1, {77}, 0, 3, 0, kRecv, 1, 3, 1, warn, "UnknownError(0x4D)", 1},
      {kConnect, "send fails", 1, {}, 9, 3, 0, kSend, 1, 3, 1, err, "SendEvent, Err:9", 1},
      {kDefine, "defined", 1, {}, 0, 3, 0, 0, 3, 12, 1, err, "E:0, Flag:3", 0},
      {kDefine, "deleted, no entries", 2, {}, 0, 3, 0, 0, 3, 12, 1, err, "E:0, Flag:3", 0},
      {kDefine, "flag 0", 1, {}, 0, 0, 0, ERR_PLC_DEFINE_FAILED, 1, 0, 1, err, "E:0, Flag:0", 1},
      {kDefine, "err 7", 1, {}, 0, 3, 7, ERR_PLC_DEFINE_FAILED, 1, 0, 1, err, "E:7, Flag:3", 1},
      {kDefine, "third attempt", 1, two, 0, 3, 0, 0, 3, 12, 3, warn, "RTE_ERROR_TIMEOUT,E:0", 2},
      {kDefine, "five time-outs", 1, five, 0, 3, 0, kRecv, 1, 0, 5, warn, "RTE_ERROR_TIMEOUT,E:0", 5},
      {kDefine, "unknown wait", 1, {4205}, 0, 3, 0, kRecv, 1, 0, 1, warn, "UnknownError(0x106D)", 1},
      {kDefine, "send fails", 1, {}, 3, 3, 0, kSend, 1, 0, 1, err, "SendEvent, Err:3", 1},
      {kSwap, "read copies back", 1, {}, 0, 3, 0, 0, 3, 0x50, 1, err, "E:0, Flag:3", 0},
      {kSwap, "write does not", 2, {}, 0, 3, 0, 0, 3, 1, 1, err, "E:0, Flag:3", 0},
      {kSwap, "flag 0", 1, {}, 0, 0, 0, ERR_PLC_READ_WRITE_FAILED, 1, 1, 1, err, "E:0, Flag:0", 1},
      {kSwap, "err 1", 1, {}, 0, 3, 1, ERR_PLC_READ_WRITE_FAILED, 1, 1, 1, err, "E:1, Flag:3", 1},
      {kSwap, "five time-outs", 1, five, 0, 3, 0, kRecv, 1, 1, 5, warn, "RTE_ERROR_TIMEOUT.E:0", 5},
      {kSwap, "unknown wait", 1, {0x55}, 0, 3, 0, kRecv, 1, 1, 1, warn, "UnknownError(0x55)", 1},
      {kSwap, "send fails", 1, {}, 2, 3, 0, kSend, 1, 1, 1, err, "SendEvent, Err:2", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + std::string(" on ") + kClass[c.ch]);
    qvtest::Log().Clear(), fake.Reset();
    fake->slot = area.data(), fake->waitResults = c.waits, fake->sendResult = c.send;
    fake->answer = [&c](unsigned char* s) { Answer(c.ch, s, static_cast<uint8_t>(c.answerFlag), c.answerErr); };
    std::fill(area.begin(), area.begin() + 0x280000 + 16, 0xCD);
    const Outcome o = Drive(c.ch, c.flag, area.data());
    EXPECT_EQ((std::vector<uint32_t>{c.result, c.result, c.flagAfter, c.key, 0}),
              (std::vector<uint32_t>{o.result, o.recordErr, o.flag, o.key, o.cleared}));
    const std::string func = kClass[c.ch] + std::string("::runAsyncIntf");
    EXPECT_EQ(c.logs, qvtest::Log().CountOf(c.level, c.log, func)) << c.log;
    if (c.ch == kSwap) { EXPECT_EQ(c.result == kRecv || c.result == kSend, qvtest::Log().Contains("Rtos Error")); }
    ASSERT_EQ(c.sends, fake->sends.size());
    for (size_t i = 0; i < c.sends; ++i) {  // every attempt writes the whole request again
      const std::vector<unsigned char> expected = Request(c.ch, c.flag, i > 0), &sent = fake->sends[i];
      EXPECT_EQ(expected, std::vector<unsigned char>(sent.begin(), sent.begin() + expected.size()));
      if (c.ch == kDefine) {  // entries only for a define, not for a delete
        EXPECT_EQ(c.flag == 1 ? std::string("App.GVL.text", 13) : std::string(13, '\xCD'),
                  std::string(reinterpret_cast<const char*>(&sent[16 + 264]), 13));
      }
      if (c.ch == kSwap) { EXPECT_EQ(c.flag == 2 ? 1 : 0, sent[23]); }  // values only for a write
    }
    if (c.ch == kSwap) {  // cleared before the attempt, up to 2621440 bytes only
      EXPECT_EQ(0, area[0x280000 - 1]);
      EXPECT_EQ(0xCD, area[0x280000]);
    }
  }
}

TEST_F(ShmUnit, ChannelsMissingHandlesAreasAndMutexes) {
  DeadMapping dead;
  const auto noRx = [](ComChannelBase& c) { c.m_hEventRx = nullptr; };
  const auto abandon = [](ComChannelBase& c) {  // a thread that ends owning the mutex abandons it
    std::thread([h = c.m_hMutex] { qorvarlok::platform::WaitForNamedMutex(h, 1000); }).join();
  };
  struct Case {  // the log line is of <class>::<func>
    Ch ch;
    const char* failOpen;
    Tweak tweak;
    void* area;
    uint32_t alive, result, sends, cleared, ownsMutex;
    spdlog::level::level_enum level;
    const char *log, *func;
  };
  void* a = area.data();
  const char* kNoRx = "WaitEvent, m_hEventRx==nullptr";
  const std::vector<Case> cases = {
      {kConnect, nullptr, noRx, a, 1, kRecv, 1, 0, 0, err, kNoRx, "WaitEvent"},
      {kDefine, nullptr, noRx, a, 1, kRecv, 1, 0, 0, warn, "UnknownError(0x1)", "runAsyncIntf"},  // without a line
      {kSwap, nullptr, noRx, a, 1, kRecv, 1, 0, 0, info, "m_hEventRx==nullptr", "WaitEvent"},
      {kConnect, nullptr, [](ComChannelBase& c) { c.m_hEventTx = nullptr; }, a, 1, kSend, 0, 0, 0, err,
       "SendEvent, Err:1", "runAsyncIntf"},
      {kConnect, "EVENT_CONNECT_RTOS2WIN", {}, a, 1, ERR_WAIT_TIMEOUT, 0, 0, 0, err, "WaitForSingleObject,E: 4294967295",
       "Async"},
      {kDefine, "EVENT_NOTIFY_WIN2RTOS", {}, a, 1, ERR_WAIT_TIMEOUT, 0, 0, 0, warn, "WaitForSingleObject,E:-1", "Async"},
      {kConnect, nullptr, {}, nullptr, 1, 0, 0, 0, 1, err, "m_hShmDataSwap == nullptr", "Async"},
      {kDefine, nullptr, {}, nullptr, 1, 0, 0, 0, 1, warn, "m_hShmDataSwap == nullptr", "Async"},
      {kConnect, nullptr, abandon, a, 1, 0, 0, 0, 1, err, "WAIT_ABANDONED", "Async"},
      {kSwap, nullptr, abandon, a, 1, 0, 0, 0, 1, warn, "WAIT_ABANDONED", "Async"},
      {kConnect, nullptr, {}, dead.p, 1, ERR_UNDEFINED, 0, 0, 0, err, "", ""},  // a cut area, partition alive
      {kDefine, nullptr, {}, dead.p, 1, ERR_UNDEFINED, 0, 1, 0, err, "", ""},
      {kSwap, nullptr, {}, dead.p, 1, ERR_UNDEFINED, 0, 1, 0, err, "", ""},
      {kConnect, nullptr, {}, dead.p, 0, ERR_RTOS_UNAVAILABLE, 0, 0, 0, err, "", ""},  // partition dead
      {kDefine, nullptr, {}, dead.p, 0, ERR_RTOS_UNAVAILABLE, 0, 1, 0, err, "", ""},
      {kSwap, nullptr, {}, dead.p, 0, ERR_RTOS_UNAVAILABLE, 0, 1, 0, err, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << kClass[c.ch] << " " << c.log << " alive " << c.alive);
    qvtest::Log().Clear(), fake.Reset();
    fake->slot = area.data(), fake->alive = c.alive;
    if (c.failOpen != nullptr) fake->openResult[c.failOpen] = 0x42;
    const Outcome o = Drive(c.ch, 1, c.area, c.tweak);
    const uint32_t untouched = c.ch == kConnect ? 3 : c.ch == kSwap ? 1 : 0;  // no answer reached the record
    const uint32_t owned = qorvarlok::platform::ReleaseNamedMutex(o.mutex);  // kept on some paths
    EXPECT_EQ((std::vector<uint32_t>{c.result, c.sends, c.cleared, untouched, c.ownsMutex}),
              (std::vector<uint32_t>{o.result, static_cast<uint32_t>(fake->sends.size()), o.cleared, o.key, owned}));
    if (*c.log != '\0') { EXPECT_EQ(1u, qvtest::Log().CountOf(c.level, c.log, kClass[c.ch] + std::string("::") + c.func)); }
    if (c.failOpen != nullptr) {  // nothing is opened after the failure
      const char* handle = std::strstr(c.failOpen, "RTOS2WIN") != nullptr ? "m_hEventRx" : "m_hEventTx";
      EXPECT_EQ(1u, qvtest::Log().CountOf(warn, handle + std::string(",Error(0x42)"), kClass[c.ch] + std::string("::Init")));
      EXPECT_EQ(nullptr, o.mutex);
    }
  }
}

TEST_F(ShmUnit, ClientOfADeadPartitionAsksOnlyWhetherItLives) {
  Lost();
  fake->alive = 0;
  EXPECT_EQ(nullptr, ShmComClient::GetInstance());
  EXPECT_EQ(nullptr, ShmComClient::GetInstance());
  EXPECT_EQ(std::make_pair(2, 0), std::make_pair(fake->aliveCalls, fake->otherCalls));
  fake->alive = 1;
  ASSERT_NE(nullptr, ShmComClient::GetInstance());
  EXPECT_EQ(3u, qvtest::Log().CountOf(info, "  %-33s : "));  // texts deliberately left unfilled
  EXPECT_EQ(3u, qvtest::Log().CountOf(info, "Ok - %u (0x%X) bytes"));
  fake->alive = 0, fake->aliveCalls = 0;
  EXPECT_NE(nullptr, ShmComClient::GetInstance());  // once set up, it does not ask
  EXPECT_EQ(0, fake->aliveCalls);
}

TEST_F(ShmUnit, ClientSetUpFailuresGiveNullAndTheNextCallSetsUpAgain) {
  const std::vector<std::tuple<const char*, std::function<void(FakeRtos&)>, uint32_t, const char*>> cases = {
      {"init", [](FakeRtos& f) { f.initResult = 5; }, 5, nullptr},
      {"query id", [](FakeRtos& f) { f.queryIdResult[L"NotifyArea"] = 0x77; }, 0x77,
       "Error (0x%X) querying '%s' shared memory id. Please ensure a shared memory with this name is configured for "
       "read and write by any OS."},
      {"connect area small", [](FakeRtos& f) { f.sizeOf[L"ConnectArea"] = 511; }, ERR_INSUFFICIENT_SHMAREA_SIZE,
       nullptr},  // only the define area's size check logs
      {"notify area small", [](FakeRtos& f) { f.sizeOf[L"NotifyArea"] = 511; }, ERR_INSUFFICIENT_SHMAREA_SIZE,
       "Error querying size is lower than minmum."},
      {"map", [](FakeRtos& f) { f.mapResult = 9; }, 9, nullptr},
  };
  for (const auto& [name, arrange, ret, line] : cases) {
    SCOPED_TRACE(name);
    ShmComClient* client = Lost();
    const auto before = client->DataSwapChannel();
    arrange(*fake);
    EXPECT_EQ(nullptr, ShmComClient::GetInstance());
    EXPECT_TRUE(!client->IsInitialized() && client->IsAnyStateDown());
    EXPECT_EQ(1u, qvtest::Log().CountOf(info, fmt::format("shm client has initialized ret = {}", ret),
                                        "ShmComClient::InitShmCom"));
    EXPECT_EQ(line ? 1u : 0u, qvtest::Log().CountOf(err, line ? line : "Error querying size is lower than minmum."));
    Lost();
    fake->sizeOf[L"NotifyArea"] = 512;  // exactly the smallest size passes
    EXPECT_EQ(client, ShmComClient::GetInstance());
    EXPECT_TRUE(!client->IsAnyStateDown() && before != client->DataSwapChannel());  // new channels
    const std::vector<std::pair<std::wstring, uint32_t>> lengths = {
        {L"ConnectArea", 512}, {L"NotifyArea", 0x500000}, {L"DataSwapArea", 0x500000}};
    EXPECT_EQ(lengths, fake->mapped);
  }
}

TEST_F(ShmUnit, ClientWriteOperationsMapChannelOutcomes) {
  DeadMapping dead;
  const auto silent = [](FakeRtos& f) { f.waitResults = {4203, 4203, 4203, 4203, 4203}; };
  struct Case {
    const char* name;
    std::function<void(FakeRtos&)> arrange;
    bool cut;
    uint32_t connect, define, rw;
  };
  const std::vector<Case> cases = {
      {"refusal", [](FakeRtos& f) { f.answer = [](unsigned char* s) { WriteAt(s, 12, 2u), s[0] = 3, s[2] = s[4] = 0; }; },
       false, 0, ERR_PLC_DEFINE_FAILED, ERR_PLC_READ_WRITE_FAILED},
      {"silent, partition alive", silent, false, kRecv, kRecv, kRecv},
      {"silent, partition gone", [silent](FakeRtos& f) { silent(f), f.alive = 0; }, false, ERR_RTOS_UNAVAILABLE,
       ERR_RTOS_UNAVAILABLE, ERR_RTOS_UNAVAILABLE},
      {"area cut, partition alive", [](FakeRtos&) {}, true, ERR_RTOS_UNAVAILABLE, ERR_RTOS_UNAVAILABLE,
       ERR_RTOS_UNAVAILABLE},
  };
  for (const Case& c : cases) {
    for (int op = 0; op < 3; ++op) {
      SCOPED_TRACE(testing::Message() << c.name << ", operation " << op);
      ShmComClient* client = Lost();
      ASSERT_EQ(client, ShmComClient::GetInstance());
      c.arrange(*fake);
      fake->slot = area.data();
      ComChannelBase* channel = op == 0   ? static_cast<ComChannelBase*>(client->ConnectChannel().get())
                                : op == 1 ? static_cast<ComChannelBase*>(client->DefineChannel().get())
                                          : client->DataSwapChannel().get();
      if (c.cut) channel->m_hShmDataSwap = dead.p;
      connectCmd connect;
      defineCmd define;
      rwCmd rw;
      connect.Flag = define.Flag = rw.Flag = rw.Rw = 1;
      if (op == 0) { EXPECT_EQ(c.connect, client->WriteConnectCmd(connect)); }
      if (op == 0 && c.connect == 0) { EXPECT_EQ(ERR_CONNECT_REFUSED_2, connect.errInfo); }  // in the record only
      if (op == 1) { EXPECT_EQ(c.define, client->WriteDefineCmd(define)); }
      if (op == 2) { EXPECT_EQ(c.rw, client->WriteRwCmd(rw)); }
      if (op == 2 && c.cut) {  // the record the channel cleared
        EXPECT_TRUE(qvtest::Log().Contains("dataswap result = 1, cmd=[DataSwapCmd ByteTotal=0, Err=0, Flag=0, Rw=0, "
                                           "Seq=0, Size=0, TagsHandle=0, SessionId=0]"));
      }
      EXPECT_EQ(!c.cut, client->IsInitialized());
    }
  }
}

}  // namespace
