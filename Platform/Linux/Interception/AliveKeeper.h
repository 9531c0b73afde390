#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <variant>

#include "Platform/Interface/Log.h"
#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"

namespace ostravel::linuxplatform {

// The dead man's switch: refreshes the interception table with every heartbeat, and never
// otherwise. When a thread that flows need hangs, or this one, packets stop being offered within
// the table's time-out. A thread of its own, because the kernel may make it wait for other users of
// nf_tables, and the heartbeat must not wait.
//
// When the table cannot be refreshed, it is removed and installed again, at every beat until that
// succeeds; meanwhile nothing is offered.
class AliveKeeper {
 public:
  // Installs the table with the arguments that it had at first. Runs on the keeper's thread.
  using Install = std::function<platform::Result<std::unique_ptr<InterceptionTable>>()>;

  // Owns the table; onRefreshed, which may be empty, runs on the keeper's thread.
  AliveKeeper(std::unique_ptr<InterceptionTable> table, Install install,
              std::shared_ptr<platform::Log> log, std::function<void()> onRefreshed);
  AliveKeeper(const AliveKeeper&) = delete;
  AliveKeeper& operator=(const AliveKeeper&) = delete;
  // Removes the table, if that has not been done.
  ~AliveKeeper();

  // Called with every heartbeat, from any thread; returns at once.
  void beat() { beats_.signal(); }

  // Ends the keeping and removes the table. Called once, by whoever destroys the keeper later.
  void removeTable();

 private:
  void run();
  // Whether packets are offered for another while.
  bool keepAlive();
  bool reinstall();
  // One line for every failure that is not like the last.
  void logFailure(std::string description);

  std::unique_ptr<InterceptionTable> table_;
  const Install install_;
  const std::shared_ptr<platform::Log> log_;
  const std::function<void()> onRefreshed_;
  // Empty while the table is there.
  std::string lastFailure_;
  EventDescriptor beats_;
  EventDescriptor stop_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
