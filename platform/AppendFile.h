// A file that several processes append whole lines to (the library's log),
// and the lock under which one of them moves the files on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qorvarlok::platform {

class AppendFile {
 public:
  AppendFile() = default;
  ~AppendFile() { Close(); }
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;

  // Opens (creating) path for appending; others may read, append, rename or
  // remove it meanwhile. False with errno-like code in *error on failure.
  bool Open(const std::string& path, int* error);
  void Close();
  // The file's size now, other processes' lines included; 0 when unknown.
  size_t Size() const;
  // Whether path still names the file this object has open.
  bool IsNamed(const std::string& path) const;
  // Appends in one call; a short write (a full disk) goes on from where it stopped.
  void Append(const char* data, size_t size);

 private:
  intptr_t m_handle = -1;
  // Where appends of processes may cut into each other (Wine), they take turns; unused on Linux.
  [[maybe_unused]] intptr_t m_lock = -1;
};

// Held by one process at a time for the directory (blocks until it is free).
class DirectoryLock {
 public:
  explicit DirectoryLock(const std::string& directory);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  intptr_t m_handle = -1;
};

// Moves from to to, replacing what to names; false if from is not there.
bool MoveFileOver(const std::string& from, const std::string& to);

}  // namespace qorvarlok::platform
