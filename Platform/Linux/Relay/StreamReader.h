#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

class StreamSocket;

// The receiving direction of a StreamSocket, which passes every call on. Made for each call: what
// there is to keep is in the State.
class StreamReader {
  enum class Progress : std::uint8_t {
    none,
    // Started, not done.
    waiting,
    // Done; the completion is pending.
    finishing,
  };

  // A read that waits for more than one byte, and what it has received so far.
  struct Gathering {
    std::size_t minimum;
    std::vector<std::byte> bytes;
  };

 public:
  // Part of the stream.
  class State {
    friend class StreamReader;
    friend class StreamSocket;

    // Null for the usual read, of one byte or more.
    Gathering* gathering() const {
      const auto* const found = std::get_if<std::unique_ptr<Gathering>>(&gatheringOrFailure);
      return found != nullptr ? found->get() : nullptr;
    }
    void dropGathering() {
      if (gathering() != nullptr) {
        gatheringOrFailure = std::monostate();
      }
    }
    // The error that ended the stream as a whole; null if there is none.
    const platform::Error* failure() const {
      const auto* const found = std::get_if<std::unique_ptr<platform::Error>>(&gatheringOrFailure);
      return found != nullptr ? found->get() : nullptr;
    }

    platform::ReadCompletion completion;
    // Most streams have neither, and one that has failed gathers nothing. The rest is in the
    // padding of this, and the stream's next members in that of the rest.
    [[no_unique_address]] std::variant<std::monostate, std::unique_ptr<Gathering>,
                                       std::unique_ptr<platform::Error>>
        gatheringOrFailure;
    bool isClosed : 1 = false;
    // The peer has ended its direction.
    bool hasEnded : 1 = false;
    bool isWaitingForData : 1 = false;
    bool isBulk : 1 = false;
    Progress progress : 2 = Progress::none;
    std::uint8_t fullReads = 0;
    std::uint8_t smallChunks = 0;
    std::uint32_t maximum = 0;
  };

  explicit StreamReader(StreamSocket& stream);

  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion);

  // The stream's socket is attached.
  void socketIsOpen();
  // The end of a wait.
  void dataArrived();
  // The outstanding read completes with ECANCELED.
  void close();
  // Discards what arrives after the direction was closed, for as long as the socket is open.
  void discard() { waitForData(); }

  // The whole stream has failed: the outstanding read completes with its failure.
  void fail();
  // The stream is being destroyed: completes the outstanding read with ECANCELED, on the loop.
  void abandon();
  void dropCompletion() { state_.completion = nullptr; }

 private:
  void waitForData();
  void continueInTurn();
  void receive();
  void receiveIntoMemory();
  // False if no pipe is available.
  bool receiveIntoPipe();
  void countMemoryChunk(std::size_t count);
  void gather(const std::byte* bytes, std::size_t size);
  platform::Data takeGathered();
  void handleNothingReceived(int error);
  void end();
  void finishLater(platform::OptionalError error);
  void finish(std::optional<platform::Data> data, platform::OptionalError error);
  void discardArrived();

  StreamSocket& stream_;
  State& state_;
};

}  // namespace ostravel::linuxplatform
