#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <memory>
#include <mutex>
#include <vector>

#import "Platform/macOS/Dispatch/CompletionBlocks.h"
#import "Platform/macOS/Foundation/Reference.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"
#include "Tests/StandInMac/StreamSocket.h"

namespace ostravel::standin {

// The state of a flow object, which it outlives as a record. A flow that is released unclosed
// before it was taken, or before it carried anything, continues without the provider;
// SystemBehaviour decides what happens to it later.
class FlowState final : public FlowRecord, public std::enable_shared_from_this<FlowState> {
 public:
  using ErrorBlock = macos::Reference<macos::ErrorBlock>;
  using ReadBlock = macos::Reference<macos::ReadBlock>;

  // socket may be null: a flow that carries no stream.
  FlowState(const FlowDescription& description, std::shared_ptr<StreamSocket> socket);

  // Autoreleased; nil for none.
  NEFlowMetaData* metaData() const;
  NWEndpoint* endpoint() const { return endpoint_.get(); }

  // The operations of the flow object.
  void open(NWEndpoint* localEndpoint, ErrorBlock completion);
  void read(ReadBlock completion);
  void write(NSData* data, ErrorBlock completion);
  void closeRead(NSError* error);
  void closeWrite(NSError* error);
  void objectWasReleased();

  bool isOpened() const override;
  bool isReadClosed() const override;
  bool isWriteClosed() const override;
  NSError* closeReadError() const override;
  NSError* closeWriteError() const override;
  void noteTaken() override;
  bool wasLeftToSystem() const override;
  void onLeftToSystem(std::function<void()> function) override;
  NWEndpoint* openedLocalEndpoint() const override;
  void failOpening(NSError* error) override;
  void holdOpening() override;
  void letOpeningGo() override;
  void setNextRead(NSData* data, NSError* error) override;

 private:
  template <typename Value>
  Value locked(Value FlowState::*member) const {
    const std::lock_guard guard(lock_);
    return this->*member;
  }

  void finishOpening(const ErrorBlock& completion);
  void finishRead(const ReadBlock& completion, const std::vector<std::byte>& bytes, int error);
  void finishWrite(const ErrorBlock& completion, int error);
  // After a direction was closed. Expects the lock to be held.
  void endWhatIsClosed(bool withError);

  const macos::Reference<NSString*> signingIdentifier_;
  const bool hasMetaData_;
  const macos::Reference<NWEndpoint*> endpoint_;
  const std::shared_ptr<StreamSocket> socket_;

  mutable std::mutex lock_;
  bool isOpened_ = false;
  bool isReading_ = false;
  bool isWriting_ = false;
  bool isReadClosed_ = false;
  bool isWriteClosed_ = false;
  bool wasTaken_ = false;
  bool hasCarried_ = false;
  bool wasLeftToSystem_ = false;
  bool holdsOpening_ = false;
  bool hasNextRead_ = false;
  macos::Reference<NSData*> nextData_;
  macos::Reference<NSError*> nextError_;
  macos::Reference<NSError*> openingError_;
  macos::Reference<NSError*> closeReadError_;
  macos::Reference<NSError*> closeWriteError_;
  macos::Reference<NWEndpoint*> openedLocalEndpoint_;
  std::vector<ErrorBlock> heldOpenings_;
  std::function<void()> onLeftToSystem_;
};

}  // namespace ostravel::standin
