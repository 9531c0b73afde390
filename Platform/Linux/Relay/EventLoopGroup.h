#pragma once

#include <memory>
#include <vector>

#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/FlowListener.h"
#include "Platform/Linux/Relay/LinuxTCPConnection.h"
#include "Platform/Linux/Relay/RedirectPath.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/MemoryBudget.h"

namespace ostravel::linuxplatform {

// The event loops of the process. Owned by the process entry; outlives every flow and connection.
class EventLoopGroup {
 public:
  // One loop for every two cores that this process may use, which leaves the others to the
  // applications, the local proxy and the kernel; at least one, and at most as many as there are
  // marks for.
  static unsigned usualCount(const PacketMarks& marks);

  // Creates the usual count of loops. Throws std::system_error if a thread or listener cannot be
  // created.
  explicit EventLoopGroup(DescriptorBudget& descriptors, const PacketMarks& marks = {});
  EventLoopGroup(DescriptorBudget& descriptors, unsigned count, const PacketMarks& marks = {});
  EventLoopGroup(const EventLoopGroup&) = delete;
  EventLoopGroup& operator=(const EventLoopGroup&) = delete;
  ~EventLoopGroup();

  const PacketMarks& marks() const { return marks_; }
  // From any thread.
  RedirectPath& redirectPath() { return *redirectPath_; }
  unsigned size() const { return static_cast<unsigned>(loops_.size()); }
  EventLoop& loop(unsigned index) { return *loops_[index]; }

  // See EventLoop. From any thread.
  void setPresetsSockets(bool presets);
  // See FlowListener. From any thread.
  void setListenerFilter(int program);

  // Starts a connection to an address literal and a decimal port on the calling loop, so that a
  // flow and its connection share one. Only on a loop.
  static std::shared_ptr<LinuxTCPConnection> connect(const platform::HostEndpoint& endpoint);

  // Ends every loop after the item that it is running, and waits for all. Idempotent.
  void stop();

 private:
  MemoryBudget memory_;
  const PacketMarks marks_;
  const std::shared_ptr<RedirectPath> redirectPath_;
  std::vector<std::unique_ptr<EventLoop>> loops_;
};

}  // namespace ostravel::linuxplatform
