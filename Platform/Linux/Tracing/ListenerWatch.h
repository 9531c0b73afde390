#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "Platform/Linux/Tracing/ConnectTable.h"

namespace ostravel::linuxplatform {

// Whether another process may have become the one that listens on the proxy's port, as noted by a
// program in the kernel: a socket has begun to listen there, or the process that is being watched
// has ended. It does not notice that a socket was closed while its process continues.
//
// Refers to memory that it does not own. Usable from any thread.
class ListenerWatch {
 public:
  explicit ListenerWatch(ConnectTable::State* state) : state_(state) {}

  // Changes whenever the listener may have changed.
  std::uint64_t changes() const {
    return std::atomic_ref(state_->listenerChanges).load(std::memory_order_acquire);
  }

  // For a change that only a look-up has revealed.
  void noteChange() const { std::atomic_ref(state_->listenerChanges).fetch_add(1); }

  // Replaces the process that was watched before.
  void watch(pid_t process) const {
    std::atomic_ref(state_->proxyOwner).store(static_cast<std::uint32_t>(process));
  }

 private:
  ConnectTable::State* state_;
};

}  // namespace ostravel::linuxplatform
