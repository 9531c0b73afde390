#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <functional>
#include <memory>

#include "Companion/Shared/AcceptLoop.h"
#include "Companion/Sidecar/ConnectSession.h"
#include "Companion/Sidecar/TunnelLog.h"

namespace ostravel::companion {

// A local HTTP proxy with one method, CONNECT (RFC 9110, section 9.3.6), which carries any number
// of tunnels on one thread. Outlives the run of its io_context.
class ConnectProxy {
 public:
  using Lookup = std::function<std::shared_ptr<PendingLookup>(const HostPort&, LookupDone)>;

  // Starts to listen; accepts once the io_context runs. Throws std::system_error if it cannot
  // listen on the address. Port 0 lets the system choose.
  ConnectProxy(asio::io_context& ioContext, const asio::ip::tcp::endpoint& address, Lookup lookUp,
               TunnelLog log, SessionLimits limits = {});
  ConnectProxy(const ConnectProxy&) = delete;
  ConnectProxy& operator=(const ConnectProxy&) = delete;
  ~ConnectProxy();

  // The address on which it listens, with the actual port.
  asio::ip::tcp::endpoint address();

 private:
  AcceptLoop<asio::ip::tcp> acceptLoop_;
  SessionEnvironment environment_;
};

}  // namespace ostravel::companion
