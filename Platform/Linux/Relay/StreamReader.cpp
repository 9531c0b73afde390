#include "Platform/Linux/Relay/StreamReader.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <span>
#include <utility>

#include "Base/ProgrammingError.h"
#include "Platform/Linux/Relay/BufferChunk.h"
#include "Platform/Linux/Relay/PipeChunk.h"
#include "Platform/Linux/Relay/SocketError.h"
#include "Platform/Linux/Relay/StreamSocket.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

using platform::Data;
using platform::OptionalError;

StreamReader::StreamReader(StreamSocket& stream) : stream_(stream), state_(stream.reading_) {}

void StreamReader::read(std::size_t minimum, std::size_t maximum,
                        platform::ReadCompletion completion) {
  if (state_.progress != Progress::none) {
    programmingError("a read of a stream that is being read");
  }
  state_.progress = Progress::waiting;
  state_.completion = std::move(completion);
  state_.maximum = static_cast<std::uint32_t>(
      std::clamp<std::size_t>(maximum, 1, std::numeric_limits<std::uint32_t>::max()));
  minimum = std::min<std::size_t>(minimum, state_.maximum);
  if (minimum > 1 && state_.failure() == nullptr) {
    state_.gatheringOrFailure = std::make_unique<Gathering>(Gathering{minimum, {}});
  }
  if (state_.failure() != nullptr) {
    finishLater(*state_.failure());
  } else if (state_.isClosed) {
    finishLater(socketError(ECANCELED));
  } else if (state_.hasEnded) {
    finishLater(std::nullopt);
  } else if (stream_.isOpen()) {
    waitForData();
  }
}

void StreamReader::socketIsOpen() {
  if (state_.isClosed || state_.progress == Progress::waiting) {
    waitForData();
  }
}

void StreamReader::waitForData() {
  if (state_.isWaitingForData) {
    return;
  }
  state_.isWaitingForData = true;
  stream_.socket_.waitUntilReadable();
}

void StreamReader::dataArrived() {
  ++stream_.loop().counters().wakeups;
  state_.isWaitingForData = false;
  if (state_.isClosed) {
    discardArrived();
  } else {
    continueInTurn();
  }
}

void StreamReader::continueInTurn() {
  stream_.inTurn<StreamReader>([](StreamReader& self) { self.receive(); });
}

void StreamReader::receive() {
  // Closed or failed in the meantime.
  if (state_.progress != Progress::waiting || !stream_.isOpen()) {
    return;
  }
  const bool mayUsePipe = state_.isBulk && state_.gathering() == nullptr;
  if (!mayUsePipe || !receiveIntoPipe()) {
    receiveIntoMemory();
  }
}

void StreamReader::receiveIntoMemory() {
  EventLoop& loop = stream_.loop();
  // A whole buffer may be pinned until the other side reads; a small piece is copied out of it.
  const bool mayPinBuffer = loop.memory().permits(stream_.user(), limits::kBufferSize);
  const std::size_t most = mayPinBuffer ? limits::kBufferSize : limits::kSmallRead;
  const std::size_t size =
      std::min(most, state_.maximum -
                         (state_.gathering() != nullptr ? state_.gathering()->bytes.size() : 0));
  BufferPool::Buffer buffer = loop.buffers().take();
  const auto received = stream_.socket_.receive(buffer.get(), size);
  if (received <= 0) {
    const int error = received < 0 ? errno : 0;
    loop.buffers().release(std::move(buffer));
    handleNothingReceived(error);
    return;
  }
  const auto count = static_cast<std::size_t>(received);
  countMemoryChunk(count);
  if (state_.gathering() != nullptr) {
    gather(buffer.get(), count);
    loop.buffers().release(std::move(buffer));
    return;
  }
  if (count <= limits::kSmallRead) {
    // A small chunk that waits for its reader would pin a buffer many times its size.
    Data data = Data::copyOf(std::span<const std::byte>(buffer.get(), count));
    loop.buffers().release(std::move(buffer));
    finish(std::move(data), std::nullopt);
    return;
  }
  finish(Data(std::make_unique<BufferChunk>(
             loop.buffers(), std::move(buffer), count,
             MemoryBudget::Lease(loop.memory(), limits::kBufferSize, stream_.user()))),
         std::nullopt);
}

