// The exported class against a fake backend: guards in every state and their
// order, lifecycle, exception paths, typed templates, description queries.
#include <functional>

#include "FacadeFixture.h"
#include "SymbolConfigDll.h"

namespace qvtest {
namespace {

using spdlog::level::err;
using spdlog::level::info;
using spdlog::level::warn;
using Level = spdlog::level::level_enum;

constexpr unsigned int kBackendCode = ERR_PLC_READ_WRITE_FAILED;

enum class State { Created, FailedInit, Initialised, Connected, Exited };
const State kStates[] = {State::Created, State::FailedInit, State::Initialised, State::Connected, State::Exited};
const char* Name(State s) {
  static const char* names[] = {"created", "failed init", "initialised", "connected", "exited"};
  return names[static_cast<int>(s)];
}

class FacadeTest : public FacadeFixture {
 protected:
  void Enter(ZelVarlok& varlok, State state) {
    switch (state) {
      case State::Created:
        return;
      case State::FailedInit:
        nextCodes["InitializeCom"] = ERR_SHM_NOT_INITIALIZED;
        EXPECT_EQ(ERR_SHM_NOT_INITIALIZED, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
        nextCodes.clear();
        return;
      case State::Initialised:
        EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
        return;
      case State::Connected:
        Connect(varlok);
        return;
      case State::Exited:
        Connect(varlok);
        EXPECT_EQ(0u, varlok.ExitVarlokCommunication());
        return;
    }
  }
  // The line that IsVarlokExist leaves on an unconnected object.
  static const char* NotExistReason(State state) {
    return state == State::Created ? "m_pVarlok == nullptr" : "m_pVarlok->GetPlcDevice() == nullptr";
  }
  HTAGLIST Create(ZelVarlok& varlok, const char* name = "App.GVL.speed") {
    unsigned int error = 1;
    HTAGLIST handle = varlok.CreateTagsHandleAnsi(std::string(name), error);
    EXPECT_EQ(0u, error);
    EXPECT_NE(nullptr, handle);
    return handle;
  }
};

// One guarded tag operation: its call, its log lines and the backend call it makes.
struct TagOp {
  const char* name;
  std::function<unsigned int(ZelVarlok&, HTAGLIST)> call;
  const char* function;
  const char* backendCall;
  Level notExistLevel;
  const char* notExistText;
  Level nullLevel;
  const char* nullText;
  Level invalidLevel;
  const char* invalidText;
};

const std::vector<TagOp>& TagOps() {
  static std::vector<tagTagVarValue> values;
  static std::vector<std::string> texts{"1"};
  static unsigned char raw[4];
  static const char* kNotExist = "!m_ZelVarlokPrivate->IsVarlokExist()";
  static const std::vector<TagOp> ops = {
      {"ReadTagList(vector)", [](ZelVarlok& v, HTAGLIST h) { unsigned int n; return v.ReadTagList(h, values, n); },
       "ZelVarlok::ReadTagList", "ReadTag(vector)", err, kNotExist, warn, "handle is %p", err, "handle is invalid"},
      {"ReadTagList(array)",
       [](ZelVarlok& v, HTAGLIST h) {
         tagTagVarValue* out = nullptr;
         unsigned int n;
         return v.ReadTagList(h, &out, n);
       },
       "ZelVarlok::ReadTagList", "ReadTag(array)", err, kNotExist, warn, "handle is %p", err, "handle is invalid"},
      {"WriteTagList(text)", [](ZelVarlok& v, HTAGLIST h) { return v.WriteTagList(h, texts); },
       "ZelVarlok::WriteTagList", "WriteTag", err, kNotExist, warn, "handle is %p", warn, "handle is not found %p"},
      {"WriteTagList(raw)", [](ZelVarlok& v, HTAGLIST h) { return v.WriteTagList(h, raw, 1); },
       "ZelVarlok::WriteTagList", "WriteTagValue(raw)", err, kNotExist, warn, "handle is %p", warn,
       "handle is not found %p"},
      {"ReadArray", [](ZelVarlok& v, HTAGLIST h) { return v.ReadArray(h, 4, raw, 0, 1); }, "ZelVarlok::ReadArray",
       "ReadArray", err, kNotExist, warn, "handle is %p", err, "handle is invalid"},
      {"WriteArray", [](ZelVarlok& v, HTAGLIST h) { return v.WriteArray(h, 4, raw, 0, 1); }, "ZelVarlok::WriteArray",
       "WriteArray", err, kNotExist, warn, "handle is %p", err, "handle is invalid"},
      {"ReadStructField", [](ZelVarlok& v, HTAGLIST h) { return v.ReadStructField(h, raw, 4); },
       "ZelVarlok::ReadStructField", "ReadStructField", err, kNotExist, warn, "handle is %p", err,
       "handle is invalid"},
      {"WriteStructField", [](ZelVarlok& v, HTAGLIST h) { return v.WriteStructField(h, raw, 4); },
       "ZelVarlok::WriteStructField", "WriteStructField", err, kNotExist, warn, "handle is %p", err,
       "handle is invalid"},
      {"ReadTagValues",
       [](ZelVarlok& v, HTAGLIST h) {
         int32_t x = 0;
         return v.ReadTagValues(h, x);
       },
       "ZelVarlok::ReadTagDataFromBuff", "ReadTagValue", err, kNotExist, err, "handle is nullptr", warn,
       "handle is invalid"},
      {"WriteTagValues", [](ZelVarlok& v, HTAGLIST h) { return v.WriteTagValues(h, int32_t{7}); },
       "ZelVarlok::WirteTagDataFromBuff", "WriteTagValue", err, kNotExist, err, "handle is %p", err,
       "handle is invalid"},
      {"DeleteTagsHandle", [](ZelVarlok& v, HTAGLIST h) { return v.DeleteTagsHandle(h); },
       "ZelVarlok::DeleteTagsHandle", "DeleteTagsHandle", err, "m_ZelVarlokPrivate->IsVarlokExist() == false", warn,
       "handle is %p", err, "handle is invalid"},
  };
  return ops;
}

enum class HandleKind { Null, Foreign, Own };

TEST_F(FacadeTest, TagOperationGuardsInEveryStateAndTheirOrder) {
  ZelVarlok other;
  Connect(other);
  HTAGLIST foreign = Create(other);
  for (State state : kStates) {
    ZelVarlok varlok;
    const size_t before = MadeCount();
    Enter(varlok, state);
    std::shared_ptr<FakeVarlok> fake = MadeCount() > before ? Fake(MadeCount() - 1) : nullptr;
    for (const TagOp& op : TagOps()) {
      if (fake) fake->SetCode(op.backendCall, kBackendCode);
      for (HandleKind kind : {HandleKind::Null, HandleKind::Foreign, HandleKind::Own}) {
        if (kind == HandleKind::Own && state != State::Connected) continue;
        SCOPED_TRACE(std::string(Name(state)) + " " + op.name + " handle kind " + std::to_string(int(kind)));
        HTAGLIST handle = kind == HandleKind::Null ? nullptr : kind == HandleKind::Foreign ? foreign : Create(varlok);
        const size_t backendCalls = fake ? fake->CountOf(op.backendCall) : 0;
        log.Clear();
        const unsigned int code = op.call(varlok, handle);
        if (state != State::Connected) {
          // The connection guard comes before any test of the handle.
          EXPECT_EQ(ERR_COMMUNICATION_NOT_INITIALIZED, code);
          EXPECT_EQ(1u, log.CountOf(op.notExistLevel, op.notExistText, op.function));
          EXPECT_EQ(1u, log.CountOf(err, NotExistReason(state), "ZelVarlok_p::IsVarlokExist"));
        } else if (kind == HandleKind::Null) {
          EXPECT_EQ(ERR_INVALID_TAG_HANDLE, code);
          EXPECT_EQ(1u, log.CountOf(op.nullLevel, Printf(op.nullText, nullptr), op.function));
        } else if (kind == HandleKind::Foreign) {
          EXPECT_EQ(ERR_INVALID_TAG_HANDLE, code);
          EXPECT_EQ(1u, log.CountOf(op.invalidLevel, Printf(op.invalidText, foreign), op.function));
          EXPECT_EQ(1u, log.CountOf(warn, Printf("handle %p not found", foreign), "ZelVarlok_p::isTagHandleVaild"));
        } else {
          EXPECT_EQ(kBackendCode, code);
          EXPECT_EQ(backendCalls + 1, fake->CountOf(op.backendCall));
          continue;
        }
        if (fake) {
          EXPECT_EQ(backendCalls, fake->CountOf(op.backendCall));
        }
      }
    }
  }
}

// The CreateTagsHandle families: which guard answers in which state, and with what.
struct CreateForm {
  const char* name;
  std::function<HTAGLIST(ZelVarlok&, const char*, unsigned int&)> call;
  Level notExistLevel;
  const char* notExistText;
};

const std::vector<CreateForm>& CreateForms() {
  static const std::vector<CreateForm> forms = {
      {"Ansi(const char**)",
       [](ZelVarlok& v, const char* n, unsigned int& e) { return v.CreateTagsHandleAnsi(&n, 1, e); }, warn,
       "m_ZelVarlokPrivate->IsVarlokExist()"},
      {"Ansi(const char*)", [](ZelVarlok& v, const char* n, unsigned int& e) { return v.CreateTagsHandleAnsi(n, e); },
       warn, "m_ZelVarlokPrivate->IsVarlokExist()"},
      {"Ansi(string)",
       [](ZelVarlok& v, const char* n, unsigned int& e) { return v.CreateTagsHandleAnsi(std::string(n), e); }, err,
       "!m_ZelVarlokPrivate->IsVarlokExist()"},
      {"Ansi(vector)",
       [](ZelVarlok& v, const char* n, unsigned int& e) {
         return v.CreateTagsHandleAnsi(std::vector<std::string>{n}, e);
       },
       warn, "m_ZelVarlokPrivate->IsVarlokExist()"},
      {"(const char**)", [](ZelVarlok& v, const char* n, unsigned int& e) { return v.CreateTagsHandle(&n, 1, e); },
       warn, "m_ZelVarlokPrivate->IsVarlokExist()"},
      {"(string)", [](ZelVarlok& v, const char* n, unsigned int& e) { return v.CreateTagsHandle(std::string(n), e); },
       err, "!m_ZelVarlokPrivate->IsVarlokExist()"},
  };
  return forms;
}

TEST_F(FacadeTest, CreateTagsHandleGuardsAndResults) {
  for (State state : kStates) {
    ZelVarlok varlok;
    Enter(varlok, state);
    for (const CreateForm& form : CreateForms()) {
      SCOPED_TRACE(std::string(Name(state)) + " " + form.name);
      log.Clear();
      unsigned int error = 1;
      HTAGLIST handle = form.call(varlok, "App.GVL.count", error);
      if (state != State::Connected) {
        EXPECT_EQ(nullptr, handle);
        EXPECT_EQ(ERR_COMMUNICATION_NOT_INITIALIZED, error);
        EXPECT_EQ(1u, log.CountOf(form.notExistLevel, form.notExistText, "ZelVarlok::CreateTagsHandleAnsi"));
        continue;
      }
      ASSERT_NE(nullptr, handle);
      EXPECT_EQ(0u, error);
      char line[512];
      std::snprintf(line, sizeof(line), "handle %p=inserted, handle=%d", handle, *static_cast<int*>(handle));
      EXPECT_EQ(1u, log.CountOf(info, line, "ZelVarlok_p::insertTagHandle"));
      EXPECT_EQ(1, varlok.GetTagsListLength(handle));
      // A name the table lacks: null with the backend's code, not the facade's.
      error = 1;
      EXPECT_EQ(nullptr, form.call(varlok, "App.GVL.missing", error));
      EXPECT_EQ(ERR_EXIST_INVAILD_VAR, error);
      EXPECT_EQ(1u, log.CountOf(err, "handle is nullptr", "ZelVarlok::CreateTagsHandleAnsi"));
    }
  }
  // Six forms, each with a known and an unknown name, all with the period 100.
  EXPECT_EQ(12u, Fake(2)->CountOf("CreateTagsHandle"));
}

TEST_F(FacadeTest, DeleteTwiceAndBackendFailureStillUnregisters) {
  ZelVarlok varlok;
  Connect(varlok);
  HTAGLIST first = Create(varlok);
  HTAGLIST second = Create(varlok, "App.GVL.count");
  EXPECT_EQ(0u, varlok.DeleteTagsHandle(first));
  EXPECT_EQ(ERR_INVALID_TAG_HANDLE, varlok.DeleteTagsHandle(first));
  EXPECT_TRUE(log.WaitFor(err, "handle is invalid", "ZelVarlok::DeleteTagsHandle"));
  Fake()->SetCode("DeleteTagsHandle", ERR_PLC_DEFINE_FAILED);
  EXPECT_EQ(ERR_PLC_DEFINE_FAILED, varlok.DeleteTagsHandle(second));
  EXPECT_EQ(0, varlok.GetTagsListLength(second));
  EXPECT_EQ(ERR_INVALID_TAG_HANDLE, varlok.DeleteTagsHandle(second));
}

// ConnectToPlcDevice, DisconnectFromDevice and ExitVarlokCommunication per state.
struct LifecycleCase {
  State state;
  const char* operation;
  const char* address;  // for ConnectToPlcDevice; "device" / "null" for DisconnectFromDevice
  unsigned int code;
  Level level;
  const char* text;
  const char* function;
};

TEST_F(FacadeTest, LifecycleGuardsInEveryState) {
  const char* C = "ZelVarlok::ConnectToPlcDevice";
  const char* D = "ZelVarlok::DisconnectFromDevice";
  const char* E = "ZelVarlok::ExitVarlokCommunication";
  const LifecycleCase cases[] = {
      {State::Created, "connect", "Local", ERR_COMMUNICATION_NOT_INITIALIZED, err, "m_ZelVarlokPrivate==nullptr", C},
      {State::Created, "disconnect", "null", ERR_INVALID_TAG_HANDLE, err, "handle == nullptr", D},
      {State::Created, "disconnect", "device", ERR_COMMUNICATION_NOT_INITIALIZED, err,
       "m_ZelVarlokPrivate->IsVarlokExist() == false", D},
      {State::Created, "exit", "", ERR_INVALID_VAR_DEFS, err, "m_pVarlok == nullptr", E},
      {State::FailedInit, "connect", "Local", ERR_COMMUNICATION_NOT_INITIALIZED, err, "m_ZelVarlokPrivate==nullptr",
       C},
      {State::FailedInit, "exit", "", 0, info, "", E},
      {State::Initialised, "connect", "10.0.0.1", ERR_MISMATCH_COMTYPE, err, "2, 10.0.0.1", C},
      {State::Initialised, "connect", "local", ERR_MISMATCH_COMTYPE, err, "2, local", C},
      {State::Initialised, "connect", "Local ", ERR_MISMATCH_COMTYPE, err, "2, Local ", C},
      {State::Initialised, "connect", nullptr, ERR_CONNECT_FAILED, info, "unknown exception", C},
      {State::Initialised, "disconnect", "null", ERR_INVALID_TAG_HANDLE, err, "handle == nullptr", D},
      {State::Initialised, "disconnect", "device", ERR_COMMUNICATION_NOT_INITIALIZED, err,
       "m_ZelVarlokPrivate->IsVarlokExist() == false", D},
      {State::Initialised, "exit", "", 0, info, "", E},
      {State::Connected, "connect", "192.168.0.9", 0, info, "", C},
      {State::Connected, "disconnect", "device", kBackendCode, info, "", D},
      {State::Connected, "exit", "", 0, err, "disconnect err 268436233", E},
      {State::Exited, "connect", "Local", ERR_COMMUNICATION_NOT_INITIALIZED, err, "m_ZelVarlokPrivate==nullptr", C},
      {State::Exited, "disconnect", "device", ERR_COMMUNICATION_NOT_INITIALIZED, err,
       "m_ZelVarlokPrivate->IsVarlokExist() == false", D},
      {State::Exited, "exit", "", 0, info, "m_pVarlok has released", E},
  };
  for (const LifecycleCase& c : cases) {
    SCOPED_TRACE(std::string(Name(c.state)) + " " + c.operation + " " + (c.address ? c.address : "(null)"));
    ZelVarlok varlok;
    const size_t before = MadeCount();
    Enter(varlok, c.state);
    std::shared_ptr<FakeVarlok> fake = MadeCount() > before ? Fake(MadeCount() - 1) : nullptr;
    if (fake) fake->SetCode("DisconnectFromPlcDevice", kBackendCode);
    log.Clear();
    unsigned int code = 0;
    if (std::string(c.operation) == "connect") {
      void* device = varlok.ConnectToPlcDevice(c.address, code);
      EXPECT_EQ(c.code == 0, device != nullptr);
      if (c.state == State::Connected) {
        EXPECT_EQ(fake->Device(), device);
      }
      if (c.address == nullptr) {
        EXPECT_EQ(1u, log.CountOf(err, "plcClient==nullptr", C));
      }
    } else if (std::string(c.operation) == "disconnect") {
      code = varlok.DisconnectFromDevice(std::string(c.address) == "null" ? nullptr : &code);
    } else {
      code = varlok.ExitVarlokCommunication();
    }
    EXPECT_EQ(c.code, code);
    if (*c.text != '\0') {
      EXPECT_EQ(1u, log.CountOf(c.level, c.text, c.function));
    }
  }
}

TEST_F(FacadeTest, ConnectFailureHidesTheBackendCode) {
  ZelVarlok varlok;
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  Fake()->SetCode("ConnectToPlcDevice", ERR_WAIT_TIMEOUT);
  unsigned int error = 0;
  EXPECT_EQ(nullptr, varlok.ConnectToPlcDevice(std::string("Local"), error));
  EXPECT_EQ(ERR_CONNECT_FAILED, error);
  EXPECT_EQ("Local", Fake()->LastAddress());
  EXPECT_EQ(1u, log.CountOf(err, "plcClient==nullptr", "ZelVarlok::ConnectToPlcDevice"));
}

TEST_F(FacadeTest, InitializeComRejectsBadTypesAndKeepsState) {
  ZelVarlok varlok;
  for (int type : {0, 3, -1}) {
    EXPECT_EQ(ERR_INVALID_COMTYPE, varlok.InitializeCom(static_cast<ComType>(type), file.path.c_str()));
    EXPECT_EQ(ERR_INVALID_COMTYPE, varlok.InitializeCom(static_cast<ComType>(type), file.WidePath()));
    EXPECT_EQ(ERR_INVALID_COMTYPE, varlok.InitializeCom(static_cast<ComType>(type), static_cast<void*>(nullptr)));
  }
  EXPECT_EQ(0u, MadeCount());
  EXPECT_EQ(nullptr, varlok.GetTagDescByName("App.GVL.speed"));
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, varlok.ExitVarlokCommunication());
}

TEST_F(FacadeTest, TcpInitialisationMakesNoBackendWhileNoneExists) {
  qorvarlok::facade::SetVarlokFactoryForTests(nullptr);
  ZelVarlok varlok;
  EXPECT_EQ(ERR_UNDEFINED, varlok.InitializeCom(COM_TYPE_TCP, file.WidePath()));
  EXPECT_EQ(1u, log.CountOf(err, "m_pVarlok = nullptr", "ZelVarlok_p::createVarlok"));
  EXPECT_EQ(1u, log.CountOf(warn, "m_pVarlok==nullptr", "ZelVarlok::InitializeCom"));
  // The other forms go on to use the missing backend: the fault that the
  // catch-all reports, answered with their local code.
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_TCP, file.path.c_str()));
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_TCP, static_cast<void*>(nullptr)));
  EXPECT_EQ(2u, log.CountOf(err, "unknown exception", "ZelVarlok::InitializeCom"));
  unsigned int error = 0;
  EXPECT_EQ(nullptr, varlok.ConnectToPlcDevice("10.0.0.1", error));
  EXPECT_EQ(ERR_COMMUNICATION_NOT_INITIALIZED, error);
  EXPECT_EQ(ERR_INVALID_VAR_DEFS, varlok.ExitVarlokCommunication());
}

