#include "Extension/ProxyTunnelCore/MonitoringLossReport.h"

#include <cerrno>
#include <system_error>
#include <utility>

namespace ostravel {
namespace {

std::string reasonOf(const platform::Error& error) {
  if (error.domain != platform::kPOSIXErrorDomain) {
    return error.localizedDescription;
  }
  switch (error.code) {
    case ENOENT:
      return "there is no socket";
    case ECONNREFUSED:
      return "no program listens there";
    default:
      return std::generic_category().message(static_cast<int>(error.code));
  }
}

}  // namespace

std::optional<std::string> MonitoringLossReport::lost(std::string_view path,
                                                      const platform::Error& error,
                                                      double secondsSince1970) {
  ++lostSinceLine_;
  return lineIfDue(path, reasonOf(error), secondsSince1970);
}

std::optional<std::string> MonitoringLossReport::delivered(std::string_view path,
                                                           double secondsSince1970) {
  if (lostSinceLine_ == 0) {
    return std::nullopt;
  }
  return lineIfDue(path, "events are delivered again", secondsSince1970);
}

std::optional<std::string> MonitoringLossReport::lineIfDue(std::string_view path,
                                                           std::string_view reason,
                                                           double secondsSince1970) {
  const double passed = secondsSince1970 - lastLine_;
  // A clock that was set back must not silence the lines.
  if (passed >= 0.0 && passed < kSecondsBetweenLines) {
    return std::nullopt;
  }
  lastLine_ = secondsSince1970;
  const std::uint64_t count = std::exchange(lostSinceLine_, 0);
  return "OstravelProxy monitoring events lost: " + std::to_string(count) + " for " +
         std::string(path) + ": " + std::string(reason);
}

}  // namespace ostravel
