#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Companion/Monitor/Web/LiveState.h"
#include "Companion/Shared/HostPort.h"

namespace ostravel::companion {

// Serves the live page, its data and the metrics over HTTP, read only. Bounded: kMostConnections
// are served at a time, the next ones wait in the kernel's backlog, and kMostPages of them can
// follow the updates; what a client leaves unread for some seconds ends its connection. On threads
// of its own. Owned by main.
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
    // An address, not a name. Port 0: the system chooses.
    HostPort listen;
    std::string token;
    bool hasApplicationMetrics = false;
  };

  // Listens from now on. Throws std::runtime_error with a readable reason when it cannot. `state`
  // must outlive this.
  WebServer(const LiveState& state, Options options);
  // Waits for the connections that are open, some seconds at most.
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // Where the page is, with the token.
  std::string url() const;

 private:
  class Server;
  const std::unique_ptr<Server> server_;
};

}  // namespace ostravel::companion
