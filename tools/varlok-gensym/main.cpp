// varlok-gensym OUT.xml N: writes a synthetic symbol file of N variables.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "GenSym.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: varlok-gensym OUT.xml N\n");
    return 2;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long n = std::strtoull(argv[2], &end, 10);
  if (errno != 0 || end == argv[2] || *end != '\0' || argv[2][0] == '-') {
    std::fprintf(stderr, "varlok-gensym: N must be a non-negative number, not \"%s\"\n", argv[2]);
    return 2;
  }
  if (!qorvarlok::gensym::WriteSymbolFile(argv[1], static_cast<size_t>(n))) {
    std::fprintf(stderr, "varlok-gensym: cannot write %s\n", argv[1]);
    return 1;
  }
  const auto expected = qorvarlok::gensym::ExpectedFor(static_cast<size_t>(n));
  std::printf("%s: %zu variables in %zu groups, %zu tags in the flat list\n", argv[1], expected.variables,
              expected.groups, expected.flatTags);
  return 0;
}
