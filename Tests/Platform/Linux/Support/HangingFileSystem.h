#pragma once

#include <sys/types.h>

#include <string>

namespace ostravel::testing {

// A FUSE file system with one file, "program", that is as the given one was, and that the kernel
// may keep nothing about but the file's content. Everybody may run it, until it hangs: then nobody
// who asks for anything gets an answer. Mounted in the mount namespace of the caller, which should
// be a private one; served by a process of its own, and unmounted with the object.
class HangingFileSystem {
 public:
  // folder is an empty one.
  HangingFileSystem(std::string folder, const std::string& program);
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
