#include "Extension/main/ConfigurationCheck.h"

#include <fstream>
#include <iterator>
#include <optional>
#include <variant>

#include "Base/JSONKeyPlaces.h"
#include "Extension/main/ConfigurationFile.h"

namespace ostravel::linuxplatform {

namespace {

constexpr std::string_view kSocketPathKey = "monitoringSocketPath";

std::optional<std::string> problemWithLogLevel(const platform::ConfigurationValue& value) {
  const auto* const name = std::get_if<std::string>(&value);
  if (name == nullptr || !platform::logLevelNamed(*name)) {
    return "must be \"debug\", \"info\", \"default\" or \"error\"; it has no effect";
  }
  return std::nullopt;
}

std::optional<std::string> problemWithSocketPath(const platform::ConfigurationValue& value) {
  const auto* const path = std::get_if<std::string>(&value);
  if (path == nullptr) {
    return "must be a text, such as \"/run/ostravel/monitoring.sock\"; no event is sent";
  }
  // The provider removes white space around the path.
  const auto begin = path->find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return "is empty, so no event is sent";
  }
  if ((*path)[begin] != '/') {
    return "is a relative path: where it leads depends on the folder in which the extension was "
           "started; write an absolute one";
  }
  return std::nullopt;
}

// What is wrong with the member, as a sentence without its subject.
std::optional<std::string> problemWith(std::string_view key,
                                       const platform::ConfigurationValue& value) {
  if (key == kSocketPathKey) {
    return problemWithSocketPath(value);
  }
  if (key == kLogLevelKey) {
    return problemWithLogLevel(value);
  }
  return "is unknown and has no effect; the keys are \"" + std::string(kSocketPathKey) +
         "\" and \"" + kLogLevelKey + "\"";
}

}  // namespace

std::vector<std::string> configurationWarnings(const platform::ProviderConfiguration& configuration,
                                               const std::string& path, std::string_view text) {
  const JSONKeyPlaces places(text);
  std::vector<std::string> warnings;
  for (const auto& [key, value] : configuration) {
    if (const auto problem = problemWith(key, value)) {
      warnings.push_back(path + places.of(key) + ": \"" + key + "\" " + *problem);
    }
  }
  return warnings;
}

std::vector<std::string> configurationWarnings(const platform::ProviderConfiguration& configuration,
                                               const std::string& path) {
  std::ifstream file(path);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  return file ? configurationWarnings(configuration, path, text) : std::vector<std::string>();
}

}  // namespace ostravel::linuxplatform
