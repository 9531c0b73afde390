#include "Platform/Linux/Kernel/CgroupRoot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {
namespace {

// The result for a file with this text.
std::optional<std::string> rootIn(std::string_view mounts) {
  const FileDescriptor file(::memfd_create("mounts", MFD_CLOEXEC));
  EXPECT_EQ(::write(file.get(), mounts.data(), mounts.size()), static_cast<ssize_t>(mounts.size()));
  return findCgroupRoot("/proc/self/fd/" + std::to_string(file.get()));
}

TEST(CgroupRootTest, FindsTheMountPoint) {
  EXPECT_EQ(rootIn("proc /proc proc rw 0 0\n"
                   "cgroup /sys/fs/cgroup/cpu cgroup rw,cpu 0 0\n"
                   "cgroup2 /sys/fs/cgroup/unified cgroup2 rw 0 0\n"),
            "/sys/fs/cgroup/unified");
  EXPECT_EQ(rootIn("none /sys/fs/cgroup cgroup2 rw 0 0\nnone /other cgroup2 rw 0 0\n"),
            "/sys/fs/cgroup");
  EXPECT_EQ(rootIn("none /with\\040space cgroup2 rw 0 0\n"), "/with space");
  EXPECT_EQ(rootIn("cgroup2 /cgroup2 tmpfs rw 0 0\n"), std::nullopt);
  EXPECT_EQ(rootIn(""), std::nullopt);
  EXPECT_EQ(findCgroupRoot("/nowhere"), std::nullopt);
}

TEST(CgroupRootTest, OpensAFolderOfTheUnifiedHierarchy) {
  const auto root = openCgroupRoot();
  ASSERT_TRUE(root);
  EXPECT_EQ(::faccessat(root->get(), "cgroup.controllers", F_OK, 0), 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform
