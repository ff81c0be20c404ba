#include "TestSystem.h"

#include <fcntl.h>
#include <iconv.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace testsys {

uint32_t ProcessId() { return static_cast<uint32_t>(::getpid()); }
uint64_t ThreadId() { return static_cast<uint64_t>(::syscall(SYS_gettid)); }
void SetEnv(const std::string& name, const std::string& value) { ::setenv(name.c_str(), value.c_str(), 1); }
void UnsetEnv(const std::string& name) { ::unsetenv(name.c_str()); }

std::string MakeTempDir(const std::string& prefix) {
  std::string pattern = "/tmp/" + prefix + "XXXXXX";
  return ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
}

std::string CurrentDir() {
  char cwd[PATH_MAX];
  return ::getcwd(cwd, sizeof(cwd)) != nullptr ? std::string(cwd) : std::string();
}

std::string ProgramText(std::string bytes) { return bytes; }

std::string Utf8ToGbk(const std::string& utf8) {
  iconv_t cd = iconv_open("GBK", "UTF-8");
  if (cd == reinterpret_cast<iconv_t>(-1)) return "<no GBK converter>";
  std::string out(utf8.size() * 2 + 1, '\0');
  char* in = const_cast<char*>(utf8.data());
  char* outPtr = &out[0];
  size_t inLeft = utf8.size(), outLeft = out.size();
  const size_t r = iconv(cd, &in, &inLeft, &outPtr, &outLeft);
  iconv_close(cd);
  if (r == static_cast<size_t>(-1)) return "<not convertible to GBK>";
  out.resize(out.size() - outLeft);
  return out;
}

void* ReserveNoAccess(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}
void FreeNoAccess(void* memory, size_t bytes) { munmap(memory, bytes); }
void UnmapArea(void* address, size_t bytes) { munmap(address, bytes); }
void RemoveSharedObject(const std::string& name) { shm_unlink(name.c_str()); }

namespace {

// fork and exec, for a child that runs within an address-space limit.
int ForkWithin(const ChildOptions& options, const std::string& out, const std::string& err,
               const std::vector<char*>& argv, const std::vector<char*>& envp, pid_t* pid) {
  *pid = ::fork();
  if (*pid < 0) return errno;
  if (*pid > 0) return 0;
  if (!options.workDir.empty() && ::chdir(options.workDir.c_str()) != 0) ::_exit(126);
  for (int fd : {1, 2}) {
    const int to = ::open((fd == 1 ? out : err).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (to < 0 || ::dup2(to, fd) < 0) ::_exit(126);
  }
  const rlimit limit{options.addressSpace, options.addressSpace};
  if (::setrlimit(RLIMIT_AS, &limit) != 0) ::_exit(126);
  ::execve(argv[0], argv.data(), envp.data());
  ::_exit(127);
}

}  // namespace

bool CanLimitAddressSpace() { return true; }

double ThisProcessCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

double ProcessCpuMs(uint32_t processId) {  // user and system time, in clock ticks made ms
  std::ifstream stat("/proc/" + std::to_string(processId) + "/stat");
  std::string line;
  std::getline(stat, line);
  std::istringstream fields(line.substr(line.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i)
    if (i >= 14) ticks += std::stod(field);
  return ticks * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Child::Impl {
  pid_t pid = -1;
  int readyFd = -1;
  int status = 0;
  bool bEnded = false;
};

Child::Child() : m_pImpl(std::make_unique<Impl>()) {}

Child::~Child() {
  if (Running()) Kill();
  if (m_pImpl->readyFd >= 0) ::close(m_pImpl->readyFd);
}

bool Child::Start(const std::string& exe, const std::vector<std::string>& args, const ChildOptions& options) {
  std::vector<std::string> all{exe};
  all.insert(all.end(), args.begin(), args.end());
  int ready[2] = {-1, -1};
  if (options.readyPipe) {
    if (::pipe(ready) != 0) return false;
    ::fcntl(ready[0], F_SETFD, FD_CLOEXEC);
    all.insert(all.end(), {"--ready-fd", std::to_string(ready[1])});
  }
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
  for (const auto& [name, value] : options.env) {
    for (auto it = env.begin(); it != env.end();)
      it = it->rfind(name + "=", 0) == 0 ? env.erase(it) : it + 1;
    env.push_back(name + "=" + value);
  }
  std::vector<char*> argv, envp;
  for (std::string& a : all) argv.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  const std::string out = options.stdoutPath.empty() ? "/dev/null" : options.stdoutPath;
  const std::string err = options.stderrPath.empty() ? "/dev/null" : options.stderrPath;
  int r = 0;
  if (options.addressSpace != 0) {
    r = ForkWithin(options, out, err, argv, envp, &m_pImpl->pid);  // posix_spawn sets no limits
  } else {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!options.workDir.empty()) posix_spawn_file_actions_addchdir_np(&actions, options.workDir.c_str());
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  r = posix_spawn(&m_pImpl->pid, exe.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  }
  if (options.readyPipe) {
    ::close(ready[1]);  // a child that dies unready hangs the pipe up
    m_pImpl->readyFd = ready[0];
  }
  if (r != 0) m_pImpl->pid = -1;
  m_pImpl->bEnded = false;
  return r == 0;
}

std::string Child::WaitReady(int timeoutMs) {
  if (m_pImpl->readyFd < 0) return {};
  std::string line;  // every line up to "ready"
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (line.find("ready\n") == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{m_pImpl->readyFd, POLLIN, 0};
    char buffer[64];
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1) break;
    const ssize_t n = ::read(m_pImpl->readyFd, buffer, sizeof buffer);
    if (n <= 0) break;
    line.append(buffer, static_cast<size_t>(n));
  }
  return line;
}

int Child::Wait(int timeoutMs) {
  if (m_pImpl->pid <= 0) return -1;
  if (!m_pImpl->bEnded) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (::waitpid(m_pImpl->pid, &m_pImpl->status, WNOHANG) != m_pImpl->pid) {
      if (std::chrono::steady_clock::now() > deadline) return -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    m_pImpl->bEnded = true;
  }
  return WIFEXITED(m_pImpl->status) ? WEXITSTATUS(m_pImpl->status) : -2;
}

int Child::Stop(int timeoutMs) {
  if (Running()) ::kill(m_pImpl->pid, SIGTERM);
  return Wait(timeoutMs);
}

void Child::Kill() {
  if (!Running()) return;
  ::kill(m_pImpl->pid, SIGKILL);
  ::waitpid(m_pImpl->pid, &m_pImpl->status, 0);
  m_pImpl->bEnded = true;
}

bool Child::Running() const { return m_pImpl->pid > 0 && !m_pImpl->bEnded; }
uint32_t Child::Id() const { return static_cast<uint32_t>(m_pImpl->pid); }

}  // namespace testsys
