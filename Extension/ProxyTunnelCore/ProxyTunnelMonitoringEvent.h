#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Interface/UUIDSource.h"

namespace ostravel {

// One event, as reported to the monitoring socket. Immutable.
class ProxyTunnelMonitoringEvent {
 public:
  using Metrics = std::map<std::string, double>;
  using Context = std::map<std::string, std::string>;

  // The keys of the JSON form.
  enum class CodingKey {
    messageID,
    timestamp,
    loggedAt,
    type,
    currentSignal,
    flowID,
    component,
    level,
    code,
    message,
    metrics,
    context,
  };
  static constexpr std::size_t kCodingKeyCount = 12;

  static std::string_view rawValue(CodingKey key);
  // Absent if the string is not one of the twelve keys.
  static std::optional<CodingKey> codingKey(std::string_view rawValue);

  // timestamp is in seconds since 1970; loggedAt is the same time as an internet date-time. The
  // constructor sets the message id, the type and the component.
  ProxyTunnelMonitoringEvent(platform::UUIDSource& uuidSource, std::string currentSignal,
                             std::optional<std::string> flowID, std::string level, std::string code,
                             std::string message, std::optional<Metrics> metrics,
                             std::optional<Context> context, double timestamp,
                             std::string loggedAt);

  const std::string& messageID() const { return messageID_; }
  double timestamp() const { return timestamp_; }
  const std::string& loggedAt() const { return loggedAt_; }
  const std::string& type() const { return type_; }
  const std::string& currentSignal() const { return currentSignal_; }
  const std::optional<std::string>& flowID() const { return flowID_; }
  const std::string& component() const { return component_; }
  const std::string& level() const { return level_; }
  const std::string& code() const { return code_; }
  const std::string& message() const { return message_; }
  const std::optional<Metrics>& metrics() const { return metrics_; }
  const std::optional<Context>& context() const { return context_; }

 private:
  std::string messageID_;
  double timestamp_;
  std::string loggedAt_;
  std::string type_ = "extension_proxy_event";
  std::string currentSignal_;
  std::optional<std::string> flowID_;
  std::string component_ = "network_extension";
  std::string level_;
  std::string code_;
  std::string message_;
  std::optional<Metrics> metrics_;
  std::optional<Context> context_;
};

}  // namespace ostravel
