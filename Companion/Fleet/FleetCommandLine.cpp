#include "Companion/Fleet/FleetCommandLine.h"

#include <CLI/Option.hpp>
#include <CLI/Validators.hpp>
#include <cstdlib>

namespace ostravel::companion {

FleetServer FleetOptions::serverAt(const std::string& url) const {
  FleetServer result = server;
  result.url = url;
  return result;
}

void addFleetOptions(CLI::App& app, FleetOptions& options) {
  options.spool = usualSpoolFolder();
  CLI::Option* const publish =
      app.add_option("--publish", options.publish, "Send the events to this NATS server as well")
          ->option_text("URL");
  app.add_option("--subscribe", options.subscribe,
                 "Show the events of all machines that this NATS server has")
      ->option_text("URL")
      ->excludes(publish);
  app.add_flag("--from-beginning", options.fromBeginning,
               "With --subscribe: begin with the oldest event that the server has");
  app.add_option("--spool", options.spool, "With --publish: keep what is not sent yet here")
      ->option_text("FOLDER [" + options.spool + "]");
  constexpr std::size_t kMostMegabytes = std::size_t{1024} * 1024;
  app.add_option("--spool-size", options.spoolMegabytes, "The most that the spool may take, in MiB")
      ->option_text("MIB [64]")
      ->check(CLI::Range(std::size_t{1}, kMostMegabytes));
  app.add_option("--credentials", options.server.credentials,
                 "A file with the credentials for the NATS server")
      ->option_text("FILE");
  app.add_option("--tls-ca", options.server.authority,
                 "Trust the NATS server if one of the certificates in this file has signed its own")
      ->option_text("FILE");
  app.add_option("--tls-certificate", options.server.certificate,
                 "This machine's certificate for the NATS server")
      ->option_text("FILE");
  app.add_option("--tls-key", options.server.key, "The key of that certificate")
      ->option_text("FILE");
}

std::string usualSpoolFolder() {
  const char* const folder = std::getenv("STATE_DIRECTORY");
  return std::string(folder == nullptr ? "/var/lib/ostravel-monitor" : folder) + "/spool";
}

}  // namespace ostravel::companion
