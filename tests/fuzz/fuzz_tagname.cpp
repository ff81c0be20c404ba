// The tag-name splitters on any bytes a caller may pass as a name. The index
// parser is held against the pattern it stands for, run by std::regex; the
// strict split must account for every byte of the name it accepts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "TagNameSplit.h"

using namespace qorvarlok::tags;

namespace {

int64_t Saturated(const std::string& digits) {
  int64_t value = 0;
  for (char c : digits) value = std::min<int64_t>(value * 10 + (c - '0'), kIndexOverflow);
  return value;
}

[[noreturn]] void Fail(const char* what, const std::string& text) {
  std::fprintf(stderr, "%s on \"%s\"\n", what, text.c_str());
  std::abort();
}

void CheckIndexList(const std::string& text) {
  static const std::regex pattern(R"((\d+)(?:,(\d+)){0,1}(?:,(\d+)){0,1})");
  IndexList got;
  const bool found = ParseIndexList(text, got);
  std::smatch m;
  const bool expected = std::regex_search(text, m, pattern);
  if (found != expected) Fail("ParseIndexList disagrees with the pattern on a match", text);
  if (!found) return;
  IndexList want;
  for (size_t g = 1; g < m.size(); ++g)
    if (m[g].matched) want.push_back(Saturated(m[g].str()));
  if (got != want) Fail("ParseIndexList disagrees with the pattern on the indices", text);
}

void CheckSplits(const std::string& name) {
  std::string base;
  IndexMap indices;
  if (SplitIndexedName(name, base, indices)) {
    for (const auto& [array, list] : indices)
      if (list.empty() || list.size() > 3) Fail("SplitIndexedName kept a list of a wrong length", name);
  }
  std::string bare;
  std::vector<std::string> brackets;
  if (SplitStrictName(name, bare, brackets)) {
    size_t total = bare.size();
    for (const std::string& b : brackets) {
      if (b.size() < 3 || b.front() != '[' || b.back() != ']') Fail("SplitStrictName kept a bad bracket", name);
      total += b.size();
    }
    if (total != name.size()) Fail("SplitStrictName lost or added bytes", name);
  } else if (!brackets.empty()) {
    Fail("SplitStrictName refused but kept brackets", name);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckIndexList(text);
  CheckSplits(text);
  return 0;
}
