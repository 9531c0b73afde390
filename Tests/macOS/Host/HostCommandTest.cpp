#include "Packaging/macos/Host/HostCommand.h"

#include <gtest/gtest.h>

#include <vector>

namespace ostravel::host {
namespace {

std::optional<HostCommand> parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "ostravel-host");
  return HostCommand::parse(static_cast<int>(arguments.size()), arguments.data());
}

TEST(HostCommandTest, ThereAreThreeCommands) {
  EXPECT_EQ(parse({"activate"})->action, HostAction::activate);
  EXPECT_EQ(parse({"deactivate"})->action, HostAction::deactivate);
  EXPECT_EQ(parse({"status"})->action, HostAction::status);
  EXPECT_FALSE(parse({"activate"})->monitoringSocketPath);
}

TEST(HostCommandTest, OnlyActivatingTakesAMonitoringSocket) {
  const auto command = parse({"activate", "--monitoring-socket", "/tmp/events"});
  ASSERT_TRUE(command);
  EXPECT_EQ(command->action, HostAction::activate);
  EXPECT_EQ(command->monitoringSocketPath, "/tmp/events");
  EXPECT_FALSE(parse({"status", "--monitoring-socket", "/tmp/events"}));
}

TEST(HostCommandTest, AnythingElseMakesNoSense) {
  EXPECT_FALSE(HostCommand::parse(0, nullptr));
  EXPECT_FALSE(parse({}));
  EXPECT_FALSE(parse({"install"}));
  EXPECT_FALSE(parse({"activate", "--monitoring-socket"}));
  EXPECT_FALSE(parse({"activate", "--other", "/tmp/events"}));
  EXPECT_FALSE(parse({"activate", "status"}));
}

}  // namespace
}  // namespace ostravel::host
