// varlok-sim: a soft controller. Serves the three shared memory channels of a
// partition, and with --tcp the tag-access protocol over TCP, from one process
// image built from a symbol file, until SIGINT or SIGTERM (on Windows Ctrl-C
// or a stop request), then removes what it created. Logs to stderr; once it
// serves, prints "tcp ADDR:PORT" (with --tcp) and "ready" on stdout, and the
// same lines on --ready-fd.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Controller.h"
#include "DemoTask.h"
#include "Program.h"
#include "TcpServer.h"
#include "SymbolConfigReader.h"
#include "VarlokLog.h"
#include "WideConv.h"

namespace {

using namespace qorvarlok::controller;

enum ExitCode { kExitOk = 0, kExitUsage = 1, kExitSymbols = 2, kExitCannotServe = 4 };

const char* const kUsage =
    "usage: varlok-sim --symbols FILE [--partition NAME] [--demo] [options]\n"
    "  --symbols FILE          symbol configuration file (XML) the process image is built from\n"
    "  --partition NAME        partition to serve (default: VARLOK_PARTITION, else \"varlok\")\n"
    "  --demo                  move App.GVL.counter, App.GVL.sine and App.GVL.toggle cyclically\n"
    "  --demo-cycle-ms N       cycle of the demo task (default 100)\n"
    "  --connect-size N        bytes of ConnectArea (default 512)\n"
    "  --notify-size N         bytes of NotifyArea (default 5242880)\n"
    "  --dataswap-size N       bytes of DataSwapArea (default 5242880)\n"
    "  --claim-timeout-ms N    how long to wait for a partition that is being given up (default 500)\n"
    "  --ready-fd N            write \"ready\\n\" to file descriptor N (a handle on Windows) once serving, then close it\n"
    "  --log-level LEVEL       trace, debug, info (default), warn, err\n"
    "  --help                  print this text and exit\n"
    "TCP (the tag-access protocol, beside the shared memory channels):\n"
    "  --tcp [ADDR:]PORT       serve on PORT (0: any free port), on ADDR (default 127.0.0.1, loopback)\n"
    "  --token-file FILE       clients must present the token in FILE (its first line)\n"
    "  --tcp-max-connections N connections at once (default 128)\n"
    "  --tcp-max-lists N       lists per connection (default 256)\n"
    "  --tcp-idle-ms N         close a connection without a request for N ms (default 60000; 0 never)\n"
    "  --tcp-limit-ms N        time for the handshake, for a frame begun, for an answer to be taken (default 5000)\n"
    "fault injection (CH is connect, define, dataswap or all; a comma list is allowed):\n"
    "  --refuse-connect N      answer every connect with errInfo N (2, 3 or 4)\n"
    "  --silent CH             never answer commands on CH\n"
    "  --late-ms N [--late CH] answer N ms late (on CH, default all)\n"
    "  --keep-flag CH          answer on CH but leave Flag as the request left it\n"
    "  --error CH --error-value N   answer on CH with Err N, without carrying the command out\n"
    "  --vanish CH             on the first command on CH, cut the areas and exit (code 3)\n";

struct Options {
  std::string symbols;
  bool demo = false;
  uint32_t demoCycleMs = 100;
  int64_t readyFd = -1;
  std::string logLevel = "info";
  ControllerOptions controller;
  bool tcp = false;
  std::string tokenFile;
  TcpServerOptions tcpOptions;
};

bool ParseNumber(const char* text, uint32_t& out) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text, &end, 10);
  if (*end != '\0' || errno != 0 || v > UINT32_MAX || text[0] == '-') return false;
  out = static_cast<uint32_t>(v);
  return true;
}

