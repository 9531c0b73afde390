#include "Extension/ProxyTunnelCore/MonitoringEventKind.h"

#include <utility>

#include "Extension/ProxyTunnelCore/InternetDateTime.h"

namespace ostravel {

std::string_view rawValue(MonitoringLevel level) {
  return level == MonitoringLevel::error ? "error" : "info";
}

ProxyTunnelMonitoringEvent makeMonitoringEvent(
    platform::Platform& platform, const MonitoringEventKind& kind,
    std::optional<std::string> flowID, std::optional<ProxyTunnelMonitoringEvent::Context> context,
    std::optional<ProxyTunnelMonitoringEvent::Metrics> metrics) {
  const platform::Clock& clock = platform.clock();
  return {platform.uuidSource(),    std::string(kind.signal),
          std::move(flowID),        std::string(rawValue(kind.level)),
          std::string(kind.code),   std::string(kind.message),
          std::move(metrics),       std::move(context),
          clock.secondsSince1970(), internetDateTime(clock.secondsSince1970())};
}

}  // namespace ostravel