TEST_F(FacadeTest, ReinitialisationThroughEachFormKeepsOneBackend) {
  ZelVarlok varlok;
  Connect(varlok);
  ASSERT_EQ(0u, varlok.ExitVarlokCommunication());
  // The narrow path form is a silent success once initialised, even with a bad path.
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, "/nonexistent/symbols.xml"));
  EXPECT_NE(nullptr, varlok.GetTagDescByName("App.GVL.speed"));
  // The wide form re-reads: a missing file gives the reader's code, with the
  // tags already released and the object still initialised.
  const unsigned int missing = varlok.InitializeCom(COM_TYPE_LOCAL, std::wstring(L"/nonexistent/symbols.xml"));
  EXPECT_NE(0u, missing);
  EXPECT_EQ(1u, log.CountOf(err, std::to_string(missing), "ZelVarlok::InitializeCom"));
  EXPECT_EQ(nullptr, varlok.GetTagDescByName("App.GVL.speed"));
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.WidePath()));
  unsigned int code = 0;
  unsigned int readCode = 0;
  void* config = qorvarlok::symbols::ReadSymbolConfig(file.WidePath(), &readCode);
  ASSERT_NE(nullptr, config);
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, config));
  EXPECT_NE(nullptr, varlok.ConnectToPlcDevice("Local", code));
  EXPECT_EQ(1u, MadeCount());
  EXPECT_EQ(4u, Fake()->CountOf("InitializeCom"));
  EXPECT_EQ(1u, Fake()->CountOf("ExitVarlokCommunication"));
  // The narrow form overwrites the type although it does nothing else: the
  // address check of a later connect then follows the new type.
  EXPECT_EQ(0u, varlok.ExitVarlokCommunication());
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_TCP, file.path.c_str()));
  EXPECT_EQ(nullptr, varlok.ConnectToPlcDevice("Local", code));
  EXPECT_EQ(ERR_MISMATCH_COMTYPE, code);
  EXPECT_EQ(1u, MadeCount());
}

