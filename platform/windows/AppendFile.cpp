#include "AppendFile.h"

#include <windows.h>

#include <cerrno>
#include <climits>
#include <filesystem>

namespace qorvarlok::platform {

namespace {

HANDLE Handle(intptr_t h) { return reinterpret_cast<HANDLE>(h); }
constexpr intptr_t kNone = -1;  // INVALID_HANDLE_VALUE's value

}  // namespace

bool AppendFile::Open(const std::string& path, int* error) {
  Close();
  // Append access alone: every write lands at the end, whoever wrote last.
  // Shared for deleting too, so that another process may rotate the file.
  const HANDLE h = ::CreateFileA(path.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    if (error != nullptr) *error = ::GetLastError() == ERROR_ACCESS_DENIED ? EACCES : ENOENT;
    return false;
  }
  m_handle = reinterpret_cast<intptr_t>(h);
  // Wine appends as "find the end, then write there": two processes can land
  // on the same end. A named mutex per file makes them take turns.
  std::error_code ignored;
  std::string name = std::filesystem::absolute(path, ignored).string();
  for (char& c : name)
    if (c == '\\') c = '/';
  name = "Local\\QorVarlokLogFile:" + name.substr(0, MAX_PATH - 32);
  const HANDLE lock = ::CreateMutexA(nullptr, FALSE, name.c_str());
  m_lock = lock != nullptr ? reinterpret_cast<intptr_t>(lock) : kNone;
  return true;
}

void AppendFile::Close() {
  if (m_handle != kNone) ::CloseHandle(Handle(m_handle));
  if (m_lock != kNone) ::CloseHandle(Handle(m_lock));
  m_handle = m_lock = kNone;
}

size_t AppendFile::Size() const {
  LARGE_INTEGER size{};
  return m_handle != kNone && ::GetFileSizeEx(Handle(m_handle), &size) ? static_cast<size_t>(size.QuadPart) : 0;
}

bool AppendFile::IsNamed(const std::string& path) const {
  if (m_handle == kNone) return false;
  const HANDLE named = ::CreateFileA(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (named == INVALID_HANDLE_VALUE) return false;
  BY_HANDLE_FILE_INFORMATION mine{}, theirs{};
  const bool same = ::GetFileInformationByHandle(Handle(m_handle), &mine) &&
                    ::GetFileInformationByHandle(named, &theirs) &&
                    mine.dwVolumeSerialNumber == theirs.dwVolumeSerialNumber &&
                    mine.nFileIndexHigh == theirs.nFileIndexHigh && mine.nFileIndexLow == theirs.nFileIndexLow;
  ::CloseHandle(named);
  return same;
}

void AppendFile::Append(const char* data, size_t size) {
  const DWORD w = m_lock != kNone ? ::WaitForSingleObject(Handle(m_lock), INFINITE) : WAIT_FAILED;
  const bool locked = w == WAIT_OBJECT_0 || w == WAIT_ABANDONED;  // abandoned by a killed writer: ours now
  while (m_handle != kNone && size > 0) {
    DWORD n = 0;
    const DWORD chunk = size > 0x40000000u ? 0x40000000u : static_cast<DWORD>(size);
    if (!::WriteFile(Handle(m_handle), data, chunk, &n, nullptr) || n == 0) break;
    data += n, size -= n;
  }
  if (locked) ::ReleaseMutex(Handle(m_lock));
}

// A named mutex per directory, in this session's namespace: kernel object
// names take no backslash, so the path's separators become '/'.
DirectoryLock::DirectoryLock(const std::string& directory) {
  std::error_code ignored;
  std::string name = std::filesystem::absolute(directory.empty() ? "." : directory, ignored).string();
  for (char& c : name)
    if (c == '\\') c = '/';
  name = "Local\\QorVarlokLogDir:" + name.substr(0, MAX_PATH - 32);
  const HANDLE h = ::CreateMutexA(nullptr, FALSE, name.c_str());
  if (h == nullptr) return;
  const DWORD r = ::WaitForSingleObject(h, INFINITE);  // abandoned by a killed process: ours now all the same
  if (r != WAIT_OBJECT_0 && r != WAIT_ABANDONED) {
    ::CloseHandle(h);
    return;
  }
  m_handle = reinterpret_cast<intptr_t>(h);
}

DirectoryLock::~DirectoryLock() {
  if (m_handle == -1) return;
  ::ReleaseMutex(Handle(m_handle));
  ::CloseHandle(Handle(m_handle));
}

bool MoveFileOver(const std::string& from, const std::string& to) {
  return ::MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
}

}  // namespace qorvarlok::platform
