// TagsTcpCom over a fake of the seven ZelTagAccess calls: the differences
// from ShareMemCom kept on purpose, its edge cases, and the places where it
// refuses instead of touching a missing buffer.
#include <gtest/gtest.h>

#include <cstring>

#include "LogCapture.h"
#include "ShmProject.h"
#include "SymbolConfigDll.h"
#include "TagAccessApi.h"
#include "TagsTcpCom.h"

using ZelmonteVarlok::TagsTcpCom;
using qorvarlok::tagaccess::TagAccess;
using spdlog::level::err, spdlog::level::warn;

namespace {

struct FakeTagAccess {
  uint32_t initResult = 0, connectErr = 0, defineErr = 0, readResult = 0, writeResult = 0, deleteResult = 0;
  int device = 0, list = 0;
  void* connectResult = &device;
  void* defineResult = &list;
  std::vector<std::string> names;
  std::vector<uint32_t> widths;
  std::vector<ZtaTagValue> records;
  std::vector<uint8_t> values;
  size_t listBytes = 0;  // what a write takes from the image, as the library does from its definition
  std::vector<uint8_t> written;
  int writes = 0, reads = 0, deletes = 0;
  void* disconnected = nullptr;

  // Records over values, one per width.
  void Serve(std::vector<int> lengths) {
    records.clear();
    size_t at = 0;
    for (int n : lengths) {
      records.push_back(ZtaTagValue{"x", 7, n, values.data() + at});
      at += static_cast<size_t>(n);
    }
  }
};

FakeTagAccess& Fake() {
  static FakeTagAccess fake;
  return fake;
}

qorvarlok::tagaccess::TagAccessApi FakeApi() {
  return {[]() -> uint32_t { return Fake().initResult; },
          [](const char*, int32_t, uint32_t* e) -> void* { return *e = Fake().connectErr, Fake().connectResult; },
          [](void* d) -> uint32_t { return Fake().disconnected = d, 0x77u; },
          [](void*, const char** names, uint32_t count, uint32_t, const void* widths, uint32_t* e) -> void* {
            Fake().names.assign(names, names + count);
            const auto* w = static_cast<const uint32_t*>(widths);
            Fake().widths.assign(w, w + count);
            return *e = Fake().defineErr, Fake().defineResult;
          },
          [](void*) -> uint32_t { return ++Fake().deletes, Fake().deleteResult; },
          [](void*, ZtaTagValue** v, uint32_t* n) -> uint32_t {
            ++Fake().reads;
            *v = Fake().records.data(), *n = static_cast<uint32_t>(Fake().records.size());
            return Fake().readResult;
          },
          [](void*, void** image) -> uint32_t {
            ++Fake().writes;
            const auto* p = static_cast<const uint8_t*>(*image);
            Fake().written.assign(p, p + Fake().listBytes);
            return Fake().writeResult;
          }};
}

class TagsTcpComTest : public testing::Test {
 protected:
  void SetUp() override {
    Fake() = FakeTagAccess{};
    TagAccess() = FakeApi();
    path = "/tmp/tcpunit" + std::to_string(getpid()) + ".xml";
    ASSERT_TRUE(shmtest::WriteProject(path, 2));
    unsigned int code = 0;
    auto* config = qorvarlok::symbols::ReadSymbolConfig(std::wstring(path.begin(), path.end()), &code);
    ASSERT_NE(config, nullptr);
    ASSERT_EQ(backend.InitTagsManager(config, 1), 0u);
    qvtest::Log().Clear();
  }
  void TearDown() override {
    TagAccess() = qorvarlok::tagaccess::RealTagAccessApi();
    std::remove(path.c_str());
  }
  void* Define(std::vector<std::string> names) {
    unsigned int e = 1;
    void* h = backend.CreateTagsHandle(names, 100, e);
    EXPECT_EQ(e, 0u);
    return h;
  }
  std::string path;
  TagsTcpCom backend;
};

}  // namespace

