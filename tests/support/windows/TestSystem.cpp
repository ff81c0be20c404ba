#include "TestSystem.h"

#include <windows.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "Program.h"

namespace testsys {
namespace {

std::wstring Wide(const std::string& text) {
  const int n = ::MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
  std::wstring out(n > 0 ? static_cast<size_t>(n) : 1u, L'\0');
  if (n > 0) ::MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, out.data(), n);
  out.resize(out.size() - 1);
  return out;
}

// One argument as CommandLineToArgvW reads it back.
std::wstring Quote(const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) return arg;
  std::wstring out = L"\"";
  size_t slashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++slashes;
      continue;
    }
    out.append(c == L'"' ? slashes * 2 + 1 : slashes, L'\\');
    slashes = 0;
    out.push_back(c);
  }
  out.append(slashes * 2, L'\\');
  return out + L"\"";
}

// This process's environment with the overrides, as CreateProcessW takes it.
std::wstring EnvironmentBlock(const std::vector<std::pair<std::string, std::string>>& overrides) {
  std::map<std::wstring, std::wstring> vars;
  wchar_t* strings = ::GetEnvironmentStringsW();
  for (const wchar_t* e = strings; *e != L'\0'; e += wcslen(e) + 1) {
    const std::wstring entry(e);
    const size_t eq = entry.find(L'=', 1);
    if (eq != std::wstring::npos) vars[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  ::FreeEnvironmentStringsW(strings);
  for (const auto& [name, value] : overrides) vars[Wide(name)] = Wide(value);
  std::wstring block;
  for (const auto& [name, value] : vars) block += name + L"=" + value + L'\0';
  return block + L'\0';
}

HANDLE InheritableFile(const std::string& path) {
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  return ::CreateFileW(path.empty() ? L"NUL" : Wide(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

uint32_t ProcessId() { return ::GetCurrentProcessId(); }
uint64_t ThreadId() { return ::GetCurrentThreadId(); }
void SetEnv(const std::string& name, const std::string& value) { qorvarlok::platform::SetEnvironment(name, value); }
void UnsetEnv(const std::string& name) {
  ::SetEnvironmentVariableA(name.c_str(), nullptr);
  _putenv_s(name.c_str(), "");
}

std::string MakeTempDir(const std::string& prefix) {
  static int serial = 0;
  const std::filesystem::path base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::filesystem::path dir =
        base / (prefix + std::to_string(ProcessId()) + "-" + std::to_string(++serial));
    std::error_code error;
    if (std::filesystem::create_directory(dir, error)) return dir.generic_string();
  }
  return {};
}

std::string CurrentDir() { return std::filesystem::current_path().generic_string(); }

std::string ProgramText(std::string bytes) {
  std::string out;
  for (size_t i = 0; i < bytes.size(); ++i)
    if (!(bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n')) out.push_back(bytes[i]);
  return out;
}

std::string Utf8ToGbk(const std::string& utf8) {
  const std::wstring wide = Wide(utf8);
  const int n = ::WideCharToMultiByte(936, 0, wide.c_str(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  if (n <= 0 && !wide.empty()) return "<no GBK converter>";
  std::string out(static_cast<size_t>(n), '\0');
  ::WideCharToMultiByte(936, 0, wide.c_str(), static_cast<int>(wide.size()), out.data(), n, nullptr, nullptr);
  return out;
}

void* ReserveNoAccess(size_t bytes) { return ::VirtualAlloc(nullptr, bytes, MEM_RESERVE, PAGE_NOACCESS); }
void FreeNoAccess(void* memory, size_t) { ::VirtualFree(memory, 0, MEM_RELEASE); }
void UnmapArea(void* address, size_t) { ::UnmapViewOfFile(address); }
void RemoveSharedObject(const std::string&) {}

namespace {

double CpuMsOf(HANDLE process) {
  FILETIME created{}, ended{}, kernel{}, user{};
  if (!::GetProcessTimes(process, &created, &ended, &kernel, &user)) return 0;
  const auto ticks = [](const FILETIME& f) {
    return static_cast<double>((static_cast<uint64_t>(f.dwHighDateTime) << 32) | f.dwLowDateTime);
  };
  return (ticks(kernel) + ticks(user)) / 1e4;  // 100 ns units
}

}  // namespace

double ThisProcessCpuMs() { return CpuMsOf(::GetCurrentProcess()); }

double ProcessCpuMs(uint32_t processId) {
  const HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId);
  if (process == nullptr) return 0;
  const double ms = CpuMsOf(process);
  ::CloseHandle(process);
  return ms;
}

// A job's memory limit would be the means; Wine does not enforce it.
bool CanLimitAddressSpace() { return false; }

struct Child::Impl {
  PROCESS_INFORMATION process{};
  HANDLE readyRead = nullptr;
  bool bEnded = false;
};

Child::Child() : m_pImpl(std::make_unique<Impl>()) {}

Child::~Child() {
  if (Running()) Kill();
  if (m_pImpl->process.hProcess != nullptr) ::CloseHandle(m_pImpl->process.hProcess);
  if (m_pImpl->readyRead != nullptr) ::CloseHandle(m_pImpl->readyRead);
}

bool Child::Start(const std::string& exe, const std::vector<std::string>& args, const ChildOptions& options) {
  std::wstring command = Quote(Wide(exe));
  for (const std::string& a : args) command += L" " + Quote(Wide(a));
  HANDLE readyWrite = nullptr;
  if (options.readyPipe) {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    if (!::CreatePipe(&m_pImpl->readyRead, &readyWrite, &inherit, 0)) return false;
    ::SetHandleInformation(m_pImpl->readyRead, HANDLE_FLAG_INHERIT, 0);
    command += L" --ready-fd " + std::to_wstring(reinterpret_cast<uintptr_t>(readyWrite));
  }
  HANDLE out = InheritableFile(options.stdoutPath), err = InheritableFile(options.stderrPath);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = nullptr;
  startup.hStdOutput = out;
  startup.hStdError = err;
  std::wstring environment = EnvironmentBlock(options.env);
  const std::wstring workDir = Wide(options.workDir);
  const BOOL ok = ::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                                   environment.data(), workDir.empty() ? nullptr : workDir.c_str(), &startup,
                                   &m_pImpl->process);
  ::CloseHandle(out);
  ::CloseHandle(err);
  if (readyWrite != nullptr) ::CloseHandle(readyWrite);  // a child that dies unready breaks the pipe
  if (!ok) return false;
  ::CloseHandle(m_pImpl->process.hThread);
  m_pImpl->bEnded = false;
  return true;
}

std::string Child::WaitReady(int timeoutMs) {
  if (m_pImpl->readyRead == nullptr) return {};
  // A pipe read cannot time out: a helper thread would outlive us, so poll.
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (line.find("ready\n") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
    DWORD available = 0;
    if (!::PeekNamedPipe(m_pImpl->readyRead, nullptr, 0, nullptr, &available, nullptr)) break;  // closed
    if (available == 0) {
      ::Sleep(2);
      continue;
    }
    char buffer[64];
    DWORD n = 0;
    if (!::ReadFile(m_pImpl->readyRead, buffer, available < sizeof buffer ? available : sizeof buffer, &n, nullptr))
      break;
    line.append(buffer, n);
  }
  return line;
}

int Child::Wait(int timeoutMs) {
  if (m_pImpl->process.hProcess == nullptr) return -1;
  if (!m_pImpl->bEnded) {
    if (::WaitForSingleObject(m_pImpl->process.hProcess, static_cast<DWORD>(timeoutMs)) != WAIT_OBJECT_0) return -1;
    m_pImpl->bEnded = true;
  }
  DWORD code = 0;
  ::GetExitCodeProcess(m_pImpl->process.hProcess, &code);
  return static_cast<int>(code);
}

int Child::Stop(int timeoutMs) {
  if (Running() && !qorvarlok::platform::RequestStop(Id())) Kill();
  return Wait(timeoutMs);
}

void Child::Kill() {
  if (!Running()) return;
  ::TerminateProcess(m_pImpl->process.hProcess, 137);
  ::WaitForSingleObject(m_pImpl->process.hProcess, INFINITE);
  m_pImpl->bEnded = true;
}

bool Child::Running() const { return m_pImpl->process.hProcess != nullptr && !m_pImpl->bEnded; }
uint32_t Child::Id() const { return m_pImpl->process.dwProcessId; }

}  // namespace testsys
