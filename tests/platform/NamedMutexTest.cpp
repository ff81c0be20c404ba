// Named mutexes: Windows results and last errors, recursion, release by the
// owner only, mode 0666, abandonment by a killed owner process.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "NamedMutex.h"
#include "PlatformTestSupport.h"

using namespace qorvarlok::platform;
using namespace platformtest;

TEST(NamedMutex, ResultsRecursionAndReleaseByTheOwnerOnly) {
  ScopedPartition partition("mxcodes");
  const wchar_t* name = L"Global\\MUTEX_CONNECT";
  const struct { const char* what; bool (*failed)(); uint32_t lastError; } cases[] = {
      {"open before anyone created it", [] { return OpenNamedMutex(L"Global\\MUTEX_CONNECT") == nullptr; }, 2},
      {"null name", [] { return CreateNamedMutex(nullptr) == nullptr; }, 123},
      {"empty name", [] { return CreateNamedMutex(L"") == nullptr; }, 123},
      {"slash in name", [] { return CreateNamedMutex(L"a/b") == nullptr; }, 123},
      {"name not ASCII", [] { return CreateNamedMutex(L"M\u00fctex") == nullptr; }, 123},
      {"wait on null handle", [] { return WaitForNamedMutex(nullptr, 10) == kWaitFailed; }, 6},
      {"release null handle", [] { return !ReleaseNamedMutex(nullptr); }, 6},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(c.failed()) << c.what;
    EXPECT_EQ(NamedMutexLastError(), c.lastError) << c.what;
  }
  const mode_t old = umask(077);
  NamedMutexHandle mutex = CreateNamedMutex(name);
  umask(old);
  ASSERT_NE(mutex, nullptr);
  EXPECT_EQ(NamedMutexLastError(), 0u);
  EXPECT_EQ(OpenNamedMutex(name), mutex) << "one handle per name and process";
  struct stat info {};
  ASSERT_EQ(stat(partition.ShmPath("Global_MUTEX_CONNECT").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666u) << "any user may open it, whatever the umask";
  // Recursive: each wait needs its release; one release too many is refused.
  EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0);
  EXPECT_EQ(WaitForNamedMutex(mutex, 3000), kWaitObject0);
  std::thread([&] {
    EXPECT_EQ(WaitForNamedMutex(mutex, 30), kWaitTimeout);
    EXPECT_FALSE(ReleaseNamedMutex(mutex)) << "only the owner releases";
    EXPECT_EQ(NamedMutexLastError(), 288u);
  }).join();
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
  EXPECT_FALSE(ReleaseNamedMutex(mutex));
  EXPECT_EQ(NamedMutexLastError(), 288u);
  std::thread([&] {
    EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0) << "free once fully released";
    EXPECT_TRUE(ReleaseNamedMutex(mutex));
  }).join();
}

// The owner process is killed holding it: the next waiter, in another
// process that found it by name, is told so, owns it, and can hand it on.
TEST(NamedMutex, KilledOwnerLeavesItAbandonedAndTheWaiterOwnsIt) {
  ScopedPartition partition("mxdead");
  const pid_t owner = SpawnHolder([] {
    NamedMutexHandle mine = CreateNamedMutex(L"Global\\MUTEX_DATASWAP");
    return mine != nullptr && WaitForNamedMutex(mine, 0) == kWaitObject0;
  });
  ASSERT_GT(owner, 0);
  NamedMutexHandle mutex = OpenNamedMutex(L"Global\\MUTEX_DATASWAP");
  ASSERT_NE(mutex, nullptr);
  EXPECT_EQ(WaitForNamedMutex(mutex, 20), kWaitTimeout) << "held by the living child";
  kill(owner, SIGKILL);
  EXPECT_TRUE(Killed(WaitChild(owner, 3000), SIGKILL));
  EXPECT_EQ(WaitForNamedMutex(mutex, 1000), kWaitAbandoned);
  EXPECT_TRUE(ReleaseNamedMutex(mutex)) << "the waiter owns it";
  std::thread([&] {
    EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0) << "recovered, not left unusable";
    EXPECT_TRUE(ReleaseNamedMutex(mutex));
  }).join();
}

// Slow: the bounded wait for a creator still at work runs out twice (about 2 s).
TEST(NamedMutexSlow, HalfMadeObjectOfADeadCreatorIsMadeAnew) {
  ScopedPartition partition("mxhalf");
  // What a creator leaves when it dies between creating the object and setting it up.
  ASSERT_EQ(close(open(partition.ShmPath("Global_MUTEX_CONNECT").c_str(), O_RDWR | O_CREAT | O_EXCL, 0666)), 0);
  EXPECT_EQ(OpenNamedMutex(L"Global\\MUTEX_CONNECT"), nullptr) << "opening alone does not repair";
  EXPECT_EQ(NamedMutexLastError(), 1359u);
  NamedMutexHandle mutex = CreateNamedMutex(L"Global\\MUTEX_CONNECT");
  ASSERT_NE(mutex, nullptr);
  EXPECT_EQ(WaitForNamedMutex(mutex, 0), kWaitObject0);
  EXPECT_TRUE(ReleaseNamedMutex(mutex));
}
