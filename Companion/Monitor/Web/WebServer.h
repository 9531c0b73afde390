#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Companion/Monitor/Web/LiveState.h"
#include "Companion/Shared/HostPort.h"

namespace ostravel::companion {

// Serves the live page, its data and the metrics over HTTP, read-only. Bounded: kMostConnections
// are served at a time, further ones wait in the kernel's backlog, and kMostPages of them can
// follow the updates; a client that does not read for a few seconds is disconnected. Has its own
// threads. Owned by main.
//
//   /            the page; its files beside it
//   /api/state   all that the page shows
//   /api/updates what changes, as server-sent events, once a second
//   /api/flow    the life of one flow
//   /metrics     for Prometheus
class WebServer {
 public:
  static constexpr std::size_t kMostConnections = 24;
  static constexpr std::size_t kMostPages = 16;

  struct Options {
    // An address literal. Port 0 lets the system choose.
    HostPort listen;
    // A socket that listens there already, and now belongs to the server; or none.
    std::optional<int> listener = std::nullopt;
    std::string token;
    bool hasApplicationMetrics = false;
  };

  // Starts to listen. Throws std::runtime_error with a readable reason if it cannot. `state`
  // outlives this object.
  WebServer(const LiveState& state, Options options);
  // Waits for open connections for at most a few seconds.
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // The address of the page, with the token.
  std::string url() const;

 private:
  class Server;
  const std::unique_ptr<Server> server_;
};

}  // namespace ostravel::companion
