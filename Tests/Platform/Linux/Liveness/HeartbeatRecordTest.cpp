#include "Platform/Linux/Liveness/HeartbeatRecord.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Tests/Platform/Linux/Support/FailingCalls.h"

namespace ostravel::linuxplatform {
namespace {

TEST(HeartbeatRecordTest, StartsWithoutABeat) {
  const HeartbeatRecord record;
  EXPECT_EQ(record.beats(), 0U);
  EXPECT_EQ(record.checks(), 0U);
  EXPECT_EQ(record.laggards(), 0U);
  EXPECT_EQ(record.phase(), HeartbeatRecord::Phase::starting);
}

TEST(HeartbeatRecordTest, ANewPhaseIsABeat) {
  HeartbeatRecord record;
  record.enter(HeartbeatRecord::Phase::running);
  EXPECT_EQ(record.phase(), HeartbeatRecord::Phase::running);
  EXPECT_EQ(record.beats(), 1U);
}

TEST(HeartbeatRecordTest, IsSharedWithChildProcesses) {
  HeartbeatRecord record;
  const pid_t child = ::fork();
  if (child == 0) {
    record.beat();
    record.noteCheck(eventLoopParticipant(0));
    ::_exit(0);
  }
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_EQ(record.beats(), 1U);
  EXPECT_EQ(record.checks(), 1U);
  EXPECT_EQ(record.laggards(), eventLoopParticipant(0));
}

TEST(HeartbeatRecordTest, IsThereOrThrows) {
  testing::withFailingCalls({SYS_mmap, {{3, MAP_SHARED | MAP_ANONYMOUS}}}, ENOMEM,
                            [] { EXPECT_THROW(const HeartbeatRecord record, std::system_error); });
}

}  // namespace
}  // namespace ostravel::linuxplatform
