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

// One connection of our own that takes the path of a released flow: marked for this loop, it should
// be redirected to the loop's listener. Everything happens on the loop; the trial keeps itself
// alive until it has ended.
class RedirectTrial final : public std::enable_shared_from_this<RedirectTrial>,
                            private FlowListener::Waiter {
 public:
  enum class Outcome : std::uint8_t {
    arrived,
    refused,
    // Neither an answer nor a connection within limits::kAcceptTimeout.
    unanswered,
    // The connection was made to another listener.
    arrivedElsewhere,
    // The source address does not exist, yet or any more.
    noSource,
    // The trial could not be made.
    notTried,
  };
  using Completion = std::function<void(Outcome)>;

  // The port of source is 0; interception selects destination. The completion runs once, on the
  // loop, possibly inside the call.
  static void start(EventLoop& loop, const SocketEndpoint& source,
                    const SocketEndpoint& destination, Completion completion);

  // Only for start().
  RedirectTrial(EventLoop& loop, Completion completion);

 private:
  Outcome connect(const SocketEndpoint& source, const SocketEndpoint& destination);
  void waitUntilConnected();
  void finish(Outcome outcome);

  FlowTuple tuple() const override { return tuple_; }
  const std::string& application() const override { return application_; }
  void accepted(LoopSocket socket) override;
  void timedOut() override;

  EventLoop& loop_;
  Completion completion_;
  FlowTuple tuple_;
  // No application has this name, so no flow receives our connection.
  const std::string application_ = "redirect trial";
  LoopSocket socket_;
  bool isConnected_ = false;
};

}  // namespace ostravel::linuxplatform
