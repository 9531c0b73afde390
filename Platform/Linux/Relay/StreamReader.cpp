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
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

using platform::Data;
using platform::OptionalError;

void StreamReader::read(std::size_t minimum, std::size_t maximum,
                        platform::ReadCompletion completion) {
  if (progress_ != Progress::none) {
    programmingError("a read of a stream that is being read");
  }
  progress_ = Progress::waiting;
  completion_ = std::move(completion);
  maximum_ = static_cast<std::uint32_t>(
      std::clamp<std::size_t>(maximum, 1, std::numeric_limits<std::uint32_t>::max()));
  minimum = std::min<std::size_t>(minimum, maximum_);
  if (minimum > 1) {
    gathering_ = std::make_unique<Gathering>(Gathering{minimum, {}});
  }
  if (stream_.failure) {
    finishLater(*stream_.failure);
  } else if (isClosed_) {
    finishLater(socketError(ECANCELED));
  } else if (hasEnded_) {
    finishLater(std::nullopt);
  } else if (stream_.socket.isOpen()) {
    waitForData();
  }
}

void StreamReader::socketIsOpen() {
  if (isClosed_ || progress_ == Progress::waiting) {
    waitForData();
  }
}

void StreamReader::waitForData() {
  if (std::exchange(isWaitingForData_, true)) {
    return;
  }
  stream_.socket.waitUntilReadable(
      stream_.later(*this, [](StreamReader& self) { self.dataArrived(); }));
}

void StreamReader::dataArrived() {
  ++stream_.loop.counters().wakeups;
  isWaitingForData_ = false;
  if (isClosed_) {
    discardArrived();
  } else {
    continueInTurn();
  }
}

void StreamReader::continueInTurn() {
  stream_.inTurn(*this, [](StreamReader& self) { self.receive(); });
}

void StreamReader::receive() {
  // Closed or failed in the meantime.
  if (progress_ != Progress::waiting || !stream_.socket.isOpen()) {
    return;
  }
  const bool mayUsePipe = isBulk_ && !gathering_;
  if (!mayUsePipe || !receiveIntoPipe()) {
    receiveIntoMemory();
  }
}

void StreamReader::receiveIntoMemory() {
  EventLoop& loop = stream_.loop;
  // A whole buffer may be pinned until the other side reads; a small piece is copied out of it.
  const bool mayPinBuffer = loop.memory().permits(stream_.user, limits::kBufferSize);
  const std::size_t most = mayPinBuffer ? limits::kBufferSize : limits::kSmallRead;
  const std::size_t size = std::min(most, maximum_ - (gathering_ ? gathering_->bytes.size() : 0));
  BufferPool::Buffer buffer = loop.buffers().take();
  const auto received = stream_.socket.receive(buffer.get(), size);
  if (received <= 0) {
    const int error = received < 0 ? errno : 0;
    loop.buffers().release(std::move(buffer));
    handleNothingReceived(error);
    return;
  }
  const auto count = static_cast<std::size_t>(received);
  countMemoryChunk(count);
  if (gathering_) {
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
             MemoryBudget::Lease(loop.memory(), limits::kBufferSize, stream_.user))),
         std::nullopt);
}

void StreamReader::countMemoryChunk(std::size_t count) {
  stream_.loop.counters().copiedBytes += count;
  stream_.countRead(count);
  stream_.spendOfTurn(count);
  if (count < limits::kBufferSize) {
    fullReads_ = 0;
  } else if (++fullReads_ == limits::kFullReadsBeforeSplice) {
    fullReads_ = 0;
    smallChunks_ = 0;
    isBulk_ = true;
  }
}

bool StreamReader::receiveIntoPipe() {
  PipePool& pipes = stream_.loop.pipes();
  auto pipe = pipes.take(stream_.user);
  if (!pipe) {
    return false;
  }
  const auto received = stream_.socket.moveInto(pipe->writeEnd.get(),
                                                std::min<std::size_t>(maximum_, pipe->capacity));
  if (received <= 0) {
    const int error = received < 0 ? errno : 0;
    pipes.release(*std::move(pipe));
    handleNothingReceived(error);
    return true;
  }
  const auto count = static_cast<std::size_t>(received);
  stream_.loop.counters().splicedBytes += count;
  stream_.countRead(count);
  stream_.spendOfTurn(count);
  if (count > limits::kSmallChunk) {
    smallChunks_ = 0;
  } else if (++smallChunks_ == limits::kSmallChunksBeforeCopy) {
    isBulk_ = false;
  }
  finish(Data(std::make_unique<PipeChunk>(pipes, *std::move(pipe), count)), std::nullopt);
  return true;
}

void StreamReader::gather(const std::byte* bytes, std::size_t size) {
  gathering_->bytes.insert(gathering_->bytes.end(), bytes, bytes + size);
  if (gathering_->bytes.size() >= gathering_->minimum) {
    finish(takeGathered(), std::nullopt);
  } else {
    waitForData();
  }
}

Data StreamReader::takeGathered() {
  return Data(std::move(std::exchange(gathering_, nullptr)->bytes));
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
  if (stream_.socketError != 0) {
    // The kernel reports a failure only once, and a write has already received it.
    finish(std::nullopt, socketError(stream_.socketError));
    return;
  }
  hasEnded_ = true;
  if (gathering_ && !gathering_->bytes.empty()) {
    finish(takeGathered(), std::nullopt);
    return;
  }
  stream_.owner.streamEnded();
  finish(std::nullopt, std::nullopt);
}

void StreamReader::finishLater(OptionalError error) {
  progress_ = Progress::finishing;
  stream_.loop.post(stream_.later(*this, [error = std::move(error)](StreamReader& self) mutable {
    self.finish(std::nullopt, std::move(error));
  }));
}

void StreamReader::finish(std::optional<Data> data, OptionalError error) {
  progress_ = Progress::none;
  gathering_ = nullptr;
  // The completion may start the next read or close the stream.
  const auto completion = std::exchange(completion_, nullptr);
  completion(std::move(data), std::move(error));
}

// Ending

void StreamReader::close() {
  isClosed_ = true;
  gathering_ = nullptr;
  if (progress_ == Progress::waiting) {
    finishLater(socketError(ECANCELED));
  }
}

void StreamReader::discardArrived() {
  if (!stream_.socket.isOpen()) {
    return;
  }
  switch (stream_.socket.discardArrived(stream_.loop.counters().discardedBytes)) {
    case LoopSocket::Discarded::some:
      stream_.loop.post(stream_.later(*this, [](StreamReader& self) { self.discardArrived(); }));
      break;
    case LoopSocket::Discarded::allSoFar:
      waitForData();
      break;
    case LoopSocket::Discarded::everything:
      break;
  }
}

void StreamReader::fail() {
  gathering_ = nullptr;
  if (progress_ == Progress::waiting) {
    finishLater(*stream_.failure);
  }
}

void StreamReader::abandon() {
  if (completion_) {
    stream_.loop.post([completion = std::move(completion_)] {
      completion(std::nullopt, socketError(ECANCELED));
    });
  }
}

}  // namespace ostravel::linuxplatform
