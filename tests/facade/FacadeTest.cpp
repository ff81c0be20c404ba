// The exported class against a fake backend: guards in every state and their
// order, lifecycle, exception paths, typed templates, description queries.
#include <set>

#include "FacadeFixture.h"
#include "SymbolConfigDll.h"

namespace qvtest {
namespace {

using namespace spdlog::level;
using Call = std::function<unsigned int(ZelVarlok&, HTAGLIST)>;
#define OP(expr) [&](ZelVarlok & v, HTAGLIST h) -> unsigned int { (void)h; return expr; }
using qorvarlok::facade::g_objectSerial;
using qorvarlok::facade::g_sessionCounter;
using qorvarlok::symbols::ReadSymbolConfig;
constexpr unsigned int kBackendCode = ERR_PLC_READ_WRITE_FAILED, kNoCom = ERR_COMMUNICATION_NOT_INITIALIZED;

enum State { Created, FailedInit, Initialised, Connected, Exited };
const char* kStateNames[] = {"created", "failed init", "initialised", "connected", "exited"};

class FacadeTest : public FacadeFixture {
 protected:
  // Brings a new object into the state; the fake behind it, if one was made.
  std::shared_ptr<FakeVarlok> Enter(ZelVarlok& varlok, State state) {
    const size_t before = MadeCount();
    const unsigned int initCode = nextCodes["InitializeCom"] = state == FailedInit ? ERR_SHM_NOT_INITIALIZED : 0u;
    const bool initOnly = state == FailedInit || state == Initialised;
    EXPECT_EQ(initCode, initOnly ? varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()) : initCode);
    nextCodes.clear();
    if (state >= Connected) Connect(varlok);
    EXPECT_EQ(0u, state == Exited ? varlok.ExitVarlokCommunication() : 0u);
    return MadeCount() > before ? Fake() : nullptr;
  }
};

TEST_F(FacadeTest, TagOperationGuardsInEveryStateAndTheirOrder) {
  std::vector<tagTagVarValue> values;
  std::vector<std::string> texts{"1"};
  tagTagVarValue* array = nullptr;
  unsigned char raw[4] = {};
  unsigned int n = 0;
  const char *kInvalid = "handle is invalid", *kNotFound = "handle is not found %p";
  // Method (of ZelVarlok), backend call, line for an unknown handle, for a null one, of the connection guard.
  struct Op { Call call; const char *method, *backend; level_enum invalidLevel; const char* invalidText;
    level_enum nullLevel = warn; const char* nullText = "handle is %p";
    const char* notExist = "!m_ZelVarlokPrivate->IsVarlokExist()"; };
  const Op ops[] = {
      {OP(v.ReadTagList(h, values, n)), "ReadTagList", "ReadTag(vector)", err, kInvalid},
      {OP(v.ReadTagList(h, &array, n)), "ReadTagList", "ReadTag(array)", err, kInvalid},
      {OP(v.WriteTagList(h, texts)), "WriteTagList", "WriteTag", warn, kNotFound},
      {OP(v.WriteTagList(h, raw, 1)), "WriteTagList", "WriteTagValue(raw)", warn, kNotFound},
      {OP(v.ReadArray(h, 4, raw, 0, 1)), "ReadArray", "ReadArray", err, kInvalid},
      {OP(v.WriteArray(h, 4, raw, 0, 1)), "WriteArray", "WriteArray", err, kInvalid},
      {OP(v.ReadStructField(h, raw, 4)), "ReadStructField", "ReadStructField", err, kInvalid},
      {OP(v.WriteStructField(h, raw, 4)), "WriteStructField", "WriteStructField", err, kInvalid},
      {OP(v.ReadTagValues(h, n)), "ReadTagDataFromBuff", "ReadTagValue", warn, kInvalid, err, "handle is nullptr"},
      {OP(v.WriteTagValues(h, n)), "WirteTagDataFromBuff", "WriteTagValue", err, kInvalid, err},
      {OP(v.DeleteTagsHandle(h)), "DeleteTagsHandle", "DeleteTagsHandle", err, kInvalid, warn, "handle is %p",
       "m_ZelVarlokPrivate->IsVarlokExist() == false"},
  };
  enum Kind { Null, Foreign, Deleted, Own };
  ZelVarlok other;
  Connect(other);
  const HTAGLIST foreign = Create(other);
  for (State state : {Created, FailedInit, Initialised, Connected, Exited}) {
    ZelVarlok varlok;
    std::shared_ptr<FakeVarlok> fake = Enter(varlok, state);
    for (const auto& op : ops) {
      if (fake) fake->codes[op.backend] = kBackendCode;
      for (Kind kind : {Null, Foreign, Deleted, Own}) {
        if (kind >= Deleted && state != Connected) continue;
        SCOPED_TRACE(std::string(kStateNames[state]) + " " + op.backend + " kind " + std::to_string(kind));
        HTAGLIST handle = kind == Null ? nullptr : kind == Foreign ? foreign : Create(varlok);
        if (kind == Deleted) varlok.DeleteTagsHandle(handle);  // gone even when the backend failed to delete it
        const size_t calls = fake ? fake->CountOf(op.backend) : 0;
        log.Clear();
        const unsigned int code = op.call(varlok, handle);
        const std::string function = std::string("ZelVarlok::") + op.method;
        EXPECT_EQ(calls + (kind == Own), fake ? fake->CountOf(op.backend) : 0);
        if (state != Connected) {  // the connection guard comes before any test of the handle
          EXPECT_EQ(kNoCom, code);
          EXPECT_EQ(1u, log.CountOf(err, op.notExist, function));
          const char* reason = state == Created ? "m_pVarlok == nullptr" : "m_pVarlok->GetPlcDevice() == nullptr";
          EXPECT_EQ(1u, log.CountOf(err, reason, "ZelVarlok_p::IsVarlokExist"));
        } else if (kind == Null) {
          EXPECT_EQ(ERR_INVALID_TAG_HANDLE, code);
          EXPECT_EQ(1u, log.CountOf(op.nullLevel, Printf(op.nullText, nullptr), function));
        } else if (kind == Own) {
          EXPECT_EQ(kBackendCode, code);
        } else {
          EXPECT_EQ(ERR_INVALID_TAG_HANDLE, code);
          EXPECT_EQ(1u, log.CountOf(op.invalidLevel, Printf(op.invalidText, handle), function));
          EXPECT_EQ(1u, log.CountOf(warn, Printf("handle %p not found", handle), "ZelVarlok_p::isTagHandleVaild"));
        }
      }
    }
  }
}

TEST_F(FacadeTest, CreateTagsHandleFormsInEveryState) {
#define FORM(expr) [](ZelVarlok & v, const char* s, unsigned int& e) -> HTAGLIST { return expr; }
  // With true, the guard's line is the error with "!".
  const std::pair<std::function<HTAGLIST(ZelVarlok&, const char*, unsigned int&)>, bool> forms[] = {
      {FORM(v.CreateTagsHandleAnsi(&s, 1, e)), false}, {FORM(v.CreateTagsHandleAnsi(s, e)), false},
      {FORM(v.CreateTagsHandleAnsi(std::string(s), e)), true},
      {FORM(v.CreateTagsHandleAnsi(std::vector<std::string>{s}, e)), false},
      {FORM(v.CreateTagsHandle(&s, 1, e)), false}, {FORM(v.CreateTagsHandle(std::string(s), e)), true},
  };
  for (State state : {Created, FailedInit, Initialised, Connected, Exited}) {
    ZelVarlok varlok;
    std::shared_ptr<FakeVarlok> fake = Enter(varlok, state);
    for (size_t i = 0; i < std::size(forms); ++i) {
      SCOPED_TRACE(std::string(kStateNames[state]) + " form " + std::to_string(i));
      log.Clear();
      unsigned int error = 1;
      HTAGLIST handle = forms[i].first(varlok, "App.GVL.count", error);
      if (state != Connected) {
        EXPECT_TRUE(handle == nullptr && error == kNoCom) << error;
        const std::string guard = std::string(forms[i].second ? "!" : "") + "m_ZelVarlokPrivate->IsVarlokExist()";
        EXPECT_EQ(1u, log.CountOf(forms[i].second ? err : warn, guard, "ZelVarlok::CreateTagsHandleAnsi"));
        continue;
      }
      ASSERT_TRUE(handle != nullptr && error == 0) << error;
      const std::string line = Printf("handle %p=inserted, handle=", handle) + std::to_string(*(int*)handle);
      EXPECT_EQ(1u, log.CountOf(info, line, "ZelVarlok_p::insertTagHandle"));
      EXPECT_EQ(1, varlok.GetTagsListLength(handle));
      // A name the table lacks (here not even convertible): null with the backend's code.
      HTAGLIST unknown = forms[i].first(varlok, "App.GVL.sp\xE2\x82\xAC" "ed", error);
      EXPECT_TRUE(unknown == nullptr && error == ERR_EXIST_INVAILD_VAR) << error;
      EXPECT_EQ(1u, log.CountOf(err, "handle is nullptr", "ZelVarlok::CreateTagsHandleAnsi"));
    }
    EXPECT_EQ(state == Connected ? 12u : 0u, fake ? fake->CountOf("CreateTagsHandle") : 0u);  // all with period 100
  }
}

// Each operation's guard line carries that operation's own place in the
// source, though one shared guard writes them all.
TEST_F(FacadeTest, GuardLinesCarryTheLocationOfTheOperationThatFailed) {
  ZelVarlok varlok;
  HTAGLIST h = reinterpret_cast<HTAGLIST>(&varlok);
  std::vector<tagTagVarValue> values;
  std::vector<std::string> texts{"1"};
  unsigned int count = 0;
  int32_t data[4] = {};
  log.Clear();
  EXPECT_EQ(kNoCom, varlok.ReadTagList(h, values, count));
  EXPECT_EQ(kNoCom, varlok.WriteTagList(h, texts));
  EXPECT_EQ(kNoCom, varlok.ReadArray(h, 4, data, 0, 1));
  EXPECT_EQ(kNoCom, varlok.WriteArray(h, 4, data, 0, 1));
  const std::vector<std::string> sites = log.Sites(err, "!m_ZelVarlokPrivate->IsVarlokExist()");
  ASSERT_EQ(4u, sites.size());
  for (const std::string& site : sites) EXPECT_EQ(0u, site.rfind("ZelVarlok.cpp:", 0)) << site;
  EXPECT_EQ(4u, std::set<std::string>(sites.begin(), sites.end()).size()) << "one place for all: the helper's";
}

TEST_F(FacadeTest, LifecycleGuardsInEveryState) {
  const char *kNoPrivate = "m_ZelVarlokPrivate==nullptr", *kNull = "handle == nullptr", *kNot = "";
  const char* kNotExist = "m_ZelVarlokPrivate->IsVarlokExist() == false";
  const char *C = "ZelVarlok::ConnectToPlcDevice", *D = "ZelVarlok::DisconnectFromDevice";
  const char* E = "ZelVarlok::ExitVarlokCommunication";
  // Connecting to an address, disconnecting the "device" or "null", exiting.
  const struct { State state; const char *op, *arg; unsigned int code; level_enum level; const char* text; } cases[] = {
      {Created, C, "Local", kNoCom, err, kNoPrivate},
      {Created, D, "null", ERR_INVALID_TAG_HANDLE, err, kNull},
      {Created, D, "device", kNoCom, err, kNotExist},
      {Created, E, "", ERR_INVALID_VAR_DEFS, err, "m_pVarlok == nullptr"},
      {FailedInit, C, "Local", kNoCom, err, kNoPrivate},
      {Initialised, C, "Local ", ERR_MISMATCH_COMTYPE, err, "2, Local "},  // compared exactly
      {Initialised, C, nullptr, ERR_CONNECT_FAILED, info, "unknown exception"},
      {Initialised, C, "Local", ERR_CONNECT_FAILED, err, "plcClient==nullptr"},  // the backend's code hidden
      {Initialised, D, "null", ERR_INVALID_TAG_HANDLE, err, kNull},
      {Initialised, D, "device", kNoCom, err, kNotExist},
      {Initialised, E, "", 0, info, kNot},
      {Connected, C, "192.168.0.9", 0, info, kNot},
      {Connected, D, "device", kBackendCode, info, kNot},
      {Connected, E, "", 0, err, "disconnect err 268436233"},
      {Exited, C, "Local", kNoCom, err, kNoPrivate},
      {Exited, D, "device", kNoCom, err, kNotExist},
      {Exited, E, "", 0, info, "m_pVarlok has released"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(kStateNames[c.state]) + " " + c.op + " " + (c.arg ? c.arg : "(null)"));
    ZelVarlok varlok;
    std::shared_ptr<FakeVarlok> fake = Enter(varlok, c.state);
    if (fake) fake->codes = {{"DisconnectFromPlcDevice", kBackendCode}, {"ConnectToPlcDevice", ERR_WAIT_TIMEOUT}};
    log.Clear();
    unsigned int code = c.op == E ? varlok.ExitVarlokCommunication() : 0;
    if (c.op == D) code = varlok.DisconnectFromDevice(c.arg == std::string("null") ? nullptr : &code);
    if (c.op == C) {
      EXPECT_EQ(c.state == Connected ? fake->GetPlcDevice() : nullptr, varlok.ConnectToPlcDevice(c.arg, code));
      const bool reached = c.state == Initialised && c.arg && c.code == ERR_CONNECT_FAILED;  // only a valid address
      EXPECT_EQ(reached, c.state == Initialised && fake->CountOf("ConnectToPlcDevice Local") == 1);
    }
    EXPECT_EQ(c.code, code);
    EXPECT_EQ(c.text == kNot ? 0u : 1u, c.text == kNot ? 0u : log.CountOf(c.level, c.text, c.op));
  }
}

TEST_F(FacadeTest, InitializeComRefusesBadTypesAndMakesNoBackendWhileNoneExists) {
  ZelVarlok varlok;
  for (ComType type : {ComType(0), ComType(3), ComType(-1)}) {
    EXPECT_EQ(ERR_INVALID_COMTYPE, varlok.InitializeCom(type, file.path.c_str()));
    EXPECT_EQ(ERR_INVALID_COMTYPE, varlok.InitializeCom(type, file.WidePath()));
    EXPECT_EQ(ERR_INVALID_COMTYPE, varlok.InitializeCom(type, static_cast<void*>(nullptr)));
  }
  EXPECT_EQ(0u, MadeCount());
  // A factory that makes nothing: the paths of a type without a backend.
  qorvarlok::facade::SetVarlokFactoryForTests([](ComType) { return std::shared_ptr<ZelmonteVarlok::Varlok>(); });
  EXPECT_EQ(ERR_UNDEFINED, varlok.InitializeCom(COM_TYPE_TCP, file.WidePath()));
  EXPECT_EQ(1u, log.CountOf(err, "m_pVarlok = nullptr", "ZelVarlok_p::createVarlok"));
  EXPECT_EQ(1u, log.CountOf(warn, "m_pVarlok==nullptr", "ZelVarlok::InitializeCom"));
  // The other forms go on to use the missing backend: caught, their local code.
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_TCP, file.path.c_str()));
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_TCP, static_cast<void*>(nullptr)));
  EXPECT_EQ(2u, log.CountOf(err, "unknown exception", "ZelVarlok::InitializeCom"));
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, varlok.ExitVarlokCommunication());
}

