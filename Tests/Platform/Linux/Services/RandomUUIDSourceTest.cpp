#include "Platform/Linux/Services/RandomUUIDSource.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Platform/Linux/Support/FailingCalls.h"

namespace ostravel::linuxplatform {
namespace {

// PlatformContractTest checks the form.
TEST(RandomUUIDSourceTest, EveryRandomDigitTakesEveryValue) {
  RandomUUIDSource source;
  std::array<std::set<char>, 36> seen;
  for (int i = 0; i < 2000; ++i) {
    const std::string uuid = source.randomUUID();
    for (std::size_t at = 0; at < uuid.size(); ++at) {
      seen[at].insert(uuid[at]);
    }
  }
  for (std::size_t at = 0; at < seen.size(); ++at) {
    const bool isFixed = at == 8 || at == 13 || at == 14 || at == 18 || at == 23;
    EXPECT_EQ(seen[at].size(), isFixed ? 1U : at == 19 ? 4U : 16U) << at;
  }
}

TEST(RandomUUIDSourceTest, ManyThreadsGetDifferentOnes) {
  RandomUUIDSource source;
  constexpr std::size_t kThreads = 4;
  constexpr int kEach = 5000;
  std::array<std::vector<std::string>, kThreads> made;
  std::vector<std::jthread> threads;
  for (auto& own : made) {
    threads.emplace_back([&source, &own] {
      for (int i = 0; i < kEach; ++i) {
        own.push_back(source.randomUUID());
      }
    });
  }
  threads.clear();
  std::set<std::string> all;
  for (const auto& own : made) {
    all.insert(own.begin(), own.end());
  }
  EXPECT_EQ(all.size(), kThreads * kEach);
}

TEST(RandomUUIDSourceDeathTest, ItNeverInventsOne) {
  EXPECT_EXIT(
      testing::withFailingCalls({SYS_getrandom}, ENOSYS, [] { RandomUUIDSource().randomUUID(); }),
      ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
