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

// One side of a tunnel: reads and writes of one TCP socket as the relay wants them. A member of the
// flow or the connection whose socket it is, which is held by std::shared_ptr and which completions
// keep alive while they run. Everything is for the loop's thread, except destruction, which resets
// a socket that was not closed: a stream that was cut off must not look complete. Operations that
// are outstanding then complete with ECANCELED, on the loop.
//
// Reading waits first and takes a buffer only when there is something for it, so that an idle
// stream owns none. A direction that keeps filling its buffer reads into pipes instead (splice(2)),
// which the bytes leave for another socket without having been in user space.
//
// Operations may be asked for before there is a socket; they wait for attach().
class StreamSocket {
 public:
  enum class Direction : std::uint8_t { read, write };

  // Whose socket it is. Outlives the stream.
  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    virtual ~Owner() = default;

    // The stream, sharing the ownership of its owner.
    virtual std::shared_ptr<StreamSocket> sharedStream() = 0;
    // The socket failed, or the peer has ended its direction; told before the completion that
    // reports it, perhaps inside the call that found it out.
    virtual void streamFailed(int error) = 0;
    virtual void streamEnded() = 0;
  };

  // user: whose flow it is for, which bears what it uses; null when that is not known.
  StreamSocket(EventLoop& loop, Owner& owner, std::shared_ptr<UserShare> user);
  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;
  ~StreamSocket();

  EventLoop& loop() const { return loop_; }
  const std::shared_ptr<UserShare>& user() const { return user_; }

  // The socket is connected. Operations that were waiting begin; directions that have been closed
  // in order are closed on it.
  void attach(LoopSocket socket);

  // Both as the seam describes them.
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion);
  void write(platform::Data data, platform::ErrorCompletion completion);

  // Ends one direction in order, its outstanding operation with ECANCELED. What arrives after the
  // reading was ended is discarded. When both have ended, the socket goes its own way: it lingers
  // on the loop until the peer has had everything.
  void closeInOrder(Direction direction);
  bool isClosed(Direction direction) const {
    return direction == Direction::read ? isReadClosed_ : isWriteClosed_;
  }

  // Ends both at once: outstanding and later operations complete with this error, and the peer sees
  // a reset.
  void fail(platform::Error error);

  // Destroys the completions of outstanding operations, and what those hold, without running them.
  // For the loop when it has stopped.
  void dropCompletions();

 private:
  enum class Progress : std::uint8_t {
    none,
    // Asked for and not done.
    waiting,
    // Done; the completion is on its way.
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
  // False: there is no pipe to be had.
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
  // 0: all of the chunk is in the kernel. EAGAIN: the rest has to wait. Or what went wrong.
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
  // What ended the stream as a whole.
  std::unique_ptr<platform::Error> failure_;

  platform::ReadCompletion readCompletion_;
  std::size_t minimum_ = 0;
  std::size_t maximum_ = 0;
  // Bytes of a read that has not reached its minimum.
  std::vector<std::byte> gathered_;

  platform::ErrorCompletion writeCompletion_;
  platform::Data chunk_;
  std::size_t sent_ = 0;

  // What a failed socket said first; later calls on it would report an end instead.
  int socketError_ = 0;

  Progress reading_ = Progress::none;
  Progress writing_ = Progress::none;
  bool isReadClosed_ = false;
  bool isWriteClosed_ = false;
  bool hasEnded_ = false;
  bool isWaitingToRead_ = false;
  // The last receive got all that it asked for.
  bool isMoreLikely_ = false;
  bool isBulk_ = false;
  std::uint8_t fullReads_ = 0;
  std::uint8_t smallChunks_ = 0;
};

}  // namespace ostravel::linuxplatform
