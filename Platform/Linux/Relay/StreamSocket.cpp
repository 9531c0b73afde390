#include "Platform/Linux/Relay/StreamSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <span>
#include <utility>

#include "Platform/Linux/Relay/BufferChunk.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/LingeringSocket.h"
#include "Platform/Linux/Relay/PipeChunk.h"
#include "Platform/Linux/Relay/ProgrammingError.h"
#include "Platform/Linux/Relay/SocketError.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

using platform::Data;
using platform::OptionalError;

StreamSocket::StreamSocket(EventLoop& loop, Owner& owner, std::shared_ptr<UserShare> user)
    : loop_(loop), owner_(owner), user_(std::move(user)) {}

StreamSocket::~StreamSocket() {
  if (readCompletion_) {
    loop_.post([completion = std::move(readCompletion_)] {
      completion(std::nullopt, socketError(ECANCELED));
    });
  }
  if (writeCompletion_) {
    loop_.post([completion = std::move(writeCompletion_)] { completion(socketError(ECANCELED)); });
  }
  socket_.reset();
}

// A handler for the loop that runs step(*this), unless the owner is gone by then.
template <typename Step>
auto StreamSocket::later(Step step) {
  return [weakSelf = std::weak_ptr(owner_.sharedStream()), step = std::move(step)]() mutable {
    if (const auto self = weakSelf.lock()) {
      step(*self);
    }
  };
}

