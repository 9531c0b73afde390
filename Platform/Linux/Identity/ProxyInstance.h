#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Processes/ProcessLife.h"
#include "Platform/Linux/Tracing/ListenerWatch.h"

namespace ostravel::linuxplatform {

// The local proxy to which a flow was offered: a process and its listening socket. Tells whether
// both are unchanged when the proxy has answered: another program could have taken over the port in
// the meantime, and the flow's connection with it. A value type; usable from any thread.
class ProxyInstance {
 public:
  // The address on which the proxy listens. Usable from any thread.
  class Port {
   public:
    Port(std::unique_ptr<SocketDiagnostics> diagnostics, const SocketEndpoint& address)
        : diagnostics_(std::move(diagnostics)), address_(address) {}

    // True if this is the socket that accepts its connections; false in doubt.
    bool isHeldBy(std::uint64_t listener);

    // With a watch, most questions are answered without a system call. Without a value it is no
    // longer used: to be called before its memory goes.
    void setWatch(std::optional<ListenerWatch> watch);
    // True if no other socket has begun to listen since the watch counted this many changes; false
    // in doubt.
    bool hasNotChangedSince(std::uint64_t changes);

   private:
    std::mutex lock_;
    // Both guarded by lock_.
    const std::unique_ptr<SocketDiagnostics> diagnostics_;
    std::optional<ListenerWatch> watch_;
    const SocketEndpoint address_;
  };

  // listener: the socket's cookie, which is never reused. changes: the count of the port's watch
  // before that socket was found to be the listener, if there is a watch.
  ProxyInstance(const ProcessLife& process, std::uint64_t listener, std::shared_ptr<Port> port,
                std::optional<std::uint64_t> changes = std::nullopt)
      : process_(process), listener_(listener), port_(std::move(port)), changes_(changes) {}

  // For a port without a listener.
  explicit ProxyInstance(std::shared_ptr<Port> port)
      : ProxyInstance(ProcessLife(0, 0), 0, std::move(port)) {}

  // True if every connection to the port since the offer was made to this listening socket.
  bool isListening() const {
    return (changes_ && port_->hasNotChangedSince(*changes_)) || port_->isHeldBy(listener_);
  }
  // True if the listening socket has been closed, or the process is about to end.
  bool hasEnded() const { return process_.hasEnded() || !port_->isHeldBy(listener_); }

 private:
  ProcessLife process_;
  std::uint64_t listener_;
  std::shared_ptr<Port> port_;
  std::optional<std::uint64_t> changes_;
};

}  // namespace ostravel::linuxplatform
