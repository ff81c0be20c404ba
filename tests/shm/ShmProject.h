// The symbol file of the transport's tests and benchmark, written at run
// time so that a test can ask for thousands of DInt tags (App.Many.d0 ...).
//
//   App.GVL.counter DInt, speed DInt, flag Bool, level LReal, text String(80),
//   ro DInt (Read), wo DInt (Write), pt POINT{x,y DInt}, cnt ARRAY[0..9] OF DInt
#pragma once

#include <cstdio>
#include <string>

namespace shmtest {

inline bool WriteProject(const std::string& path, unsigned manyCount) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  std::fputs(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Symbolconfiguration>\n"
      " <Header><Version>1.0.0.0</Version>"
      "<SymbolConfigObject compiler=\"1.0.0.0\" runtimeid=\"1.0.0.0\" profile=\"test\"/>"
      "<ProjectInfo name=\"ShmTest\"/></Header>\n"
      " <TypeList>\n"
      "  <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
      "  <TypeSimple name=\"T_BOOL\" size=\"1\" iecname=\"BOOL\" typeclass=\"Bool\"/>\n"
      "  <TypeSimple name=\"T_LREAL\" size=\"8\" iecname=\"LREAL\" typeclass=\"LReal\"/>\n"
      "  <TypeSimple name=\"T_STR\" size=\"81\" iecname=\"STRING\" typeclass=\"String\"/>\n"
      "  <TypeUserDef name=\"T_POINT\" size=\"8\" iecname=\"POINT\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
      "   <UserDefElement iecname=\"x\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
      "   <UserDefElement iecname=\"y\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
      "  </TypeUserDef>\n"
      "  <TypeArray name=\"T_CNT\" size=\"40\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_DINT\">"
      "<ArrayDim minrange=\"0\" maxrange=\"9\"/></TypeArray>\n"
      " </TypeList>\n"
      " <NodeList>\n  <Node name=\"App\">\n   <Node name=\"GVL\">\n"
      "    <Node name=\"counter\" type=\"T_DINT\" access=\"ReadWrite\"/>\n"
      "    <Node name=\"speed\" type=\"T_DINT\" access=\"ReadWrite\"/>\n"
      "    <Node name=\"flag\" type=\"T_BOOL\" access=\"ReadWrite\"/>\n"
      "    <Node name=\"level\" type=\"T_LREAL\" access=\"ReadWrite\"/>\n"
      "    <Node name=\"text\" type=\"T_STR\" access=\"ReadWrite\"/>\n"
      "    <Node name=\"ro\" type=\"T_DINT\" access=\"Read\"/>\n"
      "    <Node name=\"wo\" type=\"T_DINT\" access=\"Write\"/>\n"
      "    <Node name=\"pt\" type=\"T_POINT\" access=\"ReadWrite\"/>\n"
      "    <Node name=\"cnt\" type=\"T_CNT\" access=\"ReadWrite\"/>\n"
      "   </Node>\n   <Node name=\"Many\">\n",
      f);
  for (unsigned i = 0; i < manyCount; ++i)
    std::fprintf(f, "    <Node name=\"d%u\" type=\"T_DINT\" access=\"ReadWrite\"/>\n", i);
  std::fputs("   </Node>\n  </Node>\n </NodeList>\n</Symbolconfiguration>\n", f);
  return std::fclose(f) == 0;
}

inline std::string ManyName(unsigned i) { return "App.Many.d" + std::to_string(i); }

}  // namespace shmtest
