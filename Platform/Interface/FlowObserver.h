#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ostravel::platform {

// The rule that decides about a new flow.
enum class FlowRule : std::uint8_t {
  // Carried: no other rule applies.
  proxied,
  // Left to the system: the application, or the host, is on a built-in list; it is UDP to a host of
  // real-time media; the proxy is considered down; it leads to the local proxy itself.
  exemptApplication,
  exemptHost,
  realtimeMedia,
  gateClosed,
  localProxy,
  // UDP, refused so that the application falls back to TCP.
  refusedUDP,
};

// How a flow that the core decided to carry ended.
enum class FlowEnd : std::uint8_t {
  // After its tunnel was established: in order, or with an error.
  closed,
  failed,
  // Before its tunnel was established: the proxy's status was not 200; its answer was not HTTP; it
  // did not answer in time; too many handshakes were pending; it closed without an answer; the
  // request could not be sent to it; the connection to it failed otherwise.
  rejected,
  invalid,
  timedOut,
  backlog,
  noAnswer,
  requestFailed,
  connectionFailed,
  // Ended for another reason.
  abandoned,
};

// Receives the core's decisions about one flow, for statistics only. Created by a platform that
// keeps statistics and owned by the flow. Called on any thread; must not block.
class FlowObserver {
 public:
  FlowObserver() = default;
  FlowObserver(const FlowObserver&) = delete;
  FlowObserver& operator=(const FlowObserver&) = delete;
  virtual ~FlowObserver() = default;

  // Inside handleNewFlow.
  virtual void decided(FlowRule rule) = 0;
  // The identifier of the flow's tunnel, or of its rejection because of the backlog.
  virtual void identified(const std::string& flowID) = 0;
  // The proxy is connected and the request is sent.
  virtual void handshakeStarted() = 0;
  virtual void handshakeSucceeded() = 0;
  // May be called again while a flow is torn down; only the first call counts. detail: readable
  // text.
  virtual void ended(FlowEnd end, std::string_view detail) = 0;
};

}  // namespace ostravel::platform
