#pragma once

#include <CLI/App.hpp>
#include <cstddef>
#include <string>

#include "Companion/Fleet/FleetServer.h"

namespace ostravel::companion {

// The options of the command line that concern a fleet. At most one of the two addresses is given.
struct FleetOptions {
  std::string publish;
  std::string subscribe;
  bool fromBeginning = false;
  std::string spool;
  std::size_t spoolMegabytes = 64;
  FleetServer server = {};  // without the address

  FleetServer serverAt(const std::string& url) const;
};

// Adds the options to the program's, for readCommandLine.
void addFleetOptions(CLI::App& app, FleetOptions& options);

// The default folder of the spool: the one that the service manager has created (StateDirectory= of
// systemd.exec(5)), otherwise the usual one.
std::string usualSpoolFolder();

}  // namespace ostravel::companion
