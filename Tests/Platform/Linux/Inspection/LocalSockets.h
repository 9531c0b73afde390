#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "Base/FileDescriptor.h"

namespace ostravel::testing {

// Local sockets of the inspector's kind (SOCK_SEQPACKET).
FileDescriptor listenOn(const std::string& path);
FileDescriptor connectTo(const std::string& path);

// Runs body in a thread with this effective user, which all of its sockets report to their peers.
void asUser(uid_t user, const std::function<void()>& body);

}  // namespace ostravel::testing
