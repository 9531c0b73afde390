#include <gtest/gtest.h>

#include <csignal>

#include "Tests/Support/PrivateNetwork.h"

// The main of every test program that opens real sockets.
int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests, as the build does, needs no permission.
  if (!::testing::GTEST_FLAG(list_tests)) {
    ostravel::testing::enterPrivateNetwork();
  }
  std::signal(SIGPIPE, SIG_IGN);
  return RUN_ALL_TESTS();
}
