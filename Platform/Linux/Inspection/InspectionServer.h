#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <thread>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"

namespace ostravel::linuxplatform {

// Answers questions about the machine's processes, which need permissions that the clients do not
// have. The clients are root, this process's user and one more. Each connection has a thread of its
// own, so that a long search delays no other client. Owned by the process entry.
class InspectionServer {
 public:
  // More than the extension's threads that inspect processes.
  static constexpr std::size_t kMaximumConnections = 16;
  // Between two calls of onTick.
  static constexpr std::chrono::seconds kTick{1};

  // listener: a local SOCK_SEQPACKET that listens, and outlives this object.
  InspectionServer(int listener, std::optional<uid_t> client);
  InspectionServer(const InspectionServer&) = delete;
  InspectionServer& operator=(const InspectionServer&) = delete;
  // Ends all connections.
  ~InspectionServer();

  // Serves until stop().
  void run(const std::function<void()>& onTick);
  // Called on any thread.
  void stop() { stopped_.signal(); }

 private:
  struct Connection {
    explicit Connection(FileDescriptor connected) : socket(std::move(connected)) {}

    const FileDescriptor socket;
    std::atomic<bool> hasEnded = false;
    std::thread thread;
  };

  void accept();
  bool isPermitted(const FileDescriptor& connection) const;
  void removeEnded();

  const int listener_;
  const std::optional<uid_t> client_;
  EventDescriptor stopped_;
  std::list<Connection> connections_;
};

}  // namespace ostravel::linuxplatform
