#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#import "Platform/macOS/Dispatch/CompletionBlocks.h"
#import "Platform/macOS/Foundation/Reference.h"
#include "Tests/StandInMac/ObjectLife.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"

namespace ostravel::standin {

// The state of a provider object. Usable from any thread.
class ProviderState final : public SettingsHold {
 public:
  using ErrorBlock = macos::Reference<macos::ErrorBlock>;

  // Of the object.
  ObjectLife& life() { return life_; }

  // Borrowed; nil for none.
  NEVPNProtocol* configuration() const;
  void setConfiguration(NEVPNProtocol* configuration);

  // Applies the system's conditions for rules.
  void apply(NETunnelNetworkSettings* settings, ErrorBlock completion);
  std::vector<AppliedSettings> applied() const;
  void fail(NSError* error);
  void hold();
  void letGo() override;
  void onSettings(std::function<void()> function);

 private:
  struct Answer {
    ErrorBlock completion;
    macos::Reference<NSError*> error;
  };

  static void answerLater(const Answer& answer);

  ObjectLife life_;
  mutable std::mutex lock_;
  macos::Reference<NEVPNProtocol*> configuration_;
  std::vector<AppliedSettings> applied_;
  macos::Reference<NSError*> failure_;
  bool isHeld_ = false;
  std::vector<Answer> held_;
  std::function<void()> onSettings_;
};

}  // namespace ostravel::standin
