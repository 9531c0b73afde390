#include "Platform/Linux/Relay/LoopSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"

namespace ostravel::linuxplatform::test {
namespace {

// Events that it must not lose, as seen by a connection that uses it.
using LoopSocketTest = RelayTest;

// A receive stops at urgent data, although there is more.
TEST_F(LoopSocketTest, UrgentDataDoesNotStopAStream) {
  Connected connected = connect();
  const int peer = connected.server.descriptor();
  ASSERT_EQ(::send(peer, "before", 6, 0), 6);
  ASSERT_EQ(::send(peer, "!", 1, MSG_OOB), 1);
  ASSERT_EQ(::send(peer, "after", 5, 0), 5);
  std::string received;
  while (received.size() < 11) {
    const auto outcome = read(*connected.connection, 1, 100);
    ASSERT_TRUE(outcome.bytes);
    received += *outcome.bytes;
  }
  EXPECT_EQ(received, "beforeafter");
}

// The end arrives with the last bytes while there is no read.
TEST_F(LoopSocketTest, TheEndIsSeenAfterAPausedRead) {
  Connected connected = connect();
  ASSERT_EQ(::send(connected.server.descriptor(), "bytes", 5, 0), 5);
  ASSERT_EQ(::shutdown(connected.server.descriptor(), SHUT_WR), 0);
  drain();
  EXPECT_EQ(read(*connected.connection, 1, 100).bytes, "bytes");
  drain();
  EXPECT_TRUE(read(*connected.connection, 1, 100).isEnd());
}

// Reads are smaller than what has arrived, so that only the first one is reported.
TEST_F(LoopSocketTest, SmallReadsGetEverythingThatArrivedAtOnce) {
  Connected connected = connect();
  ASSERT_EQ(::send(connected.server.descriptor(), "abcdef", 6, 0), 6);
  std::string received;
  for (int count = 0; count < 3; ++count) {
    received += read(*connected.connection, 2, 2).bytes.value_or("");
  }
  EXPECT_EQ(received, "abcdef");
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
