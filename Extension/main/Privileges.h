#pragma once

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// Absent when this process may administer the network of its namespace (CAP_NET_ADMIN). The error's
// sentence says what is missing and what to do.
platform::OptionalError missingPrivileges();

}  // namespace ostravel::linuxplatform
