// What the tests need of the system, the same on Linux and on Windows (under
// Wine): ids, environment, temporary directories, and other programs started,
// waited for and stopped by the id they were given. One implementation per
// system beside this header (linux/, windows/).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace testsys {

uint32_t ProcessId();
// The thread id as the library's log lines show it.
uint64_t ThreadId();
// The process environment, where the platform's libraries read it.
void SetEnv(const std::string& name, const std::string& value);
void UnsetEnv(const std::string& name);
// Processor time (user and system) used so far by this process, or by
// another one by its id, in milliseconds.
double ThisProcessCpuMs();
double ProcessCpuMs(uint32_t processId);
// A fresh directory under the system's temporary one; empty on failure.
std::string MakeTempDir(const std::string& prefix);
std::string CurrentDir();
// A program's text output as written: "\r\n" becomes "\n" on Windows, where
// the C runtime writes text so.
std::string ProgramText(std::string bytes);
// UTF-8 text in GBK (code page 936); "<no GBK converter>" where the system has none.
std::string Utf8ToGbk(const std::string& utf8);
// Memory of this process that faults on every access, as an area that is gone; freed by FreeNoAccess.
void* ReserveNoAccess(size_t bytes);
void FreeNoAccess(void* memory, size_t bytes);
// Removes a named POSIX shared memory object (Linux); kernel objects on
// Windows go with their last handle, so there it does nothing.
void RemoveSharedObject(const std::string& name);
// Gives back a mapping that RtosMapShm made.
void UnmapArea(void* address, size_t bytes);

// Whether ChildOptions::addressSpace limits a child here (not on Windows).
bool CanLimitAddressSpace();

struct ChildOptions {
  std::string workDir;     // empty: this process's
  std::string stdoutPath;  // empty: discarded
  std::string stderrPath;  // empty: discarded
  std::vector<std::pair<std::string, std::string>> env;  // set in the child, beside this process's environment
  bool readyPipe = false;  // append "--ready-fd N" (a pipe that WaitReady reads)
  size_t addressSpace = 0;  // bytes of address space the child may use; 0: no limit (see CanLimitAddressSpace)
};

// Another program, never left running: the destructor kills what still runs.
class Child {
 public:
  Child();
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool Start(const std::string& exe, const std::vector<std::string>& args, const ChildOptions& options = {});
  // The lines on the ready pipe up to and with "ready", within timeoutMs
  // (what came when "ready" did not; "" when nothing did).
  std::string WaitReady(int timeoutMs = 5000);
  // The exit code; -1 when it did not end within timeoutMs (it then runs on),
  // -2 when it ended by a signal.
  int Wait(int timeoutMs = 5000);
  // Asks it to stop (SIGTERM, or the stop request on Windows) and waits.
  int Stop(int timeoutMs = 5000);
  // Ends it at once (SIGKILL, TerminateProcess) and waits.
  void Kill();
  bool Running() const;
  uint32_t Id() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace testsys
