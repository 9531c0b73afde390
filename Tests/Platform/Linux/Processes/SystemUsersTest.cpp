#include "Platform/Linux/Processes/SystemUsers.h"

#include <gtest/gtest.h>

#include <string_view>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

void expectLast(uid_t last, std::string_view definitions) {
  const TemporaryFolder folder;
  const SystemUsers users = SystemUsers::read(folder.write("login.defs", definitions));
  EXPECT_TRUE(users.includes(0)) << definitions;
  EXPECT_TRUE(users.includes(last)) << definitions;
  EXPECT_FALSE(users.includes(last + 1)) << definitions;
  EXPECT_FALSE(users.includes(65534)) << definitions;
}

TEST(SystemUsersTest, UsesTheLimitInTheFile) {
  expectLast(499, "UID_MIN 1000\nSYS_UID_MAX\t\t  499\n");
  expectLast(499, "SYS_UID_MAX 499\nUID_MIN 1000\n");
  expectLast(499, "SYS_UID_MAX 0x1f3\n");
  expectLast(499, "SYS_UID_MAX 0763\n");
  expectLast(499, "SYS_UID_MAX 200\nSYS_UID_MAX 499\n");
}

TEST(SystemUsersTest, EndsBeforeTheFirstOrdinaryUser) {
  expectLast(499, "UID_MIN 500\n");
  expectLast(499, "#SYS_UID_MAX 999\nUID_MIN 500\n");
  expectLast(499, "SYS_UID_MAX many\nUID_MIN 500\n");
}

TEST(SystemUsersTest, EndsAt999ByDefault) {
  expectLast(999, "");
  expectLast(999, "# UID_MIN 500\nUID_MIN\nUID_MIN -5\nUID_MAX 60000\n");
  expectLast(999, "UID_MIN 0\n");
  const SystemUsers users = SystemUsers::read("/no/such/file");
  EXPECT_TRUE(users.includes(999));
  EXPECT_FALSE(users.includes(1000));
}

TEST(SystemUsersTest, FindsTheNumberOfAUserName) {
  EXPECT_EQ(SystemUsers::numberOf("root"), 0U);
  EXPECT_FALSE(SystemUsers::numberOf("no-such-user"));
  EXPECT_FALSE(SystemUsers::numberOf(""));
}

}  // namespace
}  // namespace ostravel::linuxplatform
