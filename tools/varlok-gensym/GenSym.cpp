#include "GenSym.h"

#include <cstdio>
#include <memory>

namespace qorvarlok::gensym {

namespace {

constexpr size_t kPerGroup = 1000;
constexpr size_t kKinds = 10;

// One variable kind per slot of the cycle: its type, and the records it adds
// to the flat list (itself and any members) and to the bounds registry.
struct Kind {
  const char* type;
  const char* access;
  size_t flatTags;
  size_t arrays;
};

constexpr Kind kCycle[kKinds] = {
    {"T_BOOL", "Read", 1, 0},      {"T_INT", "ReadWrite", 1, 0}, {"T_DINT", "ReadWrite", 1, 0},
    {"T_REAL", "Read", 1, 0},      {"T_LREAL", "ReadWrite", 1, 0}, {"T_STR", "Write", 1, 0},
    {"T_AXIS", "ReadWrite", 5, 0},  // the structure and its four members
    {"T_AXIS", "Read", 5, 0},       {"T_ARR_DINT", "ReadWrite", 1, 1},
    {"T_ARR_AXIS", "Read", 5, 1},   // the array and one set of member tags
};

const char kTypes[] =
    "  <TypeList>\n"
    "    <TypeSimple name=\"T_BOOL\" size=\"1\" iecname=\"BOOL\" typeclass=\"Bool\"/>\n"
    "    <TypeSimple name=\"T_INT\" size=\"2\" iecname=\"INT\" typeclass=\"Int\"/>\n"
    "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
    "    <TypeSimple name=\"T_REAL\" size=\"4\" iecname=\"REAL\" typeclass=\"Real\"/>\n"
    "    <TypeSimple name=\"T_LREAL\" size=\"8\" iecname=\"LREAL\" typeclass=\"LReal\"/>\n"
    "    <TypeSimple name=\"T_STR\" size=\"33\" iecname=\"STRING(32)\" typeclass=\"String\"/>\n"
    "    <TypeUserDef name=\"T_AXIS\" size=\"24\" iecname=\"AXIS\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
    "      <UserDefElement iecname=\"pos\" type=\"T_LREAL\" vartype=\"VAR\"/>\n"
    "      <UserDefElement iecname=\"vel\" type=\"T_LREAL\" vartype=\"VAR\"/>\n"
    "      <UserDefElement iecname=\"state\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
    "      <UserDefElement iecname=\"ok\" type=\"T_BOOL\" vartype=\"VAR\"/>\n"
    "    </TypeUserDef>\n"
    "    <TypeArray name=\"T_ARR_DINT\" size=\"40\" iecname=\"ARRAY [0..9] OF DINT\" typeclass=\"Array\" "
    "basetype=\"T_DINT\">\n"
    "      <ArrayDim minrange=\"0\" maxrange=\"9\"/>\n"
    "    </TypeArray>\n"
    "    <TypeArray name=\"T_ARR_AXIS\" size=\"96\" iecname=\"ARRAY [1..4] OF AXIS\" typeclass=\"Array\" "
    "basetype=\"T_AXIS\">\n"
    "      <ArrayDim minrange=\"1\" maxrange=\"4\"/>\n"
    "    </TypeArray>\n"
    "  </TypeList>\n";

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

Expected ExpectedFor(size_t variables) {
  Expected e;
  e.variables = variables;
  e.groups = (variables + kPerGroup - 1) / kPerGroup;
  for (size_t i = 0; i < variables; ++i) {
    e.flatTags += kCycle[i % kKinds].flatTags;
    e.arrays += kCycle[i % kKinds].arrays;
  }
  return e;
}

bool WriteSymbolFile(const std::string& path, size_t variables) {
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
  if (!file) return false;
  std::FILE* f = file.get();
  std::fputs(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<Symbolconfiguration>\n"
      "  <Header>\n"
      "    <Version>1.0.0.0</Version>\n"
      "    <SymbolConfigObject compiler=\"3.5.17.0\" runtimeid=\"3.5.17.0\" profile=\"generated\"/>\n"
      "    <ProjectInfo name=\"Generated\"/>\n"
      "  </Header>\n",
      f);
  std::fputs(kTypes, f);
  std::fputs("  <NodeList>\n    <Node name=\"App\">\n", f);
  for (size_t i = 0; i < variables; ++i) {
    if (i % kPerGroup == 0) {
      if (i > 0) std::fputs("      </Node>\n", f);
      std::fprintf(f, "      <Node name=\"G%05zu\">\n", i / kPerGroup);
    }
    const Kind& kind = kCycle[i % kKinds];
    std::fprintf(f, "        <Node name=\"v%zu\" type=\"%s\" access=\"%s\"/>\n", i, kind.type, kind.access);
  }
  if (variables > 0) std::fputs("      </Node>\n", f);
  std::fputs("    </Node>\n  </NodeList>\n</Symbolconfiguration>\n", f);
  return std::ferror(f) == 0 && std::fflush(f) == 0;
}

}  // namespace qorvarlok::gensym
