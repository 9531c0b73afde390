#include "Platform/Linux/Processes/MountTable.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

TEST(MountTableTest, ReadsTheDevicesOfMounts) {
  const TemporaryFolder folder;
  const auto path = folder.write("mountinfo",
                                 "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw\n"
                                 "37 35 0:21 / /proc rw - proc proc rw\n"
                                 "not a mount\n"
                                 "38 35 0-22 / /sys rw - sysfs sysfs rw\n");
  const MountTable::Devices expected = {{36, ::makedev(98, 0)}, {37, ::makedev(0, 21)}};
  EXPECT_EQ(MountTable::read(path), expected);
}

TEST(MountTableTest, AnUnreadableFileListsNoMount) {
  EXPECT_TRUE(MountTable::read("/nowhere").empty());
}

TEST(MountTableTest, KnowsTheDeviceOfOwnMounts) {
  struct statx proc {};
  ASSERT_EQ(::statx(AT_FDCWD, "/proc", 0, STATX_MNT_ID, &proc), 0);
  MountTable mounts;
  EXPECT_EQ(mounts.deviceOf(proc.stx_mnt_id), ::makedev(proc.stx_dev_major, proc.stx_dev_minor));
  EXPECT_EQ(mounts.deviceOf(0), std::nullopt);
}

}  // namespace
}  // namespace ostravel::linuxplatform
