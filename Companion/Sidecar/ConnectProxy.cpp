#include "Companion/Sidecar/ConnectProxy.h"

#include <memory>
#include <utility>

namespace ostravel::companion {

ConnectProxy::ConnectProxy(asio::io_context& ioContext, const asio::ip::tcp::endpoint& address,
                           Lookup lookUp, TunnelLog log, SessionLimits limits)
    : acceptLoop_(asio::ip::tcp::acceptor(ioContext, address),
                  [this](asio::ip::tcp::socket client) {
                    std::make_shared<ConnectSession>(std::move(client), environment_)->start();
                  }),
      environment_{.lookUp = std::move(lookUp),
                   .log = std::move(log),
                   .limits = limits,
                   .relays = std::make_shared<RelayEnvironment>(ioContext),
                   .ended = [this] { acceptLoop_.descriptorFreed(); }} {
  acceptLoop_.start();
}

ConnectProxy::~ConnectProxy() {
  // Breaks a cycle: a relay that waits for its turn is owned by the queue, which it owns as well.
  environment_.relays->turns.clear();
}

asio::ip::tcp::endpoint ConnectProxy::address() {
  return acceptLoop_.acceptor().local_endpoint();
}

}  // namespace ostravel::companion
