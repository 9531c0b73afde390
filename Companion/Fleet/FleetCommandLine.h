#pragma once

#include <CLI/App.hpp>
#include <cstddef>
#include <string>

#include "Companion/Fleet/FleetServer.h"

namespace ostravel::companion {

// What the command line says about a fleet. At most one of the two addresses is given.
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

// The folder of the spool when none is given: the one that the service manager has made
// (StateDirectory= of systemd.exec(5)), else the usual one.
std::string usualSpoolFolder();

}  // namespace ostravel::companion
