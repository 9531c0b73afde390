#include "Platform/Linux/Identity/ApplicationRegistrations.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr uid_t kRoot = 0;
constexpr const char* kGood = R"({"/opt/good": "com.example.good"})";

class ApplicationRegistrationsTest : public ::testing::Test {
 protected:
  ApplicationRegistrations load() {
    return {folder_.path(), [this](const std::string& warning) { warnings_.push_back(warning); },
            SystemUsers(499)};
  }

  // The warning about a bad file that is loaded along with a good one.
  void expectIgnored(const std::string& warningAfterPath) {
    folder_.write("good.json", kGood);
    const auto registrations = load();
    EXPECT_EQ(registrations.identifierOf("/opt/good", {kRoot}), "com.example.good");
    EXPECT_EQ(registrations.identifierOf("/opt/bad", {kRoot}), std::nullopt);
    ASSERT_EQ(warnings_.size(), 1U);
    EXPECT_EQ(warnings_[0], folder_.path("bad.json") + warningAfterPath);
  }

  const TemporaryFolder folder_;
  std::vector<std::string> warnings_;
};

TEST_F(ApplicationRegistrationsTest, MapsExecutablesToIdentifiers) {
  folder_.write("one.json", R"({"/opt/a": "com.example.a", "/opt/b": "com.example.b"})");
  folder_.write("two.json", R"({"/opt/caf\u00e9": "com.example.\u00e9"})");
  const auto registrations = load();
  EXPECT_EQ(registrations.identifierOf("/opt/a", {kRoot}), "com.example.a");
  EXPECT_EQ(registrations.identifierOf("/opt/b", {kRoot}), "com.example.b");
  EXPECT_EQ(registrations.identifierOf("/opt/caf\xc3\xa9", {kRoot}), "com.example.\xc3\xa9");
  EXPECT_EQ(registrations.identifierOf("/opt/c", {kRoot}), std::nullopt);
  EXPECT_EQ(registrations.identifierOf("", {kRoot}), std::nullopt);
  EXPECT_TRUE(warnings_.empty());
}

TEST_F(ApplicationRegistrationsTest, RegistrationsApplyToRootAndSystemUsers) {
  folder_.write("a.json", R"({"/opt/a": "com.example.a", "/opt/b": {"identifier": "b"}})");
  const auto registrations = load();
  for (const char* const executable : {"/opt/a", "/opt/b"}) {
    EXPECT_TRUE(registrations.identifierOf(executable, {kRoot}));
    EXPECT_TRUE(registrations.identifierOf(executable, {kRoot, 499}));
    EXPECT_FALSE(registrations.identifierOf(executable, {500}));
    EXPECT_FALSE(registrations.identifierOf(executable, {kRoot, 500}));
    EXPECT_FALSE(registrations.identifierOf(executable, {500, kRoot}));
  }
}

TEST_F(ApplicationRegistrationsTest, RegistrationsApplyToTheUsersTheyList) {
  folder_.write("a.json", R"({"/opt/a": {"identifier": "com.example.a", "users": ["nobody"]},
                              "/opt/b": {"identifier": "com.example.b", "users": []}})");
  const auto registrations = load();
  EXPECT_TRUE(warnings_.empty());
  EXPECT_EQ(registrations.identifierOf("/opt/a", {65534}), "com.example.a");
  EXPECT_EQ(registrations.identifierOf("/opt/a", {kRoot, 65534}), "com.example.a");
  EXPECT_FALSE(registrations.identifierOf("/opt/a", {65534, 1000}));
  EXPECT_FALSE(registrations.identifierOf("/opt/b", {65534}));
}

TEST_F(ApplicationRegistrationsTest, RejectsAnUnknownUser) {
  folder_.write("bad.json", R"({"/opt/bad": {"identifier": "a", "users": ["no-such-user"]}})");
  expectIgnored(
      ":1:2: the registration of \"/opt/bad\" names the user \"no-such-user\", who does not exist");
}

TEST_F(ApplicationRegistrationsTest, RejectsUsersThatAreNotNames) {
  for (const char* const users : {"5", "\"nobody\"", "[5]", "{}"}) {
    warnings_.clear();
    folder_.write("bad.json",
                  R"({"/opt/bad": {"identifier": "a", "users": )" + std::string(users) + "}}");
    expectIgnored(":1:2: the users of \"/opt/bad\" must be a list of names");
  }
}

TEST_F(ApplicationRegistrationsTest, RejectsUnknownMembersOfARegistration) {
  folder_.write("bad.json", R"({"/opt/bad": {"identifier": "a", "user": ["nobody"]}})");
  expectIgnored(
      ":1:2: the registration of \"/opt/bad\" has \"user\", which is neither \"identifier\" nor "
      "\"users\"");
}

TEST_F(ApplicationRegistrationsTest, RejectsARegistrationWithoutAnIdentifier) {
  folder_.write("bad.json", R"({"/opt/bad": {"users": []}})");
  expectIgnored(":1:2: the identifier of \"/opt/bad\" must be a text that is not empty");
}

