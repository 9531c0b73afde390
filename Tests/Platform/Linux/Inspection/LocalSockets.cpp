#include "Tests/Platform/Linux/Inspection/LocalSockets.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

namespace ostravel::testing {

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

FileDescriptor makeLocalSocket() {
  return FileDescriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
}

}  // namespace

FileDescriptor listenOn(const std::string& path) {
  FileDescriptor socket = makeLocalSocket();
  const sockaddr_un address = addressOf(path);
  constexpr int kBacklog = 16;
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(socket.get(), kBacklog), 0);
  // For every user.
  EXPECT_EQ(::chmod(path.c_str(), 0777), 0);
  return socket;
}

FileDescriptor connectTo(const std::string& path) {
  FileDescriptor socket = makeLocalSocket();
  const sockaddr_un address = addressOf(path);
  EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
            0);
  return socket;
}

void asUser(uid_t user, const std::function<void()>& body) {
  std::thread([user, &body] {
    // The library's function would change all threads.
    ASSERT_EQ(::syscall(SYS_setresuid, -1, user, -1), 0);
    body();
  }).join();
}

}  // namespace ostravel::testing
