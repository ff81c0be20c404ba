// What the transport's tests and benchmark share: the symbol file written at run
// time, packed field access, the partition's named mutexes, the client probe.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "ShmComClient.h"
#include "TestSystem.h"

namespace qorvarlok::shm {
class ShmComClientProbe {  // the client back to "not set up", as after a lost mapping
 public:
  static void MarkLost(ShmComClient* client) { client->m_bInitialized = false; }
};
}  // namespace qorvarlok::shm

namespace shmtest {

// App.GVL: counter, speed DInt; flag Bool; level LReal; text String(80); ro DInt (Read); wo DInt (Write);
// pt POINT{x,y DInt}; cnt ARRAY[0..9] OF DInt. App.Many: d0 ... as many DInts as asked for.
inline bool WriteProject(const std::string& path, unsigned many) {
  const auto type = [](const char* name, int size, const char* cls) {
    return fmt::format(R"(<TypeSimple name="T_{0}" size="{1}" iecname="{0}" typeclass="{2}"/>)", name, size, cls);
  };
  const auto node = [](const std::string& name, const char* type, const char* access = "ReadWrite") {
    return fmt::format(R"(<Node name="{}" type="T_{}" access="{}"/>)", name, type, access) + "\n";
  };
  std::string x = R"(<?xml version="1.0" encoding="utf-8"?><Symbolconfiguration><Header/><TypeList>)" +
                  type("DINT", 4, "DInt") + type("BOOL", 1, "Bool") + type("LREAL", 8, "LReal") +
                  type("STRING", 81, "String") + R"(
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

inline void RemoveNamedMutexes(const std::string& partition) {  // real ones outlive their handles
  for (const char* m : {"Global_MUTEX_CONNECT", "Global_MUTEX_NOTIFY", "Global_MUTEX_DATASWAP"})
    testsys::RemoveSharedObject("/" + partition + "." + m);
}
template <typename T>  // packed fields, by copy
T ReadAt(const void* p, size_t offset = 0) {
  T v;
  return std::memcpy(&v, static_cast<const unsigned char*>(p) + offset, sizeof(T)), v;
}
template <typename T>
void WriteAt(unsigned char* p, size_t offset, T v) { std::memcpy(p + offset, &v, sizeof(T)); }

}  // namespace shmtest
