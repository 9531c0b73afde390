#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Companion/Fleet/FleetServer.h"
#include "Companion/Fleet/NATSHandle.h"

namespace ostravel::companion {

// The connection to the server of the fleet, which the library restores whenever it breaks. Owned
// by a publisher or a subscriber and used by its thread; nothing here waits for the network.
class FleetConnection {
 public:
  // Throws std::runtime_error with a readable reason when the options are wrong.
  FleetConnection(const FleetServer& server, const std::string& name);

  // To be called now and then: starts to connect, again when the library has given up, which it
  // does when it is refused.
  void maintain();

  bool isConnected() const;
  // Grows with each new connection: what the server was asked before has to be asked again.
  std::uint64_t generation() const;
  // Grows when the object of the library is replaced: what refers to it is of no use any more.
  std::uint64_t object() const { return objects_; }
  // None before the first call of maintain().
  natsConnection* get() const { return connection_.get(); }
  // Why it is not connected, for people.
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

// Makes the stream when there is none. Waits for the server, two seconds at most. Returns what is
// wrong; nothing if it is there.
std::string ensureFleetStream(natsConnection* connection);

}  // namespace ostravel::companion
