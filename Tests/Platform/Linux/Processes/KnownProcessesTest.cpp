#include "Platform/Linux/Processes/KnownProcesses.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

Process process(pid_t pid) {
  Process described;
  described.pid = pid;
  return described;
}

TEST(KnownProcessesTest, KeepsTheIdentifier) {
  KnownProcesses known;
  EXPECT_EQ(known.find(1), nullptr);
  known.insert(process(1)).identifier = "one";
  known.insert(process(2));
  ASSERT_NE(known.find(1), nullptr);
  EXPECT_EQ(known.find(1)->identifier, "one");
  EXPECT_FALSE(known.find(2)->identifier);
  known.forgetIdentifiers();
  EXPECT_FALSE(known.find(1)->identifier);
  known.erase(1);
  EXPECT_EQ(known.find(1), nullptr);
  known.erase(1);
}

TEST(KnownProcessesTest, ANewProcessReplacesOneWithTheSameNumber) {
  KnownProcesses known(2);
  known.insert(process(1)).identifier = "old";
  known.insert(process(2));
  EXPECT_FALSE(known.insert(process(1)).identifier);
  EXPECT_NE(known.find(2), nullptr);
}

TEST(KnownProcessesTest, DropsTheLeastRecentlyUsedProcess) {
  KnownProcesses known(3);
  for (const pid_t pid : {1, 2, 3}) {
    known.insert(process(pid));
  }
  EXPECT_NE(known.find(1), nullptr);
  known.insert(process(4));
  EXPECT_EQ(known.find(2), nullptr);
  for (const pid_t pid : {1, 3, 4}) {
    EXPECT_NE(known.find(pid), nullptr) << pid;
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
