#include "RtosObjects.h"

#include <thread>

namespace qorvarlok::rtos::detail {
namespace {

bool IsNameCharacter(char c) { return c > 0x20 && c < 0x7F && c != '/' && c != '\\'; }

bool AllNameCharacters(const std::string& text) {
  for (char c : text)
    if (!IsNameCharacter(c)) return false;
  return true;
}

}  // namespace

bool IsValidPartition(const std::string& partition) {
  return !partition.empty() && partition.size() <= kMaxPartitionLength && AllNameCharacters(partition);
}

bool IsValidObjectName(const std::string& object) {
  return !object.empty() && object.size() <= kMaxObjectLength && AllNameCharacters(object);
}

std::string PartitionFromEnvironment() {
  // The process environment itself, not the C runtime's copy of it.
  char value[kMaxPartitionLength + 2] = {0};
  const DWORD n = ::GetEnvironmentVariableA(kPartitionVariable, value, sizeof value);
  if (n == 0) return ::GetLastError() == ERROR_ENVVAR_NOT_FOUND ? kDefaultPartition : std::string();
  if (n >= sizeof value) return std::string();
  const std::string partition(value, n);
  return IsValidPartition(partition) ? partition : std::string();
}

std::wstring ObjectName(const std::string& partition, const std::string& object) {
  const std::string name = partition + "." + object;
  return std::wstring(name.begin(), name.end());  // ASCII by the checks above
}

bool IsPartitionAlive(const std::string& partition) {
  if (!IsValidPartition(partition)) return false;
  HANDLE marker = ::OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, ObjectName(partition, kAliveObject).c_str());
  if (marker == nullptr) return false;
  // Probed on a thread of its own: a free marker is given back; an abandoned
  // one is left to the thread's end, which abandons it again, so that the
  // next controller still learns that the last one died holding it.
  DWORD w = WAIT_FAILED;
  std::thread([&w, marker] {
    w = ::WaitForSingleObject(marker, 0);
    if (w == WAIT_OBJECT_0) ::ReleaseMutex(marker);
  }).join();
  ::CloseHandle(marker);
  return w == WAIT_TIMEOUT;
}

uint32_t EventWait(HANDLE event, uint32_t timeoutMs) {
  switch (::WaitForSingleObject(event, timeoutMs)) {
    case WAIT_OBJECT_0: return kWaitSignalled;
    case WAIT_TIMEOUT: return kWaitTimedOut;
    default: return 4205;  // RTE_ERROR_SYSTEM
  }
}

}  // namespace qorvarlok::rtos::detail
