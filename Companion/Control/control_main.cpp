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

#include "Base/PrintableText.h"
#include "Companion/Control/AnswerText.h"
#include "Companion/Control/ControlOutput.h"
#include "Companion/Control/ExplainSubject.h"
#include "Companion/Control/FlowList.h"
#include "Companion/Control/TopScreen.h"
#include "Companion/Shared/CommandLine.h"
#include "Companion/Shared/ControlClient.h"
#include "Companion/Shared/TimeText.h"

namespace {

using namespace ostravel;
using namespace ostravel::companion;

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

int explain(const CLI::App& app, const ControlClient& client,
            const std::vector<std::string>& subjects, bool isUDP, bool asJSON) {
  const JSONHandle request = makeRequest("explain");
  for (const std::string& subject : subjects) {
    if (!addExplainSubject(request.get(), subject)) {
      return failUsage(app, "not a process number, a path or a host: " + printableText(subject));
    }
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
    return explain(app, client, subjects, isUDP, asJSON);
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