TEST_F(FacadeTest, InstanceIdsAreOneForAnOpenConfigurationAndTheSerialForAPath) {
  ZelVarlok first;
  ZelVarlok second;
  ZelVarlok third;
  for (ZelVarlok* v : {&first, &second}) {
    unsigned int readCode = 0;
    void* config = qorvarlok::symbols::ReadSymbolConfig(file.WidePath(), &readCode);
    ASSERT_EQ(0u, v->InitializeCom(COM_TYPE_LOCAL, config));
  }
  ASSERT_EQ(0u, third.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  EXPECT_EQ(1u, Fake(0)->GetTagManager()->InstanceId());
  EXPECT_EQ(1u, Fake(1)->GetTagManager()->InstanceId());
  EXPECT_EQ(qorvarlok::facade::g_objectSerial.load(), Fake(2)->GetTagManager()->InstanceId());
}

// A fresh process, so that its first object is the first of the process.
TEST(FacadeProcessTest, FirstObjectOfAProcessHasSerialElevenAndFirstKeyOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ZelVarlok varlok;
        std::string text;
        varlok.ReadTagValues(nullptr, text);
        const bool ok = qorvarlok::facade::g_objectSerial.load() == 11 &&
                        qorvarlok::facade::g_sessionCounter.load() == 1;
        std::_Exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// What each method answers after its backend throws.
struct ExceptionCase {
  const char* name;
  const char* backendCall;
  std::function<unsigned int(ZelVarlok&, HTAGLIST)> call;
  unsigned int result;
  const char* function;
  Level level;
};

TEST_F(FacadeTest, EveryMethodCatchesWhatItsBackendThrows) {
  static unsigned char bytes[4] = {9, 9, 9, 9};
  const ExceptionCase cases[] = {
      {"ReadStructField", "ReadStructField",
       [](ZelVarlok& v, HTAGLIST h) { return v.ReadStructField(h, bytes, 4); }, 0, "ZelVarlok::ReadStructField", info},
      {"ReadTagList", "ReadTag(vector)",
       [](ZelVarlok& v, HTAGLIST h) {
         std::vector<tagTagVarValue> out;
         unsigned int n;
         return v.ReadTagList(h, out, n);
       },
       0, "ZelVarlok::ReadTagList", info},
      {"DeleteTagsHandle", "DeleteTagsHandle", [](ZelVarlok& v, HTAGLIST h) { return v.DeleteTagsHandle(h); }, 0,
       "ZelVarlok::DeleteTagsHandle", info},
      {"Disconnect", "DisconnectFromPlcDevice",
       [](ZelVarlok& v, HTAGLIST h) { return v.DisconnectFromDevice(h); }, 0, "ZelVarlok::DisconnectFromDevice", info},
      {"Exit", "ExitVarlokCommunication", [](ZelVarlok& v, HTAGLIST) { return v.ExitVarlokCommunication(); }, 0,
       "ZelVarlok::ExitVarlokCommunication", info},
      {"Create", "CreateTagsHandle",
       [](ZelVarlok& v, HTAGLIST) {
         unsigned int e = 0;
         return v.CreateTagsHandleAnsi("App.GVL.speed", e) == nullptr ? e : 0u;
       },
       ERR_COMMUNICATION_NOT_INITIALIZED, "ZelVarlok::CreateTagsHandleAnsi", info},
      {"ReadTagValues", "ReadTagValue",
       [](ZelVarlok& v, HTAGLIST h) {
         int32_t x;
         return v.ReadTagValues(h, x);
       },
       0, "ZelVarlok::ReadTagDataFromBuff", info},
  };
  for (FakeVarlok::Fault fault : {FakeVarlok::Fault::StdException, FakeVarlok::Fault::Other}) {
    for (const ExceptionCase& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (fault == FakeVarlok::Fault::Other ? " other" : " std"));
      ZelVarlok varlok;
      Connect(varlok);
      HTAGLIST handle = Create(varlok);
      Fake(MadeCount() - 1)->SetFault(c.backendCall, fault);
      log.Clear();
      EXPECT_EQ(c.result, c.call(varlok, handle));
      const char* text = fault == FakeVarlok::Fault::Other ? "unknown exception" : "exception=fake failure";
      EXPECT_EQ(1u, log.CountOf(c.level, text, c.function));
    }
  }
  // InitializeCom logs at err and answers its local code, 0, uninitialised.
  ZelVarlok varlok;
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  ASSERT_EQ(0u, varlok.ExitVarlokCommunication());
  Fake(MadeCount() - 1)->SetFault("InitializeCom", FakeVarlok::Fault::StdException);
  EXPECT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.WidePath()));
  EXPECT_EQ(1u, log.CountOf(err, "exception=fake failure", "ZelVarlok::InitializeCom"));
  unsigned int error = 0;
  EXPECT_EQ(nullptr, varlok.ConnectToPlcDevice("Local", error));
  EXPECT_EQ(ERR_COMMUNICATION_NOT_INITIALIZED, error);
  // ConnectToPlcDevice falls into its failure step.
  Fake(MadeCount() - 1)->SetFault("InitializeCom", FakeVarlok::Fault::None);
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.WidePath()));
  Fake(MadeCount() - 1)->SetFault("ConnectToPlcDevice", FakeVarlok::Fault::Other);
  EXPECT_EQ(nullptr, varlok.ConnectToPlcDevice("Local", error));
  EXPECT_EQ(ERR_CONNECT_FAILED, error);
  EXPECT_EQ(1u, log.CountOf(info, "unknown exception", "ZelVarlok::ConnectToPlcDevice"));
  EXPECT_EQ(1u, log.CountOf(err, "plcClient==nullptr", "ZelVarlok::ConnectToPlcDevice"));
}