TEST_F(TagsTcpComTest, ConnectCreateAndDisconnectPassTheLibrarysAnswers) {
  auto& log = qvtest::Log();
  struct ConnectCase {
    uint32_t libErr;
    bool libDevice;
    uint32_t err;
    bool device;
  };
  for (const ConnectCase& c : std::vector<ConnectCase>{{1, false, ERR_CONNECT_FAILED, false},
                                                       {ERR_USER_NAME_OR_PASSWORD, false, ERR_USER_NAME_OR_PASSWORD, false},
                                                       {0, false, 0, false},
                                                       {0, true, 0, true}}) {
    Fake().connectErr = c.libErr, Fake().connectResult = c.libDevice ? &Fake().device : nullptr;
    unsigned int e = 99;
    log.Clear();
    EXPECT_EQ(backend.ConnectToPlcDevice("127.0.0.1:1", e) != nullptr, c.device);
    EXPECT_EQ(e, c.err);
    EXPECT_EQ(log.CountOf(err, "TCP ConnectToPlcDevice err=" + std::to_string(c.libErr)), c.device ? 0u : 1u);
  }
  EXPECT_EQ(backend.GetPlcDevice(), &Fake().device);
  Fake().initResult = 5;
  EXPECT_EQ(backend.InitializeCom(), 5u);
  EXPECT_EQ(log.CountOf(warn, "5", "TagsTcpCom::InitializeCom"), 1u);

  // Our widths travel with the names: the node's size, or the controller's for a name unknown here.
  void* h = Define({"App.GVL.counter", "App.GVL.text", "App.GVL.cnt[2]"});
  EXPECT_EQ(Fake().widths, (std::vector<uint32_t>{4, 81, 4}));
  ASSERT_NE(backend.GetTagManager()->searchTcpTagsList(h), nullptr);
  unsigned int e = 0;
  Fake().defineResult = &Fake().list + 1;
  void* h2 = backend.CreateTagsHandle(std::vector<std::string>{"App.GVL.speed", "App.GVL.nothing"}, 100, e);
  EXPECT_EQ(h2, Fake().defineResult) << "the handle comes back with the failure";
  EXPECT_EQ(e, ERR_EXIST_INVAILD_VAR);
  EXPECT_EQ(Fake().widths[1], ZTA_WIDTH_OF_CONTROLLER);
  EXPECT_EQ(log.CountOf(warn, "createTcpTagListByHandle:" + std::to_string(ERR_EXIST_INVAILD_VAR)), 1u);
  Fake().defineErr = ERR_EXIST_INVAILD_VAR, Fake().defineResult = nullptr;
  EXPECT_EQ(backend.CreateTagsHandle(std::string("App.GVL.speed"), 100, e), nullptr);
  EXPECT_EQ(e, ERR_EXIST_INVAILD_VAR);
  EXPECT_EQ(log.CountOf(err, "handle == nullptr || err = " + std::to_string(ERR_EXIST_INVAILD_VAR)), 1u);

  // Disconnect drops every list whatever the library answers; no connection test guards the operations.
  EXPECT_EQ(backend.DisconnectFromPlcDevice(&Fake().device), 0x77u);
  EXPECT_EQ(Fake().disconnected, &Fake().device);
  EXPECT_EQ(backend.GetPlcDevice(), nullptr);
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  EXPECT_EQ(backend.ReadTag(h, values, count), ERR_INVALID_VAR_DEFS);
  EXPECT_EQ(log.CountOf(err, "tagslist == nullptr", "TagsTcpCom::ReadTag"), 1u);
  EXPECT_EQ(Fake().reads, 0);
}

