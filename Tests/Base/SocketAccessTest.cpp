#include "Base/SocketAccess.h"

#include <grp.h>
#include <gtest/gtest.h>

namespace ostravel {
namespace {

TEST(SocketAccessTest, IsForTheOwnerOnlyByDefault) {
  const auto access = socketAccess("", "");
  EXPECT_EQ(access->mode, 0600U);
  EXPECT_FALSE(access->group);
}

TEST(SocketAccessTest, LetsTheMembersOfAGroupConnect) {
  const auto access = socketAccess("daemon", "");
  EXPECT_EQ(access->mode, 0660U);
  EXPECT_EQ(access->group, ::getgrnam("daemon")->gr_gid);
}

TEST(SocketAccessTest, AcceptsTheNumberOfAGroup) {
  EXPECT_EQ(socketAccess("12345", "")->group, 12345U);
}

TEST(SocketAccessTest, GivesNoAccessToAGroupThatDoesNotExist) {
  for (const char* const name : {"no-such-group", "-1", "4294967295", "99999999999", "12x"}) {
    EXPECT_FALSE(socketAccess(name, "")->group) << name;
    EXPECT_EQ(socketAccess(name, "")->mode, 0600U) << name;
    EXPECT_EQ(socketAccess(name, "666")->mode, 0606U) << name;
  }
}

TEST(SocketAccessTest, AcceptsAnOctalMode) {
  EXPECT_EQ(socketAccess("", "0666")->mode, 0666U);
  EXPECT_EQ(socketAccess("daemon", "620")->mode, 0620U);
  for (const char* const mode : {"8", "1777", "-1", "0x1ff", "rw", "66 "}) {
    EXPECT_FALSE(socketAccess("", mode)) << mode;
  }
}

}  // namespace
}  // namespace ostravel
