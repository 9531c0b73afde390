#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"
#include "Platform/Linux/Relay/LoopSocket.h"
#include "Platform/Linux/Relay/StreamReader.h"
#include "Platform/Linux/Relay/StreamRegistry.h"
#include "Platform/Linux/Relay/StreamState.h"
#include "Platform/Linux/Relay/StreamWriter.h"

namespace ostravel::linuxplatform {

class EventLoop;

// One side of a tunnel: the relay's reads and writes on one TCP socket. A member of the flow or
// connection that owns the socket; that owner is held by std::shared_ptr, and completions keep it
// alive while they run. Everything is for the loop's thread, except destruction, which resets a
// socket that was not closed: a truncated stream must not look complete. Outstanding operations
// then complete with ECANCELED on the loop.
//
// A read first waits and takes a buffer only when data has arrived, so that an idle stream owns
// none. A direction that keeps filling its buffer reads into pipes instead (splice(2)), and its
// bytes move to another socket without entering user space.
//
// Operations may be started before there is a socket; they wait for attach().
class StreamSocket {
 public:
  enum class Direction : std::uint8_t { read, write };

  using Owner = StreamState::Owner;

  // user: charged for the stream's resources; null if unknown. record: counts the stream's bytes;
  // outlives it; may be null.
  StreamSocket(EventLoop& loop, Owner& owner, std::shared_ptr<UserShare> user,
               FlowRecord* record = nullptr);
  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;
  ~StreamSocket();

  EventLoop& loop() const { return state_.loop; }
  const std::shared_ptr<UserShare>& user() const { return state_.user; }

  // socket is connected. Starts the waiting operations, and ends the directions that have already
  // been closed in order.
  void attach(LoopSocket socket);

  // As described by the platform interface.
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion);
  void write(platform::Data data, platform::ErrorCompletion completion);

  // Ends one direction in order; its outstanding operation completes with ECANCELED. Data that
  // arrives after reading was ended is discarded. When both directions have ended, the socket
  // lingers on the loop until the peer has received everything.
  void closeInOrder(Direction direction);
  bool isClosed(Direction direction) const {
    return direction == Direction::read ? reader_.isClosed() : writer_.isClosed();
  }

  // Ends both at once: outstanding and later operations complete with this error, and the peer sees
  // a reset.
  void fail(platform::Error error);

  // Destroys the completions of outstanding operations without running them. Called by the loop
  // once it has stopped.
  void dropCompletions();

 private:
  bool areBothClosed() const { return reader_.isClosed() && writer_.isClosed(); }
  void registerOnce();
  void sendEnd();
  void leaveToLinger();

  StreamState state_;
  StreamReader reader_{state_};
  StreamWriter writer_{state_};
  // Registered by the first operation.
  StreamRegistry::Place entry_ = StreamRegistry::kNone;
};

}  // namespace ostravel::linuxplatform