TEST_F(FacadeTest, ReinitialisationThroughEachFormKeepsOneBackend) {
  ZelVarlok varlok;
  Connect(varlok);
  ASSERT_EQ(0u, varlok.ExitVarlokCommunication() + varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  // The narrow path form is a silent success once initialised, even with a bad path.
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, "/nonexistent/symbols.xml"));
  EXPECT_NE(nullptr, varlok.GetTagDescByName("App.GVL.speed"));
  // The wide form re-reads: a missing file gives the reader's code, tags released.
  const unsigned int missing = varlok.InitializeCom(COM_TYPE_LOCAL, std::wstring(L"/nonexistent/symbols.xml"));
  EXPECT_EQ(1u, missing == 0 ? 0 : log.CountOf(err, std::to_string(missing), "ZelVarlok::InitializeCom"));
  EXPECT_EQ(nullptr, varlok.GetTagDescByName("App.GVL.speed"));
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.WidePath()));
  unsigned int code = 0;
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, ReadSymbolConfig(file.WidePath(), &code)));
  EXPECT_NE(nullptr, varlok.ConnectToPlcDevice("Local", code));
  EXPECT_EQ(4u, Fake()->CountOf("InitializeCom"));
  EXPECT_EQ(1u, Fake()->CountOf("ExitVarlokCommunication"));
  // The narrow form overwrites the type although it does nothing else.
  EXPECT_EQ(0u, varlok.ExitVarlokCommunication() + varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_TCP, file.path.c_str()));
  EXPECT_EQ(nullptr, varlok.ConnectToPlcDevice("Local", code));
  EXPECT_EQ(ERR_MISMATCH_COMTYPE, code);
  EXPECT_EQ(1u, MadeCount());
}

