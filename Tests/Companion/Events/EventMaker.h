#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Companion/Events/ReceivedEvent.h"

namespace ostravel::companion::test {

inline constexpr double kNoon = 1763294400.0;

// An event of a flow, at a time after kNoon.
inline ReceivedEvent flowEvent(const std::string& flowId, const std::string& signal,
                               double seconds = 0.0,
                               std::vector<std::pair<std::string, std::string>> details = {},
                               const std::string& level = "info") {
  ReceivedEvent event;
  event.timestamp = kNoon + seconds;
  event.level = level;
  event.signal = signal;
  event.code = "extension." + signal;
  event.message = "Sentence";
  event.flowId = flowId;
  event.appId = "/usr/bin/curl";
  event.details = std::move(details);
  event.json = "{\"flow_id\":\"" + flowId + "\"}";
  return event;
}

inline ReceivedEvent started(const std::string& flowId, double seconds = 0.0,
                             const std::string& remote = "example.org:443") {
  return flowEvent(flowId, "connect_handshake_started", seconds, {{"remote", remote}});
}

inline ReceivedEvent succeeded(const std::string& flowId, double seconds,
                               const std::string& elapsed = "1.5") {
  return flowEvent(flowId, "connect_handshake_succeeded", seconds, {{"elapsed_ms", elapsed}});
}

inline ReceivedEvent refused(const std::string& flowId, double seconds) {
  return flowEvent(flowId, "connect_handshake_rejected", seconds,
                   {{"status_line", "HTTP/1.1 403 Forbidden"}}, "error");
}

inline ReceivedEvent timedOut(const std::string& flowId, double seconds) {
  return flowEvent(flowId, "connect_handshake_timed_out", seconds, {{"timeout_seconds", "5"}},
                   "error");
}

inline ReceivedEvent closed(const std::string& flowId, double seconds) {
  return flowEvent(flowId, "tunnel_closed", seconds, {{"detail", "eof"}});
}

inline ReceivedEvent closedWithError(const std::string& flowId, double seconds,
                                     const std::string& detail = "Connection reset by peer") {
  return flowEvent(flowId, "tunnel_closed", seconds, {{"detail", detail}}, "error");
}

inline ReceivedEvent proxyEvent(const std::string& signal, double seconds) {
  ReceivedEvent event = flowEvent("", signal, seconds, {{"proxy", "127.0.0.1:8080"}},
                                  signal == "proxy_unreachable" ? "error" : "info");
  event.appId = "";
  return event;
}

}  // namespace ostravel::companion::test