TEST_F(FacadeTest, NullPointerArgumentsGiveCodesNotCrashes) {
  ZelVarlok varlok;
  Connect(varlok);
  HTAGLIST handle = Create(varlok);
  unsigned int error = 0;
  EXPECT_EQ(nullptr, varlok.CreateTagsHandleAnsi(static_cast<const char**>(nullptr), 2, error));
  EXPECT_EQ(ERR_COMMUNICATION_NOT_INITIALIZED, error);
  const char* names[] = {"App.GVL.speed", nullptr};
  EXPECT_EQ(nullptr, varlok.CreateTagsHandle(names, 2, error));
  EXPECT_EQ(ERR_COMMUNICATION_NOT_INITIALIZED, error);
  EXPECT_EQ(nullptr, varlok.CreateTagsHandleAnsi(static_cast<const char*>(nullptr), error));
  EXPECT_EQ(nullptr, varlok.CreateTagsHandle(static_cast<const char*>(nullptr), error));
  EXPECT_EQ(4u, log.CountOf(info, "unknown exception"));
  EXPECT_EQ(0, varlok.GetTagDescByDefinedHandle(handle, nullptr));
  EXPECT_EQ(0u, varlok.ReadStructField(handle, nullptr, 4));
  tagTagDesc* desc = reinterpret_cast<tagTagDesc*>(&error);
  EXPECT_EQ(0, CSharp_ReadTagsDescByTagName(&varlok, nullptr, &desc));
  EXPECT_EQ(nullptr, desc);
  EXPECT_EQ(0, CSharp_GetTagsListLength(nullptr, handle));
}

