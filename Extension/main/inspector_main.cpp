#include <sys/socket.h>
#include <sys/types.h>
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "Base/ParseNumber.h"
#include "Base/PrintableText.h"
#include "Extension/main/Privileges.h"
#include "Extension/main/SystemCallFilter.h"
#include "Platform/Linux/Inspection/InspectionServer.h"
#include "Platform/Linux/Processes/SystemUsers.h"

namespace {

using namespace ostravel;

constexpr int kExitCannotRun = 2;

int fail(std::string_view reason) {
  std::fprintf(stderr, "ostravel-inspector: %s\n", printableText(reason).c_str());
  return kExitCannotRun;
}

// Falls back to a number, for a user without a name.
std::optional<uid_t> userOf(const std::string& text) {
  const auto user = linuxplatform::SystemUsers::numberOf(text);
  return user ? user : parseNumber<uid_t>(text);
}

// The descriptor of the socket that the service manager has passed; -1 if there is none.
int passedListener() {
  constexpr int kUnsetEnvironment = 1;
  constexpr int kIsListening = 1;
  const int descriptor = SD_LISTEN_FDS_START;
  const bool isPassed =
      ::sd_listen_fds(kUnsetEnvironment) == 1 &&
      ::sd_is_socket_unix(descriptor, SOCK_SEQPACKET, kIsListening, nullptr, 0) > 0;
  return isPassed ? descriptor : -1;
}

// Not with a sanitizer, which makes other system calls.
platform::OptionalError restrictSystemCalls() {
#ifdef OSTRAVEL_SANITIZED
  return std::nullopt;
#else
  return linuxplatform::SystemCallFilter::restrictInspector();
#endif
}

int run(int argc, char** argv) {
  CLI::App app(
      "Looks at other users' processes for ostravel-extension: which program has which socket. Is\n"
      "started by systemd, which makes its socket. Needs CAP_SYS_PTRACE and CAP_DAC_READ_SEARCH.",
      "ostravel-inspector");
  app.set_version_flag("--version", "ostravel-inspector " OSTRAVEL_VERSION);
  std::optional<std::string> clientName;
  app.add_option("--client", clientName,
                 "user who may ask, besides root and the user of this program")
      ->type_name("NAME");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    return fail(std::string(error.what()) + " (see --help)");
  }
  const auto client = clientName ? userOf(*clientName) : std::nullopt;
  if (clientName && !client) {
    return fail("--client: there is no user \"" + *clientName + "\"");
  }
  const int listener = passedListener();
  if (listener < 0) {
    return fail("no socket was passed: start it with systemctl start ostravel-inspector.socket");
  }
  if (const auto obstacle = linuxplatform::Privileges::ofThisProcess().inspectionObstacle()) {
    return fail(obstacle->localizedDescription);
  }
  if (const auto error = linuxplatform::Privileges::giveUpAllButInspection()) {
    return fail(error->localizedDescription);
  }
  std::signal(SIGPIPE, SIG_IGN);
  if (const auto error = restrictSystemCalls()) {
    // Only a second line of defence: the inspector is more useful without it than not at all.
    std::fprintf(stderr, "ostravel-inspector: %s\n", error->localizedDescription.c_str());
  }
  linuxplatform::InspectionServer server(listener, client);
  ::sd_notify(0, "READY=1\nSTATUS=Answering");
  // Until a signal ends the process: nothing has to be left in order.
  server.run([] { ::sd_notify(0, "WATCHDOG=1"); });
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    return fail(failure.what());
  }
}
