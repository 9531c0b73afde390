#include "Companion/Control/FlowList.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include "Companion/Control/AnswerText.h"
#include "Companion/Control/ControlOutput.h"
#include "Companion/Shared/ColumnText.h"

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;

constexpr auto kPause = 500ms;
constexpr json_int_t kMostFlows = 1000;
// Steps that happen while an answer is being made appear in the next one.
constexpr double kOverlapSeconds = 1;
// More than the extension keeps.
constexpr std::size_t kRememberedOutcomes = 4000;

JSONHandle makeRequest(std::optional<json_int_t> after, std::optional<double> updatedAfter) {
  JSONHandle request(json_object());
  json_object_set_new(request.get(), "request", json_string("decisions"));
  json_object_set_new(request.get(), "limit", json_integer(kMostFlows));
  if (after) {
    json_object_set_new(request.get(), "after", json_integer(*after));
  }
  if (updatedAfter) {
    json_object_set_new(request.get(), "updated_after", json_real(*updatedAfter));
  }
  return request;
}

}  // namespace

bool FlowList::printFlow(const json_t* flow) const {
  return printLine(asJSON_ ? jsonLine(flow)
                           : flowText(flow, {.time = time_, .width = widthOfOutput()}));
}

int FlowList::print() const {
  const auto answer = client_.ask(makeRequest(std::nullopt, std::nullopt), answerDeadline());
  if (const auto* const failure = std::get_if<ControlClient::Failure>(&answer)) {
    return report(*failure);
  }
  std::size_t index = 0;
  json_t* flow = nullptr;
  json_array_foreach(memberOf(std::get<JSONHandle>(answer).get(), "decisions"), index, flow) {
    if (!printFlow(flow)) {
      return kExitDone;
    }
  }
  return kExitDone;
}

int FlowList::follow() const {
  std::map<std::int64_t, std::string> outcomes;
  std::int64_t last = 0;
  double updatedAfter = 0;
  double startedAt = 0;
  while (true) {
    const auto answer = client_.ask(makeRequest(last, updatedAfter), answerDeadline());
    if (const auto* const failure = std::get_if<ControlClient::Failure>(&answer)) {
      return report(*failure);
    }
    const json_t* const result = std::get<JSONHandle>(answer).get();
    const double start = numberOf(result, "started_at").value_or(0);
    // A new process counts from the beginning.
    if (std::exchange(startedAt, start) != start && last > 0) {
      outcomes.clear();
      last = 0;
      updatedAfter = 0;
      continue;
    }
    std::size_t index = 0;
    json_t* flow = nullptr;
    json_array_foreach(memberOf(result, "decisions"), index, flow) {
      const std::int64_t sequence = integerOf(flow, "sequence");
      std::string outcome = textOf(flow, "outcome");
      std::string& shown = outcomes[sequence];
      if (shown != outcome && !printFlow(flow)) {
        return kExitDone;
      }
      shown = std::move(outcome);
      last = std::max(last, sequence);
    }
    while (outcomes.size() > kRememberedOutcomes) {
      outcomes.erase(outcomes.begin());
    }
    updatedAfter = numberOf(result, "now").value_or(0) - kOverlapSeconds;
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace ostravel::companion
