#pragma once

#include <string>

#include "Companion/Fleet/NATSHandle.h"

namespace ostravel::companion {

// The address of a fleet's server, and how a machine authenticates. Secrets are in files, because
// other users can read a command line.
struct FleetServer {
  std::string url = {};          // nats://HOST[:PORT] or tls://HOST[:PORT]
  std::string credentials = {};  // a file with a user's token and key, as NATS makes it
  std::string authority = {};    // a file of certificates to trust instead of the system's
  std::string certificate = {};  // files of this machine's certificate and its key
  std::string key = {};
};

// The library's options for a connection that it restores for as long as it takes. Throws
// std::runtime_error with a readable reason.
NATSOptions connectionOptions(const FleetServer& server, const std::string& name);

}  // namespace ostravel::companion
