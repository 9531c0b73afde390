#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/ip/tcp.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Companion/Shared/HostPort.h"

namespace ostravel::companion {

using LookupResult = std::vector<asio::ip::tcp::endpoint>;
using LookupDone = std::function<void(asio::error_code, const LookupResult&)>;

// Which name servers are asked, and how. Changed by tests.
struct ResolverSettings {
  // Instead of those of the system: ADDRESS:PORT, separated by commas. Empty: those of the system.
  std::string nameServers = {};
  // How long a name server has for its answer before the next one is asked; the whole round of them
  // is repeated with twice the time. Short enough to reach the last of four within the time that a
  // session gives a lookup.
  std::chrono::milliseconds timeout = std::chrono::seconds(2);
};

// A lookup under way, owned by the session that waits for it. Destroying it cancels the lookup: its
// sockets are closed and its completion is never called.
class PendingLookup {
 public:
  PendingLookup() = default;
  PendingLookup(const PendingLookup&) = delete;
  PendingLookup& operator=(const PendingLookup&) = delete;
  virtual ~PendingLookup() = default;
};

// Looks names up in /etc/hosts and with the name servers of resolv.conf(5), without blocking the
// caller's thread, which is the executor's only one. Any number of lookups run side by side: a name
// server that does not answer delays only the names that wait for it.
class NameLookup {
 public:
  explicit NameLookup(asio::any_io_executor executor, ResolverSettings settings = {});

  // Calls `done` from the executor, with at least one endpoint or with an error: host_not_found,
  // timed_out when no name server answered, host_not_found_try_again for every other failure.
  // Addresses in their text form need no lookup and never wait for one.
  std::shared_ptr<PendingLookup> lookUp(const HostPort& target, LookupDone done);

 private:
  asio::any_io_executor executor_;
  ResolverSettings settings_;
};

}  // namespace ostravel::companion
