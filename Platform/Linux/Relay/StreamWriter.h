#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

class StreamSocket;

// The sending direction of a StreamSocket, as StreamReader.
class StreamWriter {
  enum class Progress : std::uint8_t {
    none,
    // Started, not done.
    waiting,
    // Done; the completion is pending.
    finishing,
  };

  // What only an outstanding write needs: most streams are idle most of the time.
  struct Write {
    platform::ErrorCompletion completion;
    platform::Data chunk;
    std::size_t sent = 0;
  };

 public:
  // Part of the stream.
  class State {
    friend class StreamWriter;
    friend class StreamSocket;

    std::unique_ptr<Write> write;
    bool isClosed : 1 = false;
    Progress progress : 2 = Progress::none;
  };

  explicit StreamWriter(StreamSocket& stream);

  void write(platform::Data data, platform::ErrorCompletion completion);

  // The stream's socket is attached.
  void socketIsOpen();
  // The end of a wait.
  void roomArrived();
  // The outstanding write completes with ECANCELED. The owner sends the end of the stream.
  void close();

  // The whole stream has failed: the outstanding write completes with its failure.
  void fail();
  // The stream is being destroyed: completes the outstanding write with ECANCELED, on the loop.
  void abandon();
  // Also destroys the outstanding chunk.
  void dropCompletion();

 private:
  void begin();
  void waitForRoom();
  void send();
  // Returns 0 if the whole chunk is in the kernel, EAGAIN if part of it has to wait, or another
  // errno: an Error would be made for every wait.
  int sendChunk();
  platform::OptionalError describeResult(int error);
  void finishLater(platform::OptionalError error);
  void finish(platform::OptionalError error);

  void releaseChunk();

  StreamSocket& stream_;
  State& state_;
};

}  // namespace ostravel::linuxplatform
