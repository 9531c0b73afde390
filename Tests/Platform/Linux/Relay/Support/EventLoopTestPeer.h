#pragma once

#include <cstddef>

#include "Platform/Linux/Relay/EventLoop.h"

namespace ostravel::linuxplatform {

// What the tests of an event loop cannot see from outside.
class EventLoopTestPeer {
 public:
  // From any thread: stop() has been called.
  static bool isStopping(const EventLoop& loop) { return loop.isStopping_; }

  // What its pools keep for reuse; on the loop's thread.
  static std::size_t keptBuffers(const EventLoop& loop) { return loop.buffers_.kept_.size(); }
  static std::size_t keptPipes(const EventLoop& loop) { return loop.pipes_.kept_.size(); }
};

}  // namespace ostravel::linuxplatform
