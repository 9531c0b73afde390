#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Base/ParseNumber.h"
#include "Companion/Control/AnswerText.h"
#include "Companion/Control/ControlOutput.h"
#include "Companion/Control/FlowList.h"
#include "Companion/Control/TopScreen.h"
#include "Companion/Shared/CommandLine.h"
#include "Companion/Shared/ControlClient.h"
#include "Companion/Shared/TimeText.h"

namespace {

using namespace ostravel;
using namespace ostravel::companion;

constexpr std::string_view kAfterScheme = "://";

// Sends one request and prints the answer, as text or as JSON. text: formats it.
template <typename Text>
std::variant<JSONHandle, int> askAndPrint(const ControlClient& client, JSONHandle request,
                                          bool asJSON, Text text) {
  auto answer = client.ask(std::move(request), answerDeadline());
  if (const auto* const failure = std::get_if<ControlClient::Failure>(&answer)) {
    return report(*failure);
  }
  JSONHandle result = std::get<JSONHandle>(std::move(answer));
  printText(asJSON ? jsonLine(result.get()) + '\n' : text(result.get()));
  return result;
}

JSONHandle makeRequest(const char* name) {
  JSONHandle request(json_object());
  json_object_set_new(request.get(), "request", json_string(name));
  return request;
}

int showStatus(const ControlClient& client, bool asJSON) {
  const auto answer = askAndPrint(client, makeRequest("status"), asJSON, &statusText);
  if (const auto* const status = std::get_if<int>(&answer)) {
    return *status;
  }
  const bool isActive =
      json_is_true(memberOf(std::get<JSONHandle>(answer).get(), "proxying.active"));
  return isActive ? kExitDone : kExitNo;
}

int reload(const ControlClient& client, bool asJSON) {
  const auto answer = askAndPrint(client, makeRequest("reload"), asJSON, [](const json_t* result) {
    return textOf(result, "message") +
           "\nregistrations in force: " + std::to_string(integerOf(result, "registrations")) + "\n";
  });
  if (const auto* const status = std::get_if<int>(&answer)) {
    return *status;
  }
  return json_is_true(memberOf(std::get<JSONHandle>(answer).get(), "replaced")) ? kExitDone
                                                                                : kExitNo;
}

// HOST, HOST:PORT, [IPv6], [IPv6]:PORT, or an IPv6 address without brackets.
void addDestination(json_t* request, std::string_view subject) {
  std::string_view host = subject;
  std::optional<unsigned> port;
  const auto colon = subject.rfind(':');
  const bool isBracketed = subject.starts_with('[');
  const bool hasPort = colon != std::string_view::npos &&
                       (isBracketed ? subject[colon - 1] == ']' : subject.find(':') == colon);
  if (hasPort) {
    port = parseNumber<unsigned>(subject.substr(colon + 1));
    host = subject.substr(0, colon);
  }
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  }
  json_object_set_new(request, "host", json_stringn(host.data(), host.size()));
  if (hasPort) {
    // The extension rejects an invalid port with a reason.
    json_object_set_new(request, "port", json_integer(port.value_or(0)));
  }
}

// The destination of a URL (RFC 3986), as people copy it from a browser.
void addDestinationOfURL(json_t* request, std::string_view url, std::size_t schemeSize) {
  const std::string_view scheme = url.substr(0, schemeSize);
  std::string_view authority = url.substr(schemeSize + kAfterScheme.size());
  authority = authority.substr(0, authority.find_first_of("/?#"));
  // Without a user this begins at npos + 1, which is 0.
  authority = authority.substr(authority.rfind('@') + 1);
  // Replaced by the port in the URL, if there is one.
  json_object_set_new(request, "port", json_integer(scheme == "http" ? 80 : 443));
  addDestination(request, authority);
}

