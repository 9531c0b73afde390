#pragma once

#include <memory>
#include <utility>

#include "Platform/Interface/Error.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/LoopSocket.h"
#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform {

class StreamSocket;

// State shared by the two directions of a stream: its socket, its failure, and access to the loop.
// Owned by the StreamSocket. For the loop's thread.
struct StreamState {
  // The flow or connection that owns the stream, and outlives it.
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

  // A handler for the loop that runs step(part) unless the stream is gone by then. part belongs to
  // the stream.
  template <typename Part, typename Step>
  auto later(Part& part, Step step) {
    return Later<Part, Step>{std::shared_ptr<Part>(owner.sharedStream(), &part), std::move(step)};
  }

  // Runs step(part) now or in the user's next turn. The caller owns a reference to the stream.
  template <typename Part, typename Step>
  void inTurn(Part& part, Step step) {
    loop.turns().run(
        user.get(), [&part, &step] { step(part); },
        [this, &part, &step] { return later(part, std::move(step)); });
  }
  void spendOfTurn(std::size_t bytes) { loop.turns().spend(user.get(), bytes); }

  // Count the application's bytes, in stream order.
  void countRead(std::size_t bytes) const {
    if (record != nullptr) {
      record->sent(bytes);
    }
  }
  void countWritten(std::size_t bytes) const {
    if (record != nullptr) {
      record->received(bytes);
    }
  }

  // Keeps the socket's first error: the kernel reports it once, and an end of stream afterwards.
  void noteFailure(int error) {
    if (socketError == 0) {
      socketError = error;
      owner.streamFailed(error);
    }
  }

  // Not a lambda, whose captures take a word even if they are empty: an idle stream keeps one.
  template <typename Part, typename Step>
  struct Later {
    std::weak_ptr<Part> part;
    [[no_unique_address]] Step step;

    void operator()() {
      if (const auto found = part.lock()) {
        step(*found);
      }
    }
  };

  EventLoop& loop;
  Owner& owner;
  // Charged for the stream's resources; null if unknown.
  const std::shared_ptr<UserShare> user;
  // The flow's record, owned by the flow; null for a connection to the proxy or without recording.
  FlowRecord* const record;
  LoopSocket socket;
  // The error that ended the stream as a whole.
  std::unique_ptr<platform::Error> failure;
  int socketError = 0;
  // The end of the stream has been sent.
  bool isEndSent = false;
};

}  // namespace ostravel::linuxplatform
