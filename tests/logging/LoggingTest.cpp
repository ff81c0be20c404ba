// The logging set-up as a user meets it: the file under ./varloklogs/ of the
// current directory, named after the executable, one line per record with
// the pattern's fields, "\r\n" at the end, the level letter and the
// function name written at the call; and the ways the library logs.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <spdlog/async_logger.h>

#include "ExePath.h"
#include "LogCapture.h"
#include "LogSetup.h"
#include "VarlokLog.h"

namespace {

using qorvarlok::log::executablePart;
using qorvarlok::log::logFilePath;

struct PartCase {
  const char* path;
  const char* part;
};

TEST(ExecutablePart, FromLastSeparatorUpToLastDot) {
  const PartCase cases[] = {
      {"/opt/app/client.bin", "/client"},
      {"/opt/app/client.tar.gz", "/client.tar"},
      // A dot only in a directory stands before the separator: the length
      // wraps and the substring takes the rest of the path.
      {"/opt/app.d/client", "/client"},
      {"/usr/bin/client", "/client"},
      {"/a.b/c.d", "/c"},
      {"/opt/app/.hidden", "/"},
      {"client.bin", "client"},
      {"client", "client"},
      {"", ""},
  };
  for (const PartCase& c : cases) EXPECT_EQ(executablePart(c.path), c.part) << c.path;
}

TEST(ExecutablePart, FileUnderVarloklogsOfTheCurrentDirectory) {
  // The separator stays in the part, as the backslash does on the original platform.
  EXPECT_EQ(logFilePath("/opt/app/client.bin"), "./varloklogs//client/Varlok.log");
  EXPECT_EQ(logFilePath("client"), "./varloklogs/client/Varlok.log");
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The file this test program logs to, as a user would find it.
std::string ownLogFile() {
  char cwd[4096] = {0};
  if (::getcwd(cwd, sizeof(cwd)) == nullptr) return std::string();
  return std::string(cwd) + "/" + logFilePath(qorvarlok::platform::executablePath());
}

// The logger is asynchronous and flushes every 13 s: ask for a flush and
// wait, bounded, until the line with the marker is in the file.
std::string waitForLine(const std::string& path, const std::string& marker) {
  for (int i = 0; i < 300; ++i) {
    spdlog::default_logger()->flush();
    const std::string content = readFile(path);
    const size_t at = content.find(marker);
    if (at != std::string::npos) {
      const size_t begin = content.rfind('\n', at);
      const size_t end = content.find('\n', at);
      if (end != std::string::npos) return content.substr(begin == std::string::npos ? 0 : begin + 1, end - begin);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return std::string();
}

std::string uniqueMarker(const char* what) {
  static std::atomic<int> serial{0};
  return std::string(what) + "-" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
}

TEST(LogFile, LineCarriesEveryFieldOfThePattern) {
  const std::string path = ownLogFile();
  const std::string marker = uniqueMarker("pattern");
  const int line = __LINE__ + 1;
  VLOG(err, "ZelVarlok::InitializeCom", "{} code={:X}", marker, 0x10000403u);
  const std::string written = waitForLine(path, marker);
  ASSERT_FALSE(written.empty()) << "no line with " << marker << " in " << path;

  // "YYYY-MM-DD HH:MM:SS.mmm", then the exact rest of the line.
  const std::string stamp = "dddd-dd-dd dd:dd:dd.ddd";
  ASSERT_GT(written.size(), stamp.size());
  for (size_t i = 0; i < stamp.size(); ++i) {
    const bool digit = written[i] >= '0' && written[i] <= '9';
    EXPECT_TRUE(stamp[i] == 'd' ? digit : written[i] == stamp[i]) << "time stamp at " << i << ": " << written;
  }
  const std::string rest = " (" + std::to_string(::getpid()) + "|" + std::to_string(::syscall(SYS_gettid)) + ") [E] " +
                           marker + " code=10000403 (LoggingTest.cpp:" + std::to_string(line) +
                           " ZelVarlok::InitializeCom)\r\n";
  EXPECT_EQ(written.substr(stamp.size()), rest);
}

TEST(LogFile, LevelLetters) {
  const std::string path = ownLogFile();
  struct LevelCase {
    qorvarlok::log::level level;
    const char* letter;
  };
  const LevelCase cases[] = {{qorvarlok::log::info, "[I]"},
                             {qorvarlok::log::warn, "[W]"},
                             {qorvarlok::log::err, "[E]"},
                             {qorvarlok::log::critical, "[C]"}};
  for (const LevelCase& c : cases) {
    const std::string marker = uniqueMarker("level");
    qorvarlok::log::write(spdlog::source_loc{__FILE__, __LINE__, "ShmComClient::GetInstance"}, c.level, "{}", marker);
    const std::string written = waitForLine(path, marker);
    EXPECT_NE(written.find(std::string(") ") + c.letter + " " + marker), std::string::npos) << written;
  }
}

TEST(LogFile, BelowInfoNeverReachesTheFile) {
  // Records reach the file in queue order from one worker: once the info
  // line is there, the debug and trace lines before it would be too.
  const std::string path = ownLogFile();
  const std::string hidden = uniqueMarker("hidden");
  VLOG(debug, "ZelVarlok::ReadTagList", "{} debug", hidden);
  VLOG(trace, "ZelVarlok::ReadTagList", "{} trace", hidden);
  const unsigned char bytes[4] = {0xDE, 0xAD, 0xBE, 0xEF};
  VLOG_HEX("ZelVarlok::ReadStructField", hidden.c_str(), bytes, sizeof(bytes));
  const std::string shown = uniqueMarker("shown");
  VLOG(info, "ZelVarlok::ReadTagList", "{}", shown);
  ASSERT_FALSE(waitForLine(path, shown).empty());
  EXPECT_EQ(readFile(path).find(hidden), std::string::npos);
}

TEST(LogFile, RotatesAtTwoMebibytes) {
  // A little over 2 MiB after a marker: the marker must have moved on to a
  // numbered file, and no file may exceed the rotation size.
  const std::string path = ownLogFile();
  const std::string dir = path.substr(0, path.rfind('/') + 1);
  const std::string first = uniqueMarker("rotation-first");
  VLOG(info, "LogTest::Rotate", "{}", first);
  const std::string filler(1000, 'r');
  for (int i = 0; i < 2200; ++i) VLOG(info, "LogTest::Rotate", "{}", filler);
  const std::string last = uniqueMarker("rotation-last");
  VLOG(info, "LogTest::Rotate", "{}", last);
  ASSERT_FALSE(waitForLine(path, last).empty());

  const std::string current = readFile(path);
  EXPECT_EQ(current.find(first), std::string::npos);
  EXPECT_LE(current.size(), 0x200000u);
  bool moved = false;
  for (int n = 1; n <= 5; ++n) {
    const std::string rotated = readFile(dir + "Varlok." + std::to_string(n) + ".log");
    EXPECT_LE(rotated.size(), 0x200000u) << n;
    if (rotated.find(first) != std::string::npos) moved = true;
  }
  EXPECT_TRUE(moved) << "the first marker is in no Varlok.<n>.log";
  EXPECT_TRUE(readFile(dir + "Varlok.6.log").empty()) << "more than five rotated files";
}

TEST(LogSettings, OneNamedDefaultLoggerAtInfoWithBacktrace) {
  auto logger = spdlog::get("Varlok");
  ASSERT_NE(logger, nullptr);
  EXPECT_EQ(logger.get(), spdlog::default_logger_raw());
  EXPECT_EQ(logger->level(), spdlog::level::info);
  EXPECT_TRUE(logger->should_backtrace());
  EXPECT_NE(std::dynamic_pointer_cast<spdlog::async_logger>(logger), nullptr);
}

TEST(LogCalls, PrintfUnfilledAndFmtTexts) {
  auto& log = qvtest::Log();
  log.Clear();
  int object = 0;
  VLOGP(warn, "ShareMemCom::ReadTag", "handle %p count %d", static_cast<void*>(&object), -3);
  VLOGU(err, "ShmComClient::WriteRwCmd", "Error (0x%X) on {}", 0x1234, 5);
  VLOG(err, "TagsManager::SearchTag", "tag {} missing, code {:X}", "App.GVL.x", 0x1000050Bu);

  char pointerText[64];
  std::snprintf(pointerText, sizeof(pointerText), "handle %p count -3", static_cast<void*>(&object));
  EXPECT_EQ(log.CountOf(spdlog::level::warn, pointerText, "ShareMemCom::ReadTag"), 1u);
  EXPECT_EQ(log.CountOf(spdlog::level::err, "Error (0x%X) on {}", "ShmComClient::WriteRwCmd"), 1u);
  EXPECT_EQ(log.CountOf(spdlog::level::err, "tag App.GVL.x missing, code 1000050B", "TagsManager::SearchTag"), 1u);
}

TEST(LogCalls, PrintfTextIsCutAt511Bytes) {
  auto& log = qvtest::Log();
  log.Clear();
  const std::string longText(700, 'x');
  VLOGP(info, "ZelVarlok::CreateTagsHandle", "%s", longText.c_str());
  EXPECT_EQ(log.CountOf(spdlog::level::info, std::string(511, 'x'), "ZelVarlok::CreateTagsHandle"), 1u);
}

TEST(LogCalls, HexDumpAtDebugWith32BytesALine) {
  // The file does not get it at info; the record is "<title> binary(hex): "
  // and 32 bytes a line, seen here once the level lets it through.
  auto& log = qvtest::Log();
  log.Clear();
  spdlog::default_logger()->set_level(spdlog::level::debug);
  unsigned char bytes[40];
  for (int i = 0; i < 40; ++i) bytes[i] = static_cast<unsigned char>(i);
  VLOG_HEX("ZelVarlok::ReadStructField", "ReadStructField result", bytes, sizeof(bytes));
  spdlog::default_logger()->set_level(spdlog::level::info);
  log.Drain();
  bool found = false;
  for (const auto& r : log.Snapshot()) {
    if (r.function != "ZelVarlok::ReadStructField") continue;
    found = true;
    EXPECT_EQ(r.level, spdlog::level::debug);
    EXPECT_EQ(r.text.rfind("ReadStructField result binary(hex): ", 0), 0u) << r.text;
    EXPECT_NE(r.text.find("\n0000: 00 01 02"), std::string::npos) << r.text;
    EXPECT_NE(r.text.find("\n0020: 20 21"), std::string::npos) << r.text;
  }
  EXPECT_TRUE(found);
}

}  // namespace
