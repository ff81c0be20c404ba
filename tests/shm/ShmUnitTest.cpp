// The three channels and the client over a fake of the partition calls, for the paths a real controller cannot
// take on demand: failed sends and opens, unknown wait results, missing handles, cut areas, a dead partition.
#include <gtest/gtest.h>

#include <thread>

#include "LogCapture.h"
#include "QorVarlok/ZelVarlok.h"
#include "RtosApi.h"
#include "ShmProject.h"
#include "TestSystem.h"

using namespace qorvarlok::shm;
using namespace shmtest;
using spdlog::level::err, spdlog::level::info, spdlog::level::warn;

namespace {

// A scripted stand-in for the eight partition calls, for what a real partition
// cannot give on demand. The "controller" is a function run when a wait
// succeeds; every send snapshots the slot, so tests see each attempt's bytes.
struct FakeRtos {
  uint32_t alive = 1, initResult = 0, mapResult = 0, sendResult = 0;
  std::map<std::wstring, uint32_t> queryIdResult,  // by area name
      sizeOf = {{L"ConnectArea", 0x500000}, {L"NotifyArea", 0x500000}, {L"DataSwapArea", 0x500000}};
  void* mapTo = nullptr;         // every area maps here
  std::vector<uint32_t> mapped;  // lengths asked for
  std::map<std::string, uint32_t> openResult;             // by event name
  std::deque<uint32_t> waitResults;                       // one per wait; 0 when empty
  std::function<void(unsigned char*)> answer;             // run on a wait that gives 0
  unsigned char* slot = nullptr;
  size_t snapshotLength = 600;
  std::vector<std::vector<unsigned char>> sends;
  int aliveCalls = 0;
};
FakeRtos& TheFake() { static FakeRtos fake; return fake; }

qorvarlok::platform::RtosApi FakeApi() {
  return {[]() -> uint32_t { return TheFake().initResult; },
          [](uint32_t, uint32_t, const char* name, RTOS_EVENT* event) -> uint32_t {
            const uint32_t r = TheFake().openResult[name];
            if (r == 0) *event = reinterpret_cast<RTOS_EVENT>(uintptr_t{0x1000} + std::strlen(name));
            return r;
          },
          [](RTOS_EVENT) -> uint32_t {
            FakeRtos& f = TheFake();
            if (f.slot != nullptr) f.sends.emplace_back(f.slot, f.slot + f.snapshotLength);
            return f.sendResult;
          },
          [](RTOS_EVENT, uint32_t) -> uint32_t {
            FakeRtos& f = TheFake();
            const uint32_t r = f.waitResults.empty() ? 0 : f.waitResults.front();
            if (!f.waitResults.empty()) f.waitResults.pop_front();
            if (r == 0 && f.answer && f.slot != nullptr) f.answer(f.slot);
            return r;
          },
          []() -> uint32_t { return ++TheFake().aliveCalls, TheFake().alive; },
          [](const wchar_t* name, uint32_t, uint32_t* id) -> uint32_t {  // ids: 0 Connect, 1 Notify, 2 DataSwap
            return *id = name[0] == L'C' ? 0 : name[0] == L'N' ? 1 : 2, TheFake().queryIdResult[name];
          },
          [](uint32_t, uint32_t, uint32_t length, uint32_t*, void** address) -> uint32_t {
            return TheFake().mapped.push_back(length), *address = TheFake().mapTo, TheFake().mapResult;
          },
          [](uint32_t id, uint32_t* size) -> uint32_t {
            return *size = TheFake().sizeOf[id == 0 ? L"ConnectArea" : id == 1 ? L"NotifyArea" : L"DataSwapArea"], 0;
          }};
}

struct FakeRtosScope {  // the fake in the client's table for the life of the scope
  FakeRtosScope() { TheFake() = FakeRtos(), qorvarlok::platform::Rtos() = FakeApi(); }
  ~FakeRtosScope() { TheFake() = FakeRtos(), qorvarlok::platform::Rtos() = qorvarlok::platform::RealRtosApi(); }
};

struct DeadMapping {  // faults on every access, as an area that was cut
  void* p = testsys::ReserveNoAccess(0x500000);
  ~DeadMapping() { testsys::FreeNoAccess(p, 0x500000); }
};

constexpr uint32_t kRecv = ERR_RTOS_RECV_EVENT_FAILED, kSend = ERR_RTOS_SEND_EVENT_FAILED,
                   kWait = ERR_WAIT_TIMEOUT, kGone = ERR_RTOS_UNAVAILABLE;
enum Ch { kConnect, kDefine, kSwap };
const char* const kClass[] = {"ConnectCmdThread", "DefineShmComThread", "DataSwapShmComThread"};

// What a command left in the caller's record: result, Err, Flag, a key (connect: seq, define: TagsHandle, data
// swap: the first value byte), whether it was emptied; and the channel's mutex.
using Record = std::vector<uint32_t>;
using Outcome = std::pair<Record, qorvarlok::platform::NamedMutexHandle>;
using Tweak = std::function<void(ComChannelBase&)>;

template <typename C, typename Cmd, typename Read>
Outcome Run(Cmd& cmd, void* area, const Tweak& tweak, Read read) {
  C channel;
  channel.Init();
  channel.m_hShmDataSwap = area;
  if (tweak) tweak(channel);
  const uint32_t r = channel.Async(cmd);
  return {read(r), channel.m_hMutex};
}

Outcome Drive(Ch ch, uint8_t flag, void* area, const Tweak& tweak = {}) {
  connectCmd c;
  c.Flag = flag, c.seq = 3, c.beat = 1000, c.SessionId = 5;
  if (ch == kConnect)
    return Run<ConnectCmdThread>(c, area, tweak, [&](uint32_t r) { return Record{r, c.errInfo, c.Flag, c.seq, 0}; });
  defineCmd d;
  d.Flag = flag, d.Seq = 4, d.Size = 2, d.ByteLength = 85;
  d.entries.resize(2);
  std::strcpy(d.entries[1].name, "App.GVL.text");
  if (ch == kDefine)
    return Run<DefineShmComThread>(
        d, area, tweak, [&](uint32_t r) { return Record{r, d.Err, d.Flag, d.TagsHandle, d.entries.empty()}; });
  uint32_t index[2] = {0, 4};
  unsigned char values[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  rwCmd w;
  w.Flag = w.Rw = flag, w.Size = 2, w.ByteTotal = 8, w.TagsHandle = 1, w.pIndex = index, w.pValue = values;
  return Run<DataSwapShmComThread>(w, area, tweak,
                                   [&](uint32_t r) { return Record{r, w.Err, w.Flag, values[0], !w.pValue}; });
}

// The controller's answer in each slot's layout.
void Answer(Ch ch, unsigned char* s, uint8_t flag, uint32_t error) {
  if (ch == kConnect) WriteAt(s, 4, 17u), WriteAt(s, 8, 1234u), WriteAt(s, 12, error), WriteAt<uint32_t>(s, 0, flag);
  if (ch == kDefine) WriteAt(s, 0, static_cast<uint16_t>(error)), WriteAt(s, 12, 12u), s[2] = flag;
  if (ch == kSwap) WriteAt(s, 0, error), std::memset(s + 23, 0x50, 8), s[4] = flag;
}

// The slot as Drive's request leaves it, up to the second entry's name or the first value.
std::vector<unsigned char> Request(Ch ch, uint8_t flag, bool repeat) {
  if (ch == kConnect) {  // a repeat carries the time-out code in errInfo
    std::vector<unsigned char> v = {flag, 0, 0, 0, 3, 0, 0, 0, 0xE8, 3, 0, 0, 0, 0, 0, 0};
    return WriteAt(v.data(), 12, repeat ? kRecv : 0u), v;
  }
  if (ch == kSwap)  // values only for a write: a read's block stays cleared
    return {0, 0, 0, 0, flag, 0, flag, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, uint8_t(flag == 2)};
  std::vector<unsigned char> v(16 + 264 + 13, flag == 1 ? 0 : 0xCD);  // entries only for a define, not a delete
  const unsigned char header[16] = {0, 0, flag, 4, 85, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0};  // ByteLength, then Size
  std::copy(header, header + 16, v.begin());
  if (flag == 1) std::memcpy(&v[16 + 264], "App.GVL.text", 12);
  return v;
}

class ShmUnit : public testing::Test {
 protected:
  void SetUp() override {  // a partition of this process's own, its named mutexes removed when it ends
    static const std::string name = "shmunit" + std::to_string(testsys::ProcessId());
    static const int done = (testsys::SetEnv("VARLOK_PARTITION", name), std::atexit([] { RemoveNamedMutexes(name); }));
    (void)done, qvtest::Log().Clear();
  }
  ShmComClient* Lost() {  // the client not set up, the fake mapping every area to one buffer, counters at zero
    fake = FakeRtos();
    fake.mapTo = area.data();
    ShmComClient* client = ShmComClient::GetInstance();
    EXPECT_NE(nullptr, client);
    ShmComClientProbe::MarkLost(client);
    fake.aliveCalls = 0, fake.mapped.clear(), qvtest::Log().Clear();
    return client;
  }
  FakeRtosScope scope;
  FakeRtos& fake = TheFake();
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
    qvtest::Log().Clear(), fake = FakeRtos();
    fake.slot = area.data(), fake.waitResults = c.waits, fake.sendResult = c.send;
    fake.answer = [&c](unsigned char* s) { Answer(c.ch, s, static_cast<uint8_t>(c.answerFlag), c.answerErr); };
    fake.snapshotLength = Request(c.ch, c.flag, false).size();
    std::fill(area.begin(), area.begin() + 0x280000 + 16, 0xCD);
    EXPECT_EQ((Record{c.result, c.result, c.flagAfter, c.key, 0}), Drive(c.ch, c.flag, area.data()).first);
    EXPECT_EQ(c.logs, qvtest::Log().CountOf(c.level, c.log, kClass[c.ch] + std::string("::runAsyncIntf"))) << c.log;
    if (c.ch == kSwap) { EXPECT_EQ(c.result == kRecv || c.result == kSend, qvtest::Log().Contains("Rtos Error")); }
    ASSERT_EQ(c.sends, fake.sends.size());
    for (size_t i = 0; i < c.sends; ++i) EXPECT_EQ(Request(c.ch, c.flag, i > 0), fake.sends[i]) << i;  // all again
    if (c.ch == kSwap) { EXPECT_TRUE(area[0x27FFFF] == 0 && area[0x280000] == 0xCD); }  // 2621440 bytes cleared
  }
}

TEST_F(ShmUnit, ChannelsMissingHandlesAreasAndMutexes) {
  DeadMapping dead;
  const Tweak noRx = [](ComChannelBase& c) { c.m_hEventRx = nullptr; };
  const Tweak noTx = [](ComChannelBase& c) { c.m_hEventTx = nullptr; };
  const Tweak abandon = [](ComChannelBase& c) {  // a thread that ends owning the mutex abandons it
    std::thread([h = c.m_hMutex] { qorvarlok::platform::WaitForNamedMutex(h, 1000); }).join();
  };
  struct Case {
    Ch ch;
    const char* failOpen;
    Tweak tweak;
    void* area;
    uint32_t alive, result, sends, cleared, ownsMutex;
    std::vector<std::tuple<spdlog::level::level_enum, const char*, const char*>> logs;  // of <class>::<func>
    uint32_t key = ~0u;  // when an answer reached the record
  };
  void* a = area.data();
  const std::vector<Case> cases = {
      {kConnect, nullptr, noRx, a, 1, kRecv, 1, 0, 0, {{err, "WaitEvent, m_hEventRx==nullptr", "WaitEvent"}}},
      {kDefine, nullptr, noRx, a, 1, kRecv, 1, 0, 0, {{warn, "UnknownError(0x1)", "runAsyncIntf"}}},  // no own line
      {kSwap, nullptr, noRx, a, 1, kRecv, 1, 0, 0, {{info, "m_hEventRx==nullptr", "WaitEvent"}}},
      {kConnect, nullptr, noTx, a, 1, kSend, 0, 0, 0, {{err, "SendEvent, Err:1", "runAsyncIntf"}}},
      {kConnect, "EVENT_CONNECT_RTOS2WIN", {}, a, 1, kWait, 0, 0, 0,
       {{warn, "m_hEventRx,Error(0x42)", "Init"}, {err, "WaitForSingleObject,E: 4294967295", "Async"}}},
      {kDefine, "EVENT_NOTIFY_WIN2RTOS", {}, a, 1, kWait, 0, 0, 0,  // nothing is opened after a failure
       {{warn, "m_hEventTx,Error(0x42)", "Init"}, {warn, "WaitForSingleObject,E:-1", "Async"}}},
      {kConnect, nullptr, {}, nullptr, 1, 0, 0, 0, 1, {{err, "m_hShmDataSwap == nullptr", "Async"}}},
      // An abandoned mutex: warned of, then the command goes out and the mutex is released.
      {kConnect, nullptr, abandon, a, 1, 0, 1, 0, 0, {{err, "WAIT_ABANDONED", "Async"}}, 17},
      {kDefine, nullptr, abandon, a, 1, 0, 1, 0, 0, {{warn, "WAIT_ABANDONED", "Async"}}, 12},
      {kSwap, nullptr, abandon, a, 1, 0, 1, 0, 0, {{warn, "WAIT_ABANDONED", "Async"}}, 0x50},
      {kConnect, nullptr, {}, dead.p, 1, ERR_UNDEFINED, 0, 0, 0, {}},  // a cut area, the partition alive or dead
      {kDefine, nullptr, {}, dead.p, 0, kGone, 0, 1, 0, {}},
      {kSwap, nullptr, {}, dead.p, 1, ERR_UNDEFINED, 0, 1, 0, {}},
      {kSwap, nullptr, {}, dead.p, 0, kGone, 0, 1, 0, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << &c - cases.data());
    qvtest::Log().Clear(), fake = FakeRtos();
    fake.slot = area.data(), fake.alive = c.alive;
    fake.answer = [&c](unsigned char* s) { Answer(c.ch, s, 3, 0); };
    if (c.failOpen != nullptr) fake.openResult[c.failOpen] = 0x42;
    const Outcome o = Drive(c.ch, 1, c.area, c.tweak);
    const uint32_t untouched = c.ch == kConnect ? 3 : c.ch == kSwap ? 1 : 0;  // no answer reached the record
    EXPECT_EQ((std::vector<uint32_t>{c.result, c.key != ~0u ? c.key : untouched, c.cleared, c.sends, c.ownsMutex}),
              (std::vector<uint32_t>{o.first[0], o.first[3], o.first[4], static_cast<uint32_t>(fake.sends.size()),
                                     qorvarlok::platform::ReleaseNamedMutex(o.second)}));  // kept on some paths
    for (const auto& [level, text, func] : c.logs)
      EXPECT_EQ(1u, qvtest::Log().CountOf(level, text, kClass[c.ch] + std::string("::") + func)) << text;
  }
}

TEST_F(ShmUnit, ClientSetUpFailuresGiveNullAndTheNextCallSetsUpAgain) {
  const std::vector<std::tuple<const char*, std::function<void(FakeRtos&)>, uint32_t, const char*>> cases = {
      {"partition down", [](FakeRtos& f) { f.alive = 0; }, 0, nullptr},
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
    arrange(fake);
    EXPECT_EQ(nullptr, ShmComClient::GetInstance());
    EXPECT_EQ(nullptr, ShmComClient::GetInstance());
    EXPECT_EQ(2, fake.aliveCalls);  // asked again on each call; a partition down is asked nothing else
    EXPECT_EQ(ret == 0 ? 0u : 2u, qvtest::Log().CountOf(info, fmt::format("shm client has initialized ret = {}", ret),
                                                        "ShmComClient::InitShmCom"));
    EXPECT_EQ(line ? 2u : 0u, qvtest::Log().CountOf(err, line ? line : "Error querying size is lower than minmum."));
    EXPECT_TRUE(!client->IsInitialized() && (ret == 0 || client->IsAnyStateDown()));
    Lost();
    fake.sizeOf[L"NotifyArea"] = 512;  // exactly the smallest size passes
    EXPECT_EQ(client, ShmComClient::GetInstance());
    EXPECT_FALSE(client->IsAnyStateDown());
    EXPECT_EQ((std::vector<uint32_t>{512, 0x500000, 0x500000}), fake.mapped);  // whatever size each reported
    EXPECT_EQ(3u, qvtest::Log().CountOf(info, "Ok - %u (0x%X) bytes"));  // a text deliberately left unfilled
    fake.alive = 0;
    EXPECT_EQ(client, ShmComClient::GetInstance());  // once set up, the partition is not asked
    EXPECT_EQ(1, fake.aliveCalls);
  }
}

TEST_F(ShmUnit, ClientWriteOperationsMapChannelOutcomes) {
  DeadMapping dead;
  const auto silent = [](FakeRtos& f) { f.waitResults = {4203, 4203, 4203, 4203, 4203}; };
  const std::vector<std::tuple<const char*, std::function<void(FakeRtos&)>, bool, std::vector<uint32_t>>> cases = {
      {"refusal", [](FakeRtos& f) {  // connect: errInfo 2; define, data swap: Flag 0
         f.answer = [](unsigned char* s) { WriteAt(s, 12, 2u), s[0] = 3, s[2] = s[4] = 0; }; },
       false, {0, ERR_PLC_DEFINE_FAILED, ERR_PLC_READ_WRITE_FAILED}},  // connect, define, data swap
      {"silent, partition alive", silent, false, {kRecv, kRecv, kRecv}},
      {"silent, partition gone", [silent](FakeRtos& f) { silent(f), f.alive = 0; }, false, {kGone, kGone, kGone}},
      {"area cut, partition alive", [](FakeRtos&) {}, true, {kGone, kGone, kGone}},
  };
  for (const auto& [name, arrange, cut, results] : cases) {
    SCOPED_TRACE(name);
    std::vector<uint32_t> got;
    for (int op = 0; op < 3; ++op) {
      ShmComClient* client = Lost();
      ASSERT_EQ(client, ShmComClient::GetInstance());
      arrange(fake);
      fake.slot = area.data();
      if (cut) client->ConnectChannel()->m_hShmDataSwap = client->DefineChannel()->m_hShmDataSwap =
                   client->DataSwapChannel()->m_hShmDataSwap = dead.p;
      connectCmd connect;
      defineCmd define;
      rwCmd rw;
      connect.Flag = define.Flag = rw.Flag = rw.Rw = 1;
      got.push_back(op == 0 ? client->WriteConnectCmd(connect) : op == 1 ? client->WriteDefineCmd(define)
                                                               : client->WriteRwCmd(rw));
      EXPECT_EQ(!cut, client->IsInitialized()) << op;  // a cut area is not to be trusted again
      if (op == 0 && got[0] == 0) { EXPECT_EQ(ERR_CONNECT_REFUSED_2, connect.errInfo); }  // in the record only
    }
    EXPECT_EQ(results, got);
  }
  EXPECT_TRUE(qvtest::Log().Contains("dataswap result = 1, cmd=[DataSwapCmd ByteTotal=0, Err=0, Flag=0, Rw=0, Seq=0, "
                                     "Size=0, TagsHandle=0, SessionId=0]"));  // the record the channel cleared
}

}  // namespace
