#include "Platform/Linux/Interception/RuleInstaller.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Tests/Platform/Linux/Support/KeptLog.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using testing::outputOf;

class RuleInstallerTest : public ::testing::Test {
 protected:
  std::unique_ptr<RuleInstaller> make(bool canResend) {
    return std::make_unique<RuleInstaller>(
        RuleInstaller::Plan{.settings = testing::loopbackSettings(),
                            .marks = PacketMarks(),
                            .queueNumber = 1,
                            .listeners = {},
                            .canResend = canResend,
                            .guardedSocket = nullptr},
        log_);
  }

  static bool areOfferedLate() {
    return outputOf("nft list chain inet ostravel offer").find("security + 10") !=
           std::string::npos;
  }
  static bool areAnswersHidden() {
    return outputOf("nft list ruleset").find("chain hide") != std::string::npos;
  }

  static void filterOutput() {
    outputOf("nft add table inet other");
    outputOf("nft 'add chain inet other c { type filter hook output priority 0; policy drop; }'");
  }
  static void filterAtRaw() {
    outputOf("nft add table inet another");
    outputOf(
        "nft 'add chain inet another c { type filter hook prerouting priority raw; policy drop; "
        "}'");
  }

  const std::shared_ptr<testing::KeptLog> log_ = std::make_shared<testing::KeptLog>();
};

TEST_F(RuleInstallerTest, OffersEarlyWithoutOtherRules) {
  const auto installer = make(true);
  const auto table = installer->install();
  ASSERT_TRUE(table);
  EXPECT_FALSE(areOfferedLate());
  EXPECT_FALSE(areAnswersHidden());
  EXPECT_FALSE(installer->mustResend());
  EXPECT_FALSE(installer->adjust(**table));
  EXPECT_FALSE(areOfferedLate());
  EXPECT_EQ(log_->count(), 0U);
}

TEST_F(RuleInstallerTest, RespectsOtherRulesFromTheStart) {
  filterOutput();
  filterAtRaw();
  const auto installer = make(true);
  const auto table = installer->install();
  ASSERT_TRUE(table);
  EXPECT_TRUE(areOfferedLate());
  EXPECT_TRUE(areAnswersHidden());
  EXPECT_TRUE(installer->mustResend());
}

TEST_F(RuleInstallerTest, RulesThatComeLaterMakeTheSameTables) {
  const auto installer = make(true);
  auto table = installer->install();
  ASSERT_TRUE(table);
  filterOutput();
  filterAtRaw();
  EXPECT_FALSE(installer->adjust(**table));
  EXPECT_TRUE(installer->mustResend());
  EXPECT_TRUE(areAnswersHidden());
  EXPECT_EQ(log_->count(), 2U);
  const std::string adjusted = outputOf("nft --stateless list chain inet ostravel offer");
  const std::string refuse = outputOf("nft --stateless list chain inet ostravel refuse");
  const std::string translation = outputOf("nft list table inet ostravel-translation");
  EXPECT_FALSE(installer->adjust(**table));
  EXPECT_EQ(log_->count(), 2U);
  // The kernel takes a refresh of the moved rules.
  EXPECT_FALSE((*table)->refreshAlive());

  table->reset();
  const auto another = make(true);
  const auto fresh = another->install();
  ASSERT_TRUE(fresh);
  EXPECT_EQ(outputOf("nft --stateless list chain inet ostravel offer"), adjusted);
  EXPECT_EQ(outputOf("nft --stateless list chain inet ostravel refuse"), refuse);
  EXPECT_EQ(outputOf("nft list table inet ostravel-translation"), translation);
}

TEST_F(RuleInstallerTest, NeverReturnsToAnEarlyOffer) {
  const auto installer = make(true);
  auto table = installer->install();
  ASSERT_TRUE(table);
  filterOutput();
  EXPECT_FALSE(installer->adjust(**table));
  outputOf("nft delete table inet other");
  EXPECT_FALSE(installer->adjust(**table));
  EXPECT_TRUE(areOfferedLate());
  table->reset();
  const auto again = installer->install();
  ASSERT_TRUE(again);
  EXPECT_TRUE(areOfferedLate());
  EXPECT_TRUE(installer->mustResend());
}

TEST_F(RuleInstallerTest, OffersEarlyIfNothingCanBeSentAgain) {
  filterOutput();
  const auto installer = make(false);
  const auto table = installer->install();
  ASSERT_TRUE(table);
  EXPECT_FALSE(areOfferedLate());
  EXPECT_FALSE(installer->adjust(**table));
  EXPECT_FALSE(areOfferedLate());
  EXPECT_FALSE(installer->mustResend());
}

TEST_F(RuleInstallerTest, SaysThatTranslationsCannotBeKept) {
  outputOf("nft add table inet ostravel-translation");
  const auto installer = make(true);
  const auto table = installer->install();
  ASSERT_TRUE(table);
  EXPECT_NE(log_->wait("A VPN may drop answers"), "");
  filterOutput();
  EXPECT_FALSE(installer->adjust(**table));
  EXPECT_TRUE(areOfferedLate());
}

}  // namespace
}  // namespace ostravel::linuxplatform
