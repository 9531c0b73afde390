#include "Platform/Simulation/Schedule/SimulatedLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

using namespace std::chrono_literals;
using platform::LogLevel;

TEST(SimulatedLogTest, KeepsLevelHandleLineAndMoment) {
  Simulation simulation;
  const auto log = simulation.makeLog("com.example", "Category");
  simulation.advance(3s);
  log->error("failed: %{public}s (%{public}d)", {"no route", std::int64_t{65}});
  ASSERT_EQ(simulation.logRecords().size(), 1U);
  const auto& record = simulation.logRecords().front();
  EXPECT_EQ(record.level, LogLevel::error);
  EXPECT_EQ(record.subsystem, "com.example");
  EXPECT_EQ(record.category, "Category");
  EXPECT_EQ(record.line, "failed: no route (65)");
  EXPECT_EQ(record.moment, 3s);
}

TEST(SimulatedLogTest, KeepsEveryLevelApart) {
  Simulation simulation;
  const auto log = simulation.makeLog("s", "c");
  log->debug("d");
  log->info("i");
  log->standard("n");
  log->error("e");
  EXPECT_EQ(simulation.logLines(), (std::vector<std::string>{"d", "i", "n", "e"}));
  EXPECT_EQ(simulation.logLines(LogLevel::debug), (std::vector<std::string>{"d"}));
  EXPECT_EQ(simulation.logLines(LogLevel::info), (std::vector<std::string>{"i"}));
  EXPECT_EQ(simulation.logLines(LogLevel::standard), (std::vector<std::string>{"n"}));
  EXPECT_EQ(simulation.logLines(LogLevel::error), (std::vector<std::string>{"e"}));
}

TEST(SimulatedLogTest, KeepsTheFlowAndApplicationOfALine) {
  Simulation simulation;
  simulation.makeLog("s", "c")->error("e", {}, {.flowID = "f", .application = "a", .code = "c"});
  const auto& record = simulation.logRecords().front();
  EXPECT_EQ(record.line, "e");
  EXPECT_EQ(record.flowID, "f");
  EXPECT_EQ(record.application, "a");
  EXPECT_EQ(record.code, "c");
}

TEST(SimulatedLogTest, LinesOutliveTheirHandle) {
  Simulation simulation;
  simulation.makeLog("s", "c")->info("gone");
  EXPECT_EQ(simulation.logLines(), (std::vector<std::string>{"gone"}));
}

TEST(SimulatedLogTest, TheDefaultLogHasNoSubsystemAndNoCategory) {
  Simulation simulation;
  simulation.defaultLog().error("object is gone");
  ASSERT_EQ(simulation.logRecords().size(), 1U);
  EXPECT_EQ(simulation.logRecords().front().subsystem, "");
  EXPECT_EQ(simulation.logRecords().front().category, "");
}

TEST(SimulatedLogTest, TheSystemLogIsKeptApart) {
  Simulation simulation;
  simulation.systemLog("100% plain %{public}s");
  EXPECT_EQ(simulation.systemLogLines(), (std::vector<std::string>{"100% plain %{public}s"}));
  EXPECT_TRUE(simulation.logRecords().empty());
}

}  // namespace
}  // namespace ostravel::simulation
