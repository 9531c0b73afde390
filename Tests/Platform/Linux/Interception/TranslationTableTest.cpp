#include "Platform/Linux/Interception/TranslationTable.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using testing::outputOf;

constexpr const char* kItsLine = "table inet ostravel-translation\n";

std::shared_ptr<mnl_socket> openSocket() {
  return *openNetfilterSocket();
}

TEST(TranslationTableTest, IsThereUntilItIsDestroyed) {
  auto installed = TranslationTable::install(openSocket(), PacketMarks(), false);
  ASSERT_TRUE(installed);
  EXPECT_EQ(outputOf("nft list tables"), kItsLine);
  installed->reset();
  EXPECT_EQ(outputOf("nft list tables"), "");
}

TEST(TranslationTableTest, CanBeInstalledAgainWithTheSameSocket) {
  const auto socket = openSocket();
  ASSERT_TRUE(TranslationTable::install(socket, PacketMarks(), false));
  const auto installed = TranslationTable::install(socket, PacketMarks(), false);
  ASSERT_TRUE(installed);
  EXPECT_EQ(outputOf("nft list tables"), kItsLine);
}

// Their names, one after the other.
std::string chains() {
  const std::string table = outputOf("nft list table inet ostravel-translation");
  std::string result;
  for (const std::string name : {"idle", "hide", "show"}) {
    result += table.find("chain " + name) == std::string::npos ? "" : name;
  }
  return result;
}

TEST(TranslationTableTest, CanHideAnswersFromTheStart) {
  const auto hiding = TranslationTable::install(openSocket(), PacketMarks(), true);
  ASSERT_TRUE(hiding);
  EXPECT_TRUE((*hiding)->hidesAnswers());
  EXPECT_EQ(chains(), "idlehideshow");
}

TEST(TranslationTableTest, CanHideAnswersLater) {
  const auto installed = TranslationTable::install(openSocket(), PacketMarks(), false);
  ASSERT_TRUE(installed);
  EXPECT_FALSE((*installed)->hidesAnswers());
  EXPECT_EQ(chains(), "idle");
  EXPECT_FALSE((*installed)->hideAnswers());
  EXPECT_TRUE((*installed)->hidesAnswers());
  EXPECT_EQ(chains(), "idlehideshow");
}

TEST(TranslationTableTest, NeedsNoSharedSocket) {
  auto installed = TranslationTable::install(nullptr, PacketMarks(), false);
  ASSERT_TRUE(installed);
  EXPECT_EQ(outputOf("nft list tables"), kItsLine);
  installed->reset();
  EXPECT_EQ(outputOf("nft list tables"), "");
}

TEST(TranslationTableTest, OutlivesAProcessThatDidNotRemoveIt) {
  auto socket = openSocket();
  const pid_t process = ::fork();
  if (process == 0) {
    const auto installed = TranslationTable::install(socket, PacketMarks(), false);
    ::_exit(installed ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  int status = -1;
  ::waitpid(process, &status, 0);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(outputOf("nft list tables"), kItsLine);
  socket.reset();
  EXPECT_EQ(outputOf("nft list tables"), "");
}

TEST(TranslationTableTest, LeavesATableOfAnotherProgramAlone) {
  outputOf("nft add table inet ostravel-translation");
  const auto installed = TranslationTable::install(openSocket(), PacketMarks(), false);
  ASSERT_FALSE(installed);
  EXPECT_NE(installed.error().localizedDescription.find("inet ostravel-translation"),
            std::string::npos)
      << installed.error().localizedDescription;
  EXPECT_EQ(outputOf("nft list tables"), kItsLine);
}

TEST(TranslationTableTest, IsRemovedWithTheTableThatKeepsIt) {
  auto interception = InterceptionTable::install(testing::loopbackSettings(), PacketMarks(), 1, {});
  ASSERT_TRUE(interception);
  auto translation = TranslationTable::install(openSocket(), PacketMarks(), false);
  ASSERT_TRUE(translation);
  (*interception)->keep(*std::move(translation));
  EXPECT_EQ(outputOf("nft list tables"), std::string("table inet ostravel\n") + kItsLine);
  interception->reset();
  EXPECT_EQ(outputOf("nft list tables"), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
