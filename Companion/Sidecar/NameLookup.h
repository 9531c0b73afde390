#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/thread_pool.hpp>
#include <functional>
#include <vector>

#include "Companion/Sidecar/HostPort.h"

namespace ostravel::companion {

using LookupResult = std::vector<asio::ip::tcp::endpoint>;
using LookupDone = std::function<void(asio::error_code, const LookupResult&)>;

// Looks names up without holding up the caller's thread. Must outlive the io_context's run.
//
// The system's resolver blocks, for many seconds when a name server does not answer. A few threads
// of our own keep one dead name from delaying all the others.
class NameLookup {
 public:
  explicit NameLookup(asio::any_io_executor executor);

  // Calls `done` from the executor, with at least one endpoint or with an error. Addresses in
  // their text form need no lookup and never wait for one.
  void lookUp(const HostPort& target, LookupDone done);

 private:
  static constexpr std::size_t kThreads = 4;

  asio::any_io_executor executor_;
  asio::thread_pool threads_;
};

}  // namespace ostravel::companion
