#include "Extension/main/ControlSocket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <stdexcept>

#include "Base/SocketAccess.h"

namespace ostravel::linuxplatform {

ControlSocket::ControlSocket(const std::optional<std::string>& path) {
  const std::string place = path.value_or(kDefaultPath);
  if (place == kDefaultPath) {
    const std::string folder = place.substr(0, place.rfind('/'));
    // Accessible to all users: the socket has its own mode, and the monitoring socket may be in the
    // same folder.
    if (::mkdir(folder.c_str(), 0755) == 0) {
      madeFolder_ = folder;
    }
  }
  try {
    listen(place);
  } catch (const std::exception& failure) {
    problem_ = "no control socket at " + place + ": " + failure.what();
  }
}

ControlSocket::~ControlSocket() {
  listener_.reset();
  if (madeFolder_) {
    ::rmdir(madeFolder_->c_str());
  }
}

void ControlSocket::listen(const std::string& path) {
  group_ = groupNamed(kGroup);
  if (group_) {
    try {
      listener_ = std::make_unique<LocalListener>(path, SocketAccess{group_, 0660});
      return;
    } catch (const std::runtime_error&) {
      // We may not be permitted to set the group; continue without one.
      group_.reset();
    }
  }
  listener_ = std::make_unique<LocalListener>(path);
}

}  // namespace ostravel::linuxplatform
