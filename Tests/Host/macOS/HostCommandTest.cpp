#include "Host/macOS/HostCommand.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ostravel::host {
namespace {

auto parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "ostravel-host");
  return HostCommand::parse(static_cast<int>(arguments.size()), arguments.data());
}

HostCommand commandOf(std::vector<const char*> arguments) {
  return std::get<HostCommand>(parse(std::move(arguments)));
}

std::string reasonOf(std::vector<const char*> arguments) {
  return std::get<CommandLineError>(parse(std::move(arguments))).reason;
}

TEST(HostCommandTest, ThereAreThreeCommandsAndHelp) {
  EXPECT_EQ(commandOf({"activate"}).action, HostAction::activate);
  EXPECT_EQ(commandOf({"deactivate"}).action, HostAction::deactivate);
  EXPECT_EQ(commandOf({"status"}).action, HostAction::status);
  EXPECT_TRUE(std::holds_alternative<HelpRequest>(parse({"--help"})));
  EXPECT_FALSE(commandOf({"activate"}).monitoringSocketPath);
}

TEST(HostCommandTest, OnlyActivatingTakesAMonitoringSocket) {
  const auto command = commandOf({"activate", "--monitoring-socket", "/tmp/events"});
  EXPECT_EQ(command.action, HostAction::activate);
  EXPECT_EQ(command.monitoringSocketPath, "/tmp/events");
  EXPECT_EQ(reasonOf({"status", "--monitoring-socket", "/tmp/events"}),
            "unexpected argument \"--monitoring-socket\"");
}

TEST(HostCommandTest, TheSandboxCanReachTheDefaultSocket) {
  const auto command = commandOf({"activate", "--monitoring-socket"});
  EXPECT_EQ(command.monitoringSocketPath, "/Library/Application Support/Ostravel/monitoring.sock");
  EXPECT_TRUE(command.isMonitoringSocketInReach());
  EXPECT_TRUE(commandOf({"activate"}).isMonitoringSocketInReach());
  EXPECT_FALSE(
      commandOf({"activate", "--monitoring-socket", "/tmp/events"}).isMonitoringSocketInReach());
}

TEST(HostCommandTest, AMonitoringSocketHasAPathThatFitsIntoASocketAddress) {
  const std::string longest = "/" + std::string(102, 'a');
  const std::string tooLong = longest + "a";
  EXPECT_EQ(commandOf({"activate", "--monitoring-socket", longest.c_str()}).monitoringSocketPath,
            longest);
  EXPECT_EQ(
      reasonOf({"activate", "--monitoring-socket", tooLong.c_str()}),
      "--monitoring-socket: \"" + tooLong + "\" has 104 bytes; a socket's path has at most 103");
  EXPECT_EQ(reasonOf({"activate", "--monitoring-socket", "events"}),
            "--monitoring-socket: \"events\" is not an absolute path");
  EXPECT_EQ(reasonOf({"activate", "--monitoring-socket", "/\xC3"}),
            "--monitoring-socket: \"/\\xc3\" is not UTF-8");
}

TEST(HostCommandTest, RefusesAnythingElse) {
  EXPECT_TRUE(std::holds_alternative<CommandLineError>(HostCommand::parse(0, nullptr)));
  EXPECT_EQ(reasonOf({}), "a command is missing");
  EXPECT_EQ(reasonOf({"install"}), "there is no command \"install\"");
  EXPECT_EQ(reasonOf({"activate", "--other", "/tmp/events"}), "unexpected argument \"--other\"");
  EXPECT_EQ(reasonOf({"activate", "status"}), "unexpected argument \"status\"");
}

}  // namespace
}  // namespace ostravel::host
