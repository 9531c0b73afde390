#include "Extension/main/CommandLine.h"

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string_view>
#include <utility>

#include "Base/ParseNumber.h"
#include "Base/PrintableText.h"
#include "Extension/main/ConfigurationFile.h"
#include "Extension/main/ControlSocket.h"
#include "Extension/main/ProxyAddress.h"
#include "Platform/Linux/Inspection/RemoteProcessTable.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Processes/SystemUsers.h"

namespace ostravel {

namespace {

using LogSink = linuxplatform::LinuxPlatform::LogSink;
using linuxplatform::NameUse;
using platform::LogLevel;

constexpr int kExitUsage = 2;

// JOURNAL_STREAM contains device:inode of the journal's stream (systemd.exec(5)). If standard error
// has been redirected in the meantime, it is another file.
bool isStartedByServiceManager() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || ::fstat(STDERR_FILENO, &status) != 0) {
    return false;
  }
  return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// Falls back to a number, for a user without a name.
std::optional<uid_t> userWithName(const std::string& name) {
  if (const auto user = linuxplatform::SystemUsers::numberOf(name)) {
    return user;
  }
  const auto number = parseNumber<uid_t>(name);
  // The largest number means no user (chown(2)).
  return number != static_cast<uid_t>(-1) ? number : std::nullopt;
}

// Decimal, or hexadecimal with 0x.
std::optional<linuxplatform::PacketMarks> parseMarkMask(std::string_view text) {
  const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
  const std::string_view digits = isHexadecimal ? text.substr(2) : text;
  const auto mask = parseNumber<std::uint32_t>(digits, isHexadecimal ? 16 : 10);
  return mask ? linuxplatform::PacketMarks::fromMask(*mask) : std::nullopt;
}

}  // namespace

linuxplatform::Privileges::Inspection CommandLine::Options::inspection() const {
  using Inspection = linuxplatform::Privileges::Inspection;
  return inspectorPath ? Inspection::byInspector : Inspection::own;
}

linuxplatform::ProcessTableSource CommandLine::Options::processTables(
    std::function<void(const std::string&)> warn) const {
  return inspectorPath ? linuxplatform::RemoteProcessTable::source(*inspectorPath, std::move(warn))
                       : &linuxplatform::LocalProcessTable::make;
}

CommandLine CommandLine::parse(int argc, char** argv) {
  CLI::App app(
      "Carries the connections of this machine's applications through the HTTP proxy on\n" +
          proxyAddress() +
          ", and leaves them alone while that proxy does not answer.\n"
          "Needs root, or CAP_NET_ADMIN, CAP_SYS_PTRACE and CAP_DAC_READ_SEARCH, and for speed "
          "CAP_BPF\n"
          "and CAP_PERFMON.",
      "ostravel-extension");
  app.set_version_flag("--version", "ostravel-extension " OSTRAVEL_VERSION);

  std::optional<std::string> configurationPath;
  app.add_option("--configuration", configurationPath,
                 std::string("provider configuration, a JSON object; without it ") +
                     linuxplatform::kDefaultConfigurationPath + ", if that exists")
      ->type_name("FILE");
  const std::map<std::string, LogSink> sinks = {{"journal", LogSink::journal},
                                                {"stderr", LogSink::standardError}};
  std::string sink = isStartedByServiceManager() ? "journal" : "stderr";
  app.add_option("--log", sink,
                 "where log lines go: journal or stderr; without it the journal when started by "
                 "systemd, else standard error")
      ->type_name("SINK")
      ->check(CLI::IsMember(sinks));
  const std::map<std::string, LogLevel> levels = {{"debug", LogLevel::debug},
                                                  {"info", LogLevel::info},
                                                  {"default", LogLevel::standard},
                                                  {"error", LogLevel::error}};
  std::optional<std::string> level;
  app.add_option("--log-level", level,
                 "least important lines that are written: debug, info, default or error; without "
                 "it the configuration's, else all, but no debug lines to standard error")
      ->type_name("LEVEL")
      ->check(CLI::IsMember(levels));
  bool isCheck = false;
  bool isDryRun = false;
  auto* const check = app.add_flag(
      "--check", isCheck,
      "report what would keep it from running well on this machine, and what to do; exit with 0, "
      "with 1 after a warning, with 2 after a problem");
  app.add_flag("--dry-run", isDryRun, "print the rules that would be installed, for nft -f")
      ->excludes(check);
  bool asJSON = false;
  app.add_flag("--json", asJSON, "with --check: report as JSON, on one line")->needs(check);
  bool isGuardianUnwanted = false;
  app.add_flag("--no-guardian", isGuardianUnwanted,
               "do not kill this process when it hangs: for debuggers, which stop it");

  std::optional<std::string> controlPath;
  app.add_option("--control", controlPath,
                 std::string("where ostravelctl finds this program: the path of a socket, or off; "
                             "without it ") +
                     linuxplatform::ControlSocket::kDefaultPath)
      ->type_name("PATH");

  std::optional<std::string> inspectorPath;
  app.add_option("--inspector", inspectorPath,
                 "socket of an ostravel-inspector, which looks at other users' processes for this "
                 "program; without it this program needs the permissions for it")
      ->type_name("PATH");

  std::vector<std::string> proxyUsers;
  app.add_option("--proxy-user", proxyUsers,
                 "user whose local proxy may carry the connections of all users, like that of root "
                 "or a system user; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);

  const std::map<std::string, NameUse> uses = {
      {"off", NameUse::off}, {"decide", NameUse::decide}, {"connect", NameUse::connect}};
  std::string names = "connect";
  app.add_option("--names", names,
                 "what the host names that applications have looked up are used for: off, decide "
                 "(the lists of domains) or connect (the proxy is asked for them, too); without it "
                 "connect")
      ->type_name("USE")
      ->check(CLI::IsMember(uses));

  linuxplatform::PacketMarks marks;
  app.add_option_function<std::string>(
         "--mark-mask",
         [&marks](const std::string& text) {
           const auto parsed = parseMarkMask(text);
           if (!parsed) {
             throw CLI::ValidationError("--mark-mask", "\"" + text +
                                                           "\" is not a mask of at least three "
                                                           "adjacent bits, such as 0x3e000000");
           }
           marks = *parsed;
         },
         "bits of the packet mark that no other program uses; without it 0x3e000000")
      ->type_name("MASK");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return {std::nullopt, app.exit(success)};
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "ostravel-extension: %s (see --help)\n",
                 printableText(error.what()).c_str());
    return {std::nullopt, kExitUsage};
  }
  const Job job = isCheck ? Job::check : isDryRun ? Job::dryRun : Job::run;
  const bool hasControl = controlPath != "off";
  Options options{.job = job,
                  .configurationPath = configurationPath,
                  .logSink = sinks.at(sink),
                  .logLevel = level ? std::optional(levels.at(*level)) : std::nullopt,
                  .controlPath = hasControl ? controlPath : std::nullopt,
                  .hasControl = hasControl,
                  .asJSON = asJSON,
                  .hasGuardian = !isGuardianUnwanted,
                  .inspectorPath = inspectorPath,
                  .proxyUsers = {},
                  .marks = marks,
                  .names = uses.at(names)};
  for (const std::string& name : proxyUsers) {
    const auto user = userWithName(name);
    if (!user) {
      std::fprintf(stderr, "ostravel-extension: --proxy-user: there is no user \"%s\"\n",
                   printableText(name).c_str());
      return {std::nullopt, kExitUsage};
    }
    options.proxyUsers.push_back(*user);
  }
  return {std::move(options), EXIT_SUCCESS};
}

}  // namespace ostravel
