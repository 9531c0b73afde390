#include "Base/LocalListener.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Base/SocketLock.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel {
namespace {

using testing::TemporaryFolder;

std::string problemAt(const std::string& path) {
  try {
    const LocalListener socket(path);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

FileDescriptor boundSocket(const std::string& path, int type = SOCK_STREAM) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  FileDescriptor descriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::bind(descriptor.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  return descriptor;
}

// A socket file that no process listens on any more.
void leaveStaleSocket(const std::string& path) {
  boundSocket(path);
}

struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0);
  return status;
}

TEST(LocalListenerTest, ListensForItsOwnerAlone) {
  const TemporaryFolder folder;
  const mode_t before = ::umask(0);
  const LocalListener socket(folder.path("s"));
  EXPECT_EQ(::umask(before), 0U);
  EXPECT_EQ(statusOf(folder.path("s")).st_mode & 07777U, 0600U);
  EXPECT_NO_THROW(testing::TestSocket::connectUnix(folder.path("s")));
}

TEST(LocalListenerTest, RemovesItsNameAtTheEnd) {
  const TemporaryFolder folder;
  { const LocalListener socket(folder.path("s")); }
  EXPECT_FALSE(std::filesystem::exists(folder.path("s")));
}

TEST(LocalListenerTest, LeavesANameThatIsNoLongerItsOwn) {
  const TemporaryFolder folder;
  {
    const LocalListener socket(folder.path("s"));
    std::filesystem::remove(folder.path("s"));
    leaveStaleSocket(folder.path("s"));
  }
  EXPECT_TRUE(std::filesystem::is_socket(folder.path("s")));
}

TEST(LocalListenerTest, ReplacesASocketWithoutAListener) {
  const TemporaryFolder folder;
  leaveStaleSocket(folder.path("s"));
  const LocalListener socket(folder.path("s"));
  EXPECT_NO_THROW(testing::TestSocket::connectUnix(folder.path("s")));
}

TEST(LocalListenerTest, RefusesASocketWithAListener) {
  const TemporaryFolder folder;
  const LocalListener socket(folder.path("s"));
  EXPECT_EQ(problemAt(folder.path("s")), "another program listens there");
  EXPECT_NO_THROW(testing::TestSocket::connectUnix(folder.path("s")));
}

TEST(LocalListenerTest, DoesNotConnectToASocketWithAListener) {
  const TemporaryFolder folder;
  const LocalListener socket(folder.path("s"));
  EXPECT_EQ(problemAt(folder.path("s")), "another program listens there");
  pollfd connection{.fd = socket.descriptor(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(::poll(&connection, 1, 0), 0);
}

TEST(LocalListenerTest, RefusesASocketThatIsNotListeningYet) {
  const TemporaryFolder folder;
  for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_SEQPACKET}) {
    const std::string path = folder.path(std::to_string(type));
    const FileDescriptor bound = boundSocket(path, type);
    EXPECT_EQ(problemAt(path), "another program listens there");
    EXPECT_TRUE(std::filesystem::exists(path));
  }
}

TEST(LocalListenerTest, ChangesNothingWhileAnotherMonitorStarts) {
  const TemporaryFolder folder;
  leaveStaleSocket(folder.path("s"));
  const ino_t stale = statusOf(folder.path("s")).st_ino;
  const SocketLock lock(folder.path("s"));
  EXPECT_EQ(problemAt(folder.path("s")), "another program is being started there");
  EXPECT_EQ(statusOf(folder.path("s")).st_ino, stale);
}

TEST(LocalListenerTest, ExactlyOneOfManyGetsThePath) {
  constexpr int kRounds = 50;
  const TemporaryFolder folder;
  const std::string path = folder.path("s");
  for (int round = 0; round < kRounds; ++round) {
    leaveStaleSocket(path);
    std::vector<std::unique_ptr<LocalListener>> sockets(4);
    std::vector<std::jthread> threads;
    for (std::unique_ptr<LocalListener>& socket : sockets) {
      threads.emplace_back([&socket, &path] {
        try {
          socket = std::make_unique<LocalListener>(path);
        } catch (const std::runtime_error&) {
          socket = nullptr;
        }
      });
    }
    threads.clear();
    ASSERT_EQ(std::count(sockets.begin(), sockets.end(), nullptr), 3);
    ASSERT_NO_THROW(testing::TestSocket::connectUnix(path));
  }
}

TEST(LocalListenerTest, LeavesNoLockBehind) {
  const TemporaryFolder folder;
  const LocalListener socket(folder.path("s"));
  EXPECT_EQ(problemAt(folder.path("missing/s")), "No such file or directory");
  EXPECT_FALSE(std::filesystem::exists(folder.path("s.lock")));
}

TEST(LocalListenerTest, UsesTheGivenGroupAndMode) {
  const TemporaryFolder folder;
  const LocalListener socket(folder.path("s"), {.group = 65534, .mode = 0666});
  EXPECT_EQ(statusOf(folder.path("s")).st_gid, 65534U);
  EXPECT_EQ(statusOf(folder.path("s")).st_mode & 07777U, 0666U);
}

TEST(LocalListenerTest, RefusesAnythingButASocket) {
  const TemporaryFolder folder;
  std::ofstream(folder.path("file")) << "precious";
  leaveStaleSocket(folder.path("stale"));
  std::filesystem::create_symlink(folder.path("stale"), folder.path("link"));
  for (const char* name : {"file", "link", ""}) {
    EXPECT_EQ(problemAt(folder.path(name)), "there is something else that is no socket") << name;
    EXPECT_TRUE(std::filesystem::exists(folder.path(name)));
  }
}

TEST(LocalListenerTest, RefusesASocketOfAnotherUser) {
  if (::geteuid() != 0) {
    FAIL() << "only root can make one";
  }
  const TemporaryFolder folder;
  leaveStaleSocket(folder.path("s"));
  ASSERT_EQ(::chown(folder.path("s").c_str(), 65534, 65534), 0);
  EXPECT_EQ(problemAt(folder.path("s")), "there is a socket of another user");
  EXPECT_TRUE(std::filesystem::exists(folder.path("s")));
}

TEST(LocalListenerTest, RefusesAPathThatDoesNotFit) {
  const TemporaryFolder folder;
  const std::string start = folder.path("");
  const LocalListener socket(start + std::string(LocalListener::kLongestPath - start.size(), 'x'));
  EXPECT_EQ(problemAt(start + std::string(LocalListener::kLongestPath + 1 - start.size(), 'x')),
            "the path is 104 bytes long, more than 103");
  EXPECT_EQ(problemAt(""), "the path is empty");
}

TEST(LocalListenerTest, ReportsWhyItCannotListen) {
  const TemporaryFolder folder;
  EXPECT_EQ(problemAt(folder.path("missing/s")), "No such file or directory");
}

}  // namespace
}  // namespace ostravel
