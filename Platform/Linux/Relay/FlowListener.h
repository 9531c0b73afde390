#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/LoopSocket.h"

namespace ostravel::linuxplatform {

// Where the connections of released flows arrive: a listener on the loopback address of each
// family. The kernel redirects them with the application's own address kept, by which, together
// with where they were going, they are matched with the flow that waits for them; a connection that
// nobody waits for, or that was not redirected, is reset.
//
// Owned by its event loop. Everything except the ports is for the loop's thread.
class FlowListener {
 public:
  // A flow whose first packet is being released.
  class Waiter {
   public:
    Waiter() = default;
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    virtual ~Waiter() = default;

    virtual const FlowTuple& tuple() const = 0;
    // Two waiters of one application and one destination may be given each other's connection.
    virtual const std::string& application() const = 0;

    // One of the two is called, once, on the loop.
    virtual void accepted(LoopSocket socket) = 0;
    // The connection did not arrive within limits::kAcceptTimeout.
    virtual void gaveUp() = 0;
  };

  // Throws std::system_error when there is no listener for IPv4.
  explicit FlowListener(EventLoop& loop);
  FlowListener(const FlowListener&) = delete;
  FlowListener& operator=(const FlowListener&) = delete;
  ~FlowListener();

  std::uint16_t ipv4Port() const { return ipv4_.port; }
  // 0 when the network namespace has no IPv6: then only flows over IPv4 can be accepted.
  std::uint16_t ipv6Port() const { return ipv6_.port; }

  // Call it before the packet goes on. A waiter that is destroyed waits no more.
  void expect(const std::shared_ptr<Waiter>& waiter);
  // Keeps a waiter that is expected alive until it was called.
  void keep(const std::shared_ptr<Waiter>& waiter);

  std::size_t expectedCount() const { return expected_.size(); }

 private:
  struct Socket {
    explicit Socket(EventLoop& loop) : pause(loop.context()) {}

    LoopSocket socket;
    std::uint16_t port = 0;
    EventLoop::Timer pause;
  };
  enum class Backlog : std::uint8_t {
    // Accepted, as far as one turn goes.
    taken,
    // Descriptors or memory are lacking.
    stuck,
  };
  struct Expectation {
    // In the order of arrival.
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
  void rest(Socket& listener);
  void acceptSome(Socket& listener);
  Backlog acceptArrived(Socket& listener);
  void handOver(int descriptor, const SocketEndpoint& peer);
  std::shared_ptr<Waiter> take(int descriptor, const SocketEndpoint& peer);
  Expected::iterator find(const SocketEndpoint& peer, const SocketEndpoint& destination);
  Expected::iterator findRenumbered(const SocketEndpoint& peer, const SocketEndpoint& destination);
  Expected::iterator find(const Deadline& deadline);
  void waitForDeadline();
  void expire();

  EventLoop& loop_;
  Socket ipv4_;
  Socket ipv6_;
  Expected expected_;
  std::deque<Deadline> deadlines_;
  std::uint64_t lastNumber_ = 0;
  EventLoop::Timer deadlineTimer_;
  bool isWaitingForDeadline_ = false;
};

}  // namespace ostravel::linuxplatform
