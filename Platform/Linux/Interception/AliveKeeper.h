#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Platform/Interface/Log.h"
#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Kernel/ConntrackRoom.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"

namespace ostravel::linuxplatform {

// The dead man's switch: refreshes the interception table on every heartbeat, and only then. When
// this thread or one that flows depend on hangs, packets stop being offered within the table's
// time-out. It has its own thread because the kernel may block it behind other users of nf_tables,
// and the heartbeat must not block.
//
// If the table cannot be refreshed, it is removed and reinstalled; this is retried on every beat,
// and nothing is offered until it succeeds. It is also removed while connection tracking is nearly
// full: the kernel then drops the packets of new connections, and on many machines this table is
// the only reason for tracking connections at all.
class AliveKeeper {
 public:
  // Everything in here is called on the keeper's thread.
  struct Options {
    // Reinstalls the table with its original arguments.
    std::function<platform::Result<std::unique_ptr<InterceptionTable>>()> install;
    std::shared_ptr<platform::Log> log;
    // Called after every beat unless the table cannot be refreshed; may be empty.
    std::function<void()> onRefreshed = {};
    // True if connections can be tracked.
    std::function<bool()> hasRoom = ConntrackRoom();
    // Called on every beat, after the refresh; if it fails, the table is reinstalled. May be empty.
    std::function<platform::OptionalError(InterceptionTable&)> adjust = {};
  };

  AliveKeeper(std::unique_ptr<InterceptionTable> table, Options options);
  AliveKeeper(const AliveKeeper&) = delete;
  AliveKeeper& operator=(const AliveKeeper&) = delete;
  // Removes the table unless removeTable() already has.
  ~AliveKeeper();

  // Called on every heartbeat, from any thread; does not block.
  void beat() { beats_.signal(); }

  // Stops refreshing and removes the table. Called once, by the thread that later destroys the
  // keeper.
  void removeTable();

 private:
  void run();
  // False if the table cannot be refreshed or reinstalled.
  bool keepAlive();
  bool reinstall();
  // Logs a failure unless it repeats the previous one.
  void logFailure(std::string description);

  std::unique_ptr<InterceptionTable> table_;
  const Options options_;
  // Empty while the table is installed.
  std::string lastFailure_;
  EventDescriptor beats_;
  EventDescriptor stop_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
