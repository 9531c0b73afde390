#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/Interface/Error.h"

namespace ostravel::platform {

// Domain of the errors that the provider itself defines.
inline constexpr std::string_view kProviderErrorDomain = "OstravelProxy";

// Codes of that domain with which a provider closes a flow.

// More handshakes are pending than the provider permits.
inline constexpr std::int64_t kHandshakeBacklogExceededCode = 1001;
// The local proxy accepted the connection and did not answer in time.
inline constexpr std::int64_t kHandshakeTimedOutCode = 1002;

inline bool isHandshakeTimeout(const OptionalError& error) {
  return error && error->domain == kProviderErrorDomain && error->code == kHandshakeTimedOutCode;
}

}  // namespace ostravel::platform
