#include "Platform/Linux/Processes/AppImage.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <optional>
#include <string>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

// As the kernel shows the mount of an AppImage that user 1000 runs.
std::string mountOf(const std::string& source, const std::string& type = "fuse.Editor.AppImage",
                    const std::string& options = "ro,user_id=1000,group_id=1000") {
  return "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
         "90 22 0:57 / /tmp/.mount_Editorabcdef ro,nosuid,nodev,relatime shared:2 - " +
         type + " " + source + " " + options + "\n";
}

std::optional<std::string> nameIn(const std::string& mounts, dev_t device = makedev(0, 57),
                                  uid_t user = 1000) {
  const TemporaryFolder folder;
  return appImageIn(folder.write("mountinfo", mounts), device, user);
}

TEST(AppImageTest, HasTheNameOfItsMount) {
  EXPECT_EQ(nameIn(mountOf("Editor-2.1.AppImage")), "Editor-2.1.AppImage");
  EXPECT_EQ(nameIn(mountOf("/home/a/Editor.appimage")), "Editor.appimage");
}

TEST(AppImageTest, OtherMountsAreNone) {
  EXPECT_EQ(nameIn(mountOf("Editor.AppImage"), makedev(8, 1)), std::nullopt);
  EXPECT_EQ(nameIn(mountOf("Editor.AppImage"), makedev(0, 58)), std::nullopt);
  EXPECT_EQ(nameIn(mountOf("sshfs")), std::nullopt);
  EXPECT_EQ(nameIn(mountOf("Editor.AppImage", "ext4")), std::nullopt);
  EXPECT_EQ(nameIn(""), std::nullopt);
  EXPECT_EQ(nameIn("90 22 0:57\n90 22 0:57 - \n"), std::nullopt);
}

TEST(AppImageTest, AnotherUsersMountIsNone) {
  EXPECT_EQ(nameIn(mountOf("Editor.AppImage"), makedev(0, 57), 1001), std::nullopt);
  EXPECT_EQ(nameIn(mountOf("Editor.AppImage", "fuse.x", "ro,user_id=10001")), std::nullopt);
  EXPECT_EQ(nameIn(mountOf("Editor.AppImage", "fuse.x", "ro,xuser_id=1000")), std::nullopt);
}

TEST(AppImageTest, AMisleadingNameIsNone) {
  for (const char* const name : {".AppImage", "/usr/bin/.AppImage", "a\\040b.AppImage",
                                 "a%0A.AppImage", "cups.service", "\xff.AppImage"}) {
    EXPECT_EQ(nameIn(mountOf(name)), std::nullopt) << name;
  }
  EXPECT_EQ(nameIn(mountOf(std::string(250, 'a') + ".AppImage")), std::nullopt);
}

TEST(AppImageTest, ANameAfterThousandsOfMountsIsNotSearchedFor) {
  const std::string other(1000, 'x');
  std::string mounts;
  for (int i = 0; i < 1000; ++i) {
    mounts += "22 1 8:1 / /" + other + " rw - ext4 /dev/sda1 rw\n";
  }
  EXPECT_EQ(nameIn(mounts + mountOf("Editor.AppImage")), std::nullopt);
}

}  // namespace
}  // namespace ostravel::linuxplatform
