#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Control/ControlRequest.h"
#include "Platform/Linux/Control/PeerAccess.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"

namespace ostravel::linuxplatform {

// Serves the control socket on a separate thread: reads one line from each connection, calls the
// handler, writes its answer and closes. The number of connections, the size of a request and the
// time for both directions are limited, and a client that stalls delays no other. Owned by the
// process entry.
class ControlServer {
 public:
  // Returns the answer's line. Called on the server's thread.
  using Handler = std::function<std::string(const ControlRequest&, const PeerAccess&)>;

  struct Limits {
    std::size_t connections = 16;
    // Limit for each user other than root.
    std::size_t connectionsPerUser = 8;
    std::chrono::milliseconds requestTime{2000};
    std::chrono::milliseconds answerTime{5000};
  };

  // listener: a nonblocking listening socket; outlives this object. group: its members may read.
  // Throws std::system_error if the thread cannot be created.
  ControlServer(int listener, std::optional<gid_t> group, Handler handler)
      : ControlServer(listener, group, std::move(handler), Limits()) {}
  ControlServer(int listener, std::optional<gid_t> group, Handler handler, const Limits& limits);
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  // Closes all connections once a running handler has returned.
  ~ControlServer();

 private:
  using Clock = std::chrono::steady_clock;

  struct Connection {
    FileDescriptor socket;
    PeerAccess peer;
    Clock::time_point deadline;
    std::string request = {};
    // Empty until the request is complete.
    std::string answer = {};
    std::size_t sent = 0;
  };

  void run();
  int timeout() const;
  void acceptAll();
  void accept(FileDescriptor socket);
  bool hasRoomFor(const PeerAccess& peer) const;
  // False once the connection is done.
  bool proceed(Connection& connection);
  bool receive(Connection& connection);
  bool send(Connection& connection);
  std::string answerTo(const std::string& line, const PeerAccess& peer) const;

  const int listener_;
  const std::optional<gid_t> group_;
  const Handler handler_;
  const Limits limits_;
  std::list<Connection> connections_;
  // Set after accepting has failed for lack of descriptors.
  std::optional<Clock::time_point> pausedUntil_;
  EventDescriptor stop_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
