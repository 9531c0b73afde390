#pragma once

#include <string>

#include "Companion/Fleet/NATSHandle.h"

namespace ostravel::companion {

// Where the server of a fleet is, and how a machine shows who it is. Secrets are in files, because
// other users can read a command line.
struct FleetServer {
  std::string url = {};          // nats://HOST[:PORT] or tls://HOST[:PORT]
  std::string credentials = {};  // a file with a user's token and key, as NATS makes it
  std::string authority = {};    // a file of certificates to trust instead of the system's
  std::string certificate = {};  // files of this machine's certificate and its key
  std::string key = {};
};

// What the library needs to connect, and to connect again for as long as it takes. Throws
// std::runtime_error with a readable reason.
NATSOptions connectionOptions(const FleetServer& server, const std::string& name);

}  // namespace ostravel::companion
