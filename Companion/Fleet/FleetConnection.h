#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Companion/Fleet/FleetServer.h"
#include "Companion/Fleet/NATSHandle.h"

namespace ostravel::companion {

// The connection to the server of the fleet, which the library restores whenever it breaks. Owned
// by a publisher or a subscriber and used by its thread; no operation waits for the network.
class FleetConnection {
 public:
  // Throws std::runtime_error with a readable reason if the options are wrong.
  FleetConnection(const FleetServer& server, const std::string& name);

  // Call it periodically: starts to connect, and does so again if the library has given up, as it
  // does after a refusal.
  void maintain();

  bool isConnected() const;
  // Incremented with each new connection: earlier requests to the server must then be repeated.
  std::uint64_t generation() const;
  // Incremented when the library's object is replaced: objects that refer to it are then invalid.
  std::uint64_t object() const { return objects_; }
  // Null before the first call of maintain().
  natsConnection* get() const { return connection_.get(); }
  // Why it is not connected, as readable text.
  std::string problem() const;

 private:
  NATSOptions options_;
  NATSStatistics statistics_;
  NATSConnection connection_;
  std::uint64_t objects_ = 0;
  int failures_ = 0;
  std::chrono::steady_clock::time_point nextAttempt_;
  std::string lastProblem_;
};

// The stream that keeps the events of the fleet on the server.
constexpr const char* kFleetStream = "OSTRAVEL";

// Creates the stream if there is none. Waits for at most two seconds for each of the server's two
// answers. Returns the problem; empty if the stream exists.
std::string ensureFleetStream(natsConnection* connection);

}  // namespace ostravel::companion
