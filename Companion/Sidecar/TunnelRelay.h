#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "Base/FairTurns.h"
#include "Companion/Sidecar/RelayBufferPool.h"

namespace ostravel::companion {

// Shared by the relays of one thread.
struct RelayEnvironment {
  explicit RelayEnvironment(asio::io_context& ioContext);

  RelayBufferPool buffers;
  // Keeps the thread free for new tunnels while others move bytes.
  FairTurns turns;
};

// Moves bytes both ways between a client and an origin until both have ended or one has failed.
//
// Kept alive by its own outstanding waits; runs on the thread of the sockets' io_context. Each
// direction is either waiting for bytes, waiting for room, or finished, and holds one buffer only
// while it holds bytes. It never reads while bytes wait to be written, so a slow reader
// slows its writer and nothing else grows.
//
// An orderly end is passed on as an orderly end of that direction only; an error on one side is
// passed on as a reset of the other.
class TunnelRelay : public std::enable_shared_from_this<TunnelRelay> {
 public:
  using Socket = asio::ip::tcp::socket;

  enum class Outcome { orderly, reset };

  struct Summary {
    Outcome outcome = Outcome::orderly;
    std::uint64_t bytesToOrigin = 0;
    std::uint64_t bytesToClient = 0;
  };

  using Ended = std::function<void(const Summary&)>;

  // Both sockets are connected. `ended` is called once, from the io_context, with both sockets
  // closed, unless the io_context is destroyed first.
  TunnelRelay(Socket client, Socket origin, std::shared_ptr<RelayEnvironment> environment,
              Ended ended);

  // Starts relaying. `bytesForOrigin` goes first: the bytes that the client sent before its answer,
  // at most one buffer full.
  void start(std::string_view bytesForOrigin);

 private:
  enum class State { waitingForBytes, moving, waitingForRoom, finished };

  struct Direction {
    Socket& from;
    Socket& to;
    State state = State::moving;
    RelayBufferPool::Buffer buffer = nullptr;
    std::size_t begin = 0;  // of the bytes it holds
    std::size_t end = 0;
    std::uint64_t moved = 0;
    bool watched = false;  // a wait for an error of `from` is outstanding
  };

  // Moves bytes in the relay's turn.
  void pump(Direction& direction);
  void move(Direction& direction);
  bool receive(Direction& direction);
  bool send(Direction& direction);
  void waitForBytes(Direction& direction);
  void waitForRoom(Direction& direction);
  void pumpAfter(Socket& socket, Socket::wait_type event, Direction& direction);
  void watchForReset(Direction& direction);
  void finish(Direction& direction);
  void releaseBuffer(Direction& direction);
  void end(Outcome outcome);

  Socket client_;
  Socket origin_;
  std::shared_ptr<RelayEnvironment> environment_;
  Ended ended_;
  Direction toOrigin_;
  Direction toClient_;
  bool hasEnded_ = false;
};

}  // namespace ostravel::companion
