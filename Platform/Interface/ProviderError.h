#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Interface/Error.h"

namespace ostravel::platform {

// Domain of the errors that the system itself defines. A failed system call has kPOSIXErrorDomain.
inline constexpr std::string_view kProviderErrorDomain = "OstravelProxy";

// All codes of that domain.

// The provider closes a flow with these: too many handshakes are pending, or the local proxy did
// not complete the handshake in time.
inline constexpr std::int64_t kHandshakeBacklogExceededCode = 1001;
inline constexpr std::int64_t kHandshakeTimedOutCode = 1002;
// The path of the monitoring socket does not fit into a socket address.
inline constexpr std::int64_t kMonitoringPathTooLongCode = 1101;
// A file that the administrator has written, the configuration or a registration, is not valid.
inline constexpr std::int64_t kInvalidConfigurationCode = 1201;
// The network settings hold a rule that cannot be translated.
inline constexpr std::int64_t kInvalidNetworkRuleCode = 1202;
// The provider made a request while the process is ending.
inline constexpr std::int64_t kStoppingCode = 1203;
// The kernel does not report who owns a socket.
inline constexpr std::int64_t kNoSocketDiagnosticsCode = 1204;
// Interception cannot start, because a resource is missing.
inline constexpr std::int64_t kInterceptionFailedCode = 1205;

// An error of that domain.
inline Error providerError(std::int64_t code, std::string description) {
  return {std::string(kProviderErrorDomain), code, std::move(description)};
}

inline bool isHandshakeTimeout(const OptionalError& error) {
  return error && error->domain == kProviderErrorDomain && error->code == kHandshakeTimedOutCode;
}

}  // namespace ostravel::platform
