#include <gtest/gtest.h>

#include "Tests/Platform/Linux/Relay/Support/PrivateNetwork.h"

// Before any other thread starts: a network namespace belongs to a thread.
int main(int argc, char** argv) {
  ostravel::linuxplatform::test::enterPrivateNetwork();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
