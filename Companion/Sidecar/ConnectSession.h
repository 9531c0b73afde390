#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Companion/Sidecar/ConnectRequest.h"
#include "Companion/Sidecar/NameLookup.h"
#include "Companion/Sidecar/RequestHeader.h"
#include "Companion/Sidecar/TunnelLog.h"
#include "Companion/Sidecar/TunnelRelay.h"

namespace ostravel::companion {

// How long each step of establishing a tunnel may take. Tests shorten them.
struct SessionLimits {
  // Clients send their request as soon as they have connected; others are broken or hostile.
  std::chrono::milliseconds header = std::chrono::seconds(10);
  // Long enough to ask several name servers that do not answer, see ResolverSettings.
  std::chrono::milliseconds lookup = std::chrono::seconds(10);
  // For each address: several may be tried while the client waits.
  std::chrono::milliseconds connect = std::chrono::seconds(10);
  // For a refused client to read its answer and end.
  std::chrono::milliseconds linger = std::chrono::seconds(5);
};

// Shared by all sessions. Outlives the io_context's run.
struct SessionEnvironment {
  std::function<std::shared_ptr<PendingLookup>(const HostPort&, LookupDone)> lookUp;
  TunnelLog log;
  SessionLimits limits;
  std::shared_ptr<RelayEnvironment> relays;
  std::function<void()> ended;  // called after each session or tunnel has closed its sockets
};

// Serves one client from its first byte to a tunnel, which a TunnelRelay then carries, or to a
// refusal. Kept alive by its own outstanding operations; runs on the io_context's thread.
//
//   reading header -> looking up -> connecting -> answering -> (TunnelRelay)
//         \---------------\-------------\-> refusing -> lingering -> closed
//
// When a client leaves before it has its answer, its socket is closed at once, and its lookup or
// connection attempt is cancelled.
class ConnectSession : public std::enable_shared_from_this<ConnectSession> {
 public:
  ConnectSession(asio::ip::tcp::socket client, const SessionEnvironment& environment);

  void start();

 private:
  using Socket = asio::ip::tcp::socket;

  void readHeader();
  void headerRead(RequestHeader::State state);
  void requestRead();
  void connectNext(asio::error_code previousError);
  void connected();
  void watchClient();
  void watchClientForReset();
  void judgeClient();
  void abandon();
  void refuse(HTTPStatus status, std::string_view reason);
  void refuseUnreachable(asio::error_code error);
  void linger();
  void discard();
  void close();

  // Runs `expired` unless a later call of `limitStep` or `endStep` comes first.
  void limitStep(std::chrono::milliseconds limit, void (ConnectSession::*expired)());
  void endStep();
  void headerExpired();
  void lookupExpired();
  void connectExpired();

  Socket client_;
  Socket origin_;
  const SessionEnvironment& environment_;
  asio::steady_timer deadline_;
  unsigned step_ = 0;
  RequestHeader header_;
  ConnectRequest request_;
  // While looking up or connecting, the client is watched but not read.
  bool isEstablishing_ = false;
  std::shared_ptr<PendingLookup> lookup_;
  LookupResult endpoints_;
  std::size_t nextEndpoint_ = 0;
  std::string answer_;
  bool connectExpired_ = false;
};

}  // namespace ostravel::companion
