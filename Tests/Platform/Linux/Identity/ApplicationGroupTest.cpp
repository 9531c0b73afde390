#include "Platform/Linux/Identity/ApplicationGroup.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace ostravel::linuxplatform {

void PrintTo(const ApplicationGroup& group, std::ostream* out) {
  *out << static_cast<int>(group.kind) << " " << group.name;
  if (group.claimedBy) {
    *out << " claimed by " << *group.claimedBy;
  }
}

namespace {

using Kind = ApplicationGroup::Kind;

const std::string kUser = "/user.slice/user-1000.slice/user@1000.service/app.slice/";
const std::string kId = "4f0c2d9a1b7e" + std::string(52, '0');
constexpr const char* kShortId = "4f0c2d9a1b7e";

ApplicationGroup claimed(std::string name) {
  return {Kind::application, std::move(name), 1000};
}

TEST(ApplicationGroupTest, ReadsFlatpakIds) {
  EXPECT_EQ(ApplicationGroup::of(kUser + "app-flatpak-org.mozilla.firefox-4711.scope"),
            claimed("org.mozilla.firefox"));
  EXPECT_EQ(ApplicationGroup::of(kUser + "app-flatpak-com.example.Two\\x2dParts-4711.scope"),
            claimed("com.example.Two-Parts"));
}

TEST(ApplicationGroupTest, ReadsTheIdsOfDesktops) {
  for (const char* const unit :
       {"app-gnome-org.example.Viewer-4711.scope", "app-org.example.Viewer-4711.scope",
        "app-org.example.Viewer@4f0c2d9a.service", "app-org.example.Viewer@autostart.service",
        "app-org.example.Viewer.service", "app-gnome-org.example.Viewer.service",
        "app-KDE-org.example.Viewer@1.service", "app-gnome-org.example.Viewer.scope",
        "app-org.example.Viewer.scope", "app-org.example.Viewer-4711.service",
        "app-gnome-org.example.Viewer-4711.service"}) {
    EXPECT_EQ(ApplicationGroup::of(kUser + unit), claimed("org.example.Viewer")) << unit;
  }
  EXPECT_EQ(ApplicationGroup::of(kUser + "app-gnome-firefox-4711.scope"), claimed("firefox"));
  EXPECT_EQ(ApplicationGroup::of(kUser + "app-firefox-4711.scope"), claimed("firefox"));
  EXPECT_EQ(ApplicationGroup::of(kUser + "app-org.example.Tool.slice/app-org.example.Tool-1.scope"),
            claimed("org.example.Tool"));
  // The slice that systemd chooses for a service of this name.
  EXPECT_EQ(ApplicationGroup::of(
                kUser + "app-app\\x2dorg.example.Tool.slice/app-org.example.Tool@1.service"),
            claimed("org.example.Tool"));
}

TEST(ApplicationGroupTest, ReadsSnapPackages) {
  for (const char* const unit :
       {"snap.chat.chat-0d7e6c1a-77aa-4b5f-8b4e-8f5b8e8f1f2a.scope",
        "snap.chat.chat.0d7e6c1a-77aa-4b5f-8b4e-8f5b8e8f1f2a.scope", "snap.chat.daemon.service",
        "snap.chat.hook.configure-0d7e6c1a.scope"}) {
    EXPECT_EQ(ApplicationGroup::of(kUser + unit), claimed("snap.chat")) << unit;
  }
  EXPECT_EQ(ApplicationGroup::of("/system.slice/snap.lxd.daemon.service"),
            (ApplicationGroup{Kind::application, "snap.lxd", std::nullopt}));
  EXPECT_EQ(ApplicationGroup::of(kUser + "snap.two\\x2dparts.run-1.scope"),
            claimed("snap.two-parts"));
}

TEST(ApplicationGroupTest, ReadsSystemServices) {
  for (const char* const path :
       {"/system.slice/cups.service", "/system.slice/cups.service/inner/app-x-1.scope",
        "/system.slice/system-cups.slice/cups.service"}) {
    EXPECT_EQ(ApplicationGroup::of(path),
              (ApplicationGroup{Kind::service, "cups.service", std::nullopt}))
        << path;
  }
  EXPECT_EQ(ApplicationGroup::of("/system.slice/system-x.slice/x@a\\x2db.service").name,
            "x@a\\x2db.service");
  EXPECT_EQ(ApplicationGroup::of("/system.slice/app-org.example.Kiosk-1.scope"),
            (ApplicationGroup{Kind::application, "org.example.Kiosk", std::nullopt}));
}

TEST(ApplicationGroupTest, ReadsContainers) {
  for (const std::string& path :
       {"/system.slice/docker-" + kId + ".scope", "/docker/" + kId, "/docker/" + kId + "/init",
        "/machine.slice/libpod-" + kId + ".scope/container", "/libpod_parent/libpod-" + kId,
        "/kubepods.slice/kubepods-burstable.slice/kubepods-burstable-pod1.slice/cri-containerd-" +
            kId + ".scope",
        "/kubepods.slice/kubepods-pod1.slice/crio-" + kId + ".scope",
        "/kubepods/burstable/pod1/" + kId, "/system.slice/nerdctl-" + kId + ".scope",
        "/default/" + kId, "/docker/" + kId + "/system.slice/cups.service"}) {
    EXPECT_EQ(ApplicationGroup::of(path), (ApplicationGroup{Kind::container, kShortId, {}}))
        << path;
  }
  EXPECT_EQ(ApplicationGroup::of("/machine.slice/machine-build\\x2dhost.scope/payload"),
            (ApplicationGroup{Kind::container, "build-host", {}}));
  EXPECT_EQ(ApplicationGroup::of("/lxc.payload.web/system.slice/cups.service"),
            (ApplicationGroup{Kind::container, "web", {}}));
  EXPECT_EQ(
      ApplicationGroup::of("/user.slice/user-1000.slice/user@1000.service/user.slice/libpod-" +
                           kId + ".scope/container"),
      (ApplicationGroup{Kind::container, kShortId, 1000}));
}

TEST(ApplicationGroupTest, TheMonitorOfAContainerIsNotInIt) {
  EXPECT_EQ(ApplicationGroup::of("/machine.slice/libpod-conmon-" + kId + ".scope"),
            ApplicationGroup());
}

TEST(ApplicationGroupTest, EverythingElseIsOther) {
  for (const std::string& path :
       std::vector<std::string>{"",
                                "/",
                                "cups.service",
                                "/init.scope",
                                "/system.slice",
                                "/system.slice/cups.scope",
                                "/user.slice/user-1000.slice/session-2.scope",
                                "/user.slice/user-1000.slice/user@1000.service",
                                "/user.slice/user-1000.slice/user@1000.service/init.scope",
                                "/user.slice/user-1000.slice/user@1000.service/app.slice",
                                kUser + "vte-spawn-1.scope",
                                kUser + "app-a-b-c-d-e.scope",
                                kUser + "app-.scope",
                                kUser + "app.scope",
                                kUser + "app--1.scope",
                                kUser + "session.scope",
                                "/docker/" + kId + "0",
                                "/docker/" + kId.substr(1),
                                "/user.slice/user-x.slice/user@x.service/app-a-1.scope",
                                "/somewhere.slice/user@1000.service/app-a-1.scope",
                                "/../system.slice/cups.service",
                                "/../../docker/" + kId,
                                "/system.slice/cups.service (deleted)"}) {
    EXPECT_EQ(ApplicationGroup::of(path), ApplicationGroup()) << path;
  }
}

// What a user could call a group in order to be taken for something else.
TEST(ApplicationGroupTest, AUserCannotClaimThisToBeAnId) {
  for (const std::string& unit :
       std::vector<std::string>{"cups.service",
                                "app-\\x2fusr\\x2fbin\\x2fcurl-1.scope",
                                "app-/usr/bin/curl-1.scope",
                                "app-cups.service-1.scope",
                                "app-cups.service.service",
                                "app-snap.lxd-1.scope",
                                "app-a\\x0d\\x0ab-1.scope",
                                "app-a\\x-1.scope",
                                "app-a\\q41-1.scope",
                                "app-a\\x4-1.scope",
                                "app-a\\-1.scope",
                                "app-a b-1.scope",
                                "app-.hidden-1.scope",
                                "app-\xff-1.scope",
                                "snap.\\x2f.x-1.scope",
                                "snap..x-1.scope",
                                "snap.lxd.scope",
                                "snap.-1.scope",
                                "app-" + std::string(300, 'a') + "-1.scope",
                                "machine-\\x2f.scope",
                                "machine-.scope"}) {
    EXPECT_EQ(ApplicationGroup::of(kUser + unit), ApplicationGroup()) << unit;
  }
  // Whatever is below its own groups.
  EXPECT_EQ(ApplicationGroup::of(kUser + "system.slice/cups.service"), ApplicationGroup());
  EXPECT_EQ(ApplicationGroup::of(kUser + "docker/" + kId), ApplicationGroup());
  EXPECT_EQ(ApplicationGroup::of(kUser + "x.scope/user@0.service/app-a-1.scope"),
            ApplicationGroup());
}

}  // namespace
}  // namespace ostravel::linuxplatform
