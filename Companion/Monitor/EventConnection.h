#pragma once

#include <array>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/EventFrameReader.h"

namespace ostravel::companion {

// How long a connection may take. Tests shorten them.
struct EventLimits {
  // For the complete frame, which a sender writes at once.
  std::chrono::milliseconds frame = std::chrono::seconds(10);
  // For the end of the stream after a complete frame. The event of a sender that does not close is
  // still shown soon, and a sender that adds bytes is still detected.
  std::chrono::milliseconds end = std::chrono::milliseconds(250);
};

// Receives the events and the reports of malformed frames. Outlives the io_context's run.
struct EventSinks {
  std::function<void(const ReceivedEvent&)> event;
  std::function<void(std::string_view problem)> malformed;
  std::function<void()> closed;  // a descriptor is free again
};

// Reads the one event of one connection. Kept alive by its own outstanding read; runs on the
// io_context's thread. Reports exactly once: the event or its problem.
class EventConnection : public std::enable_shared_from_this<EventConnection> {
 public:
  using Socket = asio::local::stream_protocol::socket;

  EventConnection(Socket socket, const EventSinks& sinks, EventLimits limits);

  void start();

 private:
  void read();
  void received(std::string_view bytes);
  void limit(std::chrono::milliseconds time);
  void expired();
  void deliver();
  void reject(std::string_view problem);
  void close();

  Socket socket_;
  const EventSinks& sinks_;
  EventLimits limits_;
  asio::steady_timer deadline_;
  EventFrameReader frame_;
  std::array<char, 16 * 1024> bytes_;
};

}  // namespace ostravel::companion
