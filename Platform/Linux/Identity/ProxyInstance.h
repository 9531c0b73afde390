#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Processes/ProcessLife.h"
#include "Platform/Linux/Tracing/ConnectPublisher.h"

namespace ostravel::linuxplatform {

// The local proxy to which a flow was offered: a process and its listening socket. Tells whether
// both are unchanged when the proxy has answered: another program could have taken over the port in
// the meantime, and the flow's connection with it. A value type; usable from any thread.
class ProxyInstance {
 public:
  // The address on which the proxy listens. Its listener is looked up; with a publisher, which
  // watches the port, only after a change. Usable from any thread.
  class Port {
   public:
    Port(std::unique_ptr<SocketDiagnostics> diagnostics, const SocketEndpoint& address,
         std::shared_ptr<const ConnectPublisher> publisher = nullptr)
        : diagnostics_(std::move(diagnostics)),
          address_(address),
          publisher_(std::move(publisher)) {}

    // True if this is the socket that accepts its connections; false in doubt.
    bool isHeldBy(std::uint64_t listener);

   private:
    // The result of a look-up, which is valid until the watch's count changes.
    struct Found {
      std::uint64_t changes = 0;
      // Empty if there is none.
      std::optional<std::uint64_t> listener;
    };

    // Empty in doubt.
    std::optional<Found> find() const;

    std::mutex lock_;
    // Both guarded by lock_.
    const std::unique_ptr<SocketDiagnostics> diagnostics_;
    std::optional<Found> found_;
    const SocketEndpoint address_;
    // Shared, because packets may be held for longer than flows are identified.
    const std::shared_ptr<const ConnectPublisher> publisher_;
  };

  // listener: the socket's cookie, which is never reused.
  ProxyInstance(const ProcessLife& process, std::uint64_t listener, std::shared_ptr<Port> port)
      : process_(process), listener_(listener), port_(std::move(port)) {}

  // For a port without a listener.
  explicit ProxyInstance(std::shared_ptr<Port> port)
      : ProxyInstance(ProcessLife(), 0, std::move(port)) {}

  // True if every connection to the port since the offer was made to this listening socket.
  bool isListening() const { return port_->isHeldBy(listener_); }
  // True also if only its process is about to end.
  bool hasEnded() const { return process_.hasEnded() || !isListening(); }

 private:
  ProcessLife process_;
  std::uint64_t listener_;
  std::shared_ptr<Port> port_;
};

}  // namespace ostravel::linuxplatform
