#include "Platform/Linux/Kernel/QueueCounters.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Tests/Platform/Linux/Support/AlteredFiles.h"

namespace ostravel::linuxplatform {
namespace {

constexpr auto* kText =
    "18432   4711     3 2   128     7     2      900  1\n"
    "18433   4712     0 2   128     0     0        1  1\n";

TEST(QueueCountersTest, FindsTheQueue) {
  const auto counters = QueueCounters::parse(kText, 18432);
  ASSERT_TRUE(counters);
  EXPECT_EQ(counters->waiting, 3U);
  EXPECT_EQ(counters->dropped, 7U);
  EXPECT_EQ(counters->userDropped, 2U);
}

TEST(QueueCountersTest, IsEmptyWithoutTheQueue) {
  EXPECT_FALSE(QueueCounters::parse(kText, 1));
  EXPECT_FALSE(QueueCounters::parse("", 18432));
  EXPECT_FALSE(QueueCounters::parse("18432 4711 x\n", 18432));
}

std::optional<QueueCounters> readAltered(const testing::FileAnswer& answer) {
  const testing::AlteredFiles files([&answer](const std::string& path) {
    return path.ends_with("/nfnetlink_queue") ? std::optional(answer) : std::nullopt;
  });
  return QueueCounters::read(18432);
}

TEST(QueueCountersTest, AnUnreadableFileIsNoAnswer) {
  EXPECT_EQ(readAltered({kText})->dropped, 7U);
  for (const int error : {ENOENT, EACCES, EMFILE, ENOMEM}) {
    EXPECT_FALSE(readAltered({.openError = error}));
  }
  EXPECT_FALSE(readAltered({.isUnreadable = true}));
  EXPECT_EQ(readAltered({kText})->dropped, 7U);
}

TEST(QueueCountersTest, ATruncatedFileIsNotBelieved) {
  const std::string_view text(kText);
  const std::size_t line = text.find('\n') + 1;
  for (std::size_t size = 0; size < line; ++size) {
    EXPECT_FALSE(readAltered({std::string(text.substr(0, size))})) << size;
  }
  EXPECT_TRUE(readAltered({std::string(text.substr(0, line))}));
}

TEST(QueueCountersTest, GarbageIsNotBelieved) {
  for (const std::string& garbage :
       {std::string(1U << 20U, 'x'), std::string(1U << 20U, '\0'), std::string(1U << 20U, '\n'),
        std::string(1U << 20U, '9'), std::string("18432 4711 3 2 128 -7 2 900 1\n"),
        std::string("18432 4711 -3 2 128 7 2 900 1\n"), std::string("18432\n4711 3 2 128 7 2\n"),
        std::string("18432 4711 3 2 128 99999999999999999999999 2 900 1\n")}) {
    EXPECT_FALSE(readAltered({garbage})) << garbage.substr(0, 40);
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
