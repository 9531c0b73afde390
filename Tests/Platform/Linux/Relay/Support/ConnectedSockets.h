#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <string>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform::test {

// Two sockets that are connected to each other and do not block.
struct ConnectedSockets {
  ConnectedSockets() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
    near = FileDescriptor(ends[0]);
    far = FileDescriptor(ends[1]);
  }

  // To the near end.
  void send(const std::string& bytes) const {
    EXPECT_EQ(::send(far.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

  FileDescriptor near;
  FileDescriptor far;
};

}  // namespace ostravel::linuxplatform::test
