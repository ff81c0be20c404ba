// The shared library exports exactly its interface: the plain functions, the
// members of ZelVarlok and the managed (CSharp_, SWIGRegister..._QorVarlok)
// entry points. Anything else, a runtime or logging instantiation above all,
// would be a symbol that other libraries of the process could bind to.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

const char* const kPlainExports[] = {
    "ReadErrorDescription",      "GetVarlokVersionInfo",       "CreateSymbolConfigHandle",
    "CreateSymbolConfigHandleW", "GetSymbolConfigParseResult", "GetSymbolConfigToppestTagsDesc",
    "GetSymbolConfigSubTagsDesc", "ReleaseSymbolConfigHandle"};

struct PipeCloser {
  void operator()(FILE* f) const { pclose(f); }
};

// Names of the defined dynamic symbols, demangled.
std::vector<std::string> definedDynamicSymbols(const std::string& library, int& status) {
  std::vector<std::string> names;
  const std::string command = "nm -D --defined-only -C '" + library + "' 2>&1";
  FILE* raw = popen(command.c_str(), "r");
  if (raw == nullptr) {
    status = -1;
    return names;
  }
  std::unique_ptr<FILE, PipeCloser> pipe(raw);
  char line[4096];
  while (std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    // "<address> <kind> <name>"; demangled names may contain blanks.
    const size_t first = text.find(' ');
    const size_t second = first == std::string::npos ? first : text.find(' ', first + 1);
    names.push_back(second == std::string::npos ? "<unparsed> " + text : text.substr(second + 1));
  }
  status = pclose(pipe.release());
  return names;
}

bool startsWith(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

bool isInterface(const std::string& name) {
  for (const char* plain : kPlainExports)
    if (name == plain) return true;
  if (startsWith(name, "ZelVarlok::")) return true;
  if (startsWith(name, "CSharp_")) return true;
  const std::string suffix = "_QorVarlok";
  return startsWith(name, "SWIGRegister") && name.size() > suffix.size() &&
         name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

TEST(Exports, ExactlyTheInterface) {
  int status = 0;
  const std::vector<std::string> names = definedDynamicSymbols(QORVARLOK_SO_PATH, status);
  ASSERT_EQ(status, 0) << "nm failed on " << QORVARLOK_SO_PATH;
  ASSERT_FALSE(names.empty());
  std::set<std::string> present(names.begin(), names.end());
  for (const std::string& name : names) EXPECT_TRUE(isInterface(name)) << "exported beyond the interface: " << name;
  for (const char* plain : kPlainExports) EXPECT_EQ(present.count(plain), 1u) << "not exported: " << plain;
}

}  // namespace
