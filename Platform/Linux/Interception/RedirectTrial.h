#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Relay/FlowListener.h"
#include "Platform/Linux/Relay/LoopSocket.h"

namespace ostravel::linuxplatform {

class EventLoop;

// One connection of our own that takes the way of a released flow: marked for this loop, it is
// redirected to the loop's listener, if nothing prevents it. Everything happens on the loop; it
// owns itself until it has ended.
class RedirectTrial final : public std::enable_shared_from_this<RedirectTrial>,
                            private FlowListener::Waiter {
 public:
  enum class Outcome : std::uint8_t {
    arrived,
    refused,
    // Neither an answer nor a connection within limits::kAcceptTimeout.
    unanswered,
    // The connection was made with somebody else.
    arrivedElsewhere,
    // There is no such source address (any more), or not yet.
    noSource,
    // Something was lacking for trying it.
    notTried,
  };
  using Completion = std::function<void(Outcome)>;

  // source has the port 0; destination is one that the interception selects. The completion runs
  // once, on the loop, perhaps inside the call.
  static void start(EventLoop& loop, const SocketEndpoint& source,
                    const SocketEndpoint& destination, Completion completion);

  // Only for start().
  RedirectTrial(EventLoop& loop, Completion completion);

 private:
  Outcome connect(const SocketEndpoint& source, const SocketEndpoint& destination);
  void waitUntilConnected();
  void finish(Outcome outcome);

  const FlowTuple& tuple() const override { return tuple_; }
  const std::string& application() const override { return application_; }
  void accepted(LoopSocket socket) override;
  void gaveUp() override;

  EventLoop& loop_;
  Completion completion_;
  FlowTuple tuple_;
  // None has this name, so that no flow is given our connection.
  const std::string application_ = "redirect trial";
  LoopSocket socket_;
  bool isConnected_ = false;
};

}  // namespace ostravel::linuxplatform
