#include "LineAppendSink.h"

#include <filesystem>
#include <utility>

#include <spdlog/common.h>

namespace qorvarlok::log {

LineAppendSink::LineAppendSink(std::string path, size_t maxSize, size_t maxFiles)
    : m_path(std::move(path)), m_maxSize(maxSize), m_maxFiles(maxFiles) {
  Open();
}

LineAppendSink::~LineAppendSink() = default;

std::string LineAppendSink::PathOf(size_t index) const {
  if (index == 0) return m_path;
  const size_t slash = m_path.rfind('/');
  const size_t dot = m_path.rfind('.');
  const bool hasExtension = dot != std::string::npos && dot != 0 && (slash == std::string::npos || dot > slash + 1);
  const size_t cut = hasExtension ? dot : m_path.size();
  return m_path.substr(0, cut) + "." + std::to_string(index) + m_path.substr(cut);
}

void LineAppendSink::Open() {
  const std::filesystem::path parent = std::filesystem::path(m_path).parent_path();
  std::error_code ignored;  // the open below tells whether it worked
  if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
  int error = 0;
  if (!m_file.Open(m_path, &error)) spdlog::throw_spdlog_ex("Failed opening file " + m_path + " for writing", error);
}

void LineAppendSink::Rotate() {
  // Processes rotate one at a time, under a lock on the log's directory: two
  // rotating at once would rename a file over the one the other just moved.
  // Only the file this process has open is moved on: another process may
  // already have rotated it, and then the path names its new file.
  const platform::DirectoryLock lock(std::filesystem::path(m_path).parent_path().string());
  if (m_file.IsNamed(m_path)) {
    m_file.Close();  // Windows moves no file that this process holds open
    for (size_t i = m_maxFiles; i > 0; --i) platform::MoveFileOver(PathOf(i - 1), PathOf(i));
  }
  m_file.Close();
  Open();
}

void LineAppendSink::sink_it_(const spdlog::details::log_msg& msg) {
  spdlog::memory_buf_t line;
  formatter_->format(msg, line);
  // The file's own size, other processes' lines included, decides the rotation.
  const size_t size = m_file.Size();
  if (size + line.size() > m_maxSize && size > 0) Rotate();
  m_file.Append(line.data(), line.size());  // one write, so lines of two processes never cut into each other
}

}  // namespace qorvarlok::log
