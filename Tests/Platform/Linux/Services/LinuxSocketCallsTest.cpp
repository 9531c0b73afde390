#include "Platform/Linux/Services/LinuxSocketCalls.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Tests/Support/InChildProcess.h"

namespace ostravel::linuxplatform {
namespace {

std::uint32_t markOf(int descriptor) {
  std::uint32_t mark = 0;
  socklen_t size = sizeof mark;
  EXPECT_EQ(::getsockopt(descriptor, SOL_SOCKET, SO_MARK, &mark, &size), 0);
  return mark;
}

TEST(LinuxSocketCallsTest, MarksInternetSocketsAsOurOwn) {
  LinuxSocketCalls calls;
  for (const int family : {AF_INET, AF_INET6}) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
      const auto made = calls.socket(family, type, 0);
      ASSERT_GE(made.value, 0);
      EXPECT_EQ(markOf(static_cast<int>(made.value)), PacketMarks().own()) << "run as root";
      calls.close(static_cast<int>(made.value));
    }
  }
}

TEST(LinuxSocketCallsTest, DoesNotMarkLocalSockets) {
  LinuxSocketCalls calls;
  const auto made = calls.socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(made.value, 0);
  EXPECT_EQ(markOf(static_cast<int>(made.value)), 0U);
  calls.close(static_cast<int>(made.value));
}

TEST(LinuxSocketCallsTest, PassesOnAFailure) {
  LinuxSocketCalls calls;
  const auto failed = calls.socket(AF_INET, 12345, 0);
  EXPECT_EQ(failed.value, -1);
  EXPECT_EQ(failed.error, EINVAL);
}

TEST(LinuxSocketCallsTest, ReturnsAnUnmarkedSocketWithoutPermission) {
  testing::withoutCapabilities([] {
    LinuxSocketCalls calls;
    const auto made = calls.socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(made.value, 0);
    EXPECT_EQ(made.error, 0);
    EXPECT_EQ(markOf(static_cast<int>(made.value)), 0U);
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
