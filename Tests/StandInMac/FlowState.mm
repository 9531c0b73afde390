#import "Tests/StandInMac/FlowState.h"

#include <cerrno>
#include <utility>

#include "Tests/StandInMac/SystemBehaviour.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::standin {

namespace {

// As much as the system delivers at once.
constexpr std::size_t kReadMaximum = 65536;

NSError* flowError(NEAppProxyFlowError code) {
  return [NSError errorWithDomain:NEAppProxyErrorDomain code:code userInfo:nil];
}

NSError* flowErrorFrom(int error) {
  switch (error) {
    case 0:
      return nil;
    case ECONNRESET:
    case EPIPE:
      return flowError(NEAppProxyFlowErrorPeerReset);
    case ECANCELED:
      return flowError(NEAppProxyFlowErrorAborted);
    default:
      return flowError(NEAppProxyFlowErrorInternal);
  }
}

// Completions never run inside the call.
void completeLater(const FlowState::ErrorBlock& completion, NSError* error) {
  const auto held = macos::Reference<NSError*>::retaining(error);
  runOnWorker([completion, held] { completion.get()(held.get()); });
}

void completeLater(const FlowState::ReadBlock& completion, NSData* data, NSError* error) {
  const auto heldData = macos::Reference<NSData*>::retaining(data);
  const auto heldError = macos::Reference<NSError*>::retaining(error);
  runOnWorker(
      [completion, heldData, heldError] { completion.get()(heldData.get(), heldError.get()); });
}

NSError* borrowed(const macos::Reference<NSError*>& error) {
  return [[error.get() retain] autorelease];
}

}  // namespace

FlowState::FlowState(const FlowDescription& description, std::shared_ptr<StreamSocket> socket)
    : signingIdentifier_(macos::Reference<NSString*>::retaining(description.signingIdentifier)),
      hasMetaData_(description.hasMetaData),
      endpoint_(macos::Reference<NWEndpoint*>::retaining(description.endpoint)),
      socket_(std::move(socket)) {}

NEFlowMetaData* FlowState::metaData() const {
  if (!hasMetaData_) {
    return nil;
  }
  NEFlowMetaData* const metaData = [[[NEFlowMetaData alloc] init] autorelease];
  metaData->_standInStorage = std::make_shared<macos::Reference<NSString*>>(signingIdentifier_);
  return metaData;
}

void FlowState::open(NWEndpoint* localEndpoint, ErrorBlock completion) {
  const std::lock_guard guard(lock_);
  // A provider that opens a flow has taken it, even if its answer is not there yet.
  wasTaken_ = true;
  openedLocalEndpoint_ = macos::Reference<NWEndpoint*>::retaining(localEndpoint);
  if (holdsOpening_) {
    heldOpenings_.push_back(std::move(completion));
  } else {
    finishOpening(completion);
  }
}

void FlowState::finishOpening(const ErrorBlock& completion) {
  isOpened_ = openingError_.get() == nil;
  completeLater(completion, openingError_.get());
}

void FlowState::read(ReadBlock completion) {
  const std::lock_guard guard(lock_);
  if (!isOpened_ || isReadClosed_) {
    completeLater(completion, nil, flowError(NEAppProxyFlowErrorNotConnected));
    return;
  }
  if (isReading_) {
    completeLater(completion, nil, flowError(NEAppProxyFlowErrorReadAlreadyPending));
    return;
  }
  if (std::exchange(hasNextRead_, false)) {
    completeLater(completion, nextData_.get(), nextError_.get());
    return;
  }
  isReading_ = true;
  socket_->read(1, kReadMaximum,
                [self = shared_from_this(), completion = std::move(completion)](
                    const std::vector<std::byte>& bytes, int error) {
                  self->finishRead(completion, bytes, error);
                });
}

void FlowState::finishRead(const ReadBlock& completion, const std::vector<std::byte>& bytes,
                           int error) {
  {
    const std::lock_guard guard(lock_);
    isReading_ = false;
    hasCarried_ |= !bytes.empty();
    if (isReadClosed_) {
      error = ECANCELED;
    }
  }
  NSData* const data = error == 0 ? [NSData dataWithBytes:bytes.data() length:bytes.size()] : nil;
  completion.get()(data, flowErrorFrom(error));
}

