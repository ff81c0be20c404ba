#include "AppendFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace qorvarlok::platform {

bool AppendFile::Open(const std::string& path, int* error) {
  Close();
  m_handle = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (m_handle < 0 && error != nullptr) *error = errno;
  return m_handle >= 0;
}

void AppendFile::Close() {
  if (m_handle >= 0) ::close(static_cast<int>(m_handle));
  m_handle = -1;
}

size_t AppendFile::Size() const {
  struct stat info {};
  return m_handle >= 0 && ::fstat(static_cast<int>(m_handle), &info) == 0 ? static_cast<size_t>(info.st_size) : 0;
}

bool AppendFile::IsNamed(const std::string& path) const {
  struct stat mine {}, named {};
  return m_handle >= 0 && ::fstat(static_cast<int>(m_handle), &mine) == 0 && ::stat(path.c_str(), &named) == 0 &&
         mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
}

void AppendFile::Append(const char* data, size_t size) {
  while (m_handle >= 0 && size > 0) {
    const ssize_t n = ::write(static_cast<int>(m_handle), data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    data += n, size -= static_cast<size_t>(n);
  }
}

DirectoryLock::DirectoryLock(const std::string& directory) {
  m_handle = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_handle >= 0) ::flock(static_cast<int>(m_handle), LOCK_EX);
}

DirectoryLock::~DirectoryLock() {
  if (m_handle >= 0) ::close(static_cast<int>(m_handle));  // closing drops the lock
}

bool MoveFileOver(const std::string& from, const std::string& to) {
  return ::access(from.c_str(), F_OK) == 0 && std::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace qorvarlok::platform
