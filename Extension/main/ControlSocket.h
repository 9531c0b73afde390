#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "Base/LocalListener.h"

namespace ostravel::linuxplatform {

// The name of the control socket in the file system, for as long as the process runs. Made before
// the process gives up permissions, which making it may take; served later.
class ControlSocket {
 public:
  static constexpr const char* kDefaultPath = "/run/ostravel/control.sock";
  // Whose members may ask.
  static constexpr const char* kGroup = "ostravel";

  // Listens at the path, without one at kDefaultPath. The folder of the latter is made if it is
  // missing, and removed in the end if nothing else is in it. A failure is a problem() and no
  // exception.
  explicit ControlSocket(const std::optional<std::string>& path);
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  ~ControlSocket();

  // A sentence; absent while it listens.
  const std::optional<std::string>& problem() const { return problem_; }
  int descriptor() const { return listener_->descriptor(); }
  // Absent if there is no such group, or its members could not be given access.
  std::optional<gid_t> group() const { return group_; }

 private:
  void listen(const std::string& path);

  std::optional<std::string> madeFolder_;
  std::optional<gid_t> group_;
  std::unique_ptr<LocalListener> listener_;
  std::optional<std::string> problem_;
};

}  // namespace ostravel::linuxplatform