// In a fresh process, whose first object is the first of the process: serials from 11, keys
// from 1; a list's instance id is 1 for an open configuration and the object's serial for a path.
TEST_F(FacadeTest, SerialsFromElevenKeysFromOneAndInstanceIds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto firstObjects = [this] {
    ZelVarlok byConfig, byPath;
    std::string text;
    byConfig.ReadTagValues(nullptr, text);
    unsigned int code = byConfig.InitializeCom(COM_TYPE_LOCAL, ReadSymbolConfig(file.WidePath(), &code));
    code += byPath.InitializeCom(COM_TYPE_LOCAL, file.path.c_str());
    const uint32_t ids[] = {g_objectSerial, g_sessionCounter, Fake(0)->GetTagManager()->InstanceId(),
                            Fake(1)->GetTagManager()->InstanceId()};
    std::_Exit(code == 0 && ids[0] == 12 && ids[1] == 1 && ids[2] == 1 && ids[3] == 12 ? 0 : 1);
  };
  EXPECT_EXIT(firstObjects(), testing::ExitedWithCode(0), "");
}

TEST_F(FacadeTest, EveryMethodCatchesWhatItsBackendThrows) {
  std::vector<tagTagVarValue> values;
  unsigned int n = 0;
  auto again = [&](ZelVarlok& v) {  // re-initialising and connecting: the code that follows
    const unsigned int init = v.ExitVarlokCommunication() + v.InitializeCom(COM_TYPE_LOCAL, file.WidePath());
    return init != 0 ? init : (v.ConnectToPlcDevice("Local", n), n);
  };
  // Rows without a backend call: null names, a fault of the caller's own.
  const struct { const char* backend; Call call; unsigned int result; const char* method; } cases[] = {
      {"", OP((v.CreateTagsHandleAnsi(static_cast<const char**>(nullptr), 2, n), n)), kNoCom, "CreateTagsHandleAnsi"},
      {"", OP((v.CreateTagsHandle(std::array<const char*, 2>{"a"}.data(), 2, n), n)), kNoCom, "CreateTagsHandle"},
      {"ReadStructField", OP(v.ReadStructField(h, &n, 4)), 0, "ReadStructField"},
      {"ReadTag(vector)", OP(v.ReadTagList(h, values, n)), 0, "ReadTagList"},
      {"DeleteTagsHandle", OP(v.DeleteTagsHandle(h)), 0, "DeleteTagsHandle"},
      {"DisconnectFromPlcDevice", OP(v.DisconnectFromDevice(h)), 0, "DisconnectFromDevice"},
      {"ExitVarlokCommunication", OP(v.ExitVarlokCommunication()), 0, "ExitVarlokCommunication"},
      {"CreateTagsHandle", OP((v.CreateTagsHandleAnsi("App.GVL.speed", n), n)), kNoCom, "CreateTagsHandleAnsi"},
      {"ReadTagValue", OP(v.ReadTagValues(h, n)), 0, "ReadTagDataFromBuff"},
      {"ConnectToPlcDevice", OP(again(v)), ERR_CONNECT_FAILED, "ConnectToPlcDevice"},
      // Logged as an error, the local code 0, yet the object stays uninitialised.
      {"InitializeCom", OP(again(v)), kNoCom, "InitializeCom"},
  };
  for (FakeVarlok::Fault fault : {FakeVarlok::Fault::StdException, FakeVarlok::Fault::Other}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.method) + " " + c.backend + (fault == FakeVarlok::Fault::Other ? " other" : " std"));
      ZelVarlok varlok;
      Connect(varlok);
      HTAGLIST handle = Create(varlok);
      Fake()->faults[c.backend] = fault;
      log.Clear();
      EXPECT_EQ(c.result, c.call(varlok, handle));
      const bool other = fault == FakeVarlok::Fault::Other || !*c.backend;
      const level_enum level = c.backend == std::string("InitializeCom") ? err : info;
      const char* text = other ? "unknown exception" : "exception=fake failure";
      EXPECT_EQ(1u, log.CountOf(level, text, std::string("ZelVarlok::") + c.method));
    }
  }
}