void FlowState::write(NSData* data, ErrorBlock completion) {
  const std::lock_guard guard(lock_);
  if (!isOpened_ || isWriteClosed_) {
    completeLater(completion, flowError(NEAppProxyFlowErrorNotConnected));
    return;
  }
  if (isWriting_) {
    completeLater(completion, flowError(NEAppProxyFlowErrorInvalidArgument));
    return;
  }
  isWriting_ = true;
  hasCarried_ = true;
  const auto* const bytes = static_cast<const std::byte*>([data bytes]);
  socket_->write({bytes, bytes + [data length]},
                 [self = shared_from_this(), completion = std::move(completion)](int error) {
                   self->finishWrite(completion, error);
                 });
}

void FlowState::finishWrite(const ErrorBlock& completion, int error) {
  {
    const std::lock_guard guard(lock_);
    isWriting_ = false;
    if (isWriteClosed_) {
      socket_->endSending();
    }
  }
  completion.get()(flowErrorFrom(error));
}

void FlowState::closeRead(NSError* error) {
  const std::lock_guard guard(lock_);
  if (!std::exchange(isReadClosed_, true)) {
    closeReadError_ = macos::Reference<NSError*>::retaining(error);
    endWhatIsClosed(error != nil);
  }
}

void FlowState::closeWrite(NSError* error) {
  const std::lock_guard guard(lock_);
  if (!std::exchange(isWriteClosed_, true)) {
    closeWriteError_ = macos::Reference<NSError*>::retaining(error);
    endWhatIsClosed(error != nil);
  }
}

void FlowState::endWhatIsClosed(bool withError) {
  if (!socket_) {
    return;
  }
  if (withError) {
    socket_->reset();
  } else if (isReadClosed_ && isWriteClosed_) {
    socket_->close();
  } else if (isReadClosed_) {
    socket_->abandonReading();
  } else if (!isWriting_) {
    socket_->endSending();
  }
}

void FlowState::objectWasReleased() {
  const std::lock_guard guard(lock_);
  if (!socket_ || (isReadClosed_ && isWriteClosed_)) {
    return;
  }
  const ReleasedFlow outcome = systemBehaviour().releasedFlow;
  if ((wasTaken_ || hasCarried_) && outcome == ReleasedFlow::stays) {
    socket_->leaveOpen();
    return;
  }
  if (hasCarried_ || (wasTaken_ && outcome == ReleasedFlow::resets)) {
    socket_->reset();
    return;
  }
  wasLeftToSystem_ = !isReadClosed_ && !isWriteClosed_;
  socket_->abandon();
  if (wasLeftToSystem_ && onLeftToSystem_) {
    onLeftToSystem_();
  }
}

bool FlowState::isOpened() const {
  return locked(&FlowState::isOpened_);
}
bool FlowState::isReadClosed() const {
  return locked(&FlowState::isReadClosed_);
}
bool FlowState::isWriteClosed() const {
  return locked(&FlowState::isWriteClosed_);
}
NSError* FlowState::closeReadError() const {
  return borrowed(locked(&FlowState::closeReadError_));
}
NSError* FlowState::closeWriteError() const {
  return borrowed(locked(&FlowState::closeWriteError_));
}
void FlowState::noteTaken() {
  const std::lock_guard guard(lock_);
  wasTaken_ = true;
}
bool FlowState::wasLeftToSystem() const {
  return locked(&FlowState::wasLeftToSystem_);
}
void FlowState::onLeftToSystem(std::function<void()> function) {
  const std::lock_guard guard(lock_);
  onLeftToSystem_ = std::move(function);
}
NWEndpoint* FlowState::openedLocalEndpoint() const {
  return [[locked(&FlowState::openedLocalEndpoint_).get() retain] autorelease];
}

void FlowState::failOpening(NSError* error) {
  const std::lock_guard guard(lock_);
  openingError_ = macos::Reference<NSError*>::retaining(error);
}

void FlowState::holdOpening() {
  const std::lock_guard guard(lock_);
  holdsOpening_ = true;
}

void FlowState::letOpeningGo() {
  // The steps of ProviderState::letGo(), with another lock and another answer. Completions are
  // destroyed without the lock: one may hold the flow.
  std::vector<ErrorBlock> completions;
  const std::lock_guard guard(lock_);
  holdsOpening_ = false;
  completions.swap(heldOpenings_);
  for (const ErrorBlock& completion : completions) {
    finishOpening(completion);
  }
}

void FlowState::setNextRead(NSData* data, NSError* error) {
  const std::lock_guard guard(lock_);
  hasNextRead_ = true;
  nextData_ = macos::Reference<NSData*>::retaining(data);
  nextError_ = macos::Reference<NSError*>::retaining(error);
}

}  // namespace ostravel::standin
