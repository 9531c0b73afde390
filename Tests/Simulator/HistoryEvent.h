#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/Interface/Error.h"

namespace ostravel::simulator {

// What the provider is expected to do with a flow while the safety gate is open.
enum class Expectation : std::uint8_t {
  // The system handles the flow.
  leave,
  // UDP is taken and closed.
  drop,
  // TCP is taken and carried through the proxy.
  carry,
};

// A flow as it is offered.
struct OfferedFlow {
  std::string identifier;
  // Both absent when the flow has no endpoint of a host and a port.
  bool hasEndpoint = true;
  std::string host;
  std::string port;
  Expectation expectation = Expectation::carry;
};

// The events that can be observed at the seam. "Done" is the completion of the operation before it.
enum class HistoryKind : std::uint8_t {
  // The system and its provider.
  providerMade,
  providerStarted,  // number: 1 if there is a monitor to be notified
  providerStopped,  // the same
  providerReleased,
  flowOffered,   // offered
  flowAnswered,  // number: 1 taken, 0 left to the system
  // The flow, by its number.
  flowOpen,
  flowOpenDone,  // error
  flowRead,
  flowReadDone,    // bytes, or error, or the end without either
  flowWrite,       // bytes
  flowWriteDone,   // error
  flowCloseRead,   // error
  flowCloseWrite,  // error
  flowDestroyed,
  // Its connection.
  connectionMade,
  observerAdded,
  observerReady,  // number: the state, when the system knows that it observes
  observerRemoved,
  stateNotified,        // number: the state; error: the connection's
  connectionRead,       // number: the maximum
  connectionReadDone,   // bytes, or error, or the end without either
  connectionWrite,      // bytes
  connectionWriteDone,  // error
  connectionCancel,
  connectionDestroyed,
  // Its watchdog.
  timeoutFired,
  // The rest of the surroundings.
  probeDone,      // number: 1 reachable
  eventReceived,  // bytes: the JSON text of a monitoring event
  logLine,        // bytes
  // The run itself.
  preempted,  // another item runs inside the one that is running
  stepDone,   // nothing is running
};

std::string_view nameOf(HistoryKind kind);

// One thing that happened. Its texts are valid during the call only.
struct HistoryEvent {
  HistoryKind kind;
  // From one on; zero when it concerns no flow.
  std::uint32_t flow = 0;
  std::uint64_t number = 0;
  std::string_view bytes = {};
  const platform::Error* error = nullptr;
  const OfferedFlow* offered = nullptr;
};

// One line for people, without the time.
std::string describe(const HistoryEvent& event);

}  // namespace ostravel::simulator
