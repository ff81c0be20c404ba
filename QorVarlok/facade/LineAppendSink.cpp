#include "LineAppendSink.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include <spdlog/common.h>

namespace qorvarlok::log {

LineAppendSink::LineAppendSink(std::string path, size_t maxSize, size_t maxFiles)
    : m_path(std::move(path)), m_maxSize(maxSize), m_maxFiles(maxFiles) {
  Open();
}

LineAppendSink::~LineAppendSink() {
  if (m_fd >= 0) ::close(m_fd);
}

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
  m_fd = ::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (m_fd < 0) spdlog::throw_spdlog_ex("Failed opening file " + m_path + " for writing", errno);
}

void LineAppendSink::Rotate() {
  // Processes rotate one at a time, under a lock on the log's directory: two
  // rotating at once would rename a file over the one the other just moved.
  // Only the file this process has open is moved on: another process may
  // already have rotated it, and then the path names its new file.
  const std::string parent = std::filesystem::path(m_path).parent_path().string();
  const int dir = ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) ::flock(dir, LOCK_EX);
  struct stat mine {}, named {};
  const bool stillNamed = ::fstat(m_fd, &mine) == 0 && ::stat(m_path.c_str(), &named) == 0 &&
                          mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
  if (stillNamed) {
    for (size_t i = m_maxFiles; i > 0; --i) {
      const std::string from = PathOf(i - 1);
      if (::access(from.c_str(), F_OK) == 0) ::rename(from.c_str(), PathOf(i).c_str());
    }
  }
  ::close(m_fd);
  m_fd = -1;
  try {
    Open();
  } catch (...) {
    if (dir >= 0) ::close(dir);  // closing drops the lock
    throw;
  }
  if (dir >= 0) ::close(dir);
}

void LineAppendSink::sink_it_(const spdlog::details::log_msg& msg) {
  spdlog::memory_buf_t line;
  formatter_->format(msg, line);
  // The file's own size, other processes' lines included, decides the rotation.
  struct stat info {};
  const size_t size = ::fstat(m_fd, &info) == 0 ? static_cast<size_t>(info.st_size) : 0;
  if (size + line.size() > m_maxSize && size > 0) Rotate();
  const char* data = line.data();
  size_t left = line.size();
  while (left > 0) {  // one write; a short one (a full disk) goes on from where it stopped
    const ssize_t n = ::write(m_fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    data += n, left -= static_cast<size_t>(n);
  }
}

}  // namespace qorvarlok::log
