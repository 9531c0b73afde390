#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

#include "Base/FileDescriptor.h"
#include "Base/SocketAccess.h"

namespace ostravel {

// A listening local socket and its file. Owned by the process entry. The destructor removes the
// file if it still belongs to this socket.
class LocalListener {
 public:
  // The capacity of `sun_path` on every system, without the terminating zero (unix(7)).
  static constexpr std::size_t kLongestPath = 103;

  // Listens on `path`. Replaces only a socket of this user that no process has open, which it tests
  // without connecting to it. Throws std::runtime_error with a readable reason.
  explicit LocalListener(std::string path, SocketAccess access = {});
  ~LocalListener();

  LocalListener(const LocalListener&) = delete;
  LocalListener& operator=(const LocalListener&) = delete;

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

}  // namespace ostravel
