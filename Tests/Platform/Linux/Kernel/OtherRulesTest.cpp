#include "Platform/Linux/Kernel/OtherRules.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>

#include "Platform/Linux/Kernel/TableChanges.h"
#include "Tests/Platform/Linux/Support/AlteredFiles.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using testing::AlteredFiles;
using testing::FileAnswer;
using testing::outputOf;

class OtherRulesTest : public ::testing::Test {
 protected:
  // "output", "raw", both with a space, or nothing.
  std::string found() {
    const auto findings = rules_.find();
    return std::string(findings.onOutput ? "output" : "") +
           (findings.onOutput && findings.atRaw ? " " : "") + (findings.atRaw ? "raw" : "");
  }

  // commands: for nft(8), separated by semicolons.
  static void apply(const std::string& commands) { outputOf("nft '" + commands + "'"); }

  OtherRules rules_;
};

TEST_F(OtherRulesTest, FindsNothingInAnEmptyNamespace) {
  EXPECT_EQ(found(), "");
}

TEST_F(OtherRulesTest, FindsRulesForOutgoingPacketsOfEachFamily) {
  for (const std::string family : {"ip", "ip6", "inet"}) {
    apply("add table " + family + " other");
    apply("add chain " + family + " other c { type filter hook output priority 0; }");
    EXPECT_EQ(found(), "") << family;
    apply("add rule " + family + " other c tcp dport 25 drop");
    EXPECT_EQ(found(), "output") << family;
    apply("delete table " + family + " other");
  }
}

TEST_F(OtherRulesTest, FindsTranslationsOfOutgoingPackets) {
  apply("add table ip other");
  apply("add chain ip other c { type nat hook output priority -100; }");
  EXPECT_EQ(found(), "");
  apply("add rule ip other c tcp dport 25 redirect to :2525");
  EXPECT_EQ(found(), "output");
}

TEST_F(OtherRulesTest, FindsAChainThatDropsByDefault) {
  apply("add table inet other");
  apply("add chain inet other c { type filter hook output priority 0; policy drop; }");
  EXPECT_EQ(found(), "output");
}

TEST_F(OtherRulesTest, FindsRulesAtThePriorityRaw) {
  apply("add table inet other");
  apply("add chain inet other c { type filter hook prerouting priority raw; }");
  EXPECT_EQ(found(), "");
  apply("add rule inet other c ip daddr 192.0.2.1 drop");
  EXPECT_EQ(found(), "raw");
}

TEST_F(OtherRulesTest, LooksOnlyAtWhatMatters) {
  apply("add table inet other; add chain inet other called; add rule inet other called drop");
  apply("add chain inet other c { type filter hook input priority 0; policy drop; }");
  apply("add chain inet other d { type filter hook prerouting priority 0; policy drop; }");
  apply("add chain inet other e { type filter hook postrouting priority 0; policy drop; }");
  apply("add table bridge other");
  apply("add chain bridge other c { type filter hook output priority 0; policy drop; }");
  EXPECT_EQ(found(), "");
}

TEST_F(OtherRulesTest, LooksOnlyAtTablesOfOtherPrograms) {
  for (const std::string table : {"ostravel", "ostravel-translation"}) {
    apply("add table inet " + table);
    apply("add chain inet " + table + " c { type filter hook output priority 0; policy drop; }");
  }
  EXPECT_EQ(found(), "");
  apply("add table inet ostravelling");
  apply("add chain inet ostravelling c { type filter hook output priority 0; policy drop; }");
  EXPECT_EQ(found(), "output");
}

TEST_F(OtherRulesTest, FindsLegacyTablesOfBothFamilies) {
  EXPECT_NE(outputOf("iptables-legacy -t filter -S"), "");
  EXPECT_EQ(found(), "output");
  EXPECT_NE(outputOf("ip6tables-legacy -t raw -S"), "");
  EXPECT_EQ(found(), "output raw");
}

TEST_F(OtherRulesTest, AssumesTheWorstOfLegacyTablesItCannotRead) {
  const auto foundWith = [this](const FileAnswer& answer) {
    const AlteredFiles files([&answer](const std::string& path) {
      return path.ends_with("_tables_names") ? std::optional(answer) : std::nullopt;
    });
    return found();
  };
  EXPECT_EQ(foundWith({.openError = EMFILE}), "output raw");
  EXPECT_EQ(foundWith({.openError = EACCES}), "output raw");
  EXPECT_EQ(foundWith({.isUnreadable = true}), "output raw");
  EXPECT_EQ(foundWith({.openError = ENOENT}), "");
  EXPECT_EQ(foundWith({.bytes = "raw"}), "output raw");
}

TEST_F(OtherRulesTest, ManyRulesAreListedCompletely) {
  apply("add table inet other");
  std::string chains;
  for (int index = 0; index < 1000; ++index) {
    chains += "add chain inet other c" + std::to_string(index) + ";";
  }
  apply(chains);
  apply("add chain inet other z { type filter hook output priority 0; policy drop; }");
  EXPECT_EQ(found(), "output");
}

TEST_F(OtherRulesTest, NoticesChangesOfOtherProgramsOnly) {
  EXPECT_TRUE(rules_.mayHaveChanged());
  EXPECT_FALSE(rules_.mayHaveChanged());
  const auto socket = openNetfilterSocket();
  ASSERT_TRUE(socket);
  TableChanges changes("ostravel-test");
  EXPECT_FALSE(changes.batch().commit(socket->get()));
  EXPECT_FALSE(rules_.mayHaveChanged());
  apply("add table inet other");
  EXPECT_TRUE(rules_.mayHaveChanged());
  EXPECT_FALSE(rules_.mayHaveChanged());
}

TEST_F(OtherRulesTest, NoticesLegacyTables) {
  EXPECT_TRUE(rules_.mayHaveChanged());
  EXPECT_FALSE(rules_.mayHaveChanged());
  outputOf("iptables-legacy -t raw -S");
  // Every time, since their changes are not counted.
  EXPECT_TRUE(rules_.mayHaveChanged());
  EXPECT_TRUE(rules_.mayHaveChanged());
}

}  // namespace
}  // namespace ostravel::linuxplatform
