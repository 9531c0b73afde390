#include "Extension/main/Privileges.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ostravel::linuxplatform {
namespace {

TEST(Privileges, RootHasThem) {
  EXPECT_FALSE(missingPrivileges());
}

TEST(Privileges, AnOrdinaryUserLacksThem) {
  constexpr uid_t kNobody = 65534;
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const bool dropped = ::setresuid(kNobody, kNobody, kNobody) == 0;
    const auto missing = missingPrivileges();
    const bool isNamed =
        missing && missing->localizedDescription.find("CAP_NET_ADMIN") != std::string::npos;
    ::_exit(dropped && isNamed ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform
