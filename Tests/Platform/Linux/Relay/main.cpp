#include <gtest/gtest.h>

#include "Tests/Platform/Linux/Relay/Support/PrivateNetwork.h"

// Before there is any thread: a network namespace is a thread's.
int main(int argc, char** argv) {
  ostravel::linuxplatform::test::enterPrivateNetwork();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
