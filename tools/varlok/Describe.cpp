// varlok describe CODE...: the library's description of each code.
#include <QorVarlok/ZelVarlok.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Commands.h"
#include "TextConv.h"

namespace varlok {

namespace {

// Hex with 0x/0X, else decimal; the whole word must be a number in 32 bits.
bool parseCode(const std::string& word, unsigned int& code) {
  const bool hex = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
  const char* digits = word.c_str() + (hex ? 2 : 0);
  // strtoull accepts blanks and signs; a code has neither.
  if (*digits < '0' || *digits > '9') {
    const bool hexLetter = hex && ((*digits >= 'a' && *digits <= 'f') || (*digits >= 'A' && *digits <= 'F'));
    if (!hexLetter) return false;
  }
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(digits, &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0' || value > 0xFFFFFFFFull) return false;
  code = static_cast<unsigned int>(value);
  return true;
}

}  // namespace

const char* describeCodeInto(unsigned int code, char* out, size_t capacity, bool* described) {
  const int head = std::snprintf(out, capacity, "0x%08X ", code);
  const char* text = ReadErrorDescription(code);
  if (described != nullptr) *described = text != nullptr;
  if (head < 0 || static_cast<size_t>(head) >= capacity) return out;
  if (text == nullptr) {
    std::snprintf(out + head, capacity - static_cast<size_t>(head), "(no description)");
  } else {
    // Converted at once: formatted texts share one buffer in the library.
    gbkToUtf8(text, out + head, capacity - static_cast<size_t>(head));
  }
  return out;
}

std::string describeCode(unsigned int code, bool* described) {
  char buffer[1200];
  return describeCodeInto(code, buffer, sizeof(buffer), described);
}

void reportCode(const char* command, const char* what, unsigned int code) {
  char buffer[1200];
  std::fprintf(stderr, "varlok %s: %s: %s\n", command, what, describeCodeInto(code, buffer, sizeof(buffer)));
}

int runDescribe(const Args& args) {
  if (args.empty()) {
    std::fprintf(stderr, "varlok describe: give at least one code (hex 0x... or decimal)\n");
    return kExitUsage;
  }
  for (const std::string& word : args) {
    unsigned int code = 0;
    if (!parseCode(word, code)) {
      std::fprintf(stderr, "varlok describe: not a 32-bit code: '%s'\n", word.c_str());
      return kExitUsage;
    }
  }
  int result = kExitOk;
  for (const std::string& word : args) {
    unsigned int code = 0;
    parseCode(word, code);
    bool described = false;
    std::printf("%s\n", describeCode(code, &described).c_str());
    if (!described) result = kExitFailed;
  }
  return result;
}

}  // namespace varlok
