#pragma once

#include "Platform/Linux/Inspection/InspectionMessage.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"

namespace ostravel::linuxplatform {

// Answers the questions of one connection, until the client closes it or sends anything but a
// question. Used by one thread.
class InspectionSession {
 public:
  // The connection is a SOCK_SEQPACKET and outlives this object. Returns when it has ended, as
  // after shutdown(2).
  static void serve(int connection);

 private:
  struct Reply {
    InspectionAnswer answer;
    ProcessLife life;
  };

  Reply replyTo(InspectionQuestion question);
  void inspect(InspectionQuestion& question, Reply& reply);

  LocalProcessTable processes_;
};

}  // namespace ostravel::linuxplatform