TEST_F(ApplicationRegistrationsTest, TheLaterFileInNameOrderWins) {
  folder_.write("20.json", R"({"/opt/a": "second"})");
  folder_.write("10.json", R"({"/opt/a": "first"})");
  EXPECT_EQ(load().identifierOf("/opt/a", {kRoot}), "second");
}

TEST_F(ApplicationRegistrationsTest, OnlyFilesWithTheRightNameAreRead) {
  folder_.write("one.json~", "not JSON");
  folder_.write("README", "not JSON");
  folder_.write(".hidden.json", "not JSON");
  folder_.write("empty.json", "{}");
  load();
  EXPECT_TRUE(warnings_.empty());
}

TEST_F(ApplicationRegistrationsTest, AMissingFolderCountsAsEmpty) {
  const ApplicationRegistrations registrations(
      folder_.path("absent"), [this](const std::string& warning) { warnings_.push_back(warning); });
  EXPECT_EQ(registrations.identifierOf("/opt/a", {kRoot}), std::nullopt);
  EXPECT_TRUE(warnings_.empty());
}

TEST_F(ApplicationRegistrationsTest, WarnsAboutAnUnreadableFolder) {
  const std::string file = folder_.write("file", "");
  const ApplicationRegistrations registrations(
      file, [this](const std::string& warning) { warnings_.push_back(warning); });
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_EQ(warnings_[0], file + ": cannot be read: Not a directory");
}

TEST_F(ApplicationRegistrationsTest, RejectsAFolderOfAnotherUser) {
  folder_.write("good.json", kGood);
  ASSERT_EQ(::chown(folder_.path().c_str(), 65534, 0), 0);
  EXPECT_EQ(load().identifierOf("/opt/good", {kRoot}), std::nullopt);
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_EQ(warnings_[0], folder_.path() + ": is ignored: it does not belong to root");
}

TEST_F(ApplicationRegistrationsTest, RejectsAFolderThatOthersCanWriteTo) {
  folder_.write("good.json", kGood);
  for (const mode_t mode : {0775U, 0757U, 01777U}) {
    warnings_.clear();
    ASSERT_EQ(::chmod(folder_.path().c_str(), mode), 0);
    EXPECT_EQ(load().identifierOf("/opt/good", {kRoot}), std::nullopt);
    ASSERT_EQ(warnings_.size(), 1U);
    EXPECT_EQ(warnings_[0], folder_.path() + ": is ignored: others than root may write to it");
  }
}

TEST_F(ApplicationRegistrationsTest, RejectsAFileOfAnotherUser) {
  folder_.write("bad.json", R"({"/opt/bad": "com.example.bad"})");
  ASSERT_EQ(::chown(folder_.path("bad.json").c_str(), 65534, 65534), 0);
  expectIgnored(": is ignored: it does not belong to root");
}

TEST_F(ApplicationRegistrationsTest, RejectsAFileThatOthersCanWriteTo) {
  folder_.write("bad.json", R"({"/opt/bad": "com.example.bad"})");
  ASSERT_EQ(::chmod(folder_.path("bad.json").c_str(), 0664), 0);
  expectIgnored(": is ignored: others than root may write to it");
}

TEST_F(ApplicationRegistrationsTest, FollowsSymbolicLinks) {
  const TemporaryFolder elsewhere;
  const std::string target = elsewhere.write("target", R"({"/opt/bad": "com.example.bad"})");
  ASSERT_EQ(::chown(target.c_str(), 65534, 65534), 0);
  std::filesystem::create_symlink(target, folder_.path("bad.json"));
  expectIgnored(": is ignored: it does not belong to root");
}

TEST_F(ApplicationRegistrationsTest, WarnsAboutInvalidJSONWithLineAndColumn) {
  folder_.write("bad.json", "{\n  \"/opt/bad\": \"com.example.bad\",\n  oops\n}");
  expectIgnored(":3:6: string or '}' expected near 'oops'");
}

TEST_F(ApplicationRegistrationsTest, RejectsAFileThatIsNotAnObject) {
  folder_.write("bad.json", R"(["/opt/bad"])");
  expectIgnored(":1:1: registrations must be a JSON object");
}

// A file of sysfs(5) claims a page and has a line, like one that shrinks while it is read.
TEST_F(ApplicationRegistrationsTest, ReadsAFileThatIsShorterThanItsSize) {
  std::filesystem::create_symlink("/sys/kernel/uevent_seqnum", folder_.path("bad.json"));
  expectIgnored(":1:1: registrations must be a JSON object");
}

TEST_F(ApplicationRegistrationsTest, RejectsALinkToAFileThatIsMissing) {
  std::filesystem::create_symlink("nowhere.json", folder_.path("bad.json"));
  expectIgnored(": cannot be read: No such file or directory");
}

// The loopback interface has no speed: its file can be opened, but read(2) fails.
TEST_F(ApplicationRegistrationsTest, RejectsAFileThatCanBeOpenedButNotRead) {
  std::filesystem::create_symlink("/sys/class/net/lo/speed", folder_.path("bad.json"));
  expectIgnored(": cannot be read: Invalid argument");
}