TEST_F(FacadeTest, TypedTemplatesAndStructFieldsPassKeysTypesLengthsAndBytes) {
  ZelVarlok varlok;
  Connect(varlok);
  HTAGLIST handle = Create(varlok);
  std::shared_ptr<FakeVarlok> fake = Fake();
  std::string text = "abc";
  std::wstring wide = L"xy";
  int32_t number = 0;
  double real = 0;
  ASSERT_EQ(0u, varlok.ReadTagValues(handle, text, wide, number, real));
  EXPECT_EQ((std::vector<int>{17, 18, 32767, 32767}), fake->types);
  EXPECT_EQ((std::vector<int>{3, 2, 4, 8}), fake->lengths);
  EXPECT_TRUE(text == "text" && wide == L"wide" && number == int32_t(0xA2A2A2A2)) << text << " " << number;
  // The record of a finished key is gone: its key now finds nothing, and calls nothing.
  EXPECT_EQ(0u, varlok.ReadTagInner(g_sessionCounter, handle));
  EXPECT_EQ(1u, log.CountOf(warn, "not found " + std::to_string(g_sessionCounter), "ZelVarlok_p::ReadVar"));
  EXPECT_EQ(1u, fake->CountOf("ReadTagValue"));
  // A failing backend: its code, and the record is gone all the same.
  fake->codes["WriteTagValue"] = ERR_OVERSTEP_ACCESS;
  EXPECT_EQ(ERR_OVERSTEP_ACCESS, varlok.WriteTagValues(handle, std::string("hi"), int16_t{0x0102}));
  EXPECT_EQ((std::vector<int>{17, 32767}), fake->types);
  EXPECT_EQ((std::vector<int>{2, 2}), fake->lengths);
  EXPECT_EQ((std::vector<std::string>{"hi", std::string("\x02\x01", 2)}), fake->written);
  EXPECT_EQ(0u, varlok.WriteTagInner(g_sessionCounter, handle));
  EXPECT_EQ(1u, log.CountOf(warn, "not found " + std::to_string(g_sessionCounter), "ZelVarlok_p::WriteVar"));
  // A failed guard keeps the record (pointing at the caller's variable); the same key later uses it.
  fake->codes["WriteTagValue"] = 0;
  EXPECT_EQ(ERR_INVALID_TAG_HANDLE, varlok.WriteTagValues(nullptr, number = 5));
  EXPECT_EQ(0u, varlok.WriteTagInner(g_sessionCounter, handle));
  EXPECT_EQ((std::vector<std::string>{std::string("\x05\0\0\0", 4)}), fake->written);
  // Struct bytes are copied only when the backend succeeded.
  char out[5] = "\7\7\7\7";
  EXPECT_EQ(0u, varlok.ReadStructField(handle, nullptr, 4));
  fake->codes["ReadStructField"] = ERR_UNALIGNED_STRUCT;
  EXPECT_EQ(ERR_UNALIGNED_STRUCT, varlok.ReadStructField(handle, out, 4));
  const std::string line = Printf("handle is %p, E:", handle) + std::to_string(ERR_UNALIGNED_STRUCT);
  EXPECT_EQ(1u, log.CountOf(warn, line, "ZelVarlok::ReadStructField"));
  fake->codes["ReadStructField"] = 0;
  EXPECT_EQ(std::string("\7\7\7\7"), out);
  EXPECT_EQ(0u, varlok.ReadStructField(handle, out, 4));
  EXPECT_EQ(std::string("\1\2\3\4"), out);
}

