#include "Extension/main/ConfigurationCheck.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace ostravel::linuxplatform {
namespace {

using Warnings = std::vector<std::string>;

TEST(ConfigurationCheck, AnAbsolutePathIsFine) {
  EXPECT_EQ(configurationWarnings({{"monitoringSocketPath", std::string(" /run/m.sock\n")}}, "c",
                                  R"({"monitoringSocketPath": " /run/m.sock\n"})"),
            Warnings());
  EXPECT_EQ(configurationWarnings({}, "c", "{}"), Warnings());
}

TEST(ConfigurationCheck, NamesTheUnknownKeyAndItsPlace) {
  EXPECT_EQ(configurationWarnings({{"monitoringSocket", std::string("/m")}}, "c.json",
                                  "{\n  \"monitoringSocket\": \"/m\"\n}"),
            (Warnings{"c.json:2:3: \"monitoringSocket\" is unknown and has no effect; the keys are "
                      "\"monitoringSocketPath\" and \"logLevel\""}));
}

TEST(ConfigurationCheck, ALogLevelIsOneOfFour) {
  const auto warningsOf = [](const platform::ConfigurationValue& value) {
    return configurationWarnings({{"logLevel", value}}, "c.json", "{\n \"logLevel\": 0}");
  };
  for (const auto* const level : {"debug", "info", "default", "error"}) {
    EXPECT_EQ(warningsOf(std::string(level)), Warnings()) << level;
  }
  const Warnings expected{
      "c.json:2:2: \"logLevel\" must be \"debug\", \"info\", \"default\" or \"error\"; it has no "
      "effect"};
  EXPECT_EQ(warningsOf(std::string("warning")), expected);
  EXPECT_EQ(warningsOf(std::int64_t{3}), expected);
}

TEST(ConfigurationCheck, NamesTheWrongType) {
  EXPECT_EQ(configurationWarnings({{"monitoringSocketPath", std::int64_t{5}}}, "c.json",
                                  R"({"monitoringSocketPath": 5})"),
            (Warnings{"c.json:1:2: \"monitoringSocketPath\" must be a text, such as "
                      "\"/run/ostravel/monitoring.sock\"; no event is sent"}));
}

TEST(ConfigurationCheck, WarnsOfRelativeAndEmptyPaths) {
  const auto warningOf = [](const std::string& value) {
    const auto warnings = configurationWarnings({{"monitoringSocketPath", value}}, "c",
                                                R"({"monitoringSocketPath": "x"})");
    return warnings.size() == 1 ? warnings[0] : "";
  };
  EXPECT_TRUE(warningOf("run/m.sock").starts_with("c:1:2: \"monitoringSocketPath\" is a relative"));
  EXPECT_TRUE(warningOf(" \n").starts_with("c:1:2: \"monitoringSocketPath\" is empty"));
  EXPECT_TRUE(warningOf("").starts_with("c:1:2: \"monitoringSocketPath\" is empty"));
}

TEST(ConfigurationCheck, AFileThatHasGoneIsNotChecked) {
  EXPECT_EQ(configurationWarnings({{"a", true}}, "/nowhere/c.json"), Warnings());
}

}  // namespace
}  // namespace ostravel::linuxplatform
