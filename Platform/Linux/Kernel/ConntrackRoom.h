#pragma once

#include <functional>
#include <optional>
#include <utility>

#include "Platform/Linux/Kernel/ConntrackEntries.h"

namespace ostravel::linuxplatform {

// Tells whether the kernel can track more connections in this network namespace. Copyable; used by
// one thread at a time.
class ConntrackRoom {
 public:
  using Read = std::function<std::optional<ConntrackEntries::Usage>()>;

  // Asks the kernel, whose files about it are hidden from a sandboxed service.
  ConntrackRoom();
  explicit ConntrackRoom(Read read) : read_(std::move(read)) {}

  // False from the moment when nine tenths of the entries are in use until less than three quarters
  // are. True if the kernel reports no limit.
  bool operator()();

 private:
  Read read_;
  bool isThere_ = true;
};

}  // namespace ostravel::linuxplatform
