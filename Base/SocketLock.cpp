#include "Base/SocketLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace ostravel {
namespace {

[[noreturn]] void fail(const std::string& reason) {
  throw std::runtime_error(reason);
}

// The file will be removed, so it must not belong to another user.
bool canBeOurs(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_size == 0 && status.st_uid == ::geteuid();
}

}  // namespace

SocketLock::SocketLock(const std::string& socketPath) : path_(socketPath + ".lock") {
  while (!tryToLock()) {
  }
}

SocketLock::~SocketLock() {
  // Before unlocking it, so that a program that has opened it in the meantime notices the removal.
  ::unlink(path_.c_str());
}

// False if another program has removed the file before it was locked.
bool SocketLock::tryToLock() {
  constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  descriptor_ = FileDescriptor(::open(path_.c_str(), kFlags, 0600));
  if (!descriptor_.isOpen()) {
    fail(std::generic_category().message(errno));
  }
  struct stat opened {};
  if (::fstat(descriptor_.get(), &opened) != 0 || !canBeOurs(opened)) {
    fail("there is something else at " + path_);
  }
  if (::flock(descriptor_.get(), LOCK_EX | LOCK_NB) != 0) {
    fail("another program is being started there");
  }
  struct stat named {};
  return ::lstat(path_.c_str(), &named) == 0 && named.st_dev == opened.st_dev &&
         named.st_ino == opened.st_ino;
}

}  // namespace ostravel
