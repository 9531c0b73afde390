#include "Platform/Linux/Relay/StreamWriter.h"

#include <cerrno>
#include <optional>
#include <utility>

#include "Base/ProgrammingError.h"
#include "Platform/Linux/Relay/PipeChunk.h"
#include "Platform/Linux/Relay/SocketError.h"
#include "Platform/Linux/Relay/StreamSocket.h"

namespace ostravel::linuxplatform {

using platform::Data;
using platform::OptionalError;

StreamWriter::StreamWriter(StreamSocket& stream) : stream_(stream), state_(stream.writing_) {}

void StreamWriter::write(Data data, platform::ErrorCompletion completion) {
  if (state_.progress != Progress::none) {
    programmingError("a write to a stream that is being written to");
  }
  state_.progress = Progress::waiting;
  state_.write = std::make_unique<Write>();
  state_.write->completion = std::move(completion);
  if (stream_.failure() != nullptr) {
    finishLater(*stream_.failure());
  } else if (state_.isClosed) {
    finishLater(socketError(ECANCELED));
  } else {
    state_.write->chunk = std::move(data);
    if (stream_.isOpen()) {
      begin();
    }
  }
}

void StreamWriter::socketIsOpen() {
  if (state_.progress == Progress::waiting) {
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
  stream_.socket_.waitUntilWritable();
}

void StreamWriter::roomArrived() {
  ++stream_.loop().counters().wakeups;
  stream_.inTurn<StreamWriter>([](StreamWriter& self) { self.send(); });
}

void StreamWriter::send() {
  // Closed or failed in the meantime.
  if (state_.progress != Progress::waiting || !stream_.isOpen()) {
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
  const Data& chunk = state_.write->chunk;
  std::size_t& sent = state_.write->sent;
  auto* const inPipe = dynamic_cast<PipeChunk*>(chunk.storage());
  const std::size_t size = chunk.size();
  while (sent < size) {
    long count = 0;
    if (inPipe != nullptr && inPipe->isInPipe()) {
      count = inPipe->moveTo(stream_.socket_.descriptor());
      if (count < 0 && errno == EAGAIN) {
        stream_.socket_.noRoomToWrite();
      }
    } else {
      const auto rest = chunk.bytes().subspan(sent);
      count = stream_.socket_.send(rest.data(), rest.size());
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
  state_.progress = Progress::finishing;
  if (!error) {
    // The usual case, without room for an error: needs no allocation.
    stream_.loop().post(
        stream_.later<StreamWriter>([](StreamWriter& self) { self.finish(std::nullopt); }));
    return;
  }
  stream_.loop().post(stream_.later<StreamWriter>(
      [error = std::move(error)](StreamWriter& self) mutable { self.finish(std::move(error)); }));
}

void StreamWriter::finish(OptionalError error) {
  state_.progress = Progress::none;
  // The completion may start the next write or close the stream.
  const auto write = std::exchange(state_.write, nullptr);
  write->completion(std::move(error));
}

void StreamWriter::releaseChunk() {
  if (state_.write) {
    state_.write->chunk = Data();
  }
}

// Ending

void StreamWriter::close() {
  state_.isClosed = true;
  releaseChunk();
  if (state_.progress == Progress::waiting) {
    finishLater(socketError(ECANCELED));
  }
}

void StreamWriter::fail() {
  releaseChunk();
  if (state_.progress == Progress::waiting) {
    finishLater(*stream_.failure());
  }
}

void StreamWriter::abandon() {
  if (state_.write) {
    stream_.loop().post(
        [completion = std::move(state_.write->completion)] { completion(socketError(ECANCELED)); });
  }
}

void StreamWriter::dropCompletion() {
  // Destroyed last: it may own the stream.
  const auto write = std::move(state_.write);
}

}  // namespace ostravel::linuxplatform
