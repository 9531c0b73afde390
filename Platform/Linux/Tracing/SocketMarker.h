#pragma once

#include <cstdint>

#include "Platform/Linux/Tracing/ConnectRecord.h"

namespace ostravel::linuxplatform {

// Chooses the processes whose sockets a program in the kernel marks as our own when they connect,
// so that their packets are never queued. For the local proxy only: marked flows go direct.
//
// A choice holds for one process with one program and one set of users: not for its children, not
// after it has executed another program or changed its user, and not once the proxy's listener may
// have changed. The kernel forgets it when the process ends.
//
// Refers to maps that it does not own. Usable from any thread.
class SocketMarker {
 public:
  // records: of ConnectTracer; marked: of ConnectPublisher.
  SocketMarker(int records, int marked) : records_(records), marked_(marked) {}

  // cookie: a socket that the process has connected. sender: the expected record of that connect.
  // listenerChanges: the count of ListenerWatch read before the process was found to belong to the
  // proxy. False if the records do not match or there are too many processes.
  bool mark(std::uint64_t cookie, const ConnectRecord& sender, std::uint64_t listenerChanges) const;

 private:
  int records_;
  int marked_;
};

}  // namespace ostravel::linuxplatform
