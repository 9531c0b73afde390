#pragma once

#include "Platform/Interface/UUIDSource.h"

namespace ostravel::linuxplatform {

// UUIDs from the kernel's random numbers, fetched for several at a time and cached per thread. The
// process must not fork without executing another program: the child would repeat some of them.
class RandomUUIDSource final : public platform::UUIDSource {
 public:
  std::string randomUUID() override;
};

}  // namespace ostravel::linuxplatform
