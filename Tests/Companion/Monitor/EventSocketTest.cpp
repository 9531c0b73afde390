#include "Companion/Monitor/EventSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion {
namespace {

using test::TemporaryFolder;

std::string problemAt(const std::string& path) {
  try {
    const EventSocket socket(path);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// A socket file on which nobody listens any more.
void leaveStaleSocket(const std::string& path, int type = SOCK_STREAM) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int descriptor = ::socket(AF_UNIX, type, 0);
  ASSERT_EQ(::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ::close(descriptor);
}

TEST(EventSocketTest, ListensForItsOwnerAlone) {
  const TemporaryFolder folder;
  const mode_t before = ::umask(0);
  const EventSocket socket(folder.file("s"));
  EXPECT_EQ(::umask(before), 0U);
  struct stat status {};
  ASSERT_EQ(::lstat(folder.file("s").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_NO_THROW(test::TestSocket::connectUnix(folder.file("s")));
}

TEST(EventSocketTest, RemovesItsNameAtTheEnd) {
  const TemporaryFolder folder;
  { const EventSocket socket(folder.file("s")); }
  EXPECT_FALSE(std::filesystem::exists(folder.file("s")));
}

TEST(EventSocketTest, LeavesANameThatIsNoLongerItsOwn) {
  const TemporaryFolder folder;
  {
    const EventSocket socket(folder.file("s"));
    std::filesystem::remove(folder.file("s"));
    leaveStaleSocket(folder.file("s"));
  }
  EXPECT_TRUE(std::filesystem::is_socket(folder.file("s")));
}

TEST(EventSocketTest, ReplacesASocketOnWhichNobodyListens) {
  const TemporaryFolder folder;
  leaveStaleSocket(folder.file("s"));
  const EventSocket socket(folder.file("s"));
  EXPECT_NO_THROW(test::TestSocket::connectUnix(folder.file("s")));
}

TEST(EventSocketTest, RefusesASocketOnWhichSomeoneListens) {
  const TemporaryFolder folder;
  const EventSocket socket(folder.file("s"));
  EXPECT_EQ(problemAt(folder.file("s")), "another program listens there");
  EXPECT_NO_THROW(test::TestSocket::connectUnix(folder.file("s")));
}

TEST(EventSocketTest, RefusesWhatIsNoSocket) {
  const TemporaryFolder folder;
  std::ofstream(folder.file("file")) << "precious";
  leaveStaleSocket(folder.file("stale"));
  std::filesystem::create_symlink(folder.file("stale"), folder.file("link"));
  for (const char* name : {"file", "link", ""}) {
    EXPECT_EQ(problemAt(folder.file(name)), "there is something else that is no socket") << name;
    EXPECT_TRUE(std::filesystem::exists(folder.file(name)));
  }
}

TEST(EventSocketTest, RefusesASocketOfAnotherUser) {
  if (::geteuid() != 0) {
    FAIL() << "only root can make one";
  }
  const TemporaryFolder folder;
  leaveStaleSocket(folder.file("s"));
  ASSERT_EQ(::chown(folder.file("s").c_str(), 65534, 65534), 0);
  EXPECT_EQ(problemAt(folder.file("s")), "there is a socket of another user");
  EXPECT_TRUE(std::filesystem::exists(folder.file("s")));
}

TEST(EventSocketTest, RefusesAPathThatDoesNotFit) {
  const TemporaryFolder folder;
  const std::string start = folder.file("");
  const EventSocket socket(start + std::string(EventSocket::kLongestPath - start.size(), 'x'));
  EXPECT_EQ(problemAt(start + std::string(EventSocket::kLongestPath + 1 - start.size(), 'x')),
            "the path is 104 bytes long, more than 103");
  EXPECT_EQ(problemAt(""), "the path is empty");
}

TEST(EventSocketTest, TellsWhyItCannotListen) {
  const TemporaryFolder folder;
  EXPECT_EQ(problemAt(folder.file("missing/s")), "No such file or directory");
}

}  // namespace
}  // namespace ostravel::companion