TEST_F(FacadeTest, ReadStructFieldCopiesTheBackendBufferOnlyOnSuccess) {
  ZelVarlok varlok;
  Connect(varlok);
  HTAGLIST handle = Create(varlok);
  unsigned char out[4] = {0, 0, 0, 0};
  ASSERT_EQ(0u, varlok.ReadStructField(handle, out, 4));
  EXPECT_EQ(0, std::memcmp(out, "\x01\x02\x03\x04", 4));
  unsigned char untouched[4] = {7, 7, 7, 7};
  Fake()->SetCode("ReadStructField", ERR_UNALIGNED_STRUCT);
  EXPECT_EQ(ERR_UNALIGNED_STRUCT, varlok.ReadStructField(handle, untouched, 4));
  EXPECT_EQ(0, std::memcmp(untouched, "\x07\x07\x07\x07", 4));
  char line[512];
  std::snprintf(line, sizeof(line), "handle is %p, E:%d", handle, static_cast<int>(ERR_UNALIGNED_STRUCT));
  EXPECT_EQ(1u, log.CountOf(warn, line, "ZelVarlok::ReadStructField"));
}

TEST_F(FacadeTest, TypedTemplatesPassKeysTypesAndLengthsAndCleanUp) {
  ZelVarlok varlok;
  Connect(varlok);
  HTAGLIST handle = Create(varlok);
  std::string text = "abc";
  std::wstring wide = L"xy";
  int32_t number = 0;
  double real = 0;
  ASSERT_EQ(0u, varlok.ReadTagValues(handle, text, wide, number, real));
  EXPECT_EQ((std::vector<int>{17, 18, 32767, 32767}), Fake()->LastTypes());
  EXPECT_EQ((std::vector<int>{3, 2, 4, 8}), Fake()->LastLengths());
  EXPECT_EQ("text", text);
  EXPECT_EQ(L"wide", wide);
  EXPECT_EQ(int32_t(0xA2A2A2A2), number);
  // The record of a finished key is gone: its key now finds nothing.
  const unsigned int key = qorvarlok::facade::g_sessionCounter.load();
  EXPECT_EQ(0u, varlok.ReadTagInner(key, handle));
  EXPECT_EQ(1u, log.CountOf(warn, "not found " + std::to_string(key), "ZelVarlok_p::ReadVar"));
  EXPECT_EQ(1u, Fake()->CountOf("ReadTagValue"));

  // A failing backend: its code, and the record is gone all the same.
  Fake()->SetCode("WriteTagValue", ERR_OVERSTEP_ACCESS);
  EXPECT_EQ(ERR_OVERSTEP_ACCESS, varlok.WriteTagValues(handle, std::string("hi"), int16_t{0x0102}));
  EXPECT_EQ((std::vector<int>{17, 32767}), Fake()->LastTypes());
  EXPECT_EQ((std::vector<int>{2, 2}), Fake()->LastLengths());
  EXPECT_EQ((std::vector<std::string>{"hi", std::string("\x02\x01", 2)}), Fake()->LastWritten());
  const unsigned int writeKey = qorvarlok::facade::g_sessionCounter.load();
  EXPECT_EQ(0u, varlok.WriteTagInner(writeKey, handle));
  EXPECT_EQ(1u, log.CountOf(warn, "not found " + std::to_string(writeKey), "ZelVarlok_p::WriteVar"));

  // A failed guard keeps the record; the same key later extends and uses it.
  int32_t kept = 5;
  EXPECT_EQ(ERR_INVALID_TAG_HANDLE, varlok.WriteTagValues(nullptr, kept));
  const unsigned int keptKey = qorvarlok::facade::g_sessionCounter.load();
  Fake()->SetCode("WriteTagValue", 0);
  EXPECT_EQ(0u, varlok.WriteTagInner(keptKey, handle));
  EXPECT_EQ((std::vector<std::string>{std::string("\x05\0\0\0", 4)}), Fake()->LastWritten());
}