void StreamReader::countMemoryChunk(std::size_t count) {
  stream_.loop().counters().copiedBytes += count;
  stream_.countRead(count);
  stream_.spendOfTurn(count);
  if (count < limits::kBufferSize) {
    state_.fullReads = 0;
  } else if (++state_.fullReads == limits::kFullReadsBeforeSplice) {
    state_.fullReads = 0;
    state_.smallChunks = 0;
    state_.isBulk = true;
  }
}

bool StreamReader::receiveIntoPipe() {
  PipePool& pipes = stream_.loop().pipes();
  auto pipe = pipes.take(stream_.user());
  if (!pipe) {
    return false;
  }
  const auto received = stream_.socket_.moveInto(
      pipe->writeEnd.get(), std::min<std::size_t>(state_.maximum, pipe->capacity));
  if (received <= 0) {
    const int error = received < 0 ? errno : 0;
    pipes.release(*std::move(pipe));
    handleNothingReceived(error);
    return true;
  }
  const auto count = static_cast<std::size_t>(received);
  stream_.loop().counters().splicedBytes += count;
  stream_.countRead(count);
  stream_.spendOfTurn(count);
  if (count > limits::kSmallChunk) {
    state_.smallChunks = 0;
  } else if (++state_.smallChunks == limits::kSmallChunksBeforeCopy) {
    state_.isBulk = false;
  }
  finish(Data(std::make_unique<PipeChunk>(pipes, *std::move(pipe), count)), std::nullopt);
  return true;
}

void StreamReader::gather(const std::byte* bytes, std::size_t size) {
  state_.gathering()->bytes.insert(state_.gathering()->bytes.end(), bytes, bytes + size);
  if (state_.gathering()->bytes.size() >= state_.gathering()->minimum) {
    finish(takeGathered(), std::nullopt);
  } else {
    waitForData();
  }
}

Data StreamReader::takeGathered() {
  Data gathered(std::move(state_.gathering()->bytes));
  state_.dropGathering();
  return gathered;
}

// error: 0 at the end of the stream.
void StreamReader::handleNothingReceived(int error) {
  if (error == 0) {
    end();
    return;
  }
  if (error == EAGAIN || error == EINTR) {
    waitForData();
    return;
  }
  stream_.noteFailure(error);
  finish(std::nullopt, socketError(error));
}

void StreamReader::end() {
  if (stream_.socketError_ != 0) {
    // The kernel reports a failure only once, and a write has already received it.
    finish(std::nullopt, socketError(stream_.socketError_));
    return;
  }
  state_.hasEnded = true;
  if (state_.gathering() != nullptr && !state_.gathering()->bytes.empty()) {
    finish(takeGathered(), std::nullopt);
    return;
  }
  stream_.streamEnded();
  finish(std::nullopt, std::nullopt);
}

void StreamReader::finishLater(OptionalError error) {
  state_.progress = Progress::finishing;
  stream_.loop().post(
      stream_.later<StreamReader>([error = std::move(error)](StreamReader& self) mutable {
        self.finish(std::nullopt, std::move(error));
      }));
}

void StreamReader::finish(std::optional<Data> data, OptionalError error) {
  state_.progress = Progress::none;
  state_.dropGathering();
  // The completion may start the next read or close the stream.
  const auto completion = std::exchange(state_.completion, nullptr);
  completion(std::move(data), std::move(error));
}

// Ending

void StreamReader::close() {
  state_.isClosed = true;
  state_.dropGathering();
  if (state_.progress == Progress::waiting) {
    finishLater(socketError(ECANCELED));
  }
}

void StreamReader::discardArrived() {
  if (!stream_.isOpen()) {
    return;
  }
  switch (stream_.socket_.discardArrived(stream_.loop().counters().discardedBytes)) {
    case LoopSocket::Discarded::some:
      stream_.loop().post(
          stream_.later<StreamReader>([](StreamReader& self) { self.discardArrived(); }));
      break;
    case LoopSocket::Discarded::allSoFar:
      waitForData();
      break;
    case LoopSocket::Discarded::everything:
      break;
  }
}

void StreamReader::fail() {
  if (state_.progress == Progress::waiting) {
    finishLater(*state_.failure());
  }
}

void StreamReader::abandon() {
  if (state_.completion) {
    stream_.loop().post([completion = std::move(state_.completion)] {
      completion(std::nullopt, socketError(ECANCELED));
    });
  }
}

}  // namespace ostravel::linuxplatform
