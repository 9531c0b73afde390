#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Relay/FlowListener.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Relay/StreamSocket.h"

namespace ostravel::linuxplatform {

class EventLoop;

// An application's TCP connection whose SYN is held. Made with std::make_shared on the verdict
// thread; afterwards everything happens on its event loop, where calls from other threads are sent.
//
//   held --read or write--> released --the connection arrives--> carried
//
// and from each by closing to ended. The application's connect() tells the truth: it succeeds when
// the first read or write has shown that the tunnel is established, or when we have stepped aside:
// a close with an error while the SYN is held gives the flow back to the system, and only a close
// without one refuses it, because then the proxy has decided so. A flow that is destroyed unclosed
// is given back as well while the SYN is held, and is reset afterwards.
class LinuxTCPFlow final : public platform::AppProxyTCPFlow,
                           public std::enable_shared_from_this<LinuxTCPFlow>,
                           private FlowListener::Waiter,
                           private StreamSocket::Owner {
 public:
  // identifier: valid UTF-8, empty when unknown. remote: what the core is told; the host may be a
  // name. user bears what the tunnel uses; null when it is not known.
  LinuxTCPFlow(EventLoop& loop, const FlowTuple& tuple, std::string identifier,
               platform::HostEndpoint remote, std::unique_ptr<HeldPacket> packet,
               std::shared_ptr<UserShare> user = nullptr);

  std::string sourceAppSigningIdentifier() const override { return identifier_; }
  std::optional<platform::HostEndpoint> remoteEndpoint() const override { return remote_; }

  // Succeeds without touching the packet; ECANCELED when the flow is closed or destroyed before.
  void open(std::optional<platform::HostEndpoint> localEndpoint,
            platform::ErrorCompletion completion) override;
  // ETIMEDOUT when the connection has not arrived limits::kAcceptTimeout after the SYN was
  // released. ECANCELED when the direction is closed. Otherwise what the socket says.
  void read(platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  enum class Stage : std::uint8_t { held, released, carried, ended };

  template <typename Work>
  void runOnLoop(Work work);
  void releasePacket();
  void close(StreamSocket::Direction direction, const platform::OptionalError& error);
  void endHeld(const platform::OptionalError& error);

  const FlowTuple& tuple() const override { return tuple_; }
  const std::string& application() const override { return identifier_; }
  void accepted(LoopSocket socket) override;
  void gaveUp() override;

  std::shared_ptr<StreamSocket> sharedStream() override;
  void streamFailed(int /*error*/) override {}
  void streamEnded() override {}

  const FlowTuple tuple_;
  Stage stage_ = Stage::held;
  const std::string identifier_;
  const platform::HostEndpoint remote_;
  std::unique_ptr<HeldPacket> packet_;
  StreamSocket stream_;
};

}  // namespace ostravel::linuxplatform
