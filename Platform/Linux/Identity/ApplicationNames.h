#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Platform/Linux/Identity/ApplicationGroup.h"
#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Processes/SystemUsers.h"

namespace ostravel::linuxplatform {

// Names applications that are more than an executable: those of desktop sessions, Flatpak and Snap,
// AppImages, services, and programs in containers. In this order:
//
//   org.example.Editor, snap.chat      by the control group; see ApplicationGroup
//   cups.service                       the same
//   /usr/bin/curl//container/0123abcd  the executable's path in its container; one that a user runs
//                                      has the user's number before its ID. No path has "//"
//   Editor-2.1.AppImage                by the mounted file system; see AppImage
//
// A user's claim is believed only about this user's own processes, and the name of a service only
// for processes of root, system users and dynamic users. Reserved names are never given. Contains a
// snapshot of the system's users; used by one thread.
class ApplicationNames {
 public:
  // reserved: in upper or lower case.
  ApplicationNames(const std::vector<std::string>& reserved, SystemUsers systemUsers);

  // Empty if the application has no name besides its executable. socketUser: the owner of its
  // socket. processes: of the calling thread.
  std::optional<std::string> nameOf(const Process& process, uid_t socketUser,
                                    const ProcessTable& processes) const;

 private:
  std::optional<std::string> groupNameOf(const Process& process, uid_t socketUser) const;
  bool isBelieved(const ApplicationGroup& group, const Process& process, uid_t socketUser) const;
  bool mayRunServices(uid_t user) const;

  // In lower case.
  std::unordered_set<std::string> reserved_;
  SystemUsers systemUsers_;
};

}  // namespace ostravel::linuxplatform
