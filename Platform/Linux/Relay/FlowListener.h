#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/LoopSocket.h"
#include "Platform/Linux/Relay/LoopTimer.h"

namespace ostravel::linuxplatform {

// Accepts the connections of released flows: a listener on the loopback address of each family. The
// kernel redirects them with the application's source address preserved; this address and the
// original destination identify the flow that waits for the connection. A connection that no flow
// waits for, or that was not redirected, is reset.
//
// Owned by its event loop. Everything except the ports and the
// filter is for the loop's thread.
class FlowListener {
 public:
  // A flow whose first packet is being released.
  class Waiter {
   public:
    Waiter() = default;
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    virtual ~Waiter() = default;

    virtual FlowTuple tuple() const = 0;
    // Waiters with the same application and destination may receive each other's connections.
    virtual const std::string& application() const = 0;

    // Exactly one of the following is called, once, on the loop.
    virtual void accepted(LoopSocket socket) = 0;
    // The connection did not arrive within limits::kAcceptTimeout.
    virtual void timedOut() = 0;
  };

  // Throws std::system_error if there is no listener for IPv4.
  explicit FlowListener(EventLoop& loop);
  FlowListener(const FlowListener&) = delete;
  FlowListener& operator=(const FlowListener&) = delete;
  ~FlowListener();

  std::uint16_t ipv4Port() const { return ipv4_.port; }
  // 0 if the network namespace has no IPv6: then only IPv4 flows can be accepted.
  std::uint16_t ipv6Port() const { return ipv6_.port; }

  // Filters what arrives at the listeners and the connections that they accept from now on.
  // program: a descriptor (SO_ATTACH_BPF in socket(7)). From any thread; a failure is ignored.
  void setFilter(int program);

  // Call it before releasing the packet. Destroying a waiter cancels its wait.
  void expect(const std::shared_ptr<Waiter>& waiter);
  // Accepts one connection if one has arrived, without waiting. Call it right after a release: over
  // the loopback interface the connection has nearly always arrived by then.
  void acceptReleased(AddressFamily family);
  // Keeps an expected waiter alive until it has been called.
  void keep(const std::shared_ptr<Waiter>& waiter);

 private:
  struct Socket {
    explicit Socket(EventLoop& loop) : pause(loop.timers()) {}

    LoopSocket socket;
    std::uint16_t port = 0;
    LoopTimer pause;
  };
  enum class Accepted : std::uint8_t {
    // One connection was taken from the backlog; it may already have failed (accept(2)).
    one,
    none,
    // Out of descriptors or memory: the connection stays in the backlog.
    stuck,
  };
  struct Expectation {
    // Order of expect() calls.
    std::uint64_t number = 0;
    std::weak_ptr<Waiter> waiter;
    std::shared_ptr<Waiter> kept;
  };
  struct Deadline {
    std::chrono::steady_clock::time_point time;
    SocketEndpoint source;
    std::uint64_t number = 0;
  };
  // By source; applications share a source port when their destinations differ.
  using Expected = std::unordered_multimap<SocketEndpoint, Expectation, SocketEndpointHash>;

  void open(Socket& listener, const SocketEndpoint& address);
  void waitForConnections(Socket& listener);
  void pauseAccepting(Socket& listener);
  void acceptSome(Socket& listener);
  Accepted acceptOne(Socket& listener);
  // As many as one turn allows. Returns the last result.
  Accepted acceptArrived(Socket& listener);
  void reportStuck(AddressFamily family, int error);
  // peer: empty if the kernel does not say whose connection it is.
  void handOver(FileDescriptor connection, const std::optional<SocketEndpoint>& peer);
  std::shared_ptr<Waiter> take(int descriptor, const SocketEndpoint& peer);
  Expected::iterator find(const SocketEndpoint& peer, const SocketEndpoint& destination);
  Expected::iterator findRenumbered(const SocketEndpoint& peer, const SocketEndpoint& destination);
  Expected::iterator find(const Deadline& deadline);
  // Those of connections that have arrived, as far as no other one is before them.
  void forgetDeadlines();
  void waitForDeadline();
  void expire();

  EventLoop& loop_;
  Socket ipv4_;
  Socket ipv6_;
  Expected expected_;
  std::deque<Deadline> deadlines_;
  std::uint64_t lastNumber_ = 0;
  LoopTimer deadlineTimer_;
  bool isWaitingForDeadline_ = false;
};

}  // namespace ostravel::linuxplatform
