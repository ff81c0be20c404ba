// Many threads driving several objects at once: every backend call runs alone (the process-wide
// lock), typed values collected meanwhile are not lost, nothing races. Meant for ThreadSanitizer.
#include <thread>

#include "FacadeFixture.h"

namespace qvtest {
namespace {

TEST_F(FacadeFixture, OperationsOfAllObjectsRunOneAtATime) {
  constexpr size_t kObjects = 3, kThreadsPerObject = 3, kRounds = 40;
  ZelVarlok objects[kObjects];
  HTAGLIST handles[kObjects];
  for (size_t i = 0; i < kObjects; ++i) {
    Connect(objects[i]);
    handles[i] = Create(objects[i]);
    Fake()->dwell = std::chrono::microseconds(50);
  }
  FakeVarlok::overlapped = false;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kObjects * kThreadsPerObject; ++t) {
    threads.emplace_back([&, t] {
      ZelVarlok& varlok = objects[t % kObjects];
      HTAGLIST handle = handles[t % kObjects], foreign = handles[(t + 1) % kObjects];
      std::vector<tagTagVarValue> values;
      unsigned int count = 0, error = 0;
      for (size_t r = 0; r < kRounds; ++r) {
        int32_t number = 0;
        std::string text;
        failures += varlok.ReadTagList(handle, values, count) != 0;
        failures += varlok.ReadTagValues(handle, number, text) != 0 || number != int32_t(0xA0A0A0A0) || text != "text";
        failures += varlok.WriteTagValues(handle, int32_t(r)) != 0;
        failures += varlok.ReadTagList(foreign, values, count) != ERR_INVALID_TAG_HANDLE;
        HTAGLIST extra = varlok.CreateTagsHandleAnsi(std::string("App.GVL.count"), error);
        failures += varlok.GetTagsListLength(extra) != 1 || varlok.DeleteTagsHandle(extra) != 0;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_FALSE(FakeVarlok::overlapped.load());
  for (int i = 0; i < int(kObjects); ++i) {
    EXPECT_EQ(kThreadsPerObject * kRounds, Fake(i)->CountOf("ReadTagValue"));
    EXPECT_EQ(kThreadsPerObject * kRounds, Fake(i)->CountOf("WriteTagValue"));
  }
}

}  // namespace
}  // namespace qvtest
