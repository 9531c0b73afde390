#include "Companion/Fleet/FleetServer.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <system_error>

#include "Companion/Fleet/ReconnectDelay.h"

namespace ostravel::companion {
namespace {

constexpr std::string_view kPlainScheme = "nats://";
constexpr std::string_view kSecureScheme = "tls://";

void checkURL(const std::string& url) {
  const bool isKnown = url.starts_with(kPlainScheme) || url.starts_with(kSecureScheme);
  if (!isKnown || url.ends_with("//")) {
    throw std::runtime_error("not nats://HOST[:PORT] or tls://HOST[:PORT]: " + url);
  }
  if (url.find('@') != std::string::npos) {
    // Not quoted, so that the secret does not appear in the log.
    throw std::runtime_error(
        "the address has a password, which other users can read: put it in a file");
  }
}

void checkReadable(const std::string& path) {
  if (!path.empty() && ::access(path.c_str(), R_OK) != 0) {
    throw std::runtime_error("cannot read " + path + ": " + std::generic_category().message(errno));
  }
}

void require(natsStatus status, const std::string& what) {
  if (status != NATS_OK) {
    throw std::runtime_error(what + ": " + natsStatus_GetText(status));
  }
}

// Nothing to do: the connection's state is polled.
void ignoreConnection(natsConnection* /*connection*/, void* /*closure*/) {}

void ignoreError(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                 natsStatus /*status*/, void* /*closure*/) {}

std::int64_t delayBefore(natsConnection* /*connection*/, int attempts, void* /*closure*/) {
  return randomReconnectDelay(attempts).count();
}

void setSecurity(natsOptions* options, const FleetServer& server) {
  const bool isSecure = server.url.starts_with(kSecureScheme) || !server.authority.empty() ||
                        !server.certificate.empty();
  if (isSecure) {
    require(natsOptions_SetSecure(options, true), "TLS");
  }
  if (!server.authority.empty()) {
    require(natsOptions_LoadCATrustedCertificates(options, server.authority.c_str()),
            server.authority);
  }
  if (!server.certificate.empty()) {
    require(
        natsOptions_LoadCertificatesChain(options, server.certificate.c_str(), server.key.c_str()),
        server.certificate);
  }
  if (!server.credentials.empty()) {
    require(natsOptions_SetUserCredentialsFromFiles(options, server.credentials.c_str(), nullptr),
            server.credentials);
  }
}

}  // namespace

NATSOptions connectionOptions(const FleetServer& server, const std::string& name) {
  checkURL(server.url);
  if (server.certificate.empty() != server.key.empty()) {
    throw std::runtime_error("a certificate and its key are needed together");
  }
  for (const std::string& path :
       {server.credentials, server.authority, server.certificate, server.key}) {
    checkReadable(path);
  }
  natsOptions* made = nullptr;
  if (natsOptions_Create(&made) != NATS_OK) {
    throw std::bad_alloc();
  }
  NATSOptions options(made);
  require(natsOptions_SetURL(made, server.url.c_str()), server.url);
  setSecurity(made, server);
  // A hung server is detected within a minute.
  constexpr std::chrono::milliseconds kPingInterval{20'000};
  constexpr int kMostPings = 2;
  constexpr std::chrono::milliseconds kConnectTimeout{5'000};
  constexpr int kForEver = -1;
  for (const natsStatus status :
       {natsOptions_SetName(made, name.c_str()),
        natsOptions_SetTimeout(made, kConnectTimeout.count()),
        natsOptions_SetPingInterval(made, kPingInterval.count()),
        natsOptions_SetMaxPingsOut(made, kMostPings), natsOptions_SetMaxReconnect(made, kForEver),
        natsOptions_SetCustomReconnectDelay(made, delayBefore, nullptr),
        // The library's default handler writes to standard error.
        natsOptions_SetErrorHandler(made, ignoreError, nullptr),
        // Nothing waits for the answer of a server that is gone.
        natsOptions_SetFailRequestsOnDisconnect(made, true),
        // With a function, the library does not wait for the first connection.
        natsOptions_SetRetryOnFailedConnect(made, true, ignoreConnection, nullptr)}) {
    require(status, server.url);
  }
  return options;
}

}  // namespace ostravel::companion
