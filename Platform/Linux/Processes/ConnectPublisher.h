#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/MemoryMapping.h"
#include "Platform/Linux/Processes/ConnectTable.h"
#include "Platform/Linux/Processes/ConnectTracer.h"
#include "Platform/Linux/Processes/ListenerWatch.h"

struct bpf_link;
struct bpf_object;

namespace ostravel::linuxplatform {

// Runs the programs in the kernel that publish who sends a SYN, so that finding out takes no system
// call. They observe only: sockets of our own network namespace, programs that are executed, and
// the end of the local proxy.
//
// Like the tracer's, they are detached with this object or this process. Starting and stopping is
// done by one thread; the table and the watch are usable from any.
class ConnectPublisher {
 public:
  // For sockets of this thread's network namespace that the tracer knows; it must record programs
  // and outlives this object. On failure the error's description is a clause with the reason: no
  // permission, a kernel before 5.15, one without tracing, or no loopback interface to try it on.
  static platform::Result<std::unique_ptr<ConnectPublisher>> start(const ConnectTracer& tracer,
                                                                   std::uint16_t proxyPort);

  ConnectPublisher(const ConnectPublisher&) = delete;
  ConnectPublisher& operator=(const ConnectPublisher&) = delete;
  ~ConnectPublisher();

  // Both are valid as long as this object.
  ConnectTable table() const { return {sets_.as<const ConnectTable::Set>(), state()}; }
  ListenerWatch listener() const { return ListenerWatch(state()); }

  // Connects that were not published because others were being published in the same place.
  std::uint64_t lostConnects() const;

 private:
  struct ObjectRelease {
    void operator()(bpf_object* object) const;
  };
  struct LinkRelease {
    void operator()(bpf_link* link) const;
  };
  using Object = std::unique_ptr<bpf_object, ObjectRelease>;

  explicit ConnectPublisher(Object object) : object_(std::move(object)) {}

  ConnectTable::State* state() const { return state_.as<ConnectTable::State>(); }

  platform::OptionalError mapMemory();
  platform::OptionalError fillState(std::uint16_t proxyPort);
  platform::OptionalError attach();
  // Compares a connect of this process with what the tracer recorded.
  platform::OptionalError examineOwnConnect(const ConnectTracer& tracer) const;

  const Object object_;
  // Read-only.
  MemoryMapping sets_;
  MemoryMapping state_;
  std::vector<std::unique_ptr<bpf_link, LinkRelease>> links_;
};

}  // namespace ostravel::linuxplatform
