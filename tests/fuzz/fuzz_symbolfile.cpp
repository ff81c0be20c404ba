// A symbol file as InitializeCom opens one: read and checked, made into the
// tag tree, expanded into the tags manager's table, and then looked up by
// name, array indices included. The file lives in a memory file, reached by
// its /proc path, so that the reader's own fopen and fstat are exercised.
//
// A file whose tree would pass 20 000 tags is only walked two levels deep:
// full expansion is bounded by design, but at millions of tags it would take
// the fuzzer's whole time budget for one input.
#include <spdlog/spdlog.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "SymbolConfigDll.h"
#include "TagData.h"
#include "TagsManager.h"

using namespace qorvarlok;

namespace {

constexpr unsigned long long kExpandLimit = 20000;

int TheFile() {
  static const int fd = memfd_create("symbolfile", 0);
  return fd;
}

// Tops and their children through the low-level calls, for trees too large to expand.
void WalkTwoLevels(symbols::TagsConfig* config) {
  tagTagDesc* tops = nullptr;
  unsigned int count = 0;
  if (symbols::GetToppestTagsDescription(config, &tops, &count) != 0) return;
  for (unsigned int i = 0; i < count && i < 64; ++i) {
    tagTagDesc* subs = nullptr;
    unsigned int n = 0;
    symbols::GetSubTagsDescription(tops[i].TagsHandle, &subs, &n);
  }
}

// The names of the table, and each with indices pasted on, through the lookup.
void LookUpNames(tags::TagsManager& manager, symbols::TagsConfig* config, const uint8_t* data, size_t size) {
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  if (symbols::GetAllTagsDescription(config, &all, &count) != 0) return;
  static const char* const suffixes[] = {"", "[0]", "[1]", "[1,2]", "[0,0,0]", "[99999999999]", "[1].x"};
  for (unsigned int i = 0; i < count && i < 200; ++i) {
    if (all[i].FullName == nullptr) continue;
    const std::string name = all[i].FullName;
    const std::string suffix = suffixes[(i + (size > 0 ? data[i % size] : 0)) % 7];
    manager.findTagNode(name + suffix);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  spdlog::set_level(spdlog::level::off);  // every refusal logs a line
  return TheFile() >= 0 ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = TheFile();
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  unsigned int code = 0;
  symbols::TagsConfig* config = symbols::ReadSymbolConfig(std::wstring(path.begin(), path.end()), &code);
  if (config == nullptr) {
    if (code == 0) {
      std::fprintf(stderr, "a refused symbol file without an error code\n");
      std::abort();
    }
    return 0;
  }
  if (symbols::CountExpandedTags(*config->symbolConfiguration, *config) > kExpandLimit) {
    WalkTwoLevels(config);
    delete config;
    symbols::GetArrayBoundsRegistry().erase(0);  // what the walk registered under the document's id
    return 0;
  }
  tags::TagsManager manager;
  manager.SetInstanceId(7);
  if (manager.InitTagsManagerPrivate(config) == 0) LookUpNames(manager, config, data, size);
  manager.ReleaseTagsManagerPrivate();  // as the backend does: tree, table and registered bounds
  return 0;
}
