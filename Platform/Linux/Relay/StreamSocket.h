#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"
#include "Platform/Linux/Relay/LoopSocket.h"
#include "Platform/Linux/Relay/StreamRegistry.h"

namespace ostravel::linuxplatform {

class EventLoop;

// One side of a tunnel: the relay's reads and writes on one TCP socket. A member of the flow or
// connection that owns the socket; that owner is held by std::shared_ptr, and completions keep it
// alive while they run. Everything is for the loop's thread, except destruction, which resets a
// socket that was not closed: a truncated stream must not look complete. Outstanding operations
// then complete with ECANCELED, on the loop.
//
// A read first waits and takes a buffer only when data has arrived, so that an idle stream owns
// none. A direction that keeps filling its buffer reads into pipes instead (splice(2)), and its
// bytes move to another socket without entering user space.
//
// Operations may be started before there is a socket; they wait for attach().
class StreamSocket {
 public:
  enum class Direction : std::uint8_t { read, write };

  // The flow or connection that owns the socket. Outlives the stream.
  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    virtual ~Owner() = default;

    // The stream, sharing ownership with its owner.
    virtual std::shared_ptr<StreamSocket> sharedStream() = 0;
    // The socket failed, or the peer has ended its direction. Called before the completion that
    // reports it, possibly inside the call that detected it.
    virtual void streamFailed(int error) = 0;
    virtual void streamEnded() = 0;
  };

  // user: charged for the stream's resources; null if unknown.
  StreamSocket(EventLoop& loop, Owner& owner, std::shared_ptr<UserShare> user);
  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;
  ~StreamSocket();

  EventLoop& loop() const { return loop_; }
  const std::shared_ptr<UserShare>& user() const { return user_; }

  // The socket is connected. Starts the operations that were waiting, and ends the directions that
  // have already been closed in order.
  void attach(LoopSocket socket);

  // Both as described by the platform interface.
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion);
  void write(platform::Data data, platform::ErrorCompletion completion);

  // Ends one direction in order; its outstanding operation completes with ECANCELED. Data that
  // arrives after reading was ended is discarded. When both directions have ended, the socket
  // lingers on the loop until the peer has received everything.
  void closeInOrder(Direction direction);
  bool isClosed(Direction direction) const {
    return direction == Direction::read ? isReadClosed_ : isWriteClosed_;
  }

  // Ends both at once: outstanding and later operations complete with this error, and the peer sees
  // a reset.
  void fail(platform::Error error);

  // Destroys the completions of outstanding operations without running them. Called by the loop
  // once it has stopped.
  void dropCompletions();

 private:
  enum class Progress : std::uint8_t {
    none,
    // Started, not done.
    waiting,
    // Done; the completion is pending.
    finishing,
  };

  template <typename Step>
  auto later(Step step);
  void takePlace();

  // Runs step(*this) when it is the user's turn.
  template <typename Step>
  void inTurn(Step step);
  void spendOfTurn(std::size_t bytes);

  void beginRead();
  void waitToRead();
  void continueRead();
  void receive();
  void receiveIntoMemory();
  // False if no pipe is available.
  bool receiveIntoPipe();
  void gather(const std::byte* bytes, std::size_t size);
  void handleReceiveFailure(int error);
  void endRead();
  void finishReadLater(platform::OptionalError error);
  void finishRead(std::optional<platform::Data> data, platform::OptionalError error);
  void discardArrived();

  void beginWrite();
  void waitToWrite();
  void continueWrite();
  void send();
  // Returns 0 if the whole chunk is in the kernel, EAGAIN if part of it has to wait, or an error.
  int sendChunk();
  void finishWriteLater(platform::OptionalError error);
  void finishWrite(platform::OptionalError error);
  platform::OptionalError describeWriteResult(int error);

  void noteFailure(int error);
  void leaveToLinger();

  EventLoop& loop_;
  Owner& owner_;
  const std::shared_ptr<UserShare> user_;
  // Taken by the first operation.
  StreamRegistry::Place place_;
  LoopSocket socket_;
  // The error that ended the stream as a whole.
  std::unique_ptr<platform::Error> failure_;

  platform::ReadCompletion readCompletion_;
  std::size_t minimum_ = 0;
  std::size_t maximum_ = 0;
  // Bytes of a read that has not reached its minimum.
  std::vector<std::byte> gathered_;

  platform::ErrorCompletion writeCompletion_;
  platform::Data chunk_;
  std::size_t sent_ = 0;

  // The first error of a failed socket; later calls on it would report an end of stream instead.
  int socketError_ = 0;

  Progress reading_ = Progress::none;
  Progress writing_ = Progress::none;
  bool isReadClosed_ = false;
  bool isWriteClosed_ = false;
  bool hasEnded_ = false;
  bool isWaitingToRead_ = false;
  // The last receive suggests that more data is waiting.
  bool isMoreLikely_ = false;
  bool isBulk_ = false;
  std::uint8_t fullReads_ = 0;
  std::uint8_t smallChunks_ = 0;
};

}  // namespace ostravel::linuxplatform
