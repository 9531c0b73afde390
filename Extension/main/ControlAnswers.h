#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/main/ProxyingState.h"
#include "Platform/Interface/ProviderConfiguration.h"
#include "Platform/Linux/Control/ControlAnswer.h"
#include "Platform/Linux/Control/ControlRequest.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/LinuxProviderContext.h"
#include "Platform/Linux/Names/NameUse.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Statistics/FlowJournal.h"

namespace ostravel {

// Answers the requests of the control socket from the parts of the process. Owned by the process
// entry; used on the socket's thread unless stated otherwise. Waits briefly for an event loop.
class ControlAnswers {
 public:
  // All parts outlive this object.
  struct Parts {
    linuxplatform::LinuxPlatform& platform;
    linuxplatform::LinuxProviderContext& context;
    linuxplatform::FlowJournal& journal;
    linuxplatform::EventLoopGroup& loops;
    linuxplatform::DescriptorBudget& descriptors;
    linuxplatform::ProxyingState& proxying;
    linuxplatform::NameUse names;
    std::weak_ptr<PacketTunnelProvider> provider;
    // "running", "off" or "ended".
    std::function<const char*()> guardian;
    // The configuration as read at the start, and a function that reads it again.
    std::optional<platform::ProviderConfiguration> configuration;
    std::optional<std::string> configurationPath;
  };

  explicit ControlAnswers(Parts parts);

  // Returns the answer's line.
  std::string answer(const linuxplatform::ControlRequest& request) const;

  // Records the state of proxying, so that the time of a change is known. Called several times a
  // second, on any thread; cheap.
  void observe() const;

 private:
  linuxplatform::ProxyingState::Facts facts() const;
  JSONHandle status() const;
  JSONHandle decisions(const linuxplatform::ControlRequest& request) const;
  JSONHandle tunnels(const linuxplatform::ControlRequest& request) const;
  std::string explain(const linuxplatform::ControlRequest& request) const;
  std::string reload() const;

  void addProgram(json_t* status) const;
  void addProxying(json_t* status) const;
  void addHealth(json_t* status, PacketTunnelProvider& provider) const;
  void addFlows(json_t* status, const linuxplatform::FlowJournal::Totals& totals) const;
  void addRelay(json_t* status) const;
  void addServices(json_t* status) const;
  double now() const;

  const Parts parts_;
  const double startedAt_;
};

}  // namespace ostravel
