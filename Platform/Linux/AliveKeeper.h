#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "Platform/Interface/Log.h"
#include "Platform/Linux/EventDescriptor.h"
#include "Platform/Linux/InterceptionTable.h"

namespace ostravel::linuxplatform {

// The dead man's switch: refreshes the interception table whenever the verdict thread says that it
// is alive, and never otherwise. When either thread hangs, packets stop being offered within the
// table's time-out. A thread of its own, because the kernel may make it wait for other users of
// nf_tables, and the verdict thread must not wait.
class AliveKeeper {
 public:
  // Owns the table; onRefreshed, which may be empty, runs on the keeper's thread.
  AliveKeeper(std::unique_ptr<InterceptionTable> table, std::shared_ptr<platform::Log> log,
              std::function<void()> onRefreshed);
  AliveKeeper(const AliveKeeper&) = delete;
  AliveKeeper& operator=(const AliveKeeper&) = delete;
  // Removes the table, if that has not been done.
  ~AliveKeeper();

  // Called by the verdict thread, often enough; returns at once.
  void beat() { beats_.signal(); }

  // Ends the keeping and removes the table. Called once, by whoever destroys the keeper later.
  void removeTable();

 private:
  void run();
  void refresh();

  std::unique_ptr<InterceptionTable> table_;
  const std::shared_ptr<platform::Log> log_;
  const std::function<void()> onRefreshed_;
  bool failedLast_ = false;
  EventDescriptor beats_;
  EventDescriptor stop_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
