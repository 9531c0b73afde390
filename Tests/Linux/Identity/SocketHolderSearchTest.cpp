#include "Platform/Linux/SocketHolderSearch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>

#include "Tests/Linux/Identity/Support/Helper.h"
#include "Tests/Linux/Identity/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;
using Result = SocketHolderSearch::Result;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kNoInode = 0xffffffff;

// Keeps its own copy of a socket that this process has closed.
class Holder {
 public:
  Holder() : helper_(OSTRAVEL_HELPER, [this] { return ::dup(socket_.get()) >= 0; }) {
    inode_ = inodeOf(socket_);
    socket_ = FileDescriptor();
  }
  pid_t pid() const { return helper_.pid(); }
  std::uint32_t inode() const { return inode_; }
  Helper& helper() { return helper_; }

 private:
  FileDescriptor socket_ = makeSocket(AF_INET, SOCK_DGRAM);
  std::uint32_t inode_ = 0;
  Helper helper_;
};

TEST(SocketHolderSearchTest, FindsTheHolder) {
  const Holder holder;
  SocketHolderSearch search(holder.inode(), {}, std::nullopt);
  ASSERT_EQ(search.proceed(Clock::now() + 60s), Result::found);
  EXPECT_EQ(search.holder(), holder.pid());
}

TEST(SocketHolderSearchTest, AnEndedProcessHoldsNothing) {
  Holder holder;
  holder.helper().kill();
  SocketHolderSearch search(holder.inode(), {holder.pid()}, std::nullopt);
  EXPECT_EQ(search.proceed(Clock::now() + 60s), Result::absent);
}

TEST(SocketHolderSearchTest, GoesOnWhereItStopped) {
  const Holder holder;
  SocketHolderSearch search(holder.inode(), {}, std::nullopt);
  int parts = 1;
  // The deadline is always over already, so every part looks at one descriptor.
  while (search.proceed(Clock::time_point()) == Result::unfinished) {
    ++parts;
  }
  EXPECT_GT(parts, 3);
  EXPECT_EQ(search.holder(), holder.pid());
  SocketHolderSearch vain(kNoInode, {}, std::nullopt);
  Result result = Result::unfinished;
  while (result == Result::unfinished) {
    result = vain.proceed(Clock::time_point());
  }
  EXPECT_EQ(result, Result::absent);
}

// How many parts of one descriptor each it takes.
int partsOf(SocketHolderSearch& search) {
  int parts = 1;
  while (search.proceed(Clock::time_point()) == Result::unfinished) {
    ++parts;
  }
  return parts;
}

TEST(SocketHolderSearchTest, LooksAtTheNamedProcessesFirst) {
  const Holder holder;
  Helper newer;
  ASSERT_EQ(newer.ask("hold 500"), "done");
  SocketHolderSearch unaided(holder.inode(), {}, std::nullopt);
  EXPECT_GT(partsOf(unaided), 500);
  SocketHolderSearch named(holder.inode(), {holder.pid()}, std::nullopt);
  EXPECT_LT(partsOf(named), 50);
  EXPECT_EQ(named.holder(), holder.pid());
}

TEST(SocketHolderSearchTest, LooksAtTheNewestProcessesFirst) {
  Helper older;
  ASSERT_EQ(older.ask("hold 500"), "done");
  const Holder holder;
  SocketHolderSearch search(holder.inode(), {}, std::nullopt);
  // Unless process numbers have just started from the beginning.
  if (holder.pid() > older.pid()) {
    EXPECT_LT(partsOf(search), 500);
  }
}

TEST(SocketHolderSearchTest, LooksAtTheUsersProcessesBeforeOthers) {
  Holder holder;
  ASSERT_EQ(holder.helper().ask("user 65534"), "done");
  Helper newer;
  ASSERT_EQ(newer.ask("hold 500"), "done");
  SocketHolderSearch search(holder.inode(), {}, 65534);
  EXPECT_LT(partsOf(search), 500);
  EXPECT_EQ(search.holder(), holder.pid());
}

TEST(SocketHolderSearchTest, APreferredProcessIsLookedAtNext) {
  const Holder holder;
  Helper newer;
  ASSERT_EQ(newer.ask("hold 500"), "done");
  SocketHolderSearch search(holder.inode(), {newer.pid()}, std::nullopt);
  ASSERT_EQ(search.proceed(Clock::time_point()), Result::unfinished);
  search.prefer(holder.pid());
  EXPECT_LT(partsOf(search), 50);
  EXPECT_EQ(search.holder(), holder.pid());
}

TEST(SocketHolderSearchTest, PreferringAgainDoesNotHoldUpTheSearch) {
  Holder holder;
  Helper sender;
  ASSERT_EQ(sender.ask("hold 500"), "done");
  SocketHolderSearch search(holder.inode(), {}, std::nullopt);
  int parts = 0;
  do {
    search.prefer(sender.pid());
    ASSERT_LT(++parts, 1'000'000);
  } while (search.proceed(Clock::time_point()) == Result::unfinished);
  EXPECT_EQ(search.holder(), holder.pid());
}

}  // namespace
}  // namespace ostravel::linuxplatform
