// Named mutexes: Windows results and last errors, recursion, ownership,
// abandonment by a dead thread or process, and sharing between processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "NamedMutex.h"
#include "PlatformTestSupport.h"

using namespace qorvarlok::platform;
using platformtest::ReadyPipe;
using platformtest::ScopedPartition;
using platformtest::Spawn;
using platformtest::WaitChild;

TEST(NamedMutex, ResultsAndLastErrors) {
  ScopedPartition partition("mxcodes");
  EXPECT_EQ(OpenNamedMutex(L"Global\\MUTEX_CONNECT"), nullptr) << "nothing to open yet";
  EXPECT_EQ(NamedMutexLastError(), 2u);
  struct BadName {
    const wchar_t* name;
  };
  for (const BadName& bad : {BadName{nullptr}, BadName{L""}, BadName{L"a/b"}, BadName{L"M\u00fctex"}}) {
    EXPECT_EQ(CreateNamedMutex(bad.name), nullptr);
    EXPECT_EQ(NamedMutexLastError(), 123u);
  }
  EXPECT_EQ(WaitForNamedMutex(nullptr, 10), kWaitFailed);
  EXPECT_EQ(NamedMutexLastError(), 6u);
  EXPECT_FALSE(ReleaseNamedMutex(nullptr));
  EXPECT_EQ(NamedMutexLastError(), 6u);

  NamedMutexHandle mutex = CreateNamedMutex(L"Global\\MUTEX_CONNECT");
  ASSERT_NE(mutex, nullptr);
  EXPECT_EQ(NamedMutexLastError(), 0u);
  EXPECT_EQ(OpenNamedMutex(L"Global\\MUTEX_CONNECT"), mutex) << "one handle per name and process";
  struct stat info {};
  ASSERT_EQ(stat(partition.ShmPath("Global_MUTEX_CONNECT").c_str(), &info), 0);

  // Recursive: each wait needs its release; one release too many is refused.
  EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0);
  EXPECT_EQ(WaitForNamedMutex(mutex, 3000), kWaitObject0);
  std::thread other([&] {
    EXPECT_EQ(WaitForNamedMutex(mutex, 30), kWaitTimeout);
    EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitTimeout);
    EXPECT_FALSE(ReleaseNamedMutex(mutex)) << "only the owner releases";
    EXPECT_EQ(NamedMutexLastError(), 288u);
  });
  other.join();
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
  EXPECT_FALSE(ReleaseNamedMutex(mutex));
  EXPECT_EQ(NamedMutexLastError(), 288u);
  std::thread after([&] {
    EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0) << "free once fully released";
    EXPECT_TRUE(ReleaseNamedMutex(mutex));
  });
  after.join();
}

TEST(NamedMutex, AnyUserMayOpenWhateverTheUmask) {
  ScopedPartition partition("mxmode");
  const mode_t old = umask(077);
  NamedMutexHandle mutex = CreateNamedMutex(L"Global\\MUTEX_NOTIFY");
  umask(old);
  ASSERT_NE(mutex, nullptr);
  struct stat info {};
  ASSERT_EQ(stat(partition.ShmPath("Global_MUTEX_NOTIFY").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666u);
}

TEST(NamedMutex, DeadOwnerThreadLeavesItAbandonedToTheNextWaiter) {
  ScopedPartition partition("mxthread");
  NamedMutexHandle mutex = CreateNamedMutex(L"Global\\MUTEX_DATASWAP");
  ASSERT_NE(mutex, nullptr);
  std::thread owner([&] { EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0); });
  owner.join();
  EXPECT_EQ(WaitForNamedMutex(mutex, 100), kWaitAbandoned);
  // The caller owns it now, consistently: it can release it and others can take it.
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
  EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0);
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
}

TEST(NamedMutex, KilledOwnerProcessLeavesItAbandonedAndTheWaiterOwnsIt) {
  ScopedPartition partition("mxkill");
  ReadyPipe ready;
  // The child arrives first and creates the mutex; this process only opens it.
  const pid_t child = Spawn([&] {
    NamedMutexHandle mutex = CreateNamedMutex(L"Global\\MUTEX_CONNECT");
    if (mutex == nullptr || WaitForNamedMutex(mutex, 0) != kWaitObject0) return 1;
    ready.Signal();
    pause();
    return 0;
  });
  ASSERT_EQ(ready.Wait(3000), 'r');
  NamedMutexHandle mutex = OpenNamedMutex(L"Global\\MUTEX_CONNECT");
  ASSERT_NE(mutex, nullptr) << "the child's mutex is found by name";
  EXPECT_EQ(WaitForNamedMutex(mutex, 20), kWaitTimeout) << "held by the living child";
  kill(child, SIGKILL);
  EXPECT_TRUE(WaitChild(child, 3000).Signalled(SIGKILL));
  EXPECT_EQ(WaitForNamedMutex(mutex, 1000), kWaitAbandoned);
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
  EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0) << "recovered, not left unusable";
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
}

TEST(NamedMutex, ProcessesTakeTurns) {
  ScopedPartition partition("mxturns");
  NamedMutexHandle mutex = CreateNamedMutex(L"Global\\MUTEX_DATASWAP");
  ASSERT_NE(mutex, nullptr);
  ASSERT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0);
  ReadyPipe ready;
  const pid_t child = Spawn([&] {
    NamedMutexHandle mine = CreateNamedMutex(L"Global\\MUTEX_DATASWAP");
    if (mine == nullptr) return 1;
    if (WaitForNamedMutex(mine, 0) != kWaitTimeout) return 2;
    ready.Signal();
    if (WaitForNamedMutex(mine, 3000) != kWaitObject0) return 3;
    return ReleaseNamedMutex(mine) ? 0 : 4;
  });
  ASSERT_EQ(ready.Wait(3000), 'r');
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
  EXPECT_TRUE(WaitChild(child, 5000).Exited(0));
  EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0) << "released by the child";
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
}

// Slow: the bounded wait for a creator still at work runs out twice (about 2 s).
TEST(NamedMutexSlow, HalfMadeObjectOfADeadCreatorIsMadeAnew) {
  ScopedPartition partition("mxhalf");
  // What a creator leaves when it dies between creating the object and setting it up.
  const std::string path = partition.ShmPath("Global_MUTEX_CONNECT");
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(OpenNamedMutex(L"Global\\MUTEX_CONNECT"), nullptr) << "opening alone does not repair";
  EXPECT_EQ(NamedMutexLastError(), 1359u);
  NamedMutexHandle mutex = CreateNamedMutex(L"Global\\MUTEX_CONNECT");
  ASSERT_NE(mutex, nullptr);
  EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0);
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
}