void StreamSocket::attach(LoopSocket socket) {
  socket_ = std::move(socket);
  socket_.chargeTo(user_);
  const int on = 1;
  ::setsockopt(socket_.descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (isWriteClosed_) {
    ::shutdown(socket_.descriptor(), SHUT_WR);
  }
  if (isReadClosed_ && isWriteClosed_) {
    leaveToLinger();
    return;
  }
  if (isReadClosed_ || reading_ == Progress::waiting) {
    waitToRead();
  }
  if (writing_ == Progress::waiting) {
    beginWrite();
  }
}

template <typename Step>
void StreamSocket::inTurn(Step step) {
  loop_.turns().run(user_.get(), later(std::move(step)));
}

void StreamSocket::spendOfTurn(std::size_t bytes) {
  loop_.turns().spend(user_.get(), bytes);
}

// Done on the first operation: a stream without operations has nothing to drop, and it may have
// been created on the verdict thread, which must not share a lock with the loop.
void StreamSocket::takePlace() {
  if (!place_.isTaken()) {
    loop_.streams().add(place_, owner_.sharedStream());
  }
}

// Reading

void StreamSocket::read(std::size_t minimum, std::size_t maximum,
                        platform::ReadCompletion completion) {
  if (reading_ != Progress::none) {
    programmingError("a read of a stream that is being read");
  }
  takePlace();
  reading_ = Progress::waiting;
  readCompletion_ = std::move(completion);
  maximum_ = std::max<std::size_t>(maximum, 1);
  minimum_ = std::clamp<std::size_t>(minimum, 1, maximum_);
  if (failure_) {
    finishReadLater(*failure_);
  } else if (isReadClosed_) {
    finishReadLater(socketError(ECANCELED));
  } else if (hasEnded_) {
    finishReadLater(std::nullopt);
  } else if (socket_.isOpen()) {
    beginRead();
  }
}

void StreamSocket::beginRead() {
  if (isMoreLikely_) {
    loop_.post(later([](StreamSocket& self) { self.continueRead(); }));
  } else {
    waitToRead();
  }
}

void StreamSocket::waitToRead() {
  if (std::exchange(isWaitingToRead_, true)) {
    return;
  }
  socket_.waitUntilReadable(
      [weakSelf = std::weak_ptr(owner_.sharedStream())](asio::error_code error) {
        const auto self = error ? nullptr : weakSelf.lock();
        if (!self) {
          return;
        }
        ++self->loop_.counters().wakeups;
        self->isWaitingToRead_ = false;
        if (self->isReadClosed_) {
          self->discardArrived();
        } else {
          self->continueRead();
        }
      });
}

void StreamSocket::continueRead() {
  inTurn([](StreamSocket& self) { self.receive(); });
}

void StreamSocket::receive() {
  // Closed or failed since this was started.
  if (reading_ != Progress::waiting || !socket_.isOpen()) {
    return;
  }
  const bool mayUsePipe = isBulk_ && minimum_ == 1;
  if (!mayUsePipe || !receiveIntoPipe()) {
    receiveIntoMemory();
  }
}

void StreamSocket::receiveIntoMemory() {
  // A whole buffer may be pinned until the other side reads; a small piece is copied out of it.
  const bool mayPinBuffer = loop_.memory().permits(user_, limits::kBufferSize);
  const std::size_t most = mayPinBuffer ? limits::kBufferSize : limits::kSmallRead;
  const std::size_t size = std::min(most, maximum_ - gathered_.size());
  BufferPool::Buffer buffer = loop_.buffers().take();
  const auto received = ::recv(socket_.descriptor(), buffer.get(), size, MSG_DONTWAIT);
  if (received <= 0) {
    const int error = received < 0 ? errno : 0;
    loop_.buffers().release(std::move(buffer));
    if (received == 0) {
      endRead();
    } else {
      handleReceiveFailure(error);
    }
    return;
  }
  const auto count = static_cast<std::size_t>(received);
  loop_.counters().copiedBytes += count;
  spendOfTurn(count);
  isMoreLikely_ = count == size;
  if (count < limits::kBufferSize) {
    fullReads_ = 0;
  } else if (++fullReads_ == limits::kFullReadsBeforeSplice) {
    fullReads_ = 0;
    smallChunks_ = 0;
    isBulk_ = true;
  }
  if (count < minimum_ || !gathered_.empty()) {
    gather(buffer.get(), count);
    loop_.buffers().release(std::move(buffer));
    return;
  }
  if (count <= limits::kSmallRead) {
    // A small chunk that waits for its reader would pin a buffer many times its size.
    Data data = Data::copyOf(std::span<const std::byte>(buffer.get(), count));
    loop_.buffers().release(std::move(buffer));
    finishRead(std::move(data), std::nullopt);
    return;
  }
  finishRead(Data(std::make_unique<BufferChunk>(
                 loop_.buffers(), std::move(buffer), count,
                 MemoryBudget::Lease(loop_.memory(), limits::kBufferSize, user_))),
             std::nullopt);
}

bool StreamSocket::receiveIntoPipe() {
  auto pipe = loop_.pipes().take(user_);
  if (!pipe) {
    return false;
  }
  const auto received =
      ::splice(socket_.descriptor(), nullptr, pipe->writeEnd.get(), nullptr,
               std::min(maximum_, pipe->capacity), SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  if (received <= 0) {
    const int error = received < 0 ? errno : 0;
    loop_.pipes().release(*std::move(pipe));
    if (received == 0) {
      endRead();
    } else {
      handleReceiveFailure(error);
    }
    return true;
  }
  const auto count = static_cast<std::size_t>(received);
  loop_.counters().splicedBytes += count;
  spendOfTurn(count);
  isMoreLikely_ = count > limits::kSmallChunk;
  if (isMoreLikely_) {
    smallChunks_ = 0;
  } else if (++smallChunks_ == limits::kSmallChunksBeforeCopy) {
    isBulk_ = false;
  }
  finishRead(Data(std::make_unique<PipeChunk>(loop_.pipes(), *std::move(pipe), count)),
             std::nullopt);
  return true;
}

void StreamSocket::gather(const std::byte* bytes, std::size_t size) {
  gathered_.insert(gathered_.end(), bytes, bytes + size);
  if (gathered_.size() >= minimum_) {
    finishRead(Data(std::exchange(gathered_, {})), std::nullopt);
  } else {
    beginRead();
  }
}

void StreamSocket::handleReceiveFailure(int error) {
  if (error == EAGAIN || error == EINTR) {
    isMoreLikely_ = false;
    waitToRead();
    return;
  }
  noteFailure(error);
  finishRead(std::nullopt, socketError(error));
}

void StreamSocket::endRead() {
  if (socketError_ != 0) {
    // The kernel reports a failure only once, and a write has already received it.
    finishRead(std::nullopt, socketError(socketError_));
    return;
  }
  hasEnded_ = true;
  if (!gathered_.empty()) {
    finishRead(Data(std::exchange(gathered_, {})), std::nullopt);
    return;
  }
  owner_.streamEnded();
  finishRead(std::nullopt, std::nullopt);
}

void StreamSocket::finishReadLater(OptionalError error) {
  reading_ = Progress::finishing;
  loop_.post(later([error = std::move(error)](StreamSocket& self) mutable {
    self.finishRead(std::nullopt, std::move(error));
  }));
}

void StreamSocket::finishRead(std::optional<Data> data, OptionalError error) {
  reading_ = Progress::none;
  // The completion may start the next read or close this stream.
  const auto completion = std::exchange(readCompletion_, nullptr);
  completion(std::move(data), std::move(error));
}

void StreamSocket::discardArrived() {
  if (!socket_.isOpen()) {
    return;
  }
  switch (socket_.discardArrived(loop_.counters().discardedBytes)) {
    case LoopSocket::Discarded::some:
      loop_.post(later([](StreamSocket& self) { self.discardArrived(); }));
      break;
    case LoopSocket::Discarded::allSoFar:
      waitToRead();
      break;
    case LoopSocket::Discarded::everything:
      break;
  }
}

// Writing

void StreamSocket::write(Data data, platform::ErrorCompletion completion) {
  if (writing_ != Progress::none) {
    programmingError("a write to a stream that is being written to");
  }
  takePlace();
  writing_ = Progress::waiting;
  writeCompletion_ = std::move(completion);
  if (failure_) {
    finishWriteLater(*failure_);
  } else if (isWriteClosed_) {
    finishWriteLater(socketError(ECANCELED));
  } else {
    chunk_ = std::move(data);
    sent_ = 0;
    if (socket_.isOpen()) {
      beginWrite();
    }
  }
}

void StreamSocket::beginWrite() {
  const int result = sendChunk();
  if (result == EAGAIN) {
    waitToWrite();
  } else {
    finishWriteLater(describeWriteResult(result));
  }
}

void StreamSocket::waitToWrite() {
  socket_.waitUntilWritable(
      [weakSelf = std::weak_ptr(owner_.sharedStream())](asio::error_code error) {
        const auto self = error ? nullptr : weakSelf.lock();
        if (self) {
          ++self->loop_.counters().wakeups;
          self->continueWrite();
        }
      });
}

void StreamSocket::continueWrite() {
  inTurn([](StreamSocket& self) { self.send(); });
}

void StreamSocket::send() {
  if (writing_ != Progress::waiting || !socket_.isOpen()) {
    return;
  }
  const int result = sendChunk();
  if (result == EAGAIN) {
    waitToWrite();
  } else {
    finishWrite(describeWriteResult(result));
  }
}

int StreamSocket::sendChunk() {
  auto* const inPipe = dynamic_cast<PipeChunk*>(chunk_.storage());
  const std::size_t size = chunk_.size();
  while (sent_ < size) {
    long count = 0;
    if (inPipe != nullptr && inPipe->isInPipe()) {
      count = inPipe->moveTo(socket_.descriptor());
    } else {
      const auto rest = chunk_.bytes().subspan(sent_);
      count = ::send(socket_.descriptor(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (count > 0) {
      sent_ += static_cast<std::size_t>(count);
      spendOfTurn(static_cast<std::size_t>(count));
    } else if (count == 0) {
      // Neither call returns 0 for data that is there. Retrying could continue forever.
      return EIO;
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

OptionalError StreamSocket::describeWriteResult(int error) {
  // Returns the buffer or pipe to its pool before the completion asks for more.
  chunk_ = Data();
  if (error == 0) {
    return std::nullopt;
  }
  noteFailure(error);
  return socketError(error);
}

void StreamSocket::finishWriteLater(OptionalError error) {
  writing_ = Progress::finishing;
  loop_.post(later([error = std::move(error)](StreamSocket& self) mutable {
    self.finishWrite(std::move(error));
  }));
}

void StreamSocket::finishWrite(OptionalError error) {
  writing_ = Progress::none;
  const auto completion = std::exchange(writeCompletion_, nullptr);
  completion(std::move(error));
}

// Ending

void StreamSocket::closeInOrder(Direction direction) {
  if (failure_ || isClosed(direction)) {
    return;
  }
  if (direction == Direction::read) {
    isReadClosed_ = true;
    gathered_ = {};
    if (reading_ == Progress::waiting) {
      finishReadLater(socketError(ECANCELED));
    }
    if (socket_.isOpen() && !isWriteClosed_) {
      waitToRead();
    }
  } else {
    isWriteClosed_ = true;
    chunk_ = Data();
    if (writing_ == Progress::waiting) {
      finishWriteLater(socketError(ECANCELED));
    }
    if (socket_.isOpen()) {
      ::shutdown(socket_.descriptor(), SHUT_WR);
    }
  }
  if (socket_.isOpen() && isReadClosed_ && isWriteClosed_) {
    leaveToLinger();
  }
}

void StreamSocket::leaveToLinger() {
  if (hasEnded_ || socketError_ != 0) {
    // Nothing more can arrive, so nothing can turn our end of stream into a reset.
    socket_.close();
  } else {
    LingeringSocket::start(loop_, std::move(socket_));
  }
}

void StreamSocket::fail(platform::Error error) {
  if (failure_) {
    return;
  }
  failure_ = std::make_unique<platform::Error>(std::move(error));
  gathered_ = {};
  chunk_ = Data();
  if (reading_ == Progress::waiting) {
    finishReadLater(*failure_);
  }
  if (writing_ == Progress::waiting) {
    finishWriteLater(*failure_);
  }
  socket_.reset();
}

void StreamSocket::dropCompletions() {
  chunk_ = Data();
  readCompletion_ = nullptr;
  writeCompletion_ = nullptr;
}

void StreamSocket::noteFailure(int error) {
  if (socketError_ == 0) {
    socketError_ = error;
    owner_.streamFailed(error);
  }
}

}  // namespace ostravel::linuxplatform
