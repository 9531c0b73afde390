#include "Companion/Monitor/EventSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace ostravel::companion {
namespace {

[[noreturn]] void fail(const std::string& reason) {
  throw std::runtime_error(reason);
}

std::string errorText(int error) {
  return std::generic_category().message(error);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

int openSocket() {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) {
    fail(errorText(errno));
  }
  return descriptor;
}

// 0 when someone listens there.
int errorOfConnecting(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  const int descriptor = openSocket();
  const int result =
      ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int error = result == 0 ? 0 : errno;
  ::close(descriptor);
  return error;
}

std::optional<struct stat> statusOf(const std::string& path) {
  struct stat status {};
  // Not stat: what a symbolic link points to is not ours to replace.
  if (::lstat(path.c_str(), &status) == 0) {
    return status;
  }
  if (errno == ENOENT) {
    return std::nullopt;
  }
  fail(errorText(errno));
}

}  // namespace

EventSocket::EventSocket(std::string path) : path_(std::move(path)) {
  if (path_.empty()) {
    fail("the path is empty");
  }
  if (path_.find('\0') != std::string::npos) {
    fail("the path has a zero byte");
  }
  if (path_.size() > kLongestPath) {
    fail("the path is " + std::to_string(path_.size()) + " bytes long, more than " +
         std::to_string(kLongestPath));
  }
  removeStaleSocket();
  bindAndListen();
}

EventSocket::~EventSocket() {
  // Compared while the socket is open: it keeps its inode from being given to another file.
  struct stat status {};
  if (::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
    ::unlink(path_.c_str());
  }
  ::close(descriptor_);
}

void EventSocket::removeStaleSocket() const {
  const std::optional<struct stat> found = statusOf(path_);
  if (!found) {
    return;
  }
  if (!S_ISSOCK(found->st_mode)) {
    fail("there is something else that is no socket");
  }
  if (found->st_uid != ::geteuid()) {
    fail("there is a socket of another user");
  }
  const int error = errorOfConnecting(path_);
  if (error == 0 || error == EAGAIN) {
    fail("another program listens there");
  }
  if (error == ENOENT) {
    return;
  }
  if (error != ECONNREFUSED) {
    fail("there is a socket that cannot be checked: " + errorText(error));
  }
  // Another monitor may have taken the name since we looked.
  const std::optional<struct stat> now = statusOf(path_);
  if (now && now->st_dev == found->st_dev && now->st_ino == found->st_ino) {
    ::unlink(path_.c_str());
  }
}

void EventSocket::bindAndListen() {
  const sockaddr_un address = addressOf(path_);
  descriptor_ = openSocket();
  // The mode is in force from the first moment; a chmod afterwards would leave a gap. The program
  // has one thread yet, so nobody else creates a file under this mask.
  const mode_t previousMask = ::umask(0177);
  int result = ::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  int error = errno;
  ::umask(previousMask);
  struct stat status {};
  if (result == 0) {
    result = ::lstat(path_.c_str(), &status);
    error = errno;
  }
  if (result == 0) {
    result = ::listen(descriptor_, SOMAXCONN);
    error = errno;
  }
  if (result != 0) {
    ::close(descriptor_);
    fail(errorText(error));
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

}  // namespace ostravel::companion
