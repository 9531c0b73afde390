#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/MemoryMapping.h"
#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Tracing/ConnectTable.h"
#include "Platform/Linux/Tracing/ConnectTracer.h"
#include "Platform/Linux/Tracing/KernelProgram.h"
#include "Platform/Linux/Tracing/ListenerWatch.h"
#include "Platform/Linux/Tracing/SocketMarker.h"

namespace ostravel::linuxplatform {

// Runs the programs in the kernel that publish the sender of each SYN, so that finding it takes no
// system call. They observe sockets of our own network namespace, programs that are executed, and
// the end of processes. On request they also mark the sockets that this process and the local proxy
// connect. They change nothing else.
//
// Like the tracer's, they are detached with this object or this process. Started and stopped by one
// thread; the table and the watch are usable from any thread.
class ConnectPublisher {
 public:
  // For sockets of this thread's network namespace that the tracer knows; it must record programs
  // and outlives this object. marks: if present, sockets are marked as own(). On failure the
  // error's description is a clause with the reason: no permission, a kernel before 5.14, one
  // without tracepoints, or no loopback interface to try it on.
  static platform::Result<std::unique_ptr<ConnectPublisher>> start(
      const ConnectTracer& tracer, std::uint16_t proxyPort,
      std::optional<PacketMarks> marks = std::nullopt);

  ConnectPublisher(const ConnectPublisher&) = delete;
  ConnectPublisher& operator=(const ConnectPublisher&) = delete;
  ~ConnectPublisher();

  // All are valid as long as this object.
  ConnectTable table() const { return {sets_.as<const ConnectTable::Set>(), state()}; }
  ListenerWatch listener() const { return ListenerWatch(state()); }

  // Marks the processes of the local proxy; has no effect unless marks were given.
  SocketMarker marker() const;

  // True if the programs mark this process's sockets as own() when they connect, and set
  // TCP_NODELAY on those of TCP, so that this process need not.
  bool presetsOwnSockets() const { return presetsOwnSockets_; }

 private:
  ConnectPublisher(KernelProgram object, const ConnectTracer& tracer)
      : tracer_(tracer), object_(std::move(object)) {}

  ConnectTable::State* state() const { return state_.as<ConnectTable::State>(); }

  platform::OptionalError mapMemory();
  platform::OptionalError fillState(std::uint16_t proxyPort, std::optional<PacketMarks> marks);
  platform::OptionalError attach();
  // Compares a connect of this process with the tracer's record.
  platform::OptionalError examineOwnConnect();

  const ConnectTracer& tracer_;
  const KernelProgram object_;
  // Read-only.
  MemoryMapping sets_;
  MemoryMapping state_;
  std::vector<KernelProgramLink> links_;
  bool presetsOwnSockets_ = false;
};

}  // namespace ostravel::linuxplatform
