#include "Companion/Monitor/EventReceiver.h"

#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

namespace ostravel::companion {
namespace {

using asio::local::stream_protocol;

stream_protocol::acceptor acceptorOn(asio::io_context& ioContext, int listeningDescriptor) {
  const int duplicate = ::fcntl(listeningDescriptor, F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0) {
    throw std::system_error(errno, std::generic_category());
  }
  return {ioContext, stream_protocol(), duplicate};
}

}  // namespace

EventReceiver::EventReceiver(asio::io_context& ioContext, int listeningDescriptor, EventSink event,
                             ProblemSink malformed, EventLimits limits)
    : sinks_{.event = std::move(event),
             .malformed = std::move(malformed),
             .closed = [this] { acceptLoop_.descriptorFreed(); }},
      acceptLoop_(acceptorOn(ioContext, listeningDescriptor),
                  [this, limits](stream_protocol::socket socket) {
                    std::make_shared<EventConnection>(std::move(socket), sinks_, limits)->start();
                  }) {
  acceptLoop_.start();
}

}  // namespace ostravel::companion
