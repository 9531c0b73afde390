#include "Platform/Linux/Relay/StreamWriter.h"

#include <cerrno>
#include <optional>
#include <utility>

#include "Base/ProgrammingError.h"
#include "Platform/Linux/Relay/PipeChunk.h"
#include "Platform/Linux/Relay/SocketError.h"

namespace ostravel::linuxplatform {

using platform::Data;
using platform::OptionalError;

void StreamWriter::write(Data data, platform::ErrorCompletion completion) {
  if (progress_ != Progress::none) {
    programmingError("a write to a stream that is being written to");
  }
  progress_ = Progress::waiting;
  completion_ = std::move(completion);
  if (stream_.failure) {
    finishLater(*stream_.failure);
  } else if (isClosed_) {
    finishLater(socketError(ECANCELED));
  } else {
    chunk_ = std::move(data);
    sent_ = 0;
    if (stream_.socket.isOpen()) {
      begin();
    }
  }
}

void StreamWriter::socketIsOpen() {
  if (progress_ == Progress::waiting) {
    begin();
  }
}

void StreamWriter::begin() {
  const int result = sendChunk();
  if (result == EAGAIN) {
    waitForRoom();
  } else {
    finishLater(describeResult(result));
  }
}

void StreamWriter::waitForRoom() {
  stream_.socket.waitUntilWritable(stream_.later(*this, [](StreamWriter& self) {
    ++self.stream_.loop.counters().wakeups;
    self.stream_.inTurn(self, [](StreamWriter& writer) { writer.send(); });
  }));
}

void StreamWriter::send() {
  // Closed or failed in the meantime.
  if (progress_ != Progress::waiting || !stream_.socket.isOpen()) {
    return;
  }
  const int result = sendChunk();
  if (result == EAGAIN) {
    waitForRoom();
  } else {
    finish(describeResult(result));
  }
}

int StreamWriter::sendChunk() {
  auto* const inPipe = dynamic_cast<PipeChunk*>(chunk_.storage());
  const std::size_t size = chunk_.size();
  while (sent_ < size) {
    long count = 0;
    if (inPipe != nullptr && inPipe->isInPipe()) {
      count = inPipe->moveTo(stream_.socket.descriptor());
      if (count < 0 && errno == EAGAIN) {
        stream_.socket.noRoomToWrite();
      }
    } else {
      const auto rest = chunk_.bytes().subspan(sent_);
      count = stream_.socket.send(rest.data(), rest.size());
    }
    if (count > 0) {
      sent_ += static_cast<std::size_t>(count);
      stream_.spendOfTurn(static_cast<std::size_t>(count));
      stream_.countWritten(static_cast<std::size_t>(count));
    } else if (count == 0) {
      // Neither call returns 0 when there is data to send; retrying could loop forever.
      return EIO;
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

OptionalError StreamWriter::describeResult(int error) {
  // Returns the buffer or pipe to its pool before the completion asks for more.
  chunk_ = Data();
  if (error == 0) {
    return std::nullopt;
  }
  stream_.noteFailure(error);
  return socketError(error);
}

void StreamWriter::finishLater(OptionalError error) {
  progress_ = Progress::finishing;
  if (!error) {
    // The usual case, without room for an error: needs no allocation.
    stream_.loop.post(stream_.later(*this, [](StreamWriter& self) { self.finish(std::nullopt); }));
    return;
  }
  stream_.loop.post(stream_.later(*this, [error = std::move(error)](StreamWriter& self) mutable {
    self.finish(std::move(error));
  }));
}

void StreamWriter::finish(OptionalError error) {
  progress_ = Progress::none;
  // The completion may start the next write or close the stream.
  const auto completion = std::exchange(completion_, nullptr);
  completion(std::move(error));
}

// Ending

void StreamWriter::close() {
  isClosed_ = true;
  chunk_ = Data();
  if (progress_ == Progress::waiting) {
    finishLater(socketError(ECANCELED));
  }
}

void StreamWriter::fail() {
  chunk_ = Data();
  if (progress_ == Progress::waiting) {
    finishLater(*stream_.failure);
  }
}

void StreamWriter::abandon() {
  if (completion_) {
    stream_.loop.post(
        [completion = std::move(completion_)] { completion(socketError(ECANCELED)); });
  }
}

void StreamWriter::dropCompletion() {
  chunk_ = Data();
  completion_ = nullptr;
}

}  // namespace ostravel::linuxplatform
