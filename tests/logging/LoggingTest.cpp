// The log as a user meets it: the file under ./varloklogs/ named after the
// executable, one line per record with its fields, "\r\n" at the end, the
// level letter and the function name written at the call.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "ExePath.h"
#include "LogCapture.h"
#include "LogSetup.h"
#include "TestSystem.h"
#include "VarlokLog.h"

namespace {

using qorvarlok::log::logFilePath;

TEST(LogFile, PathUnderVarloklogsOfTheCurrentDirectory) {
  // '|' stands for the system's separator of the executable's path ('/', or '\\' on Windows).
  const std::pair<std::string, std::string> cases[] = {
      // The separator stays in the directory name; only the last dot cuts.
      {"|opt|app|client.bin", "./varloklogs/|client/Varlok.log"},
      {"C:|app|client.exe", "./varloklogs/|client/Varlok.log"},
      {"|opt|app|client.tar.gz", "./varloklogs/|client.tar/Varlok.log"},
      {"|opt|app.d|client", "./varloklogs/|client/Varlok.log"},
      {"|opt|app|.hidden", "./varloklogs/|/Varlok.log"},  // the separator kept, then the path's own /
      {"client.bin", "./varloklogs/client/Varlok.log"},
      {"client", "./varloklogs/client/Varlok.log"},
  };
  const auto native = [](std::string text) {
    for (char& c : text)
      if (c == '|') c = qorvarlok::platform::executablePathSeparator();
    return text;
  };
  for (const auto& c : cases) EXPECT_EQ(logFilePath(native(c.first)), native(c.second)) << native(c.first);
}

std::string ownLogFile() {
  const std::string cwd = testsys::CurrentDir();
  if (cwd.empty()) return std::string();
  return cwd + "/" + logFilePath(qorvarlok::platform::executablePath());
}

std::string readLog() {
  std::ifstream in(ownLogFile(), std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The logger is asynchronous: flush and wait, bounded, for the marker's line.
std::string waitForLine(const std::string& marker) {
  for (int i = 0; i < 300; ++i) {
    spdlog::default_logger()->flush();
    const std::string content = readLog();
    const size_t at = content.find(marker);
    const size_t end = at == std::string::npos ? at : content.find('\n', at);
    if (end != std::string::npos) {
      const size_t begin = content.rfind('\n', at);
      return content.substr(begin == std::string::npos ? 0 : begin + 1, end - begin);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return std::string();
}

std::string uniqueMarker(const char* what) {
  static std::atomic<int> serial{0};
  return std::string(what) + "-" + std::to_string(testsys::ProcessId()) + "-" + std::to_string(++serial);
}

TEST(LogFile, LineCarriesEveryFieldOfThePattern) {
  const std::string marker = uniqueMarker("pattern");
  const int line = __LINE__ + 1;
  VLOG(err, "ZelVarlok::InitializeCom", "{} code={:X}", marker, 0x10000403u);
  const std::string written = waitForLine(marker);
  // "YYYY-MM-DD HH:MM:SS.mmm", then the exact rest of the line.
  const std::string stamp = "dddd-dd-dd dd:dd:dd.ddd";
  ASSERT_GT(written.size(), stamp.size()) << "no line with " << marker;
  for (size_t i = 0; i < stamp.size(); ++i) {
    const bool digit = written[i] >= '0' && written[i] <= '9';
    EXPECT_TRUE(stamp[i] == 'd' ? digit : written[i] == stamp[i]) << "time stamp at " << i << ": " << written;
  }
  const std::string rest = " (" + std::to_string(testsys::ProcessId()) + "|" + std::to_string(testsys::ThreadId()) + ") [E] " +
                           marker + " code=10000403 (LoggingTest.cpp:" + std::to_string(line) +
                           " ZelVarlok::InitializeCom)\r\n";
  EXPECT_EQ(written.substr(stamp.size()), rest);
}

TEST(LogFile, LevelLettersAndNothingBelowInfo) {
  const std::pair<qorvarlok::log::level, const char*> cases[] = {{qorvarlok::log::info, "[I]"},
                                                                 {qorvarlok::log::warn, "[W]"},
                                                                 {qorvarlok::log::err, "[E]"},
                                                                 {qorvarlok::log::critical, "[C]"}};
  const std::string hidden = uniqueMarker("hidden");
  VLOG(debug, "ZelVarlok::ReadTagList", "{} debug", hidden);
  for (const auto& c : cases) {
    const std::string marker = uniqueMarker("level");
    qorvarlok::log::write(spdlog::source_loc{__FILE__, __LINE__, "ShmComClient::GetInstance"}, c.first, "{}", marker);
    EXPECT_NE(waitForLine(marker).find(std::string(") ") + c.second + " " + marker), std::string::npos) << c.second;
  }
  // One worker writes in queue order: the debug line would be there by now.
  EXPECT_EQ(readLog().find(hidden), std::string::npos);
}

constexpr int kHelperLines = 4000;

// A line of LogHelper.WriteLines from its time stamp to its "\r", and its
// process, tag and number.
bool WholeHelperLine(const std::string& line, int* pid, std::string* tag, int* number) {
  int field[9], consumed = 0;
  char letter = 0, xs[302] = {0};
  const int got = std::sscanf(line.c_str(),
                              "%4d-%2d-%2d %2d:%2d:%2d.%3d (%d|%d) [I] %c %d %301[x] (LoggingTest.cpp:%d "
                              "LogHelper::WriteLines)%n",
                              &field[0], &field[1], &field[2], &field[3], &field[4], &field[5], &field[6], pid,
                              &field[7], &letter, number, xs, &field[8], &consumed);
  *tag = std::string(1, letter);
  return got == 13 && std::strlen(xs) == 300 && consumed > 0 && static_cast<size_t>(consumed) + 1 == line.size() &&
         line.back() == '\r';
}

// Runs only as a helper of TwoProcessesOfOneExecutableWriteWholeLines.
TEST(LogHelper, WriteLines) {
  const char* tag = std::getenv("LOG_HELPER_TAG");
  if (tag == nullptr) GTEST_SKIP() << "helper of another test";
  const std::string padding(300, 'x');
  for (int i = 0; i < kHelperLines; ++i) VLOG(info, "LogHelper::WriteLines", "{} {} {}", tag, i, padding);
}

// Two processes of one executable share its log file: every line arrives whole and
// once, across the rotation that their 3 MB bring about.
TEST(LogFile, TwoProcessesOfOneExecutableWriteWholeLines) {
  const std::string dir = testsys::MakeTempDir("qvlog");
  ASSERT_FALSE(dir.empty());
  std::map<int, std::string> helpers;
  testsys::Child children[2];
  int next = 0;
  for (const char* tag : {"A", "B"}) {
    testsys::ChildOptions options;
    options.workDir = dir;  // the log goes under the current directory
    options.env = {{"LOG_HELPER_TAG", tag}};
    testsys::Child& child = children[next++];
    EXPECT_TRUE(child.Start(qorvarlok::platform::executablePath(), {"--gtest_filter=LogHelper.WriteLines"}, options));
    helpers[static_cast<int>(child.Id())] = tag;
  }
  for (testsys::Child& child : children) EXPECT_EQ(0, child.Wait(120000)) << helpers[static_cast<int>(child.Id())];
  const std::string file = dir + "/" + logFilePath(qorvarlok::platform::executablePath());
  std::map<std::string, std::vector<int>> seen;  // tag -> how often each line number came
  size_t files = 0, broken = 0;
  for (const std::string& name : {file.substr(0, file.size() - 4) + ".2.log", file.substr(0, file.size() - 4) + ".1.log",
                                  file}) {
    std::ifstream in(name, std::ios::binary);
    files += in.good();
    for (std::string line; std::getline(in, line);) {
      int pid = 0, number = -1;
      std::string tag;
      if (!WholeHelperLine(line, &pid, &tag, &number) || helpers[pid] != tag || number >= kHelperLines) {
        if (++broken < 3) ADD_FAILURE() << "not a whole line: " << line.substr(0, 120);
        continue;
      }
      std::vector<int>& count = seen[tag];
      count.resize(kHelperLines);
      ++count.at(static_cast<size_t>(number));
    }
  }
  EXPECT_EQ(0u, broken);
  EXPECT_GE(files, 2u) << "3 MB rotate the 2 MiB file";
  for (const char* tag : {"A", "B"}) EXPECT_EQ(std::vector<int>(kHelperLines, 1), seen[tag]) << tag;
  std::filesystem::remove_all(dir);
}

TEST(LogCalls, PrintfUnfilledAndFmtTexts) {
  auto& log = qvtest::Log();
  log.Clear();
  int object = 0;
  VLOGP(warn, "ShareMemCom::ReadTag", "handle %p count %d", static_cast<void*>(&object), -3);
  VLOGU(err, "ShmComClient::WriteRwCmd", "Error (0x%X) on {}", 0x1234, 5);
  VLOG(err, "TagsManager::SearchTag", "tag {} missing, code {:X}", "App.GVL.x", 0x1000050Bu);
  VLOGP(info, "ZelVarlok::CreateTagsHandle", "%s", std::string(700, 'x').c_str());

  char pointerText[64];
  std::snprintf(pointerText, sizeof(pointerText), "handle %p count -3", static_cast<void*>(&object));
  EXPECT_EQ(log.CountOf(spdlog::level::warn, pointerText, "ShareMemCom::ReadTag"), 1u);
  EXPECT_EQ(log.CountOf(spdlog::level::err, "Error (0x%X) on {}", "ShmComClient::WriteRwCmd"), 1u);
  EXPECT_EQ(log.CountOf(spdlog::level::err, "tag App.GVL.x missing, code 1000050B", "TagsManager::SearchTag"), 1u);
  // The printf buffer is 512 bytes: the text is cut, never overrun.
  EXPECT_EQ(log.CountOf(spdlog::level::info, std::string(511, 'x'), "ZelVarlok::CreateTagsHandle"), 1u);
}

}  // namespace
