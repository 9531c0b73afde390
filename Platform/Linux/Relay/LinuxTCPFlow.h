#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Relay/ConnectByName.h"
#include "Platform/Linux/Relay/FlowListener.h"
#include "Platform/Linux/Relay/FlowName.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Relay/StreamSocket.h"
#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform {

class EventLoop;

// An application's TCP connection whose SYN is held. Made with std::make_shared on any thread;
// afterwards everything happens on its event loop, and calls from other threads are posted there.
//
//   held --read or write--> released --the connection arrives--> carried
//
// Closing ends it in each of these states. The application's connect() reports the truth: it
// succeeds once the first read or write has shown that the tunnel is established, or once the flow
// is left to the system. While the SYN is held, closing with an error leaves the flow to the
// system; closing without one refuses it, because that is the proxy's decision. A flow that is
// destroyed unclosed is left to the system while the SYN is held, and is reset afterwards.
class LinuxTCPFlow final : public platform::AppProxyTCPFlow,
                           public std::enable_shared_from_this<LinuxTCPFlow>,
                           private FlowListener::Waiter,
                           private StreamSocket::Owner {
 public:
  // identifier: valid UTF-8, empty if unknown; not null. remote: the destination. user is
  // charged for the tunnel's resources; null if unknown. name: of the destination, if it has one.
  // record: null if none is kept.
  LinuxTCPFlow(EventLoop& loop, const FlowTuple& tuple,
               std::shared_ptr<const std::string> identifier, const SocketEndpoint& remote,
               std::unique_ptr<HeldPacket> packet, std::shared_ptr<UserShare> user = nullptr,
               std::optional<FlowName> name = std::nullopt,
               std::shared_ptr<FlowRecord> record = nullptr);
  ~LinuxTCPFlow() override;

  std::string sourceAppSigningIdentifier() const override { return *identifier_; }
  platform::FlowObserver* observer() override { return record_.get(); }
  // By name, if it has one; after open() only if the proxy is asked for the name.
  std::optional<platform::HostEndpoint> remoteEndpoint() const override;

  // Succeeds without touching the packet; ECANCELED if the flow is closed or destroyed before.
  void open(std::optional<platform::HostEndpoint> localEndpoint,
            platform::ErrorCompletion completion) override;
  // ETIMEDOUT if the connection has not arrived limits::kAcceptTimeout after the SYN was released,
  // ECONNABORTED if the flow was left to the system because redirected connections do not arrive.
  // ECANCELED if the direction is closed. Otherwise the socket's error.
  void read(platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  enum class Stage : std::uint8_t { held, released, carried, ended };

  std::optional<ConnectByName> connectByName() const;
  void releasePacket();
  void leaveHeld();
  void close(StreamSocket::Direction direction, const platform::OptionalError& error);
  void endHeld(const platform::OptionalError& error);

  const FlowTuple& tuple() const override { return tuple_; }
  const std::string& application() const override { return *identifier_; }
  void accepted(LoopSocket socket) override;
  void timedOut() override;

  std::shared_ptr<StreamSocket> sharedStream() override;
  void streamFailed(int /*error*/) override {}
  void streamEnded() override {}

  platform::HostEndpoint remoteLiteral() const;

  const FlowTuple tuple_;
  const SocketEndpoint remote_;
  Stage stage_ = Stage::held;
  // Shared with the other flows of the application.
  const std::shared_ptr<const std::string> identifier_;
  // Null if there is none, as for most flows. Changed by open() only.
  std::unique_ptr<FlowName> name_;
  std::unique_ptr<HeldPacket> packet_;
  const std::shared_ptr<FlowRecord> record_;
  StreamSocket stream_;
};

}  // namespace ostravel::linuxplatform
