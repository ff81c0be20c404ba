// The library's log file, shared by every process of one executable: opened
// for appending, each formatted line goes to it in one write, so lines of two
// processes never cut into each other. Rotation as the rotating file sink's:
// past the size limit Varlok.log becomes Varlok.1.log, older files move one
// up, the last falls away. The file's own size decides, whoever wrote it, and
// a process that finds the file already rotated by another only opens the new
// one.
#pragma once

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/base_sink.h>

#include <cstddef>
#include <mutex>
#include <string>

#include "AppendFile.h"

namespace qorvarlok::log {

class LineAppendSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LineAppendSink(std::string path, size_t maxSize, size_t maxFiles);
  ~LineAppendSink() override;
  LineAppendSink(const LineAppendSink&) = delete;
  LineAppendSink& operator=(const LineAppendSink&) = delete;

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override;
  void flush_() override {}  // every line is in the file when sink_it_ returns

 private:
  void Open();
  void Rotate();
  // "dir/Varlok.3.log" for index 3; the path itself for 0.
  std::string PathOf(size_t index) const;

  const std::string m_path;
  const size_t m_maxSize;
  const size_t m_maxFiles;
  platform::AppendFile m_file;
};

}  // namespace qorvarlok::log
