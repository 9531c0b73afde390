#include "Companion/Sidecar/TunnelRelay.h"

#include <asio/post.hpp>
#include <cstring>
#include <utility>

#include "Companion/Sidecar/SocketState.h"

namespace ostravel::companion {
namespace {

// How many buffers one direction may move before the next one gets its turn, and how many bytes all
// of them before requests, connections and new clients get theirs.
constexpr int kBuffersPerTurn = 4;
constexpr std::size_t kBytesPerTurn = 512 * 1024;

}  // namespace

RelayEnvironment::RelayEnvironment(asio::io_context& ioContext)
    : turns({.share = kBytesPerTurn, .total = kBytesPerTurn},
            [&ioContext](FairTurns::Work turn) { asio::post(ioContext, std::move(turn)); }) {}

TunnelRelay::TunnelRelay(Socket client, Socket origin,
                         std::shared_ptr<RelayEnvironment> environment, Ended ended)
    : client_(std::move(client)),
      origin_(std::move(origin)),
      environment_(std::move(environment)),
      ended_(std::move(ended)),
      toOrigin_{.from = client_, .to = origin_},
      toClient_{.from = origin_, .to = client_} {}

void TunnelRelay::start(std::string_view bytesForOrigin) {
  asio::error_code error;
  client_.non_blocking(true, error);
  if (!error) {
    origin_.non_blocking(true, error);
  }
  if (error) {
    end(Outcome::reset);
    return;
  }
  waitForBytes(toClient_);
  if (bytesForOrigin.empty()) {
    waitForBytes(toOrigin_);
    return;
  }
  toOrigin_.buffer = environment_->buffers.acquire();
  std::memcpy(toOrigin_.buffer->data(), bytesForOrigin.data(), bytesForOrigin.size());
  toOrigin_.end = bytesForOrigin.size();
  pump(toOrigin_);
}

void TunnelRelay::pump(Direction& direction) {
  direction.state = State::moving;
  environment_->turns.run(nullptr, [self = shared_from_this(), &direction] {
    if (!self->hasEnded_) {
      self->move(direction);
    }
  });
}

void TunnelRelay::move(Direction& direction) {
  for (int turn = 0; turn < kBuffersPerTurn; ++turn) {
    if (direction.begin == direction.end && !receive(direction)) {
      return;
    }
    // A read that did not fill the buffer has emptied the socket; another one would block.
    const bool emptied = direction.end < RelayBufferPool::kBufferSize;
    if (!send(direction)) {
      return;
    }
    if (emptied) {
      waitForBytes(direction);
      return;
    }
  }
  asio::post(client_.get_executor(), [self = shared_from_this(), &direction] {
    if (!self->hasEnded_) {
      self->pump(direction);
    }
  });
}

// True if the direction holds bytes; otherwise it waits, has finished or has failed.
bool TunnelRelay::receive(Direction& direction) {
  if (!direction.buffer) {
    direction.buffer = environment_->buffers.acquire();
  }
  asio::error_code error;
  direction.begin = 0;
  direction.end = direction.from.read_some(asio::buffer(*direction.buffer), error);
  if (!error) {
    return true;
  }
  if (error == asio::error::would_block || error == asio::error::interrupted) {
    waitForBytes(direction);
  } else if (error == asio::error::eof) {
    finish(direction);
  } else {
    end(Outcome::reset);
  }
  return false;
}

// True if nothing is left to send; otherwise the direction waits or has failed.
bool TunnelRelay::send(Direction& direction) {
  while (direction.begin < direction.end) {
    asio::error_code error;
    const std::size_t sent = direction.to.write_some(
        asio::buffer(direction.buffer->data() + direction.begin, direction.end - direction.begin),
        error);
    direction.begin += sent;
    direction.moved += sent;
    environment_->turns.spend(nullptr, sent);
    if (error == asio::error::would_block || error == asio::error::interrupted) {
      waitForRoom(direction);
      return false;
    }
    if (error) {
      end(Outcome::reset);
      return false;
    }
  }
  return true;
}

void TunnelRelay::waitForBytes(Direction& direction) {
  direction.state = State::waitingForBytes;
  releaseBuffer(direction);
  pumpAfter(direction.from, Socket::wait_read, direction);
}

void TunnelRelay::waitForRoom(Direction& direction) {
  direction.state = State::waitingForRoom;
  watchForReset(direction);
  pumpAfter(direction.to, Socket::wait_write, direction);
}

void TunnelRelay::pumpAfter(Socket& socket, Socket::wait_type event, Direction& direction) {
  socket.async_wait(event, [self = shared_from_this(), &direction](asio::error_code error) {
    if (!error && !self->hasEnded_) {
      self->pump(direction);
    }
  });
}

// A direction that does not read would miss a reset by its sender, and a tunnel whose other side is
// silent would never end.
void TunnelRelay::watchForReset(Direction& direction) {
  if (direction.watched) {
    return;
  }
  direction.watched = true;
  direction.from.async_wait(
      Socket::wait_error, [self = shared_from_this(), &direction](asio::error_code error) {
        direction.watched = false;
        // A direction that reads again receives the error after the last bytes, where it belongs.
        // Querying the error here would clear it.
        if (error || self->hasEnded_ || direction.state == State::waitingForBytes) {
          return;
        }
        switch (takeDisturbance(direction.from)) {
          case Disturbance::reset:
            self->end(Outcome::reset);
            break;
          case Disturbance::urgentByte:
            self->watchForReset(direction);
            break;
          case Disturbance::none:
            // The hang-up that follows two orderly ends. It persists, so another wait would spin.
            break;
        }
      });
}

void TunnelRelay::finish(Direction& direction) {
  direction.state = State::finished;
  releaseBuffer(direction);
  asio::error_code error;
  direction.to.shutdown(Socket::shutdown_send, error);
  if (error) {
    end(Outcome::reset);
    return;
  }
  if (toOrigin_.state == State::finished && toClient_.state == State::finished) {
    end(Outcome::orderly);
    return;
  }
  watchForReset(direction);
}

void TunnelRelay::releaseBuffer(Direction& direction) {
  environment_->buffers.release(std::move(direction.buffer));
  direction.begin = 0;
  direction.end = 0;
}

void TunnelRelay::end(Outcome outcome) {
  hasEnded_ = true;
  asio::error_code ignored;
  for (Socket* socket : {&client_, &origin_}) {
    if (outcome == Outcome::reset) {
      socket->set_option(Socket::linger(true, 0), ignored);
    }
    socket->close(ignored);
  }
  releaseBuffer(toOrigin_);
  releaseBuffer(toClient_);
  const Ended ended = std::exchange(ended_, nullptr);
  ended({outcome, toOrigin_.moved, toClient_.moved});
}

}  // namespace ostravel::companion
