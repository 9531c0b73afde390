#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#import "Platform/macOS/Dispatch/CompletionBlocks.h"
#import "Platform/macOS/Foundation/Reference.h"
#include "Tests/StandInMac/ObjectLife.h"
#include "Tests/StandInMac/StreamSocket.h"

namespace ostravel::standin {

// The state of a connection object. Operations in flight hold this, not the object, and can find
// the object while something else holds it.
class ConnectionState final : public std::enable_shared_from_this<ConnectionState> {
 public:
  using ErrorBlock = macos::Reference<macos::ErrorBlock>;
  using ReadBlock = macos::Reference<macos::ReadBlock>;

  // Autoreleased. Without an address: a connection whose state is set by hand.
  static NWTCPConnection* makeConnection();
  static NWTCPConnection* makeConnection(std::vector<std::byte> address);

  // The reference count of the object, and its end.
  void retainObject() { life_.retain(); }
  // True for the last reference.
  bool releaseObject();
  void objectWasReleased();

  NWTCPConnectionState state() const;
  // Autoreleased; nil for none.
  NSError* error() const;
  // Notifies the observers, on this thread. A cancelled connection keeps its state.
  void setState(NWTCPConnectionState state, NSError* error);

  void read(std::size_t minimum, std::size_t maximum, ReadBlock completion);
  void write(NSData* data, ErrorBlock completion);
  void cancel();
  void setNextRead(NSData* data, NSError* error);

  // The state does not change on another thread while this is held.
  std::unique_lock<std::recursive_mutex> holdChanges() { return std::unique_lock(changing_); }

 private:
  // Null if the object is destroyed or being destroyed.
  macos::Reference<NWTCPConnection*> object();
  void finishConnecting(int error);
  // Starts the operation, now or once it is connected, or lets it fail. Expects the lock to be
  // held.
  void startWhenConnected(std::function<void(int error)> operation);
  void endWaiting(int error);
  // A failure of an operation ends an established connection.
  void noteFailure(int error);
  void startReading(std::size_t minimum, std::size_t maximum, const ReadBlock& completion);
  void startWriting(std::vector<std::byte> bytes, const ErrorBlock& completion);
  void finishRead(const ReadBlock& completion, const std::vector<std::byte>& bytes, int error);
  void finishWrite(const ErrorBlock& completion, int error);

  ObjectLife life_;
  // Recursive: an observer may cancel the connection that notifies it.
  std::recursive_mutex changing_;
  // On which a notification is under way.
  std::atomic<std::thread::id> notifyingThread_;
  mutable std::mutex lock_;
  // Unretained.
  NWTCPConnection* object_ = nil;
  std::shared_ptr<StreamSocket> socket_;
  NWTCPConnectionState state_ = NWTCPConnectionStateInvalid;
  macos::Reference<NSError*> error_;
  // Operations that were requested while it is connecting; each receives an errno value.
  std::vector<std::function<void(int error)>> waiting_;
  bool isReading_ = false;
  bool isWriting_ = false;
  bool hasNextRead_ = false;
  macos::Reference<NSData*> nextData_;
  macos::Reference<NSError*> nextError_;
};

}  // namespace ostravel::standin
