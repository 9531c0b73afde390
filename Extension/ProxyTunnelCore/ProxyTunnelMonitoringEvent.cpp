#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"

#include <algorithm>
#include <utility>

namespace ostravel {

namespace {

// In the order of the enumeration.
constexpr std::array<std::string_view, ProxyTunnelMonitoringEvent::kCodingKeyCount> kRawValues = {
    "message_id", "timestamp", "logged_at", "type",    "current_signal", "flow_id",
    "component",  "level",     "code",      "message", "metrics",        "context"};

}  // namespace

std::string_view ProxyTunnelMonitoringEvent::rawValue(CodingKey key) {
  return kRawValues[static_cast<std::size_t>(key)];
}

std::optional<ProxyTunnelMonitoringEvent::CodingKey> ProxyTunnelMonitoringEvent::codingKey(
    std::string_view rawValue) {
  const auto* const found = std::find(kRawValues.begin(), kRawValues.end(), rawValue);
  if (found == kRawValues.end()) {
    return std::nullopt;
  }
  return static_cast<CodingKey>(found - kRawValues.begin());
}

ProxyTunnelMonitoringEvent::ProxyTunnelMonitoringEvent(
    platform::UUIDSource& uuidSource, std::string currentSignal, std::optional<std::string> flowID,
    std::string level, std::string code, std::string message, std::optional<Metrics> metrics,
    std::optional<Context> context, double timestamp, std::string loggedAt)
    : messageID_(uuidSource.randomUUID()),
      timestamp_(timestamp),
      loggedAt_(std::move(loggedAt)),
      currentSignal_(std::move(currentSignal)),
      flowID_(std::move(flowID)),
      level_(std::move(level)),
      code_(std::move(code)),
      message_(std::move(message)),
      metrics_(std::move(metrics)),
      context_(std::move(context)) {}

}  // namespace ostravel
