#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"
#include "Platform/Interface/Platform.h"

namespace ostravel {

enum class MonitoringLevel { info, error };

// The name of a level in an event.
std::string_view rawValue(MonitoringLevel level);

// The values that all events of one kind share.
struct MonitoringEventKind {
  std::string_view signal;
  std::string_view code;
  MonitoringLevel level;
  std::string_view message;
};

// An event of this kind that happens now. It has no flow id, metrics or context unless given.
ProxyTunnelMonitoringEvent makeMonitoringEvent(
    platform::Platform& platform, const MonitoringEventKind& kind,
    std::optional<std::string> flowID, std::optional<ProxyTunnelMonitoringEvent::Context> context,
    std::optional<ProxyTunnelMonitoringEvent::Metrics> metrics);

// Every kind of event that the system emits. Receivers depend on the signals and codes, so they
// never change, even where the two differ.
namespace monitoring_events {

// The provider.
inline constexpr MonitoringEventKind kProviderStarted{
    "provider_started", "extension.provider_started", MonitoringLevel::info,
    "Transparent proxy provider started"};
inline constexpr MonitoringEventKind kProviderStopped{
    "provider_stopped", "extension.provider_stopped", MonitoringLevel::info,
    "Transparent proxy provider stopped"};
inline constexpr MonitoringEventKind kProxyUnreachable{
    "proxy_unreachable", "extension.proxy_unreachable", MonitoringLevel::error,
    "Local proxy is unreachable; transparent proxy is bypassing new flows"};
inline constexpr MonitoringEventKind kProxyRecovered{
    "proxy_recovered", "extension.proxy_recovered", MonitoringLevel::info,
    "Local proxy recovered; transparent proxy can handle new flows"};
inline constexpr MonitoringEventKind kHandshakeBacklogExceeded{
    "connect_handshake_rejected", "extension.connect_handshake_backlog_exceeded",
    MonitoringLevel::error, "Rejected flow due to CONNECT handshake backlog"};

// A tunnel's handshake.
inline constexpr MonitoringEventKind kHandshakeStarted{
    "connect_handshake_started", "extension.connect_handshake_started", MonitoringLevel::info,
    "Starting CONNECT handshake"};
inline constexpr MonitoringEventKind kHandshakeWriteFailed{
    "connect_handshake_write_failed", "extension.connect_handshake_write_failed",
    MonitoringLevel::error, "Failed to write CONNECT handshake"};
inline constexpr MonitoringEventKind kHandshakeReadFailed{
    "connect_handshake_read_failed", "extension.connect_handshake_read_failed",
    MonitoringLevel::error, "Failed to read CONNECT response"};
inline constexpr MonitoringEventKind kHandshakeInvalid{
    "connect_handshake_invalid", "extension.connect_handshake_invalid", MonitoringLevel::error,
    "CONNECT handshake response was invalid"};
inline constexpr MonitoringEventKind kHandshakeRejected{
    "connect_handshake_rejected", "extension.connect_handshake_non_200", MonitoringLevel::error,
    "CONNECT handshake failed with non-200 status"};
inline constexpr MonitoringEventKind kHandshakeSucceeded{
    "connect_handshake_succeeded", "extension.connect_handshake_succeeded", MonitoringLevel::info,
    "CONNECT handshake completed"};
inline constexpr MonitoringEventKind kLeftoverWriteFailed{
    "connect_handshake_leftover_write_failed", "extension.connect_handshake_leftover_write_failed",
    MonitoringLevel::error, "Failed to forward CONNECT leftover bytes"};
inline constexpr MonitoringEventKind kHandshakeTimedOut{
    "connect_handshake_timed_out", "extension.connect_handshake_timed_out", MonitoringLevel::error,
    "CONNECT handshake timed out"};

// The end of a tunnel.
inline constexpr MonitoringEventKind kTunnelClosed{"tunnel_closed", "extension.tunnel_closed",
                                                   MonitoringLevel::info, "Tunnel closed"};
inline constexpr MonitoringEventKind kTunnelClosedWithError{
    "tunnel_closed", "extension.tunnel_closed", MonitoringLevel::error, "Tunnel closed with error"};

}  // namespace monitoring_events

}  // namespace ostravel
