#pragma once

#include <string>

#include "Base/FileDescriptor.h"

namespace ostravel {

// Prevents other programs of the same user from creating a socket at the same path at the same
// time: a file beside the socket, locked with flock(2) and removed with this object. The file of a
// killed program is no longer locked, and is reused.
class SocketLock {
 public:
  // Does not wait. Throws std::runtime_error with a readable reason.
  explicit SocketLock(const std::string& socketPath);
  ~SocketLock();
  SocketLock(const SocketLock&) = delete;
  SocketLock& operator=(const SocketLock&) = delete;

 private:
  bool tryToLock();

  std::string path_;
  FileDescriptor descriptor_;
};

}  // namespace ostravel
