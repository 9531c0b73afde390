#include "Platform/Linux/Identity/ScriptNames.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

// Not one for temporary files: everybody may create files there.
class SystemFolder {
 public:
  SystemFolder() : path_("/opt/ostravel-test-" + std::to_string(::getpid())) {
    std::filesystem::create_directories(path_);
  }
  SystemFolder(const SystemFolder&) = delete;
  SystemFolder& operator=(const SystemFolder&) = delete;
  ~SystemFolder() { std::filesystem::remove_all(path_); }

  std::string path(const std::string& name) const { return path_ + "/" + name; }

  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name)) << text;
    EXPECT_EQ(::chmod(path(name).c_str(), 0755), 0);
    return path(name);
  }

 private:
  const std::string path_;
};

class ScriptNamesTest : public ::testing::Test {
 protected:
  ScriptNamesTest() {
    auto tracer = ScriptTracer::start();
    EXPECT_TRUE(tracer) << tracer.error().localizedDescription;
    names_.emplace(*std::move(tracer));
  }

  std::optional<std::string> nameOf(pid_t pid) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    auto process = processes_.find(pid);
    while ((!process || !process->isExecutableSettled) &&
           std::chrono::steady_clock::now() < deadline) {
      process = processes_.find(pid);
    }
    return process ? names_->nameOf(*process, processes_) : std::nullopt;
  }

  bool enterFolder() const {
    return ::chdir(std::filesystem::path(script_).parent_path().c_str()) == 0;
  }

  const SystemFolder folder_;
  const std::string script_ = folder_.write("script", "#!" OSTRAVEL_HELPER "\n");
  LocalProcessTable processes_;
  std::optional<ScriptNames> names_;
};

TEST_F(ScriptNamesTest, NamesAScriptByItsPath) {
  const Helper helper(script_);
  EXPECT_EQ(nameOf(helper.pid()), script_);
}

TEST_F(ScriptNamesTest, OtherProgramsHaveNone) {
  const Helper helper;
  EXPECT_EQ(nameOf(helper.pid()), std::nullopt);
}

TEST_F(ScriptNamesTest, AnotherProgramOfTheProcessHasNone) {
  Helper helper(script_);
  ASSERT_EQ(helper.ask("run " OSTRAVEL_HELPER), "ready");
  EXPECT_EQ(nameOf(helper.pid()), std::nullopt);
}

