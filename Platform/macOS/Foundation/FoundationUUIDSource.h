#pragma once

#include "Platform/Interface/UUIDSource.h"

namespace ostravel::macos {

// NSUUID's random identifiers. Has no state.
class FoundationUUIDSource final : public platform::UUIDSource {
 public:
  std::string randomUUID() override;
};

}  // namespace ostravel::macos
