#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <cstdint>
#include <memory>
#include <string_view>

#include "Platform/Interface/TCPConnection.h"
#include "Platform/Shared/StateObservers.h"
#import "Platform/macOS/Dispatch/CompletionQueue.h"
#include "Platform/macOS/Flow/OutstandingOperation.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

// A connection that the system has created for the provider. It shares the queue of the completion
// that creates it. For nil, which the system returns for an endpoint that it cannot use, it stays
// invalid forever, and its transfers fail.
class SystemTCPConnection final : public platform::TCPConnection,
                                  public std::enable_shared_from_this<SystemTCPConnection> {
 public:
  static std::shared_ptr<SystemTCPConnection> make(NWTCPConnection* connection);
  ~SystemTCPConnection() override;

  platform::TCPConnectionState state() const override;
  platform::OptionalError error() const override;
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override;

  // For the one object that observes the system's connections: notifies the observers of a change
  // of state.
  void stateDidChange();

 private:
  explicit SystemTCPConnection(NWTCPConnection* connection);

  const Reference<NWTCPConnection*> connection_;
  const std::shared_ptr<CompletionQueue> queue_;
  // The number by which the system's notifications find this object.
  std::uintptr_t observation_ = 0;
  platform::StateObservers observers_;
  OutstandingOperation reading_;
  OutstandingOperation writing_;
};

}  // namespace ostravel::macos
