#include "Platform/Linux/Processes/FileLookup.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>

#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Platform/Linux/Support/HangingFileSystem.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

constexpr uid_t kRoot = 0;
constexpr uid_t kUser = 1000;
constexpr uid_t kOtherUser = 1001;

class FileLookupTest : public ::testing::Test {
 protected:
  // On a busy machine one answer may be late.
  FileLookup::Answer eventually(const std::function<FileLookup::Answer()>& ask) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    FileLookup::Answer answer;
    while (!answer.isKnown && std::chrono::steady_clock::now() < deadline) {
      answer = ask();
    }
    EXPECT_TRUE(answer.isKnown);
    return answer;
  }

  FileLookup::Answer at(const std::string& path, uid_t user = kRoot) {
    return eventually([&] { return files_.at(path, user); });
  }

  SearchAllowance allowance_;
  FileLookup files_{allowance_};
  const TemporaryFolder folder_;
};

TEST_F(FileLookupTest, DistinguishesFiles) {
  const auto one = at(folder_.write("one", ""));
  const auto two = at(folder_.write("two", ""));
  ASSERT_TRUE(one.file && two.file);
  EXPECT_NE(one.file, two.file);
  std::filesystem::create_hard_link(folder_.path("one"), folder_.path("link"));
  EXPECT_EQ(at(folder_.path("link")).file, one.file);
}

TEST_F(FileLookupTest, AMissingFileIsAbsent) {
  EXPECT_FALSE(at(folder_.path("absent")).file);
  EXPECT_FALSE(at(folder_.write("file", "") + "/below").file);
}

TEST_F(FileLookupTest, DoesNotFollowALink) {
  const auto target = at(folder_.write("target", ""));
  std::filesystem::create_symlink(folder_.path("target"), folder_.path("link"));
  EXPECT_NE(at(folder_.path("link")).file, target.file);
}

TEST_F(FileLookupTest, FindsTheExecutableOfAProcess) {
  const std::string program = copyHelper(folder_, "program");
  Helper helper(program);
  const auto file = at(program).file;
  ASSERT_TRUE(file);
  const auto executable = [&] { return files_.executableOf(helper.pid(), kRoot); };
  EXPECT_EQ(eventually(executable).file, file);
  std::filesystem::remove(program);
  EXPECT_EQ(eventually(executable).file, file);
  helper.kill();
  EXPECT_FALSE(eventually(executable).file);
}

TEST_F(FileLookupTest, FindsAnExecutableInAnotherMountNamespace) {
  const std::string program = copyHelper(folder_, "program");
  Helper helper(program, &enterPrivateMounts);
  EXPECT_EQ(eventually([&] { return files_.executableOf(helper.pid(), kRoot); }).file,
            at(program).file);
}

TEST_F(FileLookupTest, NoticesANewMount) {
  inPrivateMounts([this] {
    const std::string path = folder_.write("path", "");
    const std::string cover = folder_.write("cover", "");
    FileLookup files(allowance_);
    const auto fileAt = [&](const std::string& name) {
      return eventually([&] { return files.at(name, kRoot); }).file;
    };
    const auto before = fileAt(path);
    const auto generation = files.generation();
    EXPECT_EQ(files.generation(), generation);
    ASSERT_EQ(::mount(cover.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_NE(files.generation(), generation);
    EXPECT_EQ(fileAt(path), fileAt(cover));
    ASSERT_EQ(::umount(path.c_str()), 0);
    EXPECT_EQ(fileAt(path), before);
  });
}

TEST_F(FileLookupTest, FilesOfDifferentFileSystemsAreDifferent) {
  inPrivateMounts([this] {
    std::filesystem::create_directory(folder_.path("one"));
    std::filesystem::create_directory(folder_.path("two"));
    for (const char* const name : {"one", "two"}) {
      ASSERT_EQ(::mount("none", folder_.path(name).c_str(), "tmpfs", 0, nullptr), 0);
      folder_.write(std::string(name) + "/file", "");
    }
    struct stat one {};
    struct stat two {};
    ASSERT_EQ(::stat(folder_.path("one/file").c_str(), &one), 0);
    ASSERT_EQ(::stat(folder_.path("two/file").c_str(), &two), 0);
    ASSERT_EQ(one.st_ino, two.st_ino);
    EXPECT_NE(at(folder_.path("one/file")).file, at(folder_.path("two/file")).file);
  });
}

TEST_F(FileLookupTest, AsksAFileSystemWithoutACache) {
  inPrivateMounts([this] {
    std::filesystem::create_directory(folder_.path("fuse"));
    const HangingFileSystem system(folder_.path("fuse"), OSTRAVEL_HELPER);
    const auto answer = at(system.program());
    ASSERT_TRUE(answer.file);
    EXPECT_EQ(answer.file->inode, 2U);
    EXPECT_FALSE(at(folder_.path("fuse/absent")).file);
  });
}

TEST_F(FileLookupTest, AHungFileSystemCostsOnlyItsUserALookup) {
  inPrivateMounts([this] {
    std::filesystem::create_directory(folder_.path("fuse"));
    std::filesystem::create_directory(folder_.path("healthy"));
    HangingFileSystem system(folder_.path("fuse"), OSTRAVEL_HELPER);
    const HangingFileSystem healthy(folder_.path("healthy"), OSTRAVEL_HELPER);
    ASSERT_TRUE(at(system.program(), kUser).file);
    const std::string local = folder_.write("local", "");
    ASSERT_TRUE(at(local, kUser).file);
    system.hang();
    const auto start = std::chrono::steady_clock::now();
    constexpr int kLookups = 1000;
    for (int i = 0; i < kLookups; ++i) {
      EXPECT_FALSE(files_.at(system.program(), kUser).isKnown);
    }
    // One wait for all of them, with ample time for a busy machine.
    EXPECT_LT(std::chrono::steady_clock::now() - start, kLookups * FileLookup::kPatience / 2);
    EXPECT_FALSE(files_.at(healthy.program(), kUser).isKnown);
    // Cached paths and other users' look-ups are unaffected.
    EXPECT_TRUE(files_.at(local, kUser).isKnown);
    EXPECT_TRUE(at(healthy.program(), kOtherUser).file);
  });
}

TEST_F(FileLookupTest, ManyHungFileSystemsLeaveCachedPathsAvailable) {
  inPrivateMounts([this] {
    std::filesystem::create_directory(folder_.path("fuse"));
    HangingFileSystem system(folder_.path("fuse"), OSTRAVEL_HELPER);
    ASSERT_TRUE(at(system.program(), kUser).file);
    const std::string local = folder_.write("local", "");
    ASSERT_TRUE(at(local).file);
    system.hang();
    const auto start = std::chrono::steady_clock::now();
    constexpr int kUsers = 1000;
    for (uid_t user = kUser; user < kUser + kUsers; ++user) {
      EXPECT_FALSE(files_.at(system.program(), user).isKnown);
      EXPECT_TRUE(files_.at(local, user).isKnown);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, kUsers * FileLookup::kPatience / 2);
  });
}

TEST_F(FileLookupTest, WithoutAThreadAnExecutableIsNotKnown) {
  withFailingCalls({SYS_clone3}, EAGAIN, [this] {
    const auto answer = files_.executableOf(::getpid(), kUser);
    EXPECT_FALSE(answer.isKnown);
    EXPECT_FALSE(answer.file);
  });
  EXPECT_TRUE(eventually([this] { return files_.executableOf(::getpid(), kUser); }).file);
}

}  // namespace
}  // namespace ostravel::linuxplatform
