#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "Base/ReferenceCounted.h"
#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/LoopSocket.h"
#include "Platform/Linux/Relay/StreamReader.h"
#include "Platform/Linux/Relay/StreamRegistry.h"
#include "Platform/Linux/Relay/StreamWriter.h"
#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform {

// One side of a tunnel: the relay's reads and writes on one TCP socket. The base of the flow or
// connection that owns the socket, which is held by std::shared_ptr; completions keep it alive
// while they run. Everything is for the loop's thread, except destruction, which resets a socket
// that was not closed: a truncated stream must not look complete. Outstanding operations then
// complete with ECANCELED on the loop.
//
// A read first waits and takes a buffer only when data has arrived, so that an idle stream owns
// none. A direction that keeps filling its buffer reads into pipes instead (splice(2)), and its
// bytes move to another socket without entering user space.
//
// Operations may be started before there is a socket; they wait for attach() or connected().
//
// There are two for every tunnel, idle or not, so what it keeps is as small as it can be: it is a
// base and not a member, which would need a reference to its owner, and its directions are made
// when they are used.
class StreamSocket : private Poller::Client, public std::enable_shared_from_this<StreamSocket> {
 public:
  enum class Direction : std::uint8_t { read, write };

  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;

  EventLoop& loop() const { return socket_.loop(); }

  // Destroys the completions of outstanding operations without running them. Called by the loop
  // once it has stopped.
  void dropCompletions();

 protected:
  // user: charged for the stream's resources; null if unknown.
  StreamSocket(EventLoop& loop, Reference<UserShare> user) : socket_(loop, std::move(user)) {}
  ~StreamSocket();

  const Reference<UserShare>& user() const { return socket_.user(); }
  // There is a socket, and it is connected.
  bool isOpen() const { return socket_.isOpen() && !isConnecting_; }

  // socket is connected. Starts the waiting operations, and ends the directions that have already
  // been closed in order.
  void attach(LoopSocket socket);
  // The same in two steps: the operations wait until it is connected.
  void attachConnecting(LoopSocket socket);
  void connected();
  // Null unless it is connecting.
  LoopSocket* connecting() { return isConnecting_ ? &socket_ : nullptr; }
  // Ends the attempt to connect, if there is one.
  void closeConnecting();

  // As described by the platform interface.
  void receive(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion);
  void send(platform::Data data, platform::ErrorCompletion completion);

  // Ends one direction in order; its outstanding operation completes with ECANCELED. Data that
  // arrives after reading was ended is discarded. When both directions have ended, the socket
  // lingers on the loop until the peer has received everything.
  void closeInOrder(Direction direction);
  bool isClosed(Direction direction) const {
    return direction == Direction::read ? reading_.isClosed : writing_.isClosed;
  }

  // Ends both at once: outstanding and later operations complete with this error, and the peer sees
  // a reset.
  void fail(platform::Error error);

 private:
  friend class StreamReader;
  friend class StreamWriter;

  // Not a lambda, whose captures take a word even if they are empty: a Task has two.
  template <typename Part, typename Step>
  struct Later {
    std::weak_ptr<StreamSocket> stream;
    [[no_unique_address]] Step step;

    void operator()() {
      if (const auto found = stream.lock()) {
        Part part(*found);
        step(part);
      }
    }
  };

  // On the loop, once for each wait.
  void readable() override;
  void writable() override;

  // The socket failed, or the peer has ended its direction. Called before the completion that
  // reports it, possibly inside the call that detected it.
  virtual void streamFailed(int error) = 0;
  virtual void streamEnded() = 0;
  // Counts the stream's bytes; null for a connection to the proxy or without recording.
  virtual FlowRecord* record() const { return nullptr; }

  // A handler for the loop that runs step(part) unless the stream is gone by then.
  template <typename Part, typename Step>
  Later<Part, Step> later(Step step) {
    return {weak_from_this(), std::move(step)};
  }
  // Runs step(part) now or in the user's next turn. The caller owns a reference to the stream.
  template <typename Part, typename Step>
  void inTurn(Step step) {
    loop().turns().run(
        user().get(),
        [this, &step] {
          Part part(*this);
          step(part);
        },
        [this, &step] { return later<Part>(std::move(step)); });
  }
  void spendOfTurn(std::size_t bytes) const { loop().turns().spend(user().get(), bytes); }

  // Count the application's bytes, in stream order.
  void countRead(std::size_t bytes) const;
  void countWritten(std::size_t bytes) const;
  // Keeps the socket's first error: the kernel reports it once, and an end of stream afterwards.
  void noteFailure(int error);

  const platform::Error* failure() const { return reading_.failure(); }
  bool areBothClosed() const { return reading_.isClosed && writing_.isClosed; }
  void registerOnce();
  void sendEnd();
  void leaveToLinger();

  // Each in the padding of the one before it, if it fits.
  [[no_unique_address]] LoopSocket socket_;
  bool isConnecting_ : 1 = false;
  // The end of the stream has been sent.
  bool isEndSent_ : 1 = false;
  // An errno, or 0.
  std::int16_t socketError_ = 0;
  [[no_unique_address]] StreamReader::State reading_;
  [[no_unique_address]] StreamWriter::State writing_;
  // Registered by the first operation.
  StreamRegistry::Place entry_ = StreamRegistry::kNone;
};

}  // namespace ostravel::linuxplatform
