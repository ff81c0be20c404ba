// The symbol file of the transport's tests and benchmark, written at run time
// so that a test can ask for thousands of DInt tags.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>

namespace shmtest {

// App.GVL: counter, speed DInt; flag Bool; level LReal; text String(80); ro DInt
// (Read); wo DInt (Write); pt POINT{x,y DInt}; cnt ARRAY[0..9] OF DInt. App.Many:
// d0 ... as many DInts as asked for.
inline bool WriteProject(const std::string& path, unsigned many) {
  const auto simple = [](const char* name, int size, const char* cls) {
    return fmt::format(R"(<TypeSimple name="T_{0}" size="{1}" iecname="{0}" typeclass="{2}"/>)", name, size, cls);
  };
  const auto node = [](const std::string& name, const char* type, const char* access = "ReadWrite") {
    return fmt::format(R"(<Node name="{}" type="T_{}" access="{}"/>)", name, type, access) + "\n";
  };
  std::string x = R"(<?xml version="1.0" encoding="utf-8"?><Symbolconfiguration><Header><Version>1.0.0.0</Version>
<SymbolConfigObject compiler="1.0.0.0" runtimeid="1.0.0.0" profile="test"/><ProjectInfo name="ShmTest"/></Header>
<TypeList>)" + simple("DINT", 4, "DInt") + simple("BOOL", 1, "Bool") + simple("LREAL", 8, "LReal") +
                  simple("STRING", 81, "String") + R"(
<TypeUserDef name="T_POINT" size="8" iecname="POINT" typeclass="Userdef" pouclass="STRUCTURE">
<UserDefElement iecname="x" type="T_DINT" vartype="VAR"/><UserDefElement iecname="y" type="T_DINT" vartype="VAR"/>
</TypeUserDef><TypeArray name="T_CNT" size="40" iecname="ARRAY" typeclass="Array" basetype="T_DINT">
<ArrayDim minrange="0" maxrange="9"/></TypeArray></TypeList><NodeList><Node name="App"><Node name="GVL">)" +
                  node("counter", "DINT") + node("speed", "DINT") + node("flag", "BOOL") + node("level", "LREAL") +
                  node("text", "STRING") + node("ro", "DINT", "Read") + node("wo", "DINT", "Write") +
                  node("pt", "POINT") + node("cnt", "CNT") + R"(</Node><Node name="Many">)";
  for (unsigned i = 0; i < many; ++i) x += node("d" + std::to_string(i), "DINT");
  x += "</Node></Node></NodeList></Symbolconfiguration>\n";
  std::FILE* f = std::fopen(path.c_str(), "wb");
  return f != nullptr && std::fwrite(x.data(), 1, x.size(), f) == x.size() && std::fclose(f) == 0;
}

inline std::string ManyName(unsigned i) { return "App.Many.d" + std::to_string(i); }

}  // namespace shmtest