TEST_F(FacadeTest, DescriptionQueries) {
  ZelVarlok varlok;
  EXPECT_EQ(nullptr, varlok.GetTagDescByName("App.GVL.speed"));
  EXPECT_EQ(1u, log.CountOf(err, "m_ZelVarlokPrivate type is 0", "ZelVarlok::GetTagDescByName"));
  ASSERT_EQ(0u, varlok.InitializeCom(COM_TYPE_LOCAL, file.path.c_str()));
  tagTagDesc* desc = varlok.GetTagDescByName("App.GVL.label");
  ASSERT_NE(nullptr, desc);
  EXPECT_EQ(TAG_TYPE_STRING, desc->Type);
  EXPECT_EQ(81, desc->Size);
  tagTagDesc* found = nullptr;
  EXPECT_EQ(1, CSharp_ReadTagsDescByTagName(&varlok, "App.GVL.label", &found));
  EXPECT_EQ(desc, found);
  EXPECT_EQ(0, CSharp_ReadTagsDescByTagName(&varlok, "App.GVL.nothing", &found));
  EXPECT_EQ(nullptr, found);

  unsigned int code = 0;
  ASSERT_NE(nullptr, varlok.ConnectToPlcDevice("Local", code));
  unsigned int error = 0;
  const char* names[] = {"App.GVL.speed", "App.GVL.label"};
  HTAGLIST handle = varlok.CreateTagsHandle(names, 2, error);
  ASSERT_NE(nullptr, handle);
  EXPECT_EQ(2, varlok.GetTagsListLength(handle));
  EXPECT_EQ(2, CSharp_GetTagsListLength(&varlok, handle));
  tagTagDesc* descs[2] = {nullptr, nullptr};
  EXPECT_EQ(2, CSharp_ReadTagsListDesc(&varlok, handle, descs));
  EXPECT_STREQ("App.GVL.speed", descs[0]->FullName);
  EXPECT_EQ(desc, descs[1]);
  int unknown = 77;
  EXPECT_EQ(0, varlok.GetTagsListLength(&unknown));
  EXPECT_EQ(0, varlok.GetTagDescByDefinedHandle(&unknown, descs));
  EXPECT_EQ(1u, log.CountOf(err, "m_ZelVarlokPrivate type is 2, is valid false",
                            "ZelVarlok::GetTagDescByDefinedHandle"));
  EXPECT_STREQ("0.2.7-B", GetVarlokVersionInfo());
  EXPECT_STREQ(ReadErrorDescription(ERR_CONNECT_FAILED), CSharp_ReadErrorDescription(ERR_CONNECT_FAILED));
}

TEST_F(FacadeTest, UnconvertibleUtf8NameReachesTheTableUnchanged) {
  ZelVarlok varlok;
  Connect(varlok);
  unsigned int error = 0;
  // "App.GVL.speed" with a UTF-8 character no narrow locale of this test holds.
  EXPECT_EQ(nullptr, varlok.CreateTagsHandle(std::string("App.GVL.sp\xE2\x82\xAC" "ed"), error));
  EXPECT_EQ(ERR_EXIST_INVAILD_VAR, error);
  EXPECT_NE(nullptr, varlok.CreateTagsHandle(std::string("App.GVL.speed"), error));
  EXPECT_EQ(0u, error);
}

}  // namespace
}  // namespace qvtest