TEST_F(FacadeTest, DescriptionQueriesAndTheirManagedForms) {
  ZelVarlok varlok;
  EXPECT_EQ(nullptr, varlok.GetTagDescByName("App.GVL.speed"));
  EXPECT_EQ(1u, log.CountOf(err, "m_ZelVarlokPrivate type is 0", "ZelVarlok::GetTagDescByName"));
  Connect(varlok);
  tagTagDesc* desc = varlok.GetTagDescByName("App.GVL.label");
  const char* names[] = {"App.GVL.label", "App.GVL.nothing", nullptr};
  for (const char* name : names) {
    tagTagDesc* found = reinterpret_cast<tagTagDesc*>(&varlok);
    EXPECT_EQ(name == names[0] ? 1 : 0, CSharp_ReadTagsDescByTagName(&varlok, name, &found));
    EXPECT_EQ(name == names[0] ? desc : nullptr, found);
  }
  unsigned int error = 0;
  HTAGLIST handle = varlok.CreateTagsHandle(std::vector<std::string>{"App.GVL.speed", "App.GVL.label"}, error);
  tagTagDesc* descs[2] = {nullptr, nullptr};
  EXPECT_EQ(2, CSharp_GetTagsListLength(&varlok, handle));
  ASSERT_EQ(2, CSharp_ReadTagsListDesc(&varlok, handle, descs));
  EXPECT_TRUE(descs[0] == varlok.GetTagDescByName("App.GVL.speed") && descs[1] == desc && desc != nullptr);
  int unknown = 77;
  EXPECT_EQ(0, varlok.GetTagsListLength(&unknown) + varlok.GetTagDescByDefinedHandle(&unknown, descs));
  const char* line = "m_ZelVarlokPrivate type is 2, is valid false";
  EXPECT_EQ(1u, log.CountOf(err, line, "ZelVarlok::GetTagDescByDefinedHandle"));
  EXPECT_EQ(0, varlok.GetTagDescByDefinedHandle(handle, nullptr) + CSharp_GetTagsListLength(nullptr, handle));
}

}  // namespace
}  // namespace qvtest
