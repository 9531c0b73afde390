#include "Base/SocketLock.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel {
namespace {

class SocketLockTest : public ::testing::Test {
 protected:
  std::string problem() const {
    try {
      const SocketLock lock(socket_);
      return "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  const testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path("s");
  const std::string file_ = folder_.path("s.lock");
};

TEST_F(SocketLockTest, KeepsOthersOutUntilItEnds) {
  {
    const SocketLock lock(socket_);
    EXPECT_EQ(problem(), "another program is being started there");
  }
  EXPECT_EQ(problem(), "");
}

TEST_F(SocketLockTest, RemovesItsFile) {
  { const SocketLock lock(socket_); }
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(SocketLockTest, TakesOverTheFileOfAKilledMonitor) {
  std::ofstream(file_).flush();
  EXPECT_EQ(problem(), "");
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(SocketLockTest, RefusesAFileThatIsNotItsOwn) {
  std::ofstream(file_) << "precious";
  EXPECT_EQ(problem(), "there is something else at " + file_);
  EXPECT_EQ(std::filesystem::file_size(file_), 8U);
}

TEST_F(SocketLockTest, FollowsNoSymbolicLink) {
  std::filesystem::create_symlink(folder_.path("elsewhere"), file_);
  EXPECT_EQ(problem(), "Too many levels of symbolic links");
  EXPECT_FALSE(std::filesystem::exists(folder_.path("elsewhere")));
}

}  // namespace
}  // namespace ostravel
