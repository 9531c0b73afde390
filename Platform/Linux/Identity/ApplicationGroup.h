#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// What the path of a control group reveals about the application that it was made for. systemd puts
// every application and service into a group of its own, and so do the usual container engines:
//
//   /system.slice/cups.service                                          service
//   /user.slice/user-1000.slice/user@1000.service/app.slice/
//     app-flatpak-org.example.Editor-4711.scope                         application
//     app-gnome-org.example.Viewer-4712.scope                           application
//     app-org.example.Player@4f0c.service                               application
//     snap.chat.chat-0d7e6c1a.scope                                     Snap package
//   /system.slice/docker-<64 hexadecimal digits>.scope                  container
//
// The first group below the slices decides, since a service may make any groups within its own. A
// user names the groups below user@UID.service at will, so what these say is no more than that
// user's claim. All others are made by root's programs. A value.
struct ApplicationGroup {
  enum class Kind {
    // None of these; a login session, for example.
    other,
    // name: the ID of an application, or "snap." and a package, without anything that occurs in
    // paths, services or containers only.
    application,
    // name: a service's unit, such as "cups.service".
    service,
    // name: the first digits of the container's ID, or its machine name.
    container,
  };

  Kind kind = Kind::other;
  std::string name;
  // The user whose claim it is; empty for root's.
  std::optional<uid_t> claimedBy;

  // controlGroup: an absolute path in the unified hierarchy (cgroups(7)).
  static ApplicationGroup of(std::string_view controlGroup);

  friend bool operator==(const ApplicationGroup&, const ApplicationGroup&) = default;
};

}  // namespace ostravel::linuxplatform