TEST_F(ApplicationRegistrationsTest, RejectsDuplicateNames) {
  folder_.write("bad.json", R"({"/opt/bad": "a", "/opt/bad": "b"})");
  folder_.write("good.json", kGood);
  EXPECT_EQ(load().identifierOf("/opt/bad", {kRoot}), std::nullopt);
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_TRUE(warnings_[0].starts_with(folder_.path("bad.json") + ":1:")) << warnings_[0];
}

TEST_F(ApplicationRegistrationsTest, RejectsARelativePath) {
  folder_.write("bad.json", R"({"/opt/bad": "a", "opt/bad": "b"})");
  expectIgnored(":1:19: \"opt/bad\" is not the absolute path of an executable");
}

TEST_F(ApplicationRegistrationsTest, RejectsAnIdentifierThatIsNotAString) {
  folder_.write("bad.json", R"({"/opt/bad": 5})");
  expectIgnored(":1:2: the identifier of \"/opt/bad\" must be a text that is not empty");
}

TEST_F(ApplicationRegistrationsTest, RejectsAnEmptyIdentifier) {
  folder_.write("bad.json", R"({"/opt/bad": ""})");
  expectIgnored(":1:2: the identifier of \"/opt/bad\" must be a text that is not empty");
}

TEST_F(ApplicationRegistrationsTest, RejectsASpecialFileWithoutBlocking) {
  ASSERT_EQ(::mkfifo(folder_.path("bad.json").c_str(), 0600), 0);
  expectIgnored(": is ignored: it is not a regular file of at most 1 MiB");
}

TEST_F(ApplicationRegistrationsTest, RejectsAnEndlessFile) {
  folder_.write("bad.json", "");
  std::filesystem::resize_file(folder_.path("bad.json"), 1024 * 1024 + 1);
  expectIgnored(": is ignored: it is not a regular file of at most 1 MiB");
}

TEST_F(ApplicationRegistrationsTest, ReadsAFileOfOneMebibyte) {
  std::string text = kGood;
  text.resize(1024 * 1024, ' ');
  folder_.write("good.json", text);
  EXPECT_EQ(load().identifierOf("/opt/good", {kRoot}), "com.example.good");
  EXPECT_TRUE(warnings_.empty());
}

TEST_F(ApplicationRegistrationsTest, KnowsAllIdentifiers) {
  folder_.write("a.json", R"({"/opt/a": "com.example.a", "/opt/b": "com.example.b"})");
  auto identifiers = load().identifiers();
  std::sort(identifiers.begin(), identifiers.end());
  EXPECT_EQ(identifiers, (std::vector<std::string>{"com.example.a", "com.example.b"}));
}

TEST_F(ApplicationRegistrationsTest, ReportsTheirNumberAndCompleteness) {
  EXPECT_TRUE(load().isComplete());
  folder_.write("a.json", R"({"/opt/a": "a", "/opt/b": "b"})");
  EXPECT_TRUE(load().isComplete());
  EXPECT_EQ(load().size(), 2U);
  folder_.write("b.json", "oops");
  EXPECT_FALSE(load().isComplete());
  EXPECT_EQ(load().size(), 2U);
}

TEST_F(ApplicationRegistrationsTest, WarnsOfPathsUnderWhichNothingRuns) {
  const TemporaryFolder programs;
  const std::string program = programs.write("program", "");
  const std::string link = programs.path("link");
  std::filesystem::create_symlink(program, link);
  const std::string absent = programs.path("absent");
  folder_.write("a.json", "{\n  \"" + absent + "\": \"a\",\n  \"" + program + "\": \"b\",\n  \"" +
                              link + "\": \"c\"\n}");
  const auto registrations = load();
  EXPECT_TRUE(warnings_.empty());
  registrations.warnOfUselessPaths(LocalProcessTable());
  const std::string file = folder_.path("a.json");
  EXPECT_EQ(warnings_,
            (std::vector<std::string>{
                file + ":2:3: \"" + absent +
                    "\" does not exist: the registration has no effect until it does",
                file + ":4:3: \"" + link +
                    "\" is not the path of the file itself, so the registration has no effect: "
                    "register \"" +
                    program + "\""}));
  EXPECT_TRUE(registrations.isComplete());
  EXPECT_EQ(registrations.identifierOf(absent, {kRoot}), "a");
}

TEST_F(ApplicationRegistrationsTest, WarnsOfPathsInTheirOrder) {
  std::vector<std::string> paths;
  std::string text;
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    paths.push_back(folder_.path(std::string("absent-") + letter));
    text += (text.empty() ? "{\"" : ",\n\"") + paths.back() + "\": \"x\"";
  }
  folder_.write("a.json", text + "}");
  const auto registrations = load();
  registrations.warnOfUselessPaths(LocalProcessTable());
  ASSERT_EQ(warnings_.size(), paths.size());
  for (std::size_t index = 0; index < paths.size(); ++index) {
    EXPECT_NE(warnings_[index].find(paths[index]), std::string::npos) << warnings_[index];
  }
}

TEST_F(ApplicationRegistrationsTest, AnUntrustedFolderIsNotComplete) {
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  EXPECT_FALSE(load().isComplete());
}

}  // namespace
}  // namespace ostravel::linuxplatform
