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

// The three macros exist only to capture __FILE__ and __LINE__ at the call.
// lvl is a bare level name: VLOG(err, "ZelVarlok::InitializeCom", "{}", code).
#define VLOG(lvl, func, ...) \
  ::qorvarlok::log::write(::spdlog::source_loc{__FILE__, __LINE__, func}, ::qorvarlok::log::lvl, __VA_ARGS__)
#define VLOGU(lvl, func, ...) \
  ::qorvarlok::log::writeUnfilled(::spdlog::source_loc{__FILE__, __LINE__, func}, ::qorvarlok::log::lvl, __VA_ARGS__)
#define VLOGP(lvl, func, ...) \
  ::qorvarlok::log::writePrintf(::spdlog::source_loc{__FILE__, __LINE__, func}, ::qorvarlok::log::lvl, __VA_ARGS__)
#define VLOG_HEX(func, title, data, len) \
  ::qorvarlok::log::writeHex(::spdlog::source_loc{__FILE__, __LINE__, func}, title, data, len)
