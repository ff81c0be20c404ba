// A user's program that opens a symbol file with CreateSymbolConfigHandle and
// hands the handle to InitializeCom, as the public header allows; the tags
// manager owns the tree from then on. Run to its end in a process of its own
// against a running controller: a tree freed twice shows as a crash after
// main returns. argv: symbol file, then one of
//   exit     Exit ends the manager; the handle is never released
//   release  the handle released while the manager still holds the tree
//   two      two objects given the same handle; both simply die at the end
//   static   an object of static storage duration, never exited
// Prints what failed and exits 1; exits 0 when everything answered as it should.
#include <QorVarlok/ZelVarlok.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

int failures = 0;

void check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "handed tree: FAILED %s\n", what);
  ++failures;
}

void* Open(const char* path) {
  unsigned int code = 0;
  const std::string narrow(path);
  void* handle = CreateSymbolConfigHandle(std::wstring(narrow.begin(), narrow.end()), &code);
  tagTagDesc* top = nullptr;
  unsigned int count = 0;
  check(handle != nullptr && GetSymbolConfigToppestTagsDesc(handle, &top, &count) == 0 && count == 1,
        "the file opens and shows its top level");
  return handle;
}

// Connects, writes a value and reads it back.
void Use(ZelVarlok& varlok, void* handle, int value) {
  check(varlok.InitializeCom(COM_TYPE_LOCAL, handle) == 0, "InitializeCom with the handle");
  unsigned int e = 1, count = 0;
  void* device = varlok.ConnectToPlcDevice("Local", e);
  HTAGLIST list = varlok.CreateTagsHandle(std::string("App.GVL.counter"), e);
  check(device != nullptr && list != nullptr, "connect and define");
  std::vector<std::string> text{std::to_string(value)};
  std::vector<tagTagVarValue> values;
  check(varlok.WriteTagList(list, text) == 0 && varlok.ReadTagList(list, values, count) == 0 && count == 1 &&
            std::memcmp(values[0].Value, &value, sizeof value) == 0,
        "write and read back");
}

std::unique_ptr<ZelVarlok> g_lasting;  // for "static"; dies after main returns

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string mode = argv[2];
  void* handle = Open(argv[1]);
  if (mode == "exit") {
    ZelVarlok varlok;
    Use(varlok, handle, 7);
    check(varlok.ExitVarlokCommunication() == 0, "exit");
  } else if (mode == "release") {
    ZelVarlok varlok;
    Use(varlok, handle, 8);
    ReleaseSymbolConfigHandle(handle);  // the manager still holds the tree
    unsigned int e = 1;
    check(varlok.CreateTagsHandle(std::string("App.GVL.speed"), e) != nullptr, "the tree still serves the manager");
    check(varlok.ExitVarlokCommunication() == 0, "exit");
    tagTagDesc* all = nullptr;
    unsigned int count = 0;
    check(GetSymbolConfigParseResult(handle, &all, &count) == ERR_INVALID_TAG_HANDLE, "the handle is gone");
  } else if (mode == "two") {
    auto first = std::make_unique<ZelVarlok>();
    ZelVarlok second;
    Use(*first, handle, 9);
    Use(second, handle, 10);
    first.reset();  // the second manager still holds the tree
    tagTagDesc* all = nullptr;
    unsigned int count = 0;
    check(GetSymbolConfigParseResult(handle, &all, &count) == 0 && count > 0, "the handle serves while held");
  } else if (mode == "static") {
    g_lasting = std::make_unique<ZelVarlok>();
    Use(*g_lasting, handle, 11);
  } else {
    return 2;
  }
  return failures == 0 ? 0 : 1;
}
