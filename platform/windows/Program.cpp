// A stop request is Ctrl-C, Ctrl-Break or the console closing, or the named
// event "Local\varlok-stop-<pid>" that RequestStop sets: Windows has no signal
// that one program can send another without sharing its console.
#include "Program.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qorvarlok::platform {
namespace {

std::atomic<void (*)(int)> g_handler{nullptr};
std::atomic<int> g_request{0};
HANDLE g_stopped = nullptr;  // set once a request came; made by BlockStopRequests

std::wstring StopEventName(DWORD processId) { return L"Local\\varlok-stop-" + std::to_wstring(processId); }

BOOL WINAPI OnConsoleEvent(DWORD type) {
  g_request.store(static_cast<int>(type) + 1);
  if (auto handler = g_handler.load()) handler(static_cast<int>(type));
  if (g_stopped != nullptr) ::SetEvent(g_stopped);
  return TRUE;  // handled: the program ends by itself
}

}  // namespace

void IgnoreBrokenPipe() {}  // a write to a closed pipe fails on Windows, it does not end the program

void BlockStopRequests() {
  g_stopped = ::CreateEventW(nullptr, TRUE, FALSE, StopEventName(::GetCurrentProcessId()).c_str());
  ::SetConsoleCtrlHandler(&OnConsoleEvent, TRUE);
}

int WaitForStopRequest() {
  if (g_stopped == nullptr) BlockStopRequests();
  ::WaitForSingleObject(g_stopped, INFINITE);
  const int console = g_request.load();
  return console != 0 ? console - 1 : 15;  // the named event stands for a termination request
}

void OnStopRequest(void (*handler)(int)) {
  g_handler.store(handler);
  ::SetConsoleCtrlHandler(&OnConsoleEvent, TRUE);
}

bool RequestStop(uint32_t processId) {
  HANDLE event = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, StopEventName(processId).c_str());
  if (event == nullptr) return false;
  const bool ok = ::SetEvent(event) != FALSE;
  ::CloseHandle(event);
  return ok;
}

bool WriteReadyLine(uint64_t pipe, const char* line) {
  HANDLE handle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(pipe));
  DWORD written = 0;
  const bool ok = ::WriteFile(handle, line, static_cast<DWORD>(std::strlen(line)), &written, nullptr) != FALSE;
  ::CloseHandle(handle);
  return ok;
}

void SetEnvironment(const std::string& name, const std::string& value) {
  // The system's environment, which RtosLib64.dll reads, and the C runtime's copy.
  ::SetEnvironmentVariableA(name.c_str(), value.c_str());
  _putenv_s(name.c_str(), value.c_str());
}

}  // namespace qorvarlok::platform
