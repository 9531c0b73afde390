#include "Extension/main/ConfigurationFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <variant>

namespace ostravel::linuxplatform {
namespace {

using platform::OtherConfigurationValue;
using platform::ProviderConfiguration;

class ConfigurationFile : public ::testing::Test {
 protected:
  ConfigurationFile()
      : path_(std::filesystem::path(::testing::TempDir()) /
              ("configuration-" + std::to_string(::getpid()) + ".json")) {}
  ~ConfigurationFile() override { std::filesystem::remove(path_); }

  auto read(const std::string& text) {
    std::ofstream(path_) << text;
    return readConfigurationFile(path_);
  }
  std::string errorOf(const std::string& text) {
    const auto result = read(text);
    return result ? "(no error)" : result.error().localizedDescription;
  }

  const std::string path_;
};

TEST_F(ConfigurationFile, GivesEveryValueItsType) {
  const auto result = read(R"({"monitoringSocketPath": " /tmp/m.sock\n", "number": 7,
                               "real": 0.5, "yes": true, "no": false, "none": null,
                               "list": [1], "object": {}})");
  ASSERT_TRUE(result);
  const ProviderConfiguration expected = {{"monitoringSocketPath", std::string(" /tmp/m.sock\n")},
                                          {"number", std::int64_t{7}},
                                          {"real", 0.5},
                                          {"yes", true},
                                          {"no", false},
                                          {"none", OtherConfigurationValue{}},
                                          {"list", OtherConfigurationValue{}},
                                          {"object", OtherConfigurationValue{}}};
  EXPECT_EQ(*result, expected);
}

TEST_F(ConfigurationFile, NamesFileLineAndColumnOfASyntaxError) {
  EXPECT_TRUE(errorOf("{\n  \"a\": 1,\n  oops\n}").starts_with(path_ + ":3:"));
}

TEST_F(ConfigurationFile, RefusesWhatIsNotAnObject) {
  EXPECT_EQ(errorOf("[1]"), path_ + ":1:1: the configuration must be a JSON object");
  EXPECT_EQ(errorOf("\"text\""), path_ + ":1:1: the configuration must be a JSON object");
}

TEST_F(ConfigurationFile, RefusesAnEmptyFileAndTextAfterTheObject) {
  EXPECT_TRUE(errorOf("").starts_with(path_ + ":1:"));
  EXPECT_TRUE(errorOf("{}\n{}").starts_with(path_ + ":2:"));
}

TEST_F(ConfigurationFile, RefusesADuplicateKey) {
  EXPECT_NE(errorOf("{\"a\": 1, \"a\": 2}").find("duplicate"), std::string::npos);
}

TEST_F(ConfigurationFile, NamesAFileThatCannotBeRead) {
  const auto result = readConfigurationFile(path_ + ".absent");
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().localizedDescription,
            path_ + ".absent: cannot be read: No such file or directory");
}

TEST_F(ConfigurationFile, NamesAFolderThatIsNotAFile) {
  const auto result = readConfigurationFile(::testing::TempDir());
  ASSERT_FALSE(result);
  EXPECT_NE(result.error().localizedDescription.find("cannot be read: Is a directory"),
            std::string::npos);
}

TEST_F(ConfigurationFile, ANamedFileMustExist) {
  EXPECT_FALSE(readProviderConfiguration(path_ + ".absent"));
}

TEST_F(ConfigurationFile, ReadsTheNamedFile) {
  std::ofstream(path_) << R"({"monitoringSocketPath": "/run/m.sock"})";
  const auto result = readProviderConfiguration(path_);
  ASSERT_TRUE(result);
  ASSERT_TRUE(*result);
  EXPECT_EQ(std::get<std::string>((*result)->at("monitoringSocketPath")), "/run/m.sock");
}

TEST(ConfiguredLogLevel, IsThatOfTheKey) {
  const auto levelOf = [](const platform::ConfigurationValue& value) {
    return logLevelOf(ProviderConfiguration{{"logLevel", value}});
  };
  EXPECT_EQ(levelOf(std::string("error")), platform::LogLevel::error);
  EXPECT_EQ(levelOf(std::string("default")), platform::LogLevel::standard);
  EXPECT_EQ(levelOf(std::string("loud")), std::nullopt);
  EXPECT_EQ(levelOf(true), std::nullopt);
  EXPECT_EQ(logLevelOf(ProviderConfiguration{}), std::nullopt);
  EXPECT_EQ(logLevelOf(std::nullopt), std::nullopt);
}

}  // namespace
}  // namespace ostravel::linuxplatform
