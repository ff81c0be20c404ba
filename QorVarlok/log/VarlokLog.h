// How the library logs: through spdlog's default logger, every line carrying
// the source file, the line and the qualified function name written out at
// the call ("ZelVarlok::InitializeCom"), never taken from the compiler.
//
//   VLOG(err, "Class::Method", "text {}", arg)       fmt text ("{}" placeholders)
//   VLOGP(warn, "Class::Method", "handle %p", ptr)   printf text, via a zeroed 512-byte buffer
//   VLOGU(err, "Class::Method", "Error (0x%X)", r)   a text left unfilled on purpose
//   VLOG_HEX("Class::Method", "title", data, len)     hex dump at debug level, 32 bytes a line
//
// Levels are spdlog's: trace, debug, info, warn, err, critical.
// Nothing is logged once logging has been taken down at unload.
//
// A helper that logs for its caller takes the caller's name as a Site, not a
// const char*: a Site made from the name at the call keeps that call's file
// and line, and VLOG given a Site writes them, so each line tells where the
// operation that logged it stands, not where the helper does.
#pragma once

#include <spdlog/fmt/bin_to_hex.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <utility>

namespace qorvarlok::log {

using level = spdlog::level::level_enum;
constexpr level trace = spdlog::level::trace;
constexpr level debug = spdlog::level::debug;
constexpr level info = spdlog::level::info;
constexpr level warn = spdlog::level::warn;
constexpr level err = spdlog::level::err;
constexpr level critical = spdlog::level::critical;

// The function name of a log line with the file and line of the call that
// named it (the compiler's builtins, evaluated where the conversion happens).
struct Site {
  // NOLINTNEXTLINE(google-explicit-constructor): made implicitly at each call
  Site(const char* function, const char* file = __builtin_FILE(), int line = __builtin_LINE())
      : loc{file, line, function} {}
  const char* function() const { return loc.funcname; }
  spdlog::source_loc loc;
};

// The location a VLOG line carries: the macro's own for a name, the call's for a Site.
inline spdlog::source_loc at(const char* function, const char* file, int line) { return {file, line, function}; }
inline spdlog::source_loc at(const Site& site, const char*, int) { return site.loc; }

template <typename... Args>
inline void write(const spdlog::source_loc& loc, level lvl, fmt::format_string<Args...> text, Args&&... args) {
  spdlog::logger* logger = spdlog::default_logger_raw();
  if (logger == nullptr) return;  // taken down at unload
  logger->log(loc, lvl, text, std::forward<Args>(args)...);
}

// Texts such as "%X" that the program hands to the brace formatter on purpose:
// they must reach the line unfilled, whatever arguments stand behind them.
template <typename... Args>
inline void writeUnfilled(const spdlog::source_loc& loc, level lvl, const char* text, Args&&...) {
  spdlog::logger* logger = spdlog::default_logger_raw();
  if (logger == nullptr) return;
  logger->log(loc, lvl, spdlog::string_view_t(text));
}

template <typename... Args>
inline void writePrintf(const spdlog::source_loc& loc, level lvl, const char* format, Args... args) {
  spdlog::logger* logger = spdlog::default_logger_raw();
  if (logger == nullptr) return;
  char buffer[512] = {0};
  std::snprintf(buffer, sizeof(buffer), format, args...);
  logger->log(loc, lvl, spdlog::string_view_t(buffer));
}

inline void writeHex(const spdlog::source_loc& loc, const char* title, const void* data, size_t length) {
  spdlog::logger* logger = spdlog::default_logger_raw();
  if (logger == nullptr || data == nullptr) return;
  if (!logger->should_log(debug) && !logger->should_backtrace()) return;  // hot paths pay nothing at info
  const auto* begin = static_cast<const unsigned char*>(data);
  logger->log(loc, debug, "{} binary(hex): {:X}", title, spdlog::to_hex(begin, begin + length, 32));
}

}  // namespace qorvarlok::log

// The macros exist only to capture __FILE__ and __LINE__ at the call (or to
// pass on a Site's).
// lvl is a bare level name: VLOG(err, "ZelVarlok::InitializeCom", "{}", code).
#define VLOG(lvl, func, ...) \
  ::qorvarlok::log::write(::qorvarlok::log::at(func, __FILE__, __LINE__), ::qorvarlok::log::lvl, __VA_ARGS__)
#define VLOGU(lvl, func, ...) \
  ::qorvarlok::log::writeUnfilled(::qorvarlok::log::at(func, __FILE__, __LINE__), ::qorvarlok::log::lvl, __VA_ARGS__)
#define VLOGP(lvl, func, ...) \
  ::qorvarlok::log::writePrintf(::qorvarlok::log::at(func, __FILE__, __LINE__), ::qorvarlok::log::lvl, __VA_ARGS__)
#define VLOG_HEX(func, title, data, len) \
  ::qorvarlok::log::writeHex(::qorvarlok::log::at(func, __FILE__, __LINE__), title, data, len)
