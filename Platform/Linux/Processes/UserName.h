#pragma once

#include <sys/types.h>

#include <string>

namespace ostravel::linuxplatform {

// The name of a user for people, from /etc/passwd alone, so that no directory service is waited
// for; the number where there is no name. Reads a file.
std::string nameOfUser(uid_t user);

}  // namespace ostravel::linuxplatform
