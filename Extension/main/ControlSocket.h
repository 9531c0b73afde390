#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "Base/LocalListener.h"

namespace ostravel::linuxplatform {

// The control socket's file, for the lifetime of the process. Created before the process drops
// permissions that this may need; served later.
class ControlSocket {
 public:
  static constexpr const char* kDefaultPath = "/run/ostravel/control.sock";
  // Its members may send requests that read.
  static constexpr const char* kGroup = "ostravel";

  // Listens at the path, by default at kDefaultPath, whose folder is created if it is missing, and
  // removed at the end if it is empty. A failure is reported by problem(), not by an exception.
  explicit ControlSocket(const std::optional<std::string>& path);
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  ~ControlSocket();

  // A sentence; absent if it listens.
  const std::optional<std::string>& problem() const { return problem_; }
  int descriptor() const { return listener_->descriptor(); }
  // Absent if there is no such group, or it could not be given access.
  std::optional<gid_t> group() const { return group_; }

 private:
  void listen(const std::string& path);

  std::optional<std::string> madeFolder_;
  std::optional<gid_t> group_;
  std::unique_ptr<LocalListener> listener_;
  std::optional<std::string> problem_;
};

}  // namespace ostravel::linuxplatform
