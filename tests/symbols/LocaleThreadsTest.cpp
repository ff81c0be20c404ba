// Names converted to the user's locale on many threads while the program uses
// its own process locale: each conversion is right, and none swaps the process
// locale under the program's other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "SymbolModel.h"
#include "TestSystem.h"

using qorvarlok::symbols::ToLocalEncoding;

TEST(LocalEncoding, ThreadsConvertWithoutSwappingTheProgramsLocale) {
  const std::string saved = getenv("LC_ALL") != nullptr ? getenv("LC_ALL") : "";
  testsys::SetEnv("LC_ALL", "zh_CN.gbk");
  if (std::setlocale(LC_ALL, "zh_CN.gbk") == nullptr) GTEST_SKIP() << "no zh_CN.gbk locale";
  const std::string name = "App.GVL.\xE4\xB8\xAD\xE6\x96\x87", local = "App.GVL.\xD6\xD0\xCE\xC4";
  ASSERT_EQ(local, ToLocalEncoding(name.c_str()));  // the first name sets the user's default once
  std::setlocale(LC_ALL, "C");  // the program's own choice from here on
  std::atomic<int> wrong{0}, swapped{0};
  std::atomic<bool> stop{false};
  std::thread watcher([&] {  // the program's locale, as its other threads see it
    while (!stop) swapped += std::string(std::setlocale(LC_ALL, nullptr)) != "C";
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5000; ++i) {
        const std::string number = std::to_string(t * 10000 + i);
        wrong += ToLocalEncoding((name + number).c_str()) != local + number;
      }
    });
  for (auto& t : threads) t.join();
  stop = true, watcher.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(0, swapped.load());
  EXPECT_STREQ("C", std::setlocale(LC_ALL, nullptr));
  EXPECT_EQ(local, ToLocalEncoding(name.c_str()));  // the user's default converts, not the program's "C"
  testsys::SetEnv("LC_ALL", saved);
  std::setlocale(LC_ALL, "");
}
