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
  write_ = std::make_unique<Write>();
  write_->completion = std::move(completion);
  if (stream_.failure) {
    finishLater(*stream_.failure);
  } else if (isClosed_) {
    finishLater(socketError(ECANCELED));
  } else {
    write_->chunk = std::move(data);
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
  const Data& chunk = write_->chunk;
  std::size_t& sent = write_->sent;
  auto* const inPipe = dynamic_cast<PipeChunk*>(chunk.storage());
  const std::size_t size = chunk.size();
  while (sent < size) {
    long count = 0;
    if (inPipe != nullptr && inPipe->isInPipe()) {
      count = inPipe->moveTo(stream_.socket.descriptor());
      if (count < 0 && errno == EAGAIN) {
        stream_.socket.noRoomToWrite();
      }
    } else {
      const auto rest = chunk.bytes().subspan(sent);
      count = stream_.socket.send(rest.data(), rest.size());
    }
    if (count > 0) {
      sent += static_cast<std::size_t>(count);
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
  releaseChunk();
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
  const auto write = std::exchange(write_, nullptr);
  write->completion(std::move(error));
}

void StreamWriter::releaseChunk() {
  if (write_) {
    write_->chunk = Data();
  }
}

// Ending

void StreamWriter::close() {
  isClosed_ = true;
  releaseChunk();
  if (progress_ == Progress::waiting) {
    finishLater(socketError(ECANCELED));
  }
}

void StreamWriter::fail() {
  releaseChunk();
  if (progress_ == Progress::waiting) {
    finishLater(*stream_.failure);
  }
}

void StreamWriter::abandon() {
  if (write_) {
    stream_.loop.post(
        [completion = std::move(write_->completion)] { completion(socketError(ECANCELED)); });
  }
}

void StreamWriter::dropCompletion() {
  // Destroyed last: it may own the stream.
  const auto write = std::move(write_);
}

}  // namespace ostravel::linuxplatform
