#include "Companion/Monitor/EventConnection.h"

#include <utility>
#include <variant>

namespace ostravel::companion {

EventConnection::EventConnection(Socket socket, const EventSinks& sinks, EventLimits limits)
    : socket_(std::move(socket)),
      sinks_(sinks),
      limits_(limits),
      deadline_(socket_.get_executor()) {}

void EventConnection::start() {
  limit(limits_.frame);
  read();
}

void EventConnection::read() {
  socket_.async_read_some(asio::buffer(bytes_),
                          [self = shared_from_this()](asio::error_code error, std::size_t size) {
                            if (!self->socket_.is_open()) {
                              return;
                            }
                            if (!error) {
                              self->received(std::string_view(self->bytes_.data(), size));
                            } else if (self->frame_.finish() == EventFrameReader::State::complete) {
                              self->deliver();
                            } else {
                              self->reject(self->frame_.problem());
                            }
                          });
}

void EventConnection::received(std::string_view bytes) {
  switch (frame_.consume(bytes)) {
    case EventFrameReader::State::malformed:
      reject(frame_.problem());
      return;
    case EventFrameReader::State::complete:
      limit(limits_.end);
      break;
    case EventFrameReader::State::incomplete:
      break;
  }
  read();
}

void EventConnection::limit(std::chrono::milliseconds time) {
  deadline_.expires_after(time);
  deadline_.async_wait([self = shared_from_this(), expiry = deadline_.expiry()](asio::error_code) {
    // Tests the expiry instead of the error: a timer that has already fired cannot be cancelled.
    if (self->socket_.is_open() && expiry == self->deadline_.expiry()) {
      self->expired();
    }
  });
}

void EventConnection::expired() {
  if (frame_.state() == EventFrameReader::State::complete) {
    deliver();
    return;
  }
  reject("the connection stalled before its frame was complete");
}

void EventConnection::deliver() {
  close();
  const std::variant<ReceivedEvent, std::string> parsed = parseReceivedEvent(frame_.body());
  if (const ReceivedEvent* event = std::get_if<ReceivedEvent>(&parsed)) {
    sinks_.event(*event);
    return;
  }
  sinks_.malformed(std::get<std::string>(parsed));
}

void EventConnection::reject(std::string_view problem) {
  close();
  sinks_.malformed(problem);
}

void EventConnection::close() {
  asio::error_code ignored;
  socket_.close(ignored);
  deadline_.cancel();
  sinks_.closed();
}

}  // namespace ostravel::companion
