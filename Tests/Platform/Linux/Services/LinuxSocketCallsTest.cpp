#include "Platform/Linux/Services/LinuxSocketCalls.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "Platform/Linux/Kernel/PacketMarks.h"

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
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    LinuxSocketCalls calls;
    const bool dropped = ::syscall(SYS_capset, &header, none.data()) == 0;
    const auto made = calls.socket(AF_INET, SOCK_STREAM, 0);
    const bool isUsable =
        made.value >= 0 && made.error == 0 && markOf(static_cast<int>(made.value)) == 0;
    ::_exit(dropped && isUsable ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform
