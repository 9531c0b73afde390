#pragma once

#include <atomic>
#include <future>
#include <memory>
#include <optional>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/TCPConnection.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"

namespace ostravel::linuxplatform::test {

// Carries bytes between a flow and a connection like the core: read on one side, write to the
// other, repeat; the end of either ends both. Written again, because a platform's tests do not
// depend on the core.
class RelayTunnel : public std::enable_shared_from_this<RelayTunnel> {
 public:
  RelayTunnel(std::shared_ptr<platform::AppProxyTCPFlow> flow,
              std::shared_ptr<platform::TCPConnection> connection)
      : flow_(std::move(flow)), connection_(std::move(connection)) {}

  void start();
  void close(const platform::OptionalError& error);
  // Ready when the tunnel has been closed.
  std::future<void> closed() { return closed_.get_future(); }

 private:
  void pipeLocalToRemote();
  void pipeRemoteToLocal();
  // Closes the tunnel and returns false if a read delivered no bytes, or a write failed.
  bool hasRead(const std::optional<platform::Data>& data, const platform::OptionalError& error);
  bool hasWritten(const platform::OptionalError& error);

  const std::shared_ptr<platform::AppProxyTCPFlow> flow_;
  const std::shared_ptr<platform::TCPConnection> connection_;
  std::atomic<bool> isClosed_ = false;
  std::promise<void> closed_;
};

// A fixture that makes tunnels.
class RelayTunnelTest : public RelayTest {
 protected:
  // With both of its ends.
  struct Tunnel {
    ApplicationSocket application;
    ApplicationSocket server;
    std::shared_ptr<RelayTunnel> tunnel;
  };

  Tunnel makeTunnel();
};

}  // namespace ostravel::linuxplatform::test
