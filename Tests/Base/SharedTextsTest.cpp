#include "Base/SharedTexts.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace ostravel {
namespace {

TEST(SharedTexts, GivesEqualTextsOneCopy) {
  SharedTexts texts;

  const auto first = texts.of("/usr/bin/curl");
  const auto second = texts.of(std::string("/usr/bin/") + "curl");

  EXPECT_EQ(*first, "/usr/bin/curl");
  EXPECT_TRUE(first.isSameAs(second));
  EXPECT_FALSE(texts.of("/usr/bin/wget").isSameAs(first));
  EXPECT_EQ(texts.size(), 2U);
}

TEST(SharedTexts, KeepsAnEmptyText) {
  SharedTexts texts;

  EXPECT_EQ(*texts.of(""), "");
}

TEST(SharedTexts, DropsWhatNobodyHolds) {
  SharedTexts texts;
  const auto held = texts.of("held");

  for (int number = 0; number < 10'000; ++number) {
    texts.of(std::to_string(number));
  }

  EXPECT_LE(texts.size(), 65U);
  EXPECT_TRUE(texts.of("held").isSameAs(held));
}

TEST(SharedTexts, KeepsEverythingThatIsHeld) {
  SharedTexts texts;
  std::vector<SharedText> held;

  for (int number = 0; number < 1000; ++number) {
    held.push_back(texts.of(std::to_string(number)));
  }

  EXPECT_EQ(texts.size(), 1000U);
  EXPECT_TRUE(texts.of("0").isSameAs(held[0]));
  EXPECT_TRUE(texts.of("999").isSameAs(held[999]));
}

TEST(SharedTexts, OutliveTheTable) {
  const SharedText text = SharedTexts().of("kept");

  EXPECT_EQ(*text, "kept");
}

TEST(SharedTexts, CanBeUsedBySeveralThreads) {
  SharedTexts texts;
  std::vector<std::thread> threads;

  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&texts] {
      for (int number = 0; number < 2000; ++number) {
        const std::string text = std::to_string(number % 200);
        EXPECT_EQ(*texts.of(text), text);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }

  EXPECT_LE(texts.size(), 200U);
}

}  // namespace
}  // namespace ostravel
