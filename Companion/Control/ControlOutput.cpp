#include "Companion/Control/ControlOutput.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "Base/CompactJSON.h"
#include "Base/LineOutput.h"
#include "Base/PrintableText.h"

namespace ostravel::companion {

namespace {

using namespace std::chrono_literals;

// Longer than the extension waits for its own threads.
constexpr auto kAnswerTime = 5s;
constexpr auto kOutputTime = 60s;

}  // namespace

ControlClient::Deadline answerDeadline() {
  return std::chrono::steady_clock::now() + kAnswerTime;
}

bool printText(const std::string& text) {
  return !LineOutput(STDOUT_FILENO).writeAll(text, kOutputTime);
}

bool printLine(const std::string& line) {
  return printText(line + '\n');
}

std::string jsonLine(const json_t* value) {
  const std::unique_ptr<char, decltype(&std::free)> text(
      json_dumps(value, JSON_COMPACT | JSON_PRESERVE_ORDER), &std::free);
  return text ? compactJSON(text.get()) : std::string();
}

int report(const ControlClient::Failure& failure) {
  const std::string line = "ostravelctl: " + printableText(failure.message) + '\n';
  static_cast<void>(LineOutput(STDERR_FILENO).writeAll(line, 1s));
  constexpr std::array<std::string_view, 5> kAnswered{
      "bad_request", "unknown_request", "unsupported_version", "not_found", "unavailable"};
  const bool isAnswered = std::ranges::find(kAnswered, failure.code) != kAnswered.end();
  return isAnswered ? kExitNo : kExitUnreachable;
}

}  // namespace ostravel::companion
