#pragma once

#include <ares.h>

#include <asio/any_io_executor.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Companion/Sidecar/NameLookup.h"

namespace ostravel::companion {

// The lookup of one name. Each has its own resolver channel (ares_init_options(3)): destroying it
// cancels no other lookup, and a change of the system's resolver configuration applies to the next
// name.
//
// Owned by the caller of NameLookup through its PendingLookup. Used by one thread; handlers on the
// executor hold it weakly.
class NameQuery : public PendingLookup, public std::enable_shared_from_this<NameQuery> {
 public:
  NameQuery(asio::any_io_executor executor, std::uint16_t port, LookupDone done);
  ~NameQuery() override;

  void start(const std::string& name, const ResolverSettings& settings);

  // Posts the completion to the executor; it does not run if this object is destroyed first.
  void finish(asio::error_code error, LookupResult endpoints);

 private:
  // A socket of the resolver. The resolver closes it; we only wait for it.
  struct WatchedSocket {
    asio::posix::stream_descriptor descriptor;
    bool wantsRead = false;
    bool wantsWrite = false;
    bool waitsForRead = false;
    bool waitsForWrite = false;
  };
  using Sockets = std::map<ares_socket_t, std::shared_ptr<WatchedSocket>>;

  static void socketChanged(void* query, ares_socket_t socket, int wantsRead, int wantsWrite);
  static void answered(void* query, int status, int timeouts, ares_addrinfo* result);

  void watch(ares_socket_t socket, bool wantsRead, bool wantsWrite);
  void waitForSockets();
  void waitForSocket(ares_socket_t number, const std::shared_ptr<WatchedSocket>& socket,
                     bool WatchedSocket::*waits);
  void waitForTimeout();
  void process(ares_socket_t readable, ares_socket_t writable);

  asio::any_io_executor executor_;
  std::uint16_t port_;
  LookupDone done_;
  asio::steady_timer timeout_;
  Sockets sockets_;
  ares_channel channel_ = nullptr;
};

}  // namespace ostravel::companion
