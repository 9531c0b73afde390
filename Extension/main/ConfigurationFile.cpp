#include "Extension/main/ConfigurationFile.h"

#include <jansson.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>
#include <variant>

#include "Base/JSONHandle.h"
#include "Platform/Interface/ProviderError.h"

namespace ostravel::linuxplatform {

using platform::ConfigurationValue;
using platform::Error;
using platform::OtherConfigurationValue;
using platform::ProviderConfiguration;
using platform::Result;

namespace {

struct FileRelease {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// With the errno of the call that failed.
Error unreadable(const std::string& path) {
  const int error = errno;
  return platform::systemCallError(error, path + ": cannot be read");
}

ConfigurationValue convert(const json_t* value) {
  switch (json_typeof(value)) {
    case JSON_STRING:
      return std::string(json_string_value(value), json_string_length(value));
    case JSON_INTEGER:
      return std::int64_t{json_integer_value(value)};
    case JSON_REAL:
      return json_real_value(value);
    case JSON_TRUE:
      return true;
    case JSON_FALSE:
      return false;
    case JSON_NULL:
    case JSON_ARRAY:
    case JSON_OBJECT:
      break;
  }
  return OtherConfigurationValue{};
}

}  // namespace

Result<ProviderConfiguration> readConfigurationFile(const std::string& path) {
  const std::unique_ptr<std::FILE, FileRelease> file(std::fopen(path.c_str(), "re"));
  if (!file) {
    return unreadable(path);
  }
  json_error_t failure{};
  constexpr std::size_t kFlags = JSON_REJECT_DUPLICATES | JSON_DECODE_ANY;
  const JSONHandle document(json_loadf(file.get(), kFlags, &failure));
  if (std::ferror(file.get()) != 0) {
    return unreadable(path);
  }
  if (!document) {
    return platform::providerError(platform::kInvalidConfigurationCode,
                                   path + ":" + std::to_string(failure.line) + ":" +
                                       std::to_string(failure.column) + ": " + failure.text);
  }
  if (!json_is_object(document.get())) {
    return platform::providerError(platform::kInvalidConfigurationCode,
                                   path + ":1:1: the configuration must be a JSON object");
  }
  ProviderConfiguration configuration;
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(document.get(), key, value) {
    configuration.emplace(key, convert(value));
  }
  return configuration;
}

Result<std::optional<ProviderConfiguration>> readProviderConfiguration(
    const std::optional<std::string>& path) {
  if (!path && ::access(kDefaultConfigurationPath, F_OK) != 0 && errno == ENOENT) {
    return std::optional<ProviderConfiguration>();
  }
  auto read = readConfigurationFile(path.value_or(kDefaultConfigurationPath));
  if (!read) {
    return std::move(read).error();
  }
  return std::optional(*std::move(read));
}

std::optional<platform::LogLevel> logLevelOf(
    const std::optional<ProviderConfiguration>& configuration) {
  if (!configuration || !configuration->contains(kLogLevelKey)) {
    return std::nullopt;
  }
  const auto* const name = std::get_if<std::string>(&configuration->at(kLogLevelKey));
  return name == nullptr ? std::nullopt : platform::logLevelNamed(*name);
}

}  // namespace ostravel::linuxplatform
