// Test access to the library's log: a sink added once to the default logger
// that keeps every record (level, text, function) so tests can assert on the
// exact lines. The logger is asynchronous, so lookups wait a bounded time.
//
//   auto& log = qvtest::Log();   // first call installs the sink
//   log.Clear();
//   ... call the library ...
//   EXPECT_TRUE(log.WaitFor(spdlog::level::err, "handle is invalid", "ZelVarlok::ReadTagList"));
#pragma once

#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qvtest {

struct LogRecord {
  spdlog::level::level_enum level;
  std::string text;
  std::string function;
  std::string file;
  int line = 0;
};

class CaptureSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogRecord> Snapshot() {
    std::lock_guard<std::mutex> lock(m_recordsMutex);
    return m_records;
  }
  void Clear() {
    Drain();
    std::lock_guard<std::mutex> lock(m_recordsMutex);
    m_records.clear();
  }
  // Waits until a record with this level, exact text and function arrives.
  // An empty function matches any.
  bool WaitFor(spdlog::level::level_enum level, const std::string& text, const std::string& function = "",
               std::chrono::milliseconds limit = std::chrono::milliseconds(3000)) {
    std::unique_lock<std::mutex> lock(m_recordsMutex);
    return m_arrived.wait_for(lock, limit, [&] { return Count(level, text, function) > 0; });
  }
  // Number of matching records after everything logged so far has arrived.
  size_t CountOf(spdlog::level::level_enum level, const std::string& text, const std::string& function = "") {
    Drain();
    std::lock_guard<std::mutex> lock(m_recordsMutex);
    return Count(level, text, function);
  }
  // True if any record's text contains the fragment.
  bool Contains(const std::string& fragment) {
    Drain();
    std::lock_guard<std::mutex> lock(m_recordsMutex);
    for (const auto& r : m_records)
      if (r.text.find(fragment) != std::string::npos) return true;
    return false;
  }
  // "file:line" (the file's last path component) of each record with this level and exact text.
  std::vector<std::string> Sites(spdlog::level::level_enum level, const std::string& text) {
    Drain();
    std::lock_guard<std::mutex> lock(m_recordsMutex);
    std::vector<std::string> sites;
    for (const auto& r : m_records)
      if (r.level == level && r.text == text)
        sites.push_back(r.file.substr(r.file.rfind('/') + 1) + ":" + std::to_string(r.line));
    return sites;
  }
  // Logs a marker and waits for it: everything logged before has then arrived.
  void Drain() {
    static std::atomic<unsigned> serial{0};
    const std::string marker = "qvtest-drain-" + std::to_string(++serial);
    spdlog::logger* logger = spdlog::default_logger_raw();
    if (logger == nullptr) return;
    logger->log(spdlog::level::critical, marker);
    std::unique_lock<std::mutex> lock(m_recordsMutex);
    m_arrived.wait_for(lock, std::chrono::seconds(5), [&] { return Count(spdlog::level::critical, marker, "") > 0; });
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    LogRecord record{msg.level, std::string(msg.payload.data(), msg.payload.size()),
                     msg.source.funcname ? msg.source.funcname : "", msg.source.filename ? msg.source.filename : "",
                     msg.source.line};
    {
      std::lock_guard<std::mutex> lock(m_recordsMutex);
      m_records.push_back(std::move(record));
    }
    m_arrived.notify_all();
  }
  void flush_() override {}

 private:
  size_t Count(spdlog::level::level_enum level, const std::string& text, const std::string& function) const {
    size_t n = 0;
    for (const auto& r : m_records)
      if (r.level == level && r.text == text && (function.empty() || r.function == function)) ++n;
    return n;
  }
  std::mutex m_recordsMutex;
  std::condition_variable m_arrived;
  std::vector<LogRecord> m_records;
};

// The capture joins the library's sinks in a new logger on the same thread
// pool: adding it to the running logger's sink list would reallocate that
// list under the logging thread, which may be walking it for a line in
// flight. The old logger is kept, since lines in flight still name it.
inline CaptureSink& Log() {
  static std::shared_ptr<spdlog::logger> previous;
  static std::shared_ptr<CaptureSink> sink = [] {
    auto s = std::make_shared<CaptureSink>();
    previous = spdlog::default_logger();
    std::vector<spdlog::sink_ptr> sinks = previous->sinks();
    sinks.push_back(s);
    std::shared_ptr<spdlog::logger> next;
    if (auto pool = spdlog::thread_pool(); pool && std::dynamic_pointer_cast<spdlog::async_logger>(previous)) {
      next = std::make_shared<spdlog::async_logger>(previous->name(), sinks.begin(), sinks.end(), pool,
                                                    spdlog::async_overflow_policy::block);
    } else {
      next = std::make_shared<spdlog::logger>(previous->name(), sinks.begin(), sinks.end());
    }
    next->set_level(previous->level());
    next->flush_on(previous->flush_level());
    spdlog::set_default_logger(next);
    return s;
  }();
  return *sink;
}

}  // namespace qvtest
