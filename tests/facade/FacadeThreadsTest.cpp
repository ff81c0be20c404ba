// Many threads driving several objects at once: every backend call runs
// alone (the process-wide lock), typed variables collected meanwhile are not
// lost, and nothing races. Meant to run under ThreadSanitizer.
#include <thread>

#include "FacadeFixture.h"

namespace qvtest {
namespace {

class FacadeThreadsTest : public FacadeFixture {};


TEST_F(FacadeThreadsTest, OperationsOfAllObjectsRunOneAtATime) {
  constexpr int kObjects = 3;
  constexpr int kThreadsPerObject = 3;
  constexpr int kRounds = 40;
  std::vector<std::unique_ptr<ZelVarlok>> objects;
  std::vector<HTAGLIST> handles;
  for (int i = 0; i < kObjects; ++i) {
    objects.push_back(std::make_unique<ZelVarlok>());
    Connect(*objects.back());
    unsigned int error = 0;
    handles.push_back(objects.back()->CreateTagsHandle(std::string("App.GVL.speed"), error));
    ASSERT_NE(nullptr, handles.back());
    Fake(static_cast<size_t>(i))->dwell = std::chrono::microseconds(50);
  }
  FakeVarlok::Overlapped() = false;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kObjects * kThreadsPerObject; ++t) {
    threads.emplace_back([&, t] {
      ZelVarlok& varlok = *objects[static_cast<size_t>(t % kObjects)];
      HTAGLIST handle = handles[static_cast<size_t>(t % kObjects)];
      HTAGLIST foreign = handles[static_cast<size_t>((t + 1) % kObjects)];
      for (int r = 0; r < kRounds; ++r) {
        std::vector<tagTagVarValue> values;
        unsigned int count = 0;
        int32_t number = 0;
        std::string text;
        unsigned int error = 0;
        if (varlok.ReadTagList(handle, values, count) != 0) ++failures;
        if (varlok.ReadTagValues(handle, number, text) != 0 || number != int32_t(0xA0A0A0A0) || text != "text")
          ++failures;
        if (varlok.WriteTagValues(handle, int32_t{r}) != 0) ++failures;
        if (varlok.ReadTagList(foreign, values, count) != ERR_INVALID_TAG_HANDLE) ++failures;
        if (varlok.GetTagsListLength(handle) != 1) ++failures;
        HTAGLIST extra = varlok.CreateTagsHandleAnsi(std::string("App.GVL.count"), error);
        if (extra == nullptr || varlok.DeleteTagsHandle(extra) != 0) ++failures;
        if (varlok.GetTagDescByName("App.GVL.count") == nullptr) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_FALSE(FakeVarlok::Overlapped().load());
  for (int i = 0; i < kObjects; ++i) {
    EXPECT_EQ(size_t(kThreadsPerObject * kRounds), Fake(static_cast<size_t>(i))->CountOf("ReadTagValue"));
    EXPECT_EQ(size_t(kThreadsPerObject * kRounds), Fake(static_cast<size_t>(i))->CountOf("WriteTagValue"));
    EXPECT_EQ(0u, objects[static_cast<size_t>(i)]->ExitVarlokCommunication());
  }
}

}  // namespace
}  // namespace qvtest
