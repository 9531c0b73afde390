#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <functional>
#include <string_view>

#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/EventConnection.h"
#include "Companion/Shared/AcceptLoop.h"

namespace ostravel::companion {

// Receives events, each over its own connection and any number at once, so that a slow sender
// delays only its own event. Outlives the run of its io_context.
class EventReceiver {
 public:
  using EventSink = std::function<void(const ReceivedEvent&)>;
  using ProblemSink = std::function<void(std::string_view problem)>;

  // Uses a duplicate of `listeningDescriptor`, which remains the caller's. Throws std::system_error
  // if it cannot be duplicated.
  EventReceiver(asio::io_context& ioContext, int listeningDescriptor, EventSink event,
                ProblemSink malformed, EventLimits limits = {});

 private:
  EventSinks sinks_;
  AcceptLoop<asio::local::stream_protocol> acceptLoop_;
};

}  // namespace ostravel::companion
