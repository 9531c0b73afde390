#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

#include "Base/FileDescriptor.h"
#include "Companion/Monitor/SocketAccess.h"

namespace ostravel::companion {

// The listening socket of the monitor and its name in the file system. Owned by main. Its
// destructor removes the name if it is still this socket's.
class EventSocket {
 public:
  // What `sun_path` holds on every system, without its terminating zero (unix(7)).
  static constexpr std::size_t kLongestPath = 103;

  // Listens on `path`. Replaces only a socket of ours that no process has open any more, which it
  // finds out without connecting to it. Throws std::runtime_error with a readable reason.
  explicit EventSocket(std::string path, SocketAccess access = {});
  ~EventSocket();

  EventSocket(const EventSocket&) = delete;
  EventSocket& operator=(const EventSocket&) = delete;

  int descriptor() const { return descriptor_.get(); }

 private:
  void removeStaleSocket() const;
  void bindAndListen(const SocketAccess& access);
  void setAccess(const SocketAccess& access) const;
  bool isOurName(const struct stat& status) const;
  void removeName() const;

  std::string path_;
  FileDescriptor descriptor_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace ostravel::companion
