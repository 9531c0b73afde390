#include "Tests/Simulator/History.h"

#include <chrono>

namespace ostravel::simulator {

void History::record(const HistoryEvent& event) {
  const std::uint64_t content = event.bytes.empty() ? 0 : digestOf(event.bytes);
  const auto now = run_.now();
  digest_.add((static_cast<std::uint64_t>(event.kind) << 32U) | event.flow);
  digest_.add(static_cast<std::uint64_t>(now.count()) ^ (event.number << 48U));
  digest_.add(content);
  if (event.error != nullptr) {
    digest_.add(event.error->localizedDescription);
  }
  if (keepsTrace_ && event.kind != HistoryKind::stepDone) {
    const auto microseconds = std::chrono::floor<std::chrono::microseconds>(now).count();
    trace_.push_back({event.flow, std::to_string(microseconds) + " us  " + describe(event)});
  }
  checker_.consume(event, content, now);
}

}  // namespace ostravel::simulator