bool ParseChannels(const char* text, uint32_t& mask) {
  if (text == nullptr) return false;
  std::string rest = text;
  mask = 0;
  while (!rest.empty()) {
    const size_t comma = rest.find(',');
    const std::string word = rest.substr(0, comma);
    if (word == "connect") mask |= ChannelBit(Channel::Connect);
    else if (word == "define") mask |= ChannelBit(Channel::Notify);
    else if (word == "dataswap") mask |= ChannelBit(Channel::DataSwap);
    else if (word == "all") mask |= kAllChannels;
    else return false;
    rest = comma == std::string::npos ? "" : rest.substr(comma + 1);
  }
  return mask != 0;
}

// Empty on success, else what is wrong.
std::string ParseArguments(int argc, char** argv, Options& o) {
  FaultPlan& f = o.controller.faults;
  qorvarlok::rtos::RtosHostOptions& h = o.controller.host;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    auto number = [&](uint32_t& out) { return ParseNumber(value, out) && ++i; };
    auto channels = [&](uint32_t& out) { return ParseChannels(value, out) && ++i; };
    uint32_t n = 0;
    bool ok = true;
    if (arg == "--symbols" && value != nullptr) o.symbols = argv[++i];
    else if (arg == "--partition" && value != nullptr) h.partition = argv[++i];
    else if (arg == "--demo") o.demo = true;
    else if (arg == "--demo-cycle-ms") ok = number(o.demoCycleMs) && o.demoCycleMs > 0;
    else if (arg == "--connect-size") ok = number(h.connectAreaSize);
    else if (arg == "--notify-size") ok = number(h.notifyAreaSize);
    else if (arg == "--dataswap-size") ok = number(h.dataSwapAreaSize);
    else if (arg == "--claim-timeout-ms") ok = number(h.claimTimeoutMs);
    else if (arg == "--ready-fd") ok = number(n) && (o.readyFd = n, true);
    else if (arg == "--log-level" && value != nullptr) o.logLevel = argv[++i];
    else if (arg == "--tcp" && value != nullptr)
      ok = (o.tcp = true, ParseListenAddress(argv[++i], o.tcpOptions.address, o.tcpOptions.port));
    else if (arg == "--token-file" && value != nullptr) o.tokenFile = argv[++i];
    else if (arg == "--tcp-max-connections") ok = number(o.tcpOptions.limits.maxConnections);
    else if (arg == "--tcp-max-lists") ok = number(o.tcpOptions.limits.maxListsPerConnection);
    else if (arg == "--tcp-idle-ms") ok = number(o.tcpOptions.limits.idleLimitMs);
    else if (arg == "--tcp-limit-ms")
      ok = number(n) && n > 0 && (o.tcpOptions.limits.handshakeLimitMs = o.tcpOptions.limits.frameLimitMs = n, true);
    else if (arg == "--refuse-connect") ok = number(f.refuseConnect) && f.refuseConnect >= 2 && f.refuseConnect <= 4;
    else if (arg == "--silent") ok = channels(f.silentMask);
    else if (arg == "--late-ms") ok = number(f.lateMs);
    else if (arg == "--late") ok = channels(f.lateMask);
    else if (arg == "--keep-flag") ok = channels(f.keepFlagMask);
    else if (arg == "--error") ok = channels(f.errorMask);
    else if (arg == "--error-value") ok = number(f.errorValue);
    else if (arg == "--vanish") ok = channels(f.vanishMask);
    else return "unknown or incomplete option " + arg;
    if (!ok) return "bad value for " + arg + (value != nullptr ? std::string(": ") + value : std::string());
  }
  if (o.symbols.empty()) return "--symbols FILE is required";
  if (o.logLevel != "trace" && o.logLevel != "debug" && o.logLevel != "info" && o.logLevel != "warn" &&
      o.logLevel != "err")
    return "bad value for --log-level: " + o.logLevel;
  if (f.errorMask != 0 && f.errorValue == 0) return "--error needs --error-value N with N not 0";
  if (!o.tokenFile.empty() && !o.tcp) return "--token-file needs --tcp";
  return "";
}

