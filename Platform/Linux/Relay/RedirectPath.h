#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// Whether connections that are redirected to our listeners arrive there, for each address family.
// Rules of other programs may prevent it; nothing is to be offered then. What is known comes from
// the watcher, who tests it. Owned by the event loops' group; usable from any thread.
class RedirectPath {
 public:
  // Learns what becomes of redirected connections. Called on any loop.
  class Watcher {
   public:
    Watcher() = default;
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    virtual ~Watcher() = default;

    virtual void connectionIsMissing(unsigned loopIndex, const FlowTuple& tuple) = 0;
    virtual void connectionWasReset(const FlowTuple& tuple) = 0;
  };

  // False until it has been found to work.
  bool isUsable(AddressFamily family) const { return isUsable_[index(family)]; }
  void setUsable(AddressFamily family, bool isUsable) { isUsable_[index(family)] = isUsable; }

  // Replaces the watcher there was, if any; held weakly.
  void setWatcher(std::weak_ptr<Watcher> watcher);
  // A connection has not arrived that was released for this loop.
  void reportMissing(unsigned loopIndex, const FlowTuple& tuple);
  // We have reset a connection that had arrived. For some seconds the kernel would redirect a new
  // one with the same addresses and ports as this one was; not any more on return.
  void reportReset(const FlowTuple& tuple);

 private:
  std::shared_ptr<Watcher> watcher();
  static std::size_t index(AddressFamily family) { return static_cast<std::size_t>(family); }

  std::array<std::atomic<bool>, 2> isUsable_{};
  std::mutex lock_;
  // Guarded by lock_.
  std::weak_ptr<Watcher> watcher_;
};

}  // namespace ostravel::linuxplatform
