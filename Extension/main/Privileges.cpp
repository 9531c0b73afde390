#include "Extension/main/Privileges.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

namespace ostravel::linuxplatform {

platform::OptionalError missingPrivileges() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
  const bool known = ::syscall(SYS_capget, &header, data.data()) == 0;
  if (known && (data[0].effective & (1U << CAP_NET_ADMIN)) != 0) {
    return std::nullopt;
  }
  return platform::posixError(
      EPERM, "the permission to administer the network (CAP_NET_ADMIN) is missing: run as root");
}

}  // namespace ostravel::linuxplatform
