#pragma once

#include <sys/types.h>

#include <string>

namespace ostravel::linuxplatform {

// A user's display name, from /etc/passwd only, so as never to block on a directory service; the
// number if there is no name. Reads a file.
std::string nameOfUser(uid_t user);

}  // namespace ostravel::linuxplatform
