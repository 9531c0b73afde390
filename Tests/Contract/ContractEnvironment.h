#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Interface/Platform.h"
#include "Platform/Interface/TCPConnection.h"
#include "Tests/Contract/ContractPeer.h"

namespace ostravel::contract {

// A flow and the application that it belongs to.
struct FlowEnds {
  std::shared_ptr<platform::AppProxyTCPFlow> flow;
  std::shared_ptr<ContractPeer> application;
};

// What the contract tests need from a platform. Each test has one: it makes a platform, plays the
// rest of the world, and removes everything when it is destroyed. Used on the test's thread except
// where noted.
class ContractEnvironment {
 public:
  using Condition = std::function<bool()>;

  ContractEnvironment() = default;
  ContractEnvironment(const ContractEnvironment&) = delete;
  ContractEnvironment& operator=(const ContractEnvironment&) = delete;
  virtual ~ContractEnvironment() = default;

  virtual platform::Platform& platform() = 0;
  // Whether a programming error is thrown as std::logic_error instead of ending the process.
  virtual bool throwsProgrammingErrors() const { return false; }

  // --- Time.

  // Lets the platform work until the condition holds; false if it does not within a time that is
  // far longer than anything takes.
  virtual bool waitUntil(const Condition& condition) = 0;
  // Lets operations that were under way before the call complete, as far as that takes no time.
  virtual void settle() = 0;
  // The time that timers use. Callable from any thread.
  virtual std::chrono::nanoseconds now() const = 0;
  // Called by a work item, on its thread: keeps it busy this long.
  virtual void spend(std::chrono::nanoseconds duration) = 0;

  // --- Flows.

  // A new flow to kDestination that is not open yet. The environment does not keep it alive.
  virtual FlowEnds makeFlow(const std::string& signingIdentifier) = 0;

  // Whether the platform holds a flow's first packet until something is read or written, so that it
  // can give the flow back.
  virtual bool holdsFirstPacket() const = 0;

  // --- Connections.

  // The connection that a provider gets for this endpoint, without TLS. Callable from any thread.
  virtual std::shared_ptr<platform::TCPConnection> connect(
      const platform::HostEndpoint& endpoint) = 0;
  // Where a peer listens that accepts every connection.
  virtual platform::HostEndpoint listeningEndpoint() = 0;
  // Waits for the far end of the oldest accepted connection that was not returned before; null when
  // none comes.
  virtual std::shared_ptr<ContractPeer> acceptPeer() = 0;
  virtual platform::HostEndpoint refusingEndpoint() = 0;
  // Where attempts to connect are not answered.
  virtual platform::HostEndpoint silentEndpoint() = 0;

  // --- Socket calls. Addresses as the calls take them, each valid until the next one is requested.

  virtual std::vector<std::byte> listeningAddress() = 0;
  virtual std::vector<std::byte> refusingAddress() = 0;
  virtual std::vector<std::byte> silentAddress() = 0;
  virtual std::vector<std::byte> listeningLocalAddress() = 0;
  virtual std::vector<std::byte> refusingLocalAddress() = 0;
  // What the listener at listeningLocalAddress received, one text for each connection that has
  // ended.
  virtual std::vector<std::string> localDeliveries() = 0;
};

// The remote endpoint of every flow that makeFlow makes.
inline const platform::HostEndpoint kDestination{"203.0.113.7", "443"};

}  // namespace ostravel::contract