void addSubject(json_t* request, const std::string& subject) {
  if (const auto schemeSize = subject.find(kAfterScheme); schemeSize != std::string::npos) {
    addDestinationOfURL(request, subject, schemeSize);
  } else if (const auto pid = parseNumber<int>(subject)) {
    json_object_set_new(request, "pid", json_integer(*pid));
  } else if (subject.find('/') != std::string::npos) {
    const std::string path = std::filesystem::absolute(subject).lexically_normal();
    json_object_set_new(request, "path", json_stringn(path.data(), path.size()));
  } else {
    addDestination(request, subject);
  }
}

int explain(const ControlClient& client, const std::vector<std::string>& subjects, bool isUDP,
            bool asJSON) {
  const JSONHandle request = makeRequest("explain");
  for (const std::string& subject : subjects) {
    addSubject(request.get(), subject);
  }
  if (isUDP) {
    json_object_set_new(request.get(), "protocol", json_string("udp"));
  }
  const auto answer =
      askAndPrint(client, JSONHandle(json_incref(request.get())), asJSON, &explanationText);
  const auto* const status = std::get_if<int>(&answer);
  return status == nullptr ? kExitDone : *status;
}

// The extension's program examines the machine; no extension need be running.
int check(bool asJSON) {
  char own[PATH_MAX] = {};
  const auto size = ::readlink("/proc/self/exe", own, sizeof own - 1);
  const auto beside =
      std::filesystem::path(size > 0 ? own : "").parent_path() / "ostravel-extension";
  const char* const format = asJSON ? "--json" : nullptr;
  ::execl(beside.c_str(), "ostravel-extension", "--check", format, nullptr);
  ::execlp("ostravel-extension", "ostravel-extension", "--check", format, nullptr);
  return report({"not_running", "ostravel-extension is not installed"});
}

int run(int argc, char** argv) {
  CLI::App app("Asks the running extension what it does, and why.", "ostravelctl");
  std::string path(ControlClient::kDefaultPath);
  bool asJSON = false;
  bool doesFollow = false;
  std::string timeStyle = "time";
  bool isUDP = false;
  std::vector<std::string> subjects;
  app.add_option("--socket", path, "The control socket")->option_text("PATH [" + path + "]");
  app.add_flag("--json", asJSON, "Print JSON on one line");
  app.require_subcommand(1);
  app.fallthrough();
  const auto* const status =
      app.add_subcommand("status", "Say whether new connections are proxied, and if not why");
  auto* const flows =
      app.add_subcommand("flows", "List the latest flows and what was decided about them");
  flows->add_flag("--follow,-f", doesFollow,
                  "Keep listing flows as they are decided and as they end");
  addTimeOption(*flows, timeStyle);
  const auto* const top = app.add_subcommand("top", "Show a live screen; q ends it");
  auto* const explained =
      app.add_subcommand("explain", "Say what would happen to a flow, and by which rule");
  explained
      ->add_option("SUBJECT", subjects,
                   "The number of a process, the path of a program, or a destination")
      ->option_text("PID|PATH|HOST[:PORT]|URL ...")
      ->required();
  explained->add_flag("--udp", isUDP, "A flow of UDP");
  const auto* const reloaded =
      app.add_subcommand("reload", "Read the registrations of applications again");
  const auto* const checked =
      app.add_subcommand("check", "Examine whether the extension would run well here");
  if (const auto exitStatus = readCommandLine(app, argc, argv)) {
    return *exitStatus;
  }
  std::signal(SIGPIPE, SIG_IGN);
  const ControlClient client(path);
  if (status->parsed()) {
    return showStatus(client, asJSON);
  }
  if (flows->parsed()) {
    const auto time = timeStyleNamed(timeStyle);
    if (!time) {
      return failTimeStyle(app, timeStyle);
    }
    const FlowList list(client, asJSON, *time);
    return doesFollow ? list.follow() : list.print();
  }
  if (top->parsed()) {
    const TopScreen screen(client);
    return asJSON ? screen.print() : screen.run();
  }
  if (explained->parsed()) {
    return explain(client, subjects, isUDP, asJSON);
  }
  if (reloaded->parsed()) {
    return reload(client, asJSON);
  }
  return checked->parsed() ? check(asJSON) : kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    return report({"unavailable", failure.what()});
  }
}
