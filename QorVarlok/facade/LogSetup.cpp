// The library's logging, set up when the library is loaded and taken down at
// unload. Nothing configures it: one file per executable, under the current
// directory at load.
#include <spdlog/async.h>
#include <spdlog/details/registry.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <memory>
#include <string>

#include "ExePath.h"
#include "LineAppendSink.h"
#include "LogSetup.h"

namespace qorvarlok::log {

namespace {

constexpr const char* kLoggerName = "Varlok";
constexpr const char* kPattern = "%Y-%m-%d %H:%M:%S.%e (%P|%t) [%L] %v (%s:%# %!)";
constexpr size_t kRotationSize = 0x200000;
constexpr size_t kRotatedFiles = 5;

class LogSetup {
 public:
  LogSetup() {
    // The registry must be made before this object, so that it outlives it:
    // otherwise shutdown() at static destruction touches a dead registry.
    spdlog::details::registry::instance();
    const std::string path = logFilePath(platform::executablePath());
    spdlog::set_formatter(
        std::make_unique<spdlog::pattern_formatter>(kPattern, spdlog::pattern_time_type::local, "\r\n"));
    // Asynchronous as before where the worker lives to the end; the sink
    // writes each line whole, so processes sharing the file never cut lines.
    // Where the worker is gone before this object (Windows), the caller
    // writes: lines still queued would be lost, and the join would hang.
    if (platform::workerThreadsSurviveExit()) {
      spdlog::set_default_logger(
          spdlog::create_async<LineAppendSink>(kLoggerName, path, kRotationSize, kRotatedFiles));
      spdlog::flush_every(std::chrono::seconds(13));
    } else {
      spdlog::set_default_logger(spdlog::create<LineAppendSink>(kLoggerName, path, kRotationSize, kRotatedFiles));
    }
    spdlog::set_level(spdlog::level::info);
    spdlog::enable_backtrace(10);
  }
  ~LogSetup() { spdlog::shutdown(); }
  LogSetup(const LogSetup&) = delete;
  LogSetup& operator=(const LogSetup&) = delete;
};

const LogSetup g_logSetup;

}  // namespace

std::string executablePart(const std::string& exePath) {
  // From the last separator (kept) up to the last dot. A dot that stands
  // before the separator gives a length that wraps, and the substring then
  // takes the rest of the path.
  const size_t slash = exePath.rfind(platform::executablePathSeparator());
  const size_t dot = exePath.rfind('.');
  const size_t start = slash == std::string::npos ? 0 : slash;
  return exePath.substr(start, dot - start);
}

std::string logFilePath(const std::string& exePath) {
  return std::string("./varloklogs/") + executablePart(exePath) + "/" + kLoggerName + ".log";
}

}  // namespace qorvarlok::log