TEST_F(ScriptNamesTest, AScriptThatWasStartedBeforeHasNone) {
  const Helper helper(script_);
  ScriptNames names(*ScriptTracer::start());
  const auto process = processes_.find(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(names.nameOf(*process, processes_), std::nullopt);
}

TEST_F(ScriptNamesTest, AChildIsTheSameScript) {
  const std::string report = folder_.path("report");
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  // The child ends with this descriptor.
  const FileDescriptor writer(::open(pipe.c_str(), O_RDWR | O_CLOEXEC));
  const std::string script = folder_.write("parent",
                                           "#!/bin/sh\n"
                                           "(read -r line </proc/self/stat; echo \"$line\" >" +
                                               report + ".new; mv " + report + ".new " + report +
                                               "; read -r line <" + pipe +
                                               ") &\n"
                                               "echo ready\n"
                                               "read -r line\n");
  const Helper helper(script);
  pid_t child = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (child == 0 && std::chrono::steady_clock::now() < deadline) {
    std::ifstream(report) >> child;
  }
  ASSERT_NE(child, 0);
  EXPECT_NE(child, helper.pid());
  EXPECT_EQ(nameOf(child), script);
}

TEST_F(ScriptNamesTest, EnvMayChooseAUsualInterpreter) {
  const std::string script =
      folder_.write("by-env", "#!/usr/bin/env sh\necho ready\nread -r line\n");
  const Helper helper(script);
  EXPECT_EQ(nameOf(helper.pid()), script);
}

TEST_F(ScriptNamesTest, EnvMustNotChooseAUsersInterpreter) {
  const std::string script = folder_.write("by-env", "#!/usr/bin/env python3\n");
  std::filesystem::copy_file(OSTRAVEL_HELPER, folder_.path("python3"));
  const std::string path = std::filesystem::path(folder_.path("python3")).parent_path();
  const Helper helper(script, [&path] { return ::setenv("PATH", path.c_str(), 1) == 0; });
  EXPECT_EQ(nameOf(helper.pid()), std::nullopt);
}

TEST_F(ScriptNamesTest, APathThatOthersSeeDifferentlyHasNone) {
  const TemporaryFolder shared;
  const std::string elsewhere = shared.write("script", "#!" OSTRAVEL_HELPER "\n");
  ASSERT_EQ(::chmod(elsewhere.c_str(), 0755), 0);
  for (const std::string& path :
       {elsewhere, "/proc/self/root" + script_, "/opt/.." + script_, "/" + script_,
        "/opt/." + script_.substr(4), "/opt/" + script_.substr(4)}) {
    const Helper helper(path);
    EXPECT_EQ(nameOf(helper.pid()), std::nullopt) << path;
  }
  const Helper mounted(script_, &enterPrivateMounts);
  EXPECT_EQ(nameOf(mounted.pid()), std::nullopt);
}

TEST_F(ScriptNamesTest, ARelativePathIsCompleted) {
  std::filesystem::create_directory(folder_.path("tools"));
  const std::string nested = folder_.write("tools/script", "#!" OSTRAVEL_HELPER "\n");
  for (const auto& [path, name] : {std::pair("./script", script_), std::pair("script", script_),
                                   std::pair("./tools/script", nested)}) {
    const Helper helper(path, [this] { return enterFolder(); });
    EXPECT_EQ(nameOf(helper.pid()), name) << path;
  }
}

TEST_F(ScriptNamesTest, ARelativePathThatMustBeInterpretedHasNone) {
  std::filesystem::create_directory(folder_.path("tools"));
  for (const char* const path :
       {"././script", ".//script", "tools/../script", "tools/./../script"}) {
    const Helper helper(path, [this] { return enterFolder(); });
    EXPECT_EQ(nameOf(helper.pid()), std::nullopt) << path;
  }
}

TEST_F(ScriptNamesTest, AFolderForAllUsersGivesNoRelativePath) {
  const TemporaryFolder shared;
  const std::string script = shared.write("script", "#!" OSTRAVEL_HELPER "\n");
  ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
  const std::string folder = std::filesystem::path(script).parent_path();
  const Helper helper("./script", [&folder] { return ::chdir(folder.c_str()) == 0; });
  EXPECT_EQ(nameOf(helper.pid()), std::nullopt);
}

TEST_F(ScriptNamesTest, ARelativePathIsUnknownInAnotherFolder) {
  folder_.write("leaving", "#!/bin/sh\ncd /\necho ready\nread -r line\n");
  const Helper helper("./leaving", [this] { return enterFolder(); });
  EXPECT_EQ(nameOf(helper.pid()), std::nullopt);
}

TEST_F(ScriptNamesTest, AFolderThatReplacesTheOriginalIsAnother) {
  const std::string original = folder_.path("tools");
  std::filesystem::create_directory(original);
  folder_.write("tools/script", "#!" OSTRAVEL_HELPER "\n");
  const Helper helper("./script", [&original] { return ::chdir(original.c_str()) == 0; });
  std::filesystem::rename(original, folder_.path("elsewhere"));
  std::filesystem::create_directory(original);
  folder_.write("tools/script", "#!" OSTRAVEL_HELPER "\n");
  EXPECT_EQ(nameOf(helper.pid()), folder_.path("elsewhere/script"));
}

TEST_F(ScriptNamesTest, AScriptInAnotherRootHasNone) {
  const std::string root = folder_.path("root");
  const std::string folder = std::filesystem::path(script_).parent_path();
  std::filesystem::create_directories(root + folder);
  std::filesystem::copy_file(script_, root + script_);
  for (const char* const needed : {"/usr", "/lib", "/lib64", "/bin"}) {
    if (std::filesystem::is_symlink(needed)) {
      std::filesystem::copy_symlink(needed, root + needed);
    } else if (std::filesystem::exists(needed)) {
      std::filesystem::create_directory(root + needed);
    }
  }
  const std::string helperFolder = std::filesystem::path(OSTRAVEL_HELPER).parent_path();
  std::filesystem::create_directories(root + helperFolder);
  inPrivateMounts([&] {
    for (const std::string& needed : {std::string("/usr"), helperFolder}) {
      ASSERT_EQ(::mount(needed.c_str(), (root + needed).c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    names_.emplace(*ScriptTracer::start());
    const Helper inside(script_, [&root] { return ::chroot(root.c_str()) == 0; });
    EXPECT_EQ(nameOf(inside.pid()), std::nullopt);
  });
}

TEST_F(ScriptNamesTest, WithoutATracerThereAreNone) {
  const Helper helper(script_);
  const auto process = processes_.find(helper.pid());
  ASSERT_TRUE(process);
  EXPECT_EQ(ScriptNames(nullptr).nameOf(*process, processes_), std::nullopt);
}

}  // namespace
}  // namespace ostravel::linuxplatform
