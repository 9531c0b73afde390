#include "Platform/Linux/Identity/ApplicationNames.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "Platform/Linux/Processes/LocalProcessTable.h"

namespace ostravel::linuxplatform {
namespace {

constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;
constexpr uid_t kDaemon = 2;
// The users of services with DynamicUser=yes (systemd.exec(5)).
constexpr uid_t kFirstDynamic = 61184;
constexpr uid_t kLastDynamic = 65519;

const std::string kAlices = "/user.slice/user-1000.slice/user@1000.service/";
const std::string kContainer = "docker-0123456789ab" + std::string(52, 'c') + ".scope";

Process processIn(const std::string& group, uid_t user) {
  Process process;
  process.pid = 1;
  process.stamp.uid = user;
  process.stamp.realUser = user;
  process.executable = "/usr/bin/editor";
  process.isExecutableGenuine = true;
  process.isExecutableSettled = true;
  process.controlGroup = group;
  return process;
}

std::optional<std::string> nameOf(const Process& process, uid_t socketUser) {
  return ApplicationNames({"com.Example.VPN", "com.example.az"}, SystemUsers(999))
      .nameOf(process, socketUser, LocalProcessTable());
}

std::optional<std::string> nameIn(const std::string& group, uid_t user) {
  return nameOf(processIn(group, user), user);
}

TEST(ApplicationNamesTest, NamesTheApplicationOfADesktop) {
  EXPECT_EQ(nameIn(kAlices + "app.slice/app-org.example.Editor-1.scope", kAlice),
            "org.example.Editor");
}

TEST(ApplicationNamesTest, BelievesAUserAboutOwnProcessesOnly) {
  const std::string group = kAlices + "app.slice/app-org.example.Editor-1.scope";
  EXPECT_EQ(nameIn(group, kBob), std::nullopt);
  EXPECT_EQ(nameIn(group, 0), std::nullopt);
  auto process = processIn(group, kAlice);
  EXPECT_EQ(nameOf(process, kBob), std::nullopt);
  process.stamp.uid = 0;
  EXPECT_EQ(nameOf(process, kAlice), std::nullopt);
  process = processIn(group, kAlice);
  process.stamp.realUser = kBob;
  EXPECT_EQ(nameOf(process, kAlice), std::nullopt);
}

TEST(ApplicationNamesTest, NamesTheServiceOfASystemUser) {
  for (const uid_t user : {uid_t{0}, kDaemon, kFirstDynamic, kLastDynamic}) {
    EXPECT_EQ(nameIn("/system.slice/cups.service", user), "cups.service") << user;
  }
  for (const uid_t user : {kFirstDynamic - 1, kLastDynamic + 1}) {
    EXPECT_EQ(nameIn("/system.slice/cups.service", user), std::nullopt) << user;
  }
  // A job of hers, for example, that a service runs.
  EXPECT_EQ(nameIn("/system.slice/cron.service", kAlice), std::nullopt);
}

TEST(ApplicationNamesTest, GivesNoReservedName) {
  EXPECT_EQ(nameIn(kAlices + "app-com.example.vpn-1.scope", kAlice), std::nullopt);
  EXPECT_EQ(nameIn(kAlices + "app-COM.EXAMPLE.vpn-1.scope", kAlice), std::nullopt);
  EXPECT_EQ(nameIn(kAlices + "app-com.example.AZ-1.scope", kAlice), std::nullopt);
  EXPECT_EQ(nameIn(kAlices + "app-com.example.vpns-1.scope", kAlice), "com.example.vpns");
}

TEST(ApplicationNamesTest, AContainersProgramHasItsIdAsASuffix) {
  for (const uid_t user : {uid_t{0}, kAlice, kDaemon}) {
    EXPECT_EQ(nameIn("/system.slice/" + kContainer, user),
              "/usr/bin/editor//container/0123456789ab");
  }
}

TEST(ApplicationNamesTest, AUsersContainerIsNotTakenForAnother) {
  EXPECT_EQ(nameIn(kAlices + "user.slice/" + kContainer, kAlice),
            "/usr/bin/editor//container/1000/0123456789ab");
  // As one of her subordinate users.
  EXPECT_EQ(nameIn(kAlices + "user.slice/" + kContainer, 165536),
            "/usr/bin/editor//container/1000/0123456789ab");
}

TEST(ApplicationNamesTest, ADeletedProgramInAContainerHasNoName) {
  auto process = processIn("/system.slice/" + kContainer, 0);
  process.isExecutableDeleted = true;
  EXPECT_EQ(nameOf(process, 0), std::nullopt);
  process = processIn("/system.slice/" + kContainer, 0);
  process.executable.clear();
  EXPECT_EQ(nameOf(process, 0), std::nullopt);
}

TEST(ApplicationNamesTest, OtherProgramsHaveNoName) {
  EXPECT_EQ(nameIn("/user.slice/user-1000.slice/session-2.scope", kAlice), std::nullopt);
  EXPECT_EQ(nameIn("", kAlice), std::nullopt);
}

}  // namespace
}  // namespace ostravel::linuxplatform
