#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"
#include "Platform/Linux/Relay/StreamState.h"

namespace ostravel::linuxplatform {

// The receiving direction of a StreamSocket, which owns it and passes every call on.
class StreamReader {
 public:
  explicit StreamReader(StreamState& stream) : stream_(stream) {}
  StreamReader(const StreamReader&) = delete;
  StreamReader& operator=(const StreamReader&) = delete;

  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion);

  // The stream's socket is attached.
  void socketIsOpen();
  // The outstanding read completes with ECANCELED.
  void close();
  // Discards what arrives after the direction was closed, for as long as the socket is open.
  void discard() { waitForData(); }
  bool isClosed() const { return isClosed_; }
  // The peer has ended its direction.
  bool hasEnded() const { return hasEnded_; }

  // The whole stream has failed: the outstanding read completes with its failure.
  void fail();
  // The stream is being destroyed: completes the outstanding read with ECANCELED, on the loop.
  void abandon();
  void dropCompletion() { completion_ = nullptr; }

 private:
  enum class Progress : std::uint8_t {
    none,
    // Started, not done.
    waiting,
    // Done; the completion is pending.
    finishing,
  };

  void waitForData();
  void dataArrived();
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

  // A read that waits for more than one byte, and what it has received so far.
  struct Gathering {
    std::size_t minimum;
    std::vector<std::byte> bytes;
  };

  StreamState& stream_;
  platform::ReadCompletion completion_;
  // Null for the usual read, of one byte or more.
  std::unique_ptr<Gathering> gathering_;
  std::uint32_t maximum_ = 0;

  Progress progress_ = Progress::none;
  bool isClosed_ = false;
  bool hasEnded_ = false;
  bool isWaitingForData_ = false;
  bool isBulk_ = false;
  std::uint8_t fullReads_ = 0;
  std::uint8_t smallChunks_ = 0;
};

}  // namespace ostravel::linuxplatform
