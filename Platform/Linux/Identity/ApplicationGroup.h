#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// The application for which a control group was created, according to its path. systemd creates a
// group for every application and service, and so do the usual container engines:
//
//   /system.slice/cups.service                                          service
//   /user.slice/user-1000.slice/user@1000.service/app.slice/
//     app-flatpak-org.example.Editor-4711.scope                         application
//     app-gnome-org.example.Viewer-4712.scope                           application
//     app-org.example.Player@4f0c.service                               application
//     snap.chat.chat-0d7e6c1a.scope                                     Snap package
//   /system.slice/docker-<64 hexadecimal digits>.scope                  container
//
// The first group below the slices decides, since a service may create any groups within its own.
// Groups below user@UID.service are named by that user, so their names are only the user's claim.
// Programs of root create all others. A value type.
struct ApplicationGroup {
  enum class Kind {
    // None of these; a login session, for example.
    other,
    // name: the ID of an application, or "snap." and a package; never like the name of a path, a
    // service or a container.
    application,
    // name: a service's unit, such as "cups.service".
    service,
    // name: the first digits of the container's ID, or its machine name.
    container,
  };

  Kind kind = Kind::other;
  std::string name;
  // The user who claims it; empty if root's programs created the group.
  std::optional<uid_t> claimedBy;

  // controlGroup: an absolute path in the unified hierarchy (cgroups(7)).
  static ApplicationGroup of(std::string_view controlGroup);

  friend bool operator==(const ApplicationGroup&, const ApplicationGroup&) = default;
};

}  // namespace ostravel::linuxplatform
