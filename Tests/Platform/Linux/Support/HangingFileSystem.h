#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

namespace ostravel::testing {

// A FUSE file system with one file, "program", a copy of the given one, of which the kernel may
// cache only the content. Everybody may run it until it hangs; then no request is answered. Mounted
// in the caller's mount namespace, which should be private; served by a separate process, and
// unmounted on destruction.
class HangingFileSystem {
 public:
  struct Mount {
    // As the kernel shows it.
    std::string source = "ostravel-test";
    // If present, not even root can open its files.
    std::optional<uid_t> onlyFor = std::nullopt;
  };

  // folder must be empty.
  HangingFileSystem(std::string folder, const std::string& program)
      : HangingFileSystem(std::move(folder), program, Mount()) {}
  HangingFileSystem(std::string folder, const std::string& program, const Mount& mount);
  HangingFileSystem(const HangingFileSystem&) = delete;
  HangingFileSystem& operator=(const HangingFileSystem&) = delete;
  ~HangingFileSystem();

  std::string program() const { return folder_ + "/program"; }

  void hang();

 private:
  const std::string folder_;
  pid_t server_ = 0;
};

}  // namespace ostravel::testing
