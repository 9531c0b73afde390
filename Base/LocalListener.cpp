#include "Base/LocalListener.h"

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

#include "Base/SocketLock.h"

namespace ostravel {
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

FileDescriptor openSocket(int type) {
  FileDescriptor descriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!descriptor.isOpen()) {
    fail(errorText(errno));
  }
  return descriptor;
}

int connectSocket(int descriptor, const std::string& path) {
  const sockaddr_un address = addressOf(path);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  return ::connect(descriptor, generic, sizeof(address)) == 0 ? 0 : errno;
}

// True if a process has the socket open, even if it does not listen yet. The kernel refuses to
// connect a datagram socket to a stream socket because of the type, so the listener does not notice
// the attempt (unix_find_other in net/unix/af_unix.c of Linux).
bool isInUse(const std::string& path) {
  const int error = connectSocket(openSocket(SOCK_DGRAM).get(), path);
  switch (error) {
    case 0:
    case EPROTOTYPE:
      return true;
    case ECONNREFUSED:
    case ENOENT:
      return false;
    default:
      fail("there is a socket that cannot be checked: " + errorText(error));
  }
}

std::optional<struct stat> statusOf(const std::string& path) {
  struct stat status {};
  // Not stat(2): we must not replace the target of a symbolic link.
  if (::lstat(path.c_str(), &status) == 0) {
    return status;
  }
  if (errno == ENOENT) {
    return std::nullopt;
  }
  fail(errorText(errno));
}

}  // namespace

LocalListener::LocalListener(std::string path, SocketAccess access) : path_(std::move(path)) {
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
  const SocketLock lock(path_);
  removeStaleSocket();
  bindAndListen(access);
}

LocalListener::~LocalListener() {
  removeName();
}

void LocalListener::removeStaleSocket() const {
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
  if (isInUse(path_)) {
    fail("another program listens there");
  }
  ::unlink(path_.c_str());
}

void LocalListener::bindAndListen(const SocketAccess& access) {
  const sockaddr_un address = addressOf(path_);
  descriptor_ = openSocket(SOCK_STREAM);
  // The name inherits the mode of its socket, so no other user has access at any time.
  if (::fchmod(descriptor_.get(), 0600) != 0 ||
      ::bind(descriptor_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
          0) {
    fail(errorText(errno));
  }
  struct stat status {};
  if (::lstat(path_.c_str(), &status) != 0) {
    fail(errorText(errno));
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  try {
    setAccess(access);
    if (::listen(descriptor_.get(), SOMAXCONN) != 0) {
      fail(errorText(errno));
    }
  } catch (const std::runtime_error&) {
    removeName();
    throw;
  }
}

void LocalListener::setAccess(const SocketAccess& access) const {
  // Through a descriptor: the path may refer to another file by now, and chmod(2) would follow a
  // link.
  const FileDescriptor name(::open(path_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!name.isOpen() || ::fstat(name.get(), &status) != 0 || !isOurName(status)) {
    fail("it was replaced");
  }
  // Skipped if it is right: even setting the same group needs permission.
  if (access.group && *access.group != status.st_gid &&
      ::fchownat(name.get(), "", static_cast<uid_t>(-1), *access.group, AT_EMPTY_PATH) != 0) {
    fail("its group cannot be set: " + errorText(errno));
  }
  // chmod(2) has no AT_EMPTY_PATH.
  const std::string link = "/proc/self/fd/" + std::to_string(name.get());
  if (::chmod(link.c_str(), access.mode) != 0) {
    fail("its mode cannot be set: " + errorText(errno));
  }
}

bool LocalListener::isOurName(const struct stat& status) const {
  return status.st_dev == device_ && status.st_ino == inode_;
}

void LocalListener::removeName() const {
  // Compared while the socket is open: it keeps its inode from being given to another file.
  struct stat status {};
  if (::lstat(path_.c_str(), &status) == 0 && isOurName(status)) {
    ::unlink(path_.c_str());
  }
}

}  // namespace ostravel
