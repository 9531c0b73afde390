#include "Platform/Linux/Processes/RegisteredPaths.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Platform/Linux/Support/HangingFileSystem.h"
#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

// Of one path, without a limit that a busy machine could exceed.
std::string problemWith(const std::string& path) {
  return RegisteredPaths::problemsWith({path}, 60s).at(0).value_or("");
}

TEST(RegisteredPaths, AFilesOwnPathIsFine) {
  const TemporaryFolder folder;
  EXPECT_EQ(problemWith(folder.write("program", "")), "");
  EXPECT_TRUE(RegisteredPaths::problemsWith({}).empty());
}

TEST(RegisteredPaths, NamesTheFileThatALinkLeadsTo) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.path("real"));
  std::filesystem::create_symlink("real", folder.path("link"));
  const std::string program = folder.write("real/program", "");
  for (const std::string& path : {folder.path("link/program"), folder.path("real/../real/program"),
                                  folder.path("real//program")}) {
    EXPECT_EQ(problemWith(path),
              "is not the path of the file itself, so the registration has no effect: register \"" +
                  program + "\"");
  }
}

TEST(RegisteredPaths, ReportsWhatDoesNotExist) {
  const TemporaryFolder folder;
  folder.write("file", "");
  for (const char* const name : {"absent", "absent/program", "file/program"}) {
    EXPECT_EQ(problemWith(folder.path(name)),
              "does not exist: the registration has no effect until it does");
  }
}

TEST(RegisteredPaths, ReportsWhatCannotBeExamined) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink("loop", folder.path("loop"));
  EXPECT_EQ(problemWith(folder.path("loop")),
            "cannot be examined: Too many levels of symbolic links");
}

TEST(RegisteredPaths, AHungFileSystemCostsOnlyTheWait) {
  const TemporaryFolder folder;
  inPrivateMounts([&folder] {
    std::filesystem::create_directory(folder.path("fuse"));
    HangingFileSystem system(folder.path("fuse"), OSTRAVEL_HELPER);
    system.hang();
    const auto problems = RegisteredPaths::problemsWith({system.program(), "/"}, 50ms);
    ASSERT_EQ(problems.size(), 2U);
    for (const auto& problem : problems) {
      ASSERT_TRUE(problem);
      EXPECT_TRUE(problem->starts_with("is on a file system that does not answer")) << *problem;
    }
  });
}

TEST(RegisteredPaths, WithoutAThreadThereIsNothingToReport) {
  withFailingCalls({SYS_clone3}, EAGAIN, [] {
    EXPECT_EQ(RegisteredPaths::problemsWith({"/absent", "/"}),
              std::vector<std::optional<std::string>>(2));
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
