#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "Platform/Linux/Tracing/ConnectTable.h"

namespace ostravel::linuxplatform {

// Detects that another process may have become the listener on the proxy's port. Programs in the
// kernel count the events: a socket begins or ceases to listen there, or the watched process has
// ended. A socket that begins to listen is counted before it can be reached, so that while the
// count is unchanged, every connection has reached the listener that a look-up has found.
//
// Refers to memory that it does not own. Usable from any thread.
class ListenerWatch {
 public:
  explicit ListenerWatch(ConnectTable::State* state) : state_(state) {}

  // Changes whenever the listener may have changed.
  std::uint64_t changes() const {
    return std::atomic_ref(state_->listenerChanges).load(std::memory_order_acquire);
  }

  // Counts a change that only a look-up has revealed.
  void noteChange() const { std::atomic_ref(state_->listenerChanges).fetch_add(1); }

  // Watches this process instead of the previous one.
  void watch(pid_t process) const {
    std::atomic_ref(state_->proxyOwner).store(static_cast<std::uint32_t>(process));
  }

 private:
  ConnectTable::State* state_;
};

}  // namespace ostravel::linuxplatform
