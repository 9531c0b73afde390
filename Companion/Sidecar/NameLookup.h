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

// The name servers, and how they are queried. Changed by tests.
struct ResolverSettings {
  // ADDRESS:PORT, separated by commas. Empty for those of the system.
  std::string nameServers = {};
  // How long to wait for a name server before trying the next one; after all of them, they are
  // tried again with twice the time. Short enough to reach the last of four within a session's time
  // for a lookup.
  std::chrono::milliseconds timeout = std::chrono::seconds(2);
};

// A pending lookup, owned by the session that waits for it. Destroying it cancels the lookup: its
// sockets are closed and its completion is never called.
class PendingLookup {
 public:
  PendingLookup() = default;
  PendingLookup(const PendingLookup&) = delete;
  PendingLookup& operator=(const PendingLookup&) = delete;
  virtual ~PendingLookup() = default;
};

// Looks names up in /etc/hosts and with the name servers of resolv.conf(5), without blocking the
// caller's thread, which is the executor's only one. Any number of lookups run concurrently: a name
// server that does not answer delays only the names that wait for it.
class NameLookup {
 public:
  explicit NameLookup(asio::any_io_executor executor, ResolverSettings settings = {});

  // Calls `done` from the executor, with at least one endpoint or with an error: host_not_found,
  // timed_out if no name server answered, host_not_found_try_again for every other failure. Address
  // literals need no lookup and never wait for one.
  std::shared_ptr<PendingLookup> lookUp(const HostPort& target, LookupDone done);

 private:
  asio::any_io_executor executor_;
  ResolverSettings settings_;
};

}  // namespace ostravel::companion
