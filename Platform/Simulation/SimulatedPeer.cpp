#include "Platform/Simulation/SimulatedPeer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "Platform/Simulation/SimulatedError.h"

namespace ostravel::simulation {

namespace {

std::string bytesNoted(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

std::string withReason(std::string_view what, const platform::OptionalError& error) {
  std::string text(what);
  if (error) {
    text += ": " + error->localizedDescription;
  }
  return text;
}

}  // namespace

SimulatedPeer::SimulatedPeer(RunState& run, std::string name) : run_(run), name_(std::move(name)) {}

void SimulatedPeer::send(std::string_view bytes) {
  if (inboundEnd_) {
    throw std::logic_error(name_ + ": the far end sends after the end of its stream");
  }
  inbound_ += bytes;
  scheduleRead();
}

void SimulatedPeer::endSending(EndOfStream form) {
  inboundEnd_ = run_.queue.draw(2) == 1 ? EndOfStream::emptyData : form;
  scheduleRead();
}

void SimulatedPeer::failReads(platform::Error error) {
  readFailure_ = std::move(error);
  scheduleRead();
}

void SimulatedPeer::failWrites(platform::Error error) {
  writeFailure_ = std::move(error);
  scheduleWrite();
}

void SimulatedPeer::reset() {
  reset(connectionReset());
}

void SimulatedPeer::reset(platform::Error error) {
  failReads(error);
  failWrites(error);
  if (onReset_) {
    onReset_(error);
  }
}

void SimulatedPeer::holdWrites() {
  holdingWrites_ = true;
}

void SimulatedPeer::releaseWrite() {
  if (!write_ || write_->released) {
    throw std::logic_error(name_ + ": there is no write to release");
  }
  write_->released = true;
  scheduleWrite();
}

void SimulatedPeer::releaseWrites() {
  holdingWrites_ = false;
  scheduleWrite();
}

void SimulatedPeer::observe(ResetHandler onReset, EndHandler onEnd) {
  onReset_ = std::move(onReset);
  onEnd_ = std::move(onEnd);
}

void SimulatedPeer::establish() {
  established_ = true;
  scheduleRead();
  scheduleWrite();
}

void SimulatedPeer::read(std::size_t minimum, std::size_t maximum,
                         platform::ReadCompletion completion) {
  if (read_) {
    throw std::logic_error(name_ + ": a second read while one is outstanding");
  }
  if (maximum == 0 || minimum > maximum) {
    throw std::logic_error(name_ + ": a read that can deliver nothing");
  }
  note("read");
  read_ = Read{std::max<std::size_t>(minimum, 1), maximum, std::move(completion)};
  scheduleRead();
}

void SimulatedPeer::write(const platform::Data& data, platform::ErrorCompletion completion) {
  if (write_) {
    throw std::logic_error(name_ + ": a second write while one is outstanding");
  }
  noteBytes("write ", data.size());
  const auto bytes = data.bytes();
  writes_.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  write_ = Write{writes_.back(), std::move(completion)};
  scheduleWrite();
}

void SimulatedPeer::closeReading(const platform::OptionalError& error) {
  note("closeRead", error);
  if (std::exchange(readingClosed_, true)) {
    return;
  }
  if (error) {
    sawReset_ = true;
    resetReason_ = error;
  }
  failReads(error.value_or(closedLocally()));
}

void SimulatedPeer::closeWriting(const platform::OptionalError& error) {
  note("closeWrite", error);
  if (std::exchange(writingClosed_, true)) {
    return;
  }
  if (error) {
    sawReset_ = true;
    resetReason_ = error;
  } else {
    sawEnd_ = true;
  }
  failWrites(error.value_or(closedLocally()));
}

void SimulatedPeer::leaveToSystem(std::string_view call, const platform::Error& error) {
  note(call, error);
  readingClosed_ = true;
  writingClosed_ = true;
  leftToSystem_ = true;
  failReads(error);
  failWrites(error);
}

void SimulatedPeer::disconnect(const platform::OptionalError& error) {
  if (error) {
    failReads(*error);
  } else if (!inboundEnd_) {
    endSending();
  }
  failWrites(error.value_or(closedLocally()));
}

void SimulatedPeer::abandon(const platform::Error& error) {
  readingClosed_ = true;
  writingClosed_ = true;
  sawEnd_ = true;
  failReads(error);
  failWrites(error);
}

void SimulatedPeer::detach() {
  note("destroyed");
  onReset_ = nullptr;
  onEnd_ = nullptr;
  cancelOutstanding();
}

void SimulatedPeer::detachUnclosed() {
  if (!readingClosed_ || !writingClosed_) {
    (carried_ ? sawReset_ : leftToSystem_) = true;
  }
  detach();
}

void SimulatedPeer::cancelOutstanding() {
  if (auto read = std::exchange(read_, std::nullopt)) {
    run_.queue.post([self = shared_from_this(), completion = std::move(read->completion)] {
      self->note("read failed", operationCancelled());
      completion(std::nullopt, operationCancelled());
    });
  }
  if (auto write = std::exchange(write_, std::nullopt)) {
    run_.queue.post([self = shared_from_this(), completion = std::move(write->completion)] {
      self->note("write failed", operationCancelled());
      completion(operationCancelled());
    });
  }
}

void SimulatedPeer::dropCompletions() {
  // Releasing a completion may destroy the near end, which calls this again.
  const auto read = std::exchange(read_, std::nullopt);
  const auto write = std::exchange(write_, std::nullopt);
}

bool SimulatedPeer::readCanComplete() const {
  return readFailure_ || (established_ && (inboundEnd_ || unreadBytes() >= read_->minimum));
}

void SimulatedPeer::scheduleRead() {
  if (read_ && !read_->scheduled && readCanComplete()) {
    read_->scheduled = true;
    run_.deliver(shared_from_this(), &SimulatedPeer::completeRead);
  }
}

void SimulatedPeer::completeRead() {
  if (!read_) {
    return;
  }
  const bool hasBytes = unreadBytes() > 0;
  if (!readFailure_ && hasBytes && run_.faults.readFails()) {
    readFailure_ = connectionReset();
  }
  if (readFailure_) {
    note("read failed", readFailure_);
    finishRead(std::nullopt, readFailure_);
    return;
  }
  if (hasBytes) {
    carried_ = true;
    auto chunk = takeChunk();
    noteBytes("read ", chunk.size());
    finishRead(std::move(chunk), std::nullopt);
    return;
  }
  note("read end");
  if (inboundEnd_ == EndOfStream::emptyData) {
    finishRead(platform::Data(), std::nullopt);
  } else {
    finishRead(std::nullopt, std::nullopt);
  }
  if (onEnd_) {
    onEnd_();
  }
}

platform::Data SimulatedPeer::takeChunk() {
  const std::size_t most = std::min(read_->maximum, unreadBytes());
  const std::size_t size = run_.faults.chunk(std::min(read_->minimum, most), most);
  auto chunk = platform::Data::copyOf(std::string_view(inbound_).substr(inboundStart_, size));
  inboundStart_ += size;
  // Moves the unread bytes once at least half of the memory contains bytes that have been read.
  if (inboundStart_ * 2 >= inbound_.size()) {
    inbound_.erase(0, inboundStart_);
    inboundStart_ = 0;
  }
  return chunk;
}

void SimulatedPeer::finishRead(std::optional<platform::Data> data, platform::OptionalError error) {
  const auto completion = std::move(read_->completion);
  read_.reset();
  completion(std::move(data), std::move(error));
}

void SimulatedPeer::scheduleWrite() {
  if (!write_ || write_->scheduled) {
    return;
  }
  const bool isHeld = holdingWrites_ && !write_->released;
  if (writeFailure_ || (established_ && !isHeld)) {
    write_->scheduled = true;
    run_.deliver(shared_from_this(), &SimulatedPeer::completeWrite);
  }
}

void SimulatedPeer::completeWrite() {
  if (!write_) {
    return;
  }
  if (!writeFailure_ && run_.faults.writeFails()) {
    writeFailure_ = connectionReset();
  }
  const auto write = std::exchange(write_, std::nullopt);
  if (writeFailure_) {
    note("write failed", writeFailure_);
    write->completion(writeFailure_);
    return;
  }
  carried_ = true;
  received_ += write->bytes;
  note("written");
  write->completion(std::nullopt);
}

void SimulatedPeer::note(std::string_view what, const platform::OptionalError& error) {
  if (run_.journal.isEnabled()) {
    run_.journal.add(name_, withReason(what, error));
  }
}

void SimulatedPeer::noteBytes(std::string_view what, std::size_t count) {
  if (run_.journal.isEnabled()) {
    run_.journal.add(name_, std::string(what) + bytesNoted(count));
  }
}

}  // namespace ostravel::simulation