TEST_F(TagsTcpComTest, ListOperationsKeepTheirDifferencesFromSharedMemory) {
  auto& log = qvtest::Log();
  void* h = Define({"App.GVL.counter", "App.GVL.flag", "App.GVL.text"});
  Fake().values.assign(86, 0);
  Fake().values[0] = 42, Fake().values[4] = 1, Fake().values[5] = 'h';
  Fake().Serve({4, 1, 81});
  Fake().listBytes = 86;

  tagTagVarValue* records = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(backend.ReadTag(h, &records, count), 0u);
  EXPECT_EQ(static_cast<void*>(records), static_cast<void*>(Fake().records.data())) << "the library's own records";
  EXPECT_EQ(count, 3u);
  std::vector<tagTagVarValue> copied(1);
  ASSERT_EQ(backend.ReadTag(h, copied, count), 0u);
  EXPECT_EQ(copied.size(), 3u);
  EXPECT_EQ(copied[2].Value, Fake().records[2].Value);

  // A text that does not convert stays zero; the write goes on and returns the library's code.
  Fake().writeResult = 0x1234;
  std::vector<std::string> text{"abc", "1", "hi"};
  EXPECT_EQ(backend.WriteTag(h, text), 0x1234u);
  EXPECT_EQ(std::vector<uint8_t>(Fake().written.begin(), Fake().written.begin() + 7),
            (std::vector<uint8_t>{0, 0, 0, 0, 1, 'h', 'i'}));
  text.pop_back();
  EXPECT_EQ(backend.WriteTag(h, text), ERR_UNMATCH_WITH_DEFINE);
  EXPECT_EQ(log.CountOf(warn, "", "TagsTcpCom::WriteTag"), 1u);

  // Typed read and write: raw bytes for strings, a wrong length empties the caller's vectors.
  int32_t counter = 0;
  uint8_t flag = 0;
  char str[81] = {};
  std::vector<void*> heads{&counter, &flag, str};
  std::vector<int> types{32767, 32767, 32767}, lengths{4, 1, 81};
  ASSERT_EQ(backend.ReadTagValue(h, heads, types, lengths), 0u);
  EXPECT_EQ(counter, 42);
  EXPECT_EQ(str[0], 'h');
  // A std::string variable (kind 17) is filled as a string, not overwritten as bytes.
  std::string text81(81, 'z');
  std::vector<void*> withString{&counter, &flag, &text81};
  std::vector<int> kinds{32767, 32767, 17}, sized{4, 1, 81};
  ASSERT_EQ(backend.ReadTagValue(h, withString, kinds, sized), 0u);
  EXPECT_EQ(text81.size(), 81u);
  EXPECT_EQ(text81.substr(0, 2), std::string("h\0", 2));
  text81 = std::string(81, 'w');
  Fake().writeResult = 0;
  ASSERT_EQ(backend.WriteTagValue(h, withString, kinds, sized), 0u);
  EXPECT_EQ(Fake().written[5], 'w');
  EXPECT_EQ(Fake().written[85], 'w');
  counter = 7;
  Fake().writeResult = 0;
  ASSERT_EQ(backend.WriteTagValue(h, heads, types, lengths), 0u);
  EXPECT_EQ(Fake().written[0], 7);
  std::vector<int> wrong{4, 1, 80};
  EXPECT_EQ(backend.ReadTagValue(h, heads, types, wrong), ERR_UNMATCH_TYPE_PARA);
  EXPECT_TRUE(heads.empty() && wrong.empty());
  EXPECT_EQ(backend.ReadTagValue(h, heads, types, lengths), ERR_UNMATCH_WITH_DEFINE) << "no log";
  EXPECT_EQ(backend.WriteTagValue(h, heads, types, lengths), ERR_UNMATCH_WITH_DEFINE);
  EXPECT_EQ(log.CountOf(err, "tagslist=3, vDataHeadBuff=0"), 1u);
  unsigned char raw[86] = {9};
  EXPECT_EQ(backend.WriteTagValue(h, raw, 2), ERR_UNMATCH_WITH_DEFINE);
  EXPECT_EQ(log.CountOf(err, "tagslist=3, rawCount=2"), 1u);
  ASSERT_EQ(backend.WriteTagValue(h, raw, 3), 0u);
  EXPECT_EQ(Fake().written[0], 9);
  // A missing buffer stops the operation at the copy instead of faulting there.
  EXPECT_THROW(backend.WriteTagValue(h, nullptr, 3), ZelmonteVarlok::CallerBufferFault);

  void* noList = &Fake().list + 5;
  EXPECT_EQ(backend.WriteTagValue(noList, raw, 3), ERR_INVALID_VAR_DEFS);
  EXPECT_EQ(backend.ReadTagValue(noList, heads, types, lengths), ERR_INVALID_VAR_DEFS);
  EXPECT_EQ(log.CountOf(warn, "tagslist == nullptr", "TagsTcpCom::ReadTagValue"), 1u);
  void* handle = h;
  Fake().deleteResult = 3;
  EXPECT_EQ(backend.DeleteTagsHandle(handle), 3u);
  EXPECT_EQ(backend.GetTagManager()->searchTcpTagsList(h), nullptr) << "gone here whatever the library says";
}

