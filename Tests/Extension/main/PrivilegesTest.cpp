#include "Extension/main/Privileges.h"

#include <gtest/gtest.h>

#include "Tests/Support/InChildProcess.h"

namespace ostravel::linuxplatform {
namespace {

TEST(Privileges, RootHasThem) {
  EXPECT_FALSE(missingPrivileges());
}

TEST(Privileges, AnOrdinaryUserLacksThem) {
  testing::asOrdinaryUser([] {
    const auto missing = missingPrivileges();
    ASSERT_TRUE(missing);
    EXPECT_NE(missing->localizedDescription.find("CAP_NET_ADMIN"), std::string::npos);
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
