#include "Platform/Linux/Processes/SocketHolderSearch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>

#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/PrivateProcesses.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;
using Result = SocketHolderSearch::Result;

// Stops after one descriptor.
const SearchBudget kNone(0s, 0s);
constexpr std::uint32_t kNoInode = 0xffffffff;

// Holds its own copy of a socket that this process has closed.
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

// Has so many descriptors that a scan of it takes noticeably many steps.
class Bystander {
 public:
  static constexpr int kDescriptors = 500;

  Bystander() { EXPECT_EQ(helper_.ask("hold " + std::to_string(kDescriptors)), "done"); }
  pid_t pid() const { return helper_.pid(); }

 private:
  Helper helper_;
};

// Runs the search to its end; returns the number of steps, of one descriptor each.
int partsOf(SocketHolderSearch& search) {
  int parts = 1;
  while (search.proceed(kNone) == Result::unfinished) {
    ++parts;
  }
  return parts;
}

TEST(SocketHolderSearchTest, FindsTheHolder) {
  const Holder holder;
  SocketHolderSearch search(holder.inode(), {}, std::nullopt);
  ASSERT_EQ(search.proceed(SearchBudget(60s, 60s)), Result::found);
  EXPECT_EQ(search.holder(), holder.pid());
}

TEST(SocketHolderSearchTest, AnEndedProcessIsNotAHolder) {
  Holder holder;
  holder.helper().kill();
  SocketHolderSearch search(holder.inode(), {holder.pid()}, std::nullopt);
  EXPECT_EQ(search.proceed(SearchBudget(60s, 60s)), Result::absent);
}

TEST(SocketHolderSearchTest, ContinuesWhereItStopped) {
  inPrivateProcesses([] {
    const Holder holder;
    const Bystander newer;
    SocketHolderSearch search(holder.inode(), {}, std::nullopt);
    EXPECT_GT(partsOf(search), Bystander::kDescriptors);
    EXPECT_EQ(search.holder(), holder.pid());
    SocketHolderSearch vain(kNoInode, {}, std::nullopt);
    EXPECT_GT(partsOf(vain), Bystander::kDescriptors);
    EXPECT_EQ(vain.proceed(kNone), Result::absent);
  });
}

TEST(SocketHolderSearchTest, ScansTheNamedProcessesFirst) {
  inPrivateProcesses([] {
    const Holder holder;
    const Bystander newer;
    SocketHolderSearch search(holder.inode(), {holder.pid()}, std::nullopt);
    EXPECT_LT(partsOf(search), Bystander::kDescriptors);
    EXPECT_EQ(search.holder(), holder.pid());
  });
}

TEST(SocketHolderSearchTest, ScansTheNewestProcessesFirst) {
  inPrivateProcesses([] {
    const Bystander older;
    const Holder holder;
    SocketHolderSearch search(holder.inode(), {}, std::nullopt);
    EXPECT_LT(partsOf(search), Bystander::kDescriptors);
    EXPECT_EQ(search.holder(), holder.pid());
  });
}

TEST(SocketHolderSearchTest, ScansTheUsersProcessesBeforeOthers) {
  inPrivateProcesses([] {
    Holder holder;
    ASSERT_EQ(holder.helper().ask("user 65534"), "done");
    const Bystander newer;
    SocketHolderSearch search(holder.inode(), {}, 65534);
    EXPECT_LT(partsOf(search), Bystander::kDescriptors);
    EXPECT_EQ(search.holder(), holder.pid());
  });
}

TEST(SocketHolderSearchTest, ScansAPreferredProcessNext) {
  inPrivateProcesses([] {
    const Holder holder;
    const Bystander newer;
    SocketHolderSearch search(holder.inode(), {newer.pid()}, std::nullopt);
    ASSERT_EQ(search.proceed(kNone), Result::unfinished);
    search.prefer(holder.pid());
    EXPECT_LT(partsOf(search), Bystander::kDescriptors);
    EXPECT_EQ(search.holder(), holder.pid());
  });
}

TEST(SocketHolderSearchTest, PreferredProcessesDoNotRestartAScan) {
  inPrivateProcesses([] {
    const Holder holder;
    const Bystander newer;
    SocketHolderSearch search(holder.inode(), {}, std::nullopt);
    constexpr pid_t kFirstSender = 1'000'000;
    constexpr int kStepsBetween = 5;
    int parts = 0;
    do {
      if (parts % kStepsBetween == 0) {
        search.prefer(kFirstSender + parts);
      }
      ASSERT_LT(++parts, 10 * Bystander::kDescriptors);
    } while (search.proceed(kNone) == Result::unfinished);
    EXPECT_EQ(search.holder(), holder.pid());
  });
}

TEST(SocketHolderSearchTest, AProcessIsPreferredDuringAnInterruption) {
  inPrivateProcesses([] {
    const Holder holder;
    const Bystander interrupted;
    const Bystander preferred;
    SocketHolderSearch search(holder.inode(), {interrupted.pid()}, std::nullopt);
    ASSERT_EQ(search.proceed(kNone), Result::unfinished);
    search.prefer(preferred.pid());
    ASSERT_EQ(search.proceed(kNone), Result::unfinished);
    search.prefer(holder.pid());
    // After the preferred one, and before the interrupted one.
    const int parts = partsOf(search);
    EXPECT_GT(parts, Bystander::kDescriptors);
    EXPECT_LT(parts, 2 * Bystander::kDescriptors);
    EXPECT_EQ(search.holder(), holder.pid());
  });
}

TEST(SocketHolderSearchTest, PreferringAgainDoesNotDelayTheSearch) {
  inPrivateProcesses([] {
    const Holder holder;
    const Bystander sender;
    SocketHolderSearch search(holder.inode(), {}, std::nullopt);
    int parts = 0;
    do {
      search.prefer(sender.pid());
      ASSERT_LT(++parts, 10 * Bystander::kDescriptors);
    } while (search.proceed(kNone) == Result::unfinished);
    EXPECT_EQ(search.holder(), holder.pid());
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
