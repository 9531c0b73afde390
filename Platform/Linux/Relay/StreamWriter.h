#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"
#include "Platform/Linux/Relay/StreamState.h"

namespace ostravel::linuxplatform {

// The sending direction of a StreamSocket, which owns it and passes every call on.
class StreamWriter {
 public:
  explicit StreamWriter(StreamState& stream) : stream_(stream) {}
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;

  void write(platform::Data data, platform::ErrorCompletion completion);

  // The stream's socket is attached.
  void socketIsOpen();
  // The outstanding write completes with ECANCELED. The owner sends the end of the stream.
  void close();
  bool isClosed() const { return isClosed_; }

  // The whole stream has failed: the outstanding write completes with its failure.
  void fail();
  // The stream is being destroyed: completes the outstanding write with ECANCELED, on the loop.
  void abandon();
  // Also destroys the outstanding chunk.
  void dropCompletion();

 private:
  enum class Progress : std::uint8_t {
    none,
    // Started, not done.
    waiting,
    // Done; the completion is pending.
    finishing,
  };

  void begin();
  void waitForRoom();
  void send();
  // Returns 0 if the whole chunk is in the kernel, EAGAIN if part of it has to wait, or another
  // errno: an Error would be made for every wait.
  int sendChunk();
  platform::OptionalError describeResult(int error);
  void finishLater(platform::OptionalError error);
  void finish(platform::OptionalError error);

  // What only an outstanding write needs: most streams are idle most of the time.
  struct Write {
    platform::ErrorCompletion completion;
    platform::Data chunk;
    std::size_t sent = 0;
  };

  void releaseChunk();

  StreamState& stream_;
  std::unique_ptr<Write> write_;
  Progress progress_ = Progress::none;
  bool isClosed_ = false;
};

}  // namespace ostravel::linuxplatform