void SetUpLogging(const std::string& level) {
  auto logger = spdlog::stderr_logger_mt("varlok-sim");
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] %v");
  logger->set_level(spdlog::level::from_str(level));
  logger->flush_on(spdlog::level::trace);
  spdlog::set_default_logger(logger);
}

std::unique_ptr<ProcessImage> LoadImage(const std::string& path) {
  qorvarlok::symbols::SymbolConfigReader reader;
  char* message = nullptr;
  std::unique_ptr<qorvarlok::symbols::SymbolConfiguration> config(
      reader.ReadFile(qorvarlok::platform::narrowToWide(path.c_str()), &message));
  if (!config) {
    std::fprintf(stderr, "varlok-sim: cannot read %s: %s (0x%X)\n", path.c_str(), message ? message : "",
                 reader.LastError());
    delete[] message;
    return nullptr;
  }
  delete[] message;
  return ProcessImage::Build(*config);
}

// The token is the file's first line, without its line end.
bool ReadToken(const std::string& path, std::string& token) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  char line[512] = {0};
  const bool read = std::fgets(line, sizeof line, f) != nullptr;
  std::fclose(f);
  if (!read) return false;
  token = line;
  while (!token.empty() && (token.back() == '\n' || token.back() == '\r')) token.pop_back();
  return !token.empty() && token.size() <= qorvarlok::tagaccess::kMaxTokenLength;
}

void AnnounceReady(int64_t readyFd, const TcpServer* tcp) {
  std::string text;
  if (tcp != nullptr) text = "tcp " + tcp->Address() + ":" + std::to_string(tcp->Port()) + "\n";
  text += "ready\n";
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
  if (readyFd < 0) return;
  if (!qorvarlok::platform::WriteReadyLine(static_cast<uint64_t>(readyFd), text.c_str()))
    VLOG(warn, "varlok-sim", "cannot write to --ready-fd {}", readyFd);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(kUsage, stdout);
      return kExitOk;
    }
  }
  Options options;
  const std::string problem = ParseArguments(argc, argv, options);
  if (!problem.empty()) {
    std::fprintf(stderr, "varlok-sim: %s\n%s", problem.c_str(), kUsage);
    return kExitUsage;
  }
  // A script that stopped reading stdout or the ready pipe must not end the controller.
  qorvarlok::platform::IgnoreBrokenPipe();
  SetUpLogging(options.logLevel);
  std::unique_ptr<ProcessImage> image = LoadImage(options.symbols);
  if (!image) return kExitSymbols;

  // Before any thread starts, so that only the wait below sees the requests.
  qorvarlok::platform::BlockStopRequests();

  std::string error;
  std::unique_ptr<Controller> controller = Controller::Start(std::move(image), options.controller, &error);
  if (!controller) {
    std::fprintf(stderr, "varlok-sim: cannot start: %s\n", error.c_str());
    return kExitCannotServe;
  }
  std::unique_ptr<TcpServer> tcp;
  if (options.tcp) {
    if (!options.tokenFile.empty() && !ReadToken(options.tokenFile, options.tcpOptions.token)) {
      std::fprintf(stderr, "varlok-sim: cannot read a token (one line, 1 to %u bytes) from %s\n",
                   qorvarlok::tagaccess::kMaxTokenLength, options.tokenFile.c_str());
      return kExitUsage;
    }
    tcp = TcpServer::Start(controller->Handler(), options.tcpOptions, &error);
    if (!tcp) {
      std::fprintf(stderr, "varlok-sim: cannot start: %s\n", error.c_str());
      return kExitCannotServe;
    }
  }
  std::unique_ptr<DemoTask> demo;
  if (options.demo) demo = std::make_unique<DemoTask>(controller->Handler(), options.demoCycleMs);
  AnnounceReady(options.readyFd, tcp.get());

  const int stopSignal = qorvarlok::platform::WaitForStopRequest();
  VLOG(info, "varlok-sim", "stopping on signal {}", stopSignal);
  demo.reset();
  tcp.reset();
  controller.reset();
  spdlog::shutdown();
  return kExitOk;
}
