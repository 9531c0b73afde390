#include "Platform/Linux/Processes/UserName.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

TEST(UserNameTest, IsThatOfThePasswordFile) {
  EXPECT_EQ(nameOfUser(0), "root");
}

TEST(UserNameTest, IsTheNumberOfAUserWithoutAName) {
  EXPECT_EQ(nameOfUser(4'000'000'000), "4000000000");
}

}  // namespace
}  // namespace ostravel::linuxplatform
