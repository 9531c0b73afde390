#include "Companion/Monitor/Web/RequestGuard.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "Base/UTF8.h"
#include "Companion/Shared/HostPort.h"

namespace ostravel::companion {
namespace {

constexpr std::string_view kBearer = "Bearer ";

// Takes a time that depends only on the lengths.
bool isSame(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) {
    return false;
  }
  unsigned difference = 0;
  for (std::size_t index = 0; index < left.size(); ++index) {
    difference |=
        static_cast<unsigned char>(left[index]) ^ static_cast<unsigned char>(right[index]);
  }
  return difference == 0;
}

std::string_view bearerToken(std::string_view authorization) {
  return authorization.starts_with(kBearer) ? authorization.substr(kBearer.size())
                                            : std::string_view();
}

// Browsers omit port 80.
std::optional<HostPort> hostOf(std::string_view header) {
  const std::optional<HostPort> whole = parseHostPort(header);
  return whole ? whole : parseHostPort(std::string(header) + ":80");
}

}  // namespace

RequestGuard::RequestGuard(std::string address, std::string token)
    : address_(std::move(address)), token_(std::move(token)) {}

int RequestGuard::refusal(const RequestClaims& claims, bool needsToken) const {
  if (claims.method != "GET" && claims.method != "HEAD") {
    return 405;
  }
  if (claims.host.empty()) {
    return 400;
  }
  if (!isOurHost(claims.host)) {
    return 403;
  }
  if (!claims.origin.empty() && claims.origin != "http://" + claims.host) {
    return 403;
  }
  const bool hasToken =
      isSame(claims.token, token_) || isSame(bearerToken(claims.authorization), token_);
  return needsToken && !hasToken ? 401 : 0;
}

bool RequestGuard::isOurHost(std::string_view header) const {
  const std::optional<HostPort> host = hostOf(header);
  if (!host) {
    return false;
  }
  // A name can be made to resolve to any address; an address literal and localhost cannot.
  return literalEndpoint(*host) || lowercasedASCII(host->host) == "localhost" ||
         host->host == address_;
}

std::string randomToken() {
  std::array<unsigned char, 16> bytes{};
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::system_error(errno, std::generic_category(), "no random numbers");
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string token;
  for (const unsigned char byte : bytes) {
    token += kDigits[byte >> 4U];
    token += kDigits[byte & 0xFU];
  }
  return token;
}

}  // namespace ostravel::companion
