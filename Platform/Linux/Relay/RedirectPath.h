#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// Whether redirected connections arrive at our listeners, per address family. Rules of other
// programs may prevent it; no flow may be offered then. The watcher tests the path and reports the
// result here. Owned by the event loop group; usable from any thread.
class RedirectPath {
 public:
  // Notified of what happens to redirected connections. Called on any loop.
  class Watcher {
   public:
    Watcher() = default;
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    virtual ~Watcher() = default;

    virtual void connectionIsMissing(unsigned loopIndex, const FlowTuple& tuple) = 0;
    virtual void connectionWillBeReset(const FlowTuple& tuple) = 0;
    virtual void connectionsCannotBeAccepted(unsigned loopIndex, AddressFamily family,
                                             int error) = 0;
  };

  // False until a test has succeeded.
  bool isUsable(AddressFamily family) const { return isUsable_[index(family)]; }
  void setUsable(AddressFamily family, bool isUsable) { isUsable_[index(family)] = isUsable; }

  // Replaces any previous watcher; held weakly.
  void setWatcher(std::weak_ptr<Watcher> watcher);
  // A connection released for this loop has not arrived in time.
  void reportMissing(unsigned loopIndex, const FlowTuple& tuple);
  // A loop's listener cannot accept anything for now, for lack of descriptors or memory, or cannot
  // use what it accepts. The path is unusable when this returns.
  void reportStuck(unsigned loopIndex, AddressFamily family, int error);
  // We are about to reset a connection that has arrived. For some seconds the kernel would redirect
  // a new connection with the same addresses and ports like this one. This has been prevented when
  // the call returns; an asynchronous call could lose the race against the application's next
  // connection.
  void prepareReset(const FlowTuple& tuple);

 private:
  std::shared_ptr<Watcher> watcher();
  static std::size_t index(AddressFamily family) { return static_cast<std::size_t>(family); }

  std::array<std::atomic<bool>, 2> isUsable_{};
  std::mutex lock_;
  // Guarded by lock_.
  std::weak_ptr<Watcher> watcher_;
};

}  // namespace ostravel::linuxplatform
