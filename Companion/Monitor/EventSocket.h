#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace ostravel::companion {

// The listening socket of the monitor and its name in the file system. Owned by main; removes the
// name when it goes, if the name is still this socket's.
class EventSocket {
 public:
  // What `sun_path` holds on every system we know, its terminating zero taken off (unix(7)).
  static constexpr std::size_t kLongestPath = 103;

  // Listens on `path` with mode 0600. Replaces a socket of ours on which nobody listens, and
  // nothing else. Throws std::runtime_error with a readable reason.
  explicit EventSocket(std::string path);
  ~EventSocket();

  EventSocket(const EventSocket&) = delete;
  EventSocket& operator=(const EventSocket&) = delete;

  int descriptor() const { return descriptor_; }

 private:
  void removeStaleSocket() const;
  void bindAndListen();

  std::string path_;
  int descriptor_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace ostravel::companion