TEST_F(TagsTcpComTest, ArraysAndStructuresTakeTheLibrarysBytesWithoutChecks) {
  auto& log = qvtest::Log();
  void* arr = Define({"App.GVL.cnt"});
  Fake().values.resize(40);
  for (int i = 0; i < 40; ++i) Fake().values[i] = static_cast<uint8_t>(i);
  Fake().Serve({40});
  Fake().listBytes = 40;
  uint8_t out[40] = {};
  // Length 0: the element size is looked up (4); a range copies from its start.
  EXPECT_EQ(backend.ReadArray(arr, out, 0, 2, 3), 0u);
  EXPECT_EQ(out[0], 8);
  EXPECT_EQ(out[11], 19);
  EXPECT_EQ(log.CountOf(warn, "0", "TagsTcpCom::ReadArray"), 1u) << "logged on success too";
  log.Clear();
  EXPECT_EQ(backend.ReadArray(arr, out, 4, 8, 3), ERR_OVERSTEP_ACCESS);
  EXPECT_EQ(backend.ReadArray(arr, out, 4, 0x3FFFFFFFu, 2), ERR_OVERSTEP_ACCESS) << "a product that wraps in 32 bits";
  EXPECT_EQ(log.CountOf(warn, std::to_string(ERR_OVERSTEP_ACCESS)), 0u) << "an overstep logs nothing";
  ASSERT_EQ(backend.ReadArray(arr, out, 4, 0, 0), 0u);
  EXPECT_EQ(out[39], 39);
  // An unknown handle with length 0 is refused rather than read through a null list.
  EXPECT_EQ(backend.ReadArray(&Fake().list + 9, out, 0, 0, 0), ERR_INVALID_VAR_DEFS);
  Fake().readResult = 0x55;
  EXPECT_EQ(backend.ReadArray(&Fake().list + 9, out, 4, 0, 0), 0x55u) << "with a length the library answers";
  Fake().readResult = 0;

  // A range write sends the whole array from the caller's buffer.
  uint8_t in[40];
  std::memset(in, 0xAB, sizeof in);
  EXPECT_EQ(backend.WriteArray(arr, in, 4, 3, 1), 0u);
  EXPECT_EQ(Fake().written, std::vector<uint8_t>(40, 0xAB));
  EXPECT_THROW(backend.WriteArray(arr, nullptr, 4, 0, 0), ZelmonteVarlok::CallerBufferFault);

  void* pt = Define({"App.GVL.pt"});
  Fake().Serve({8});
  uint8_t point[8] = {};
  void* to = point;
  int length = 7;
  EXPECT_EQ(backend.ReadStructField(pt, &to, &length), ERR_UNALIGNED_STRUCT);
  Fake().readResult = ERR_NOT_CONNECTED;
  EXPECT_EQ(backend.ReadStructField(pt, &to, &length), 0u) << "a failed read looks like success";
  Fake().readResult = 0;
  length = 8;
  ASSERT_EQ(backend.ReadStructField(pt, &to, &length), 0u);
  EXPECT_EQ(point[7], 7);
  EXPECT_EQ(backend.ReadStructField(&Fake().list + 9, &to, &length), ERR_INVALID_VAR_DEFS);
  EXPECT_EQ(backend.WriteStructField(pt, in, &length), 0u);
  EXPECT_THROW(backend.WriteStructField(pt, nullptr, &length), ZelmonteVarlok::CallerBufferFault);
}
