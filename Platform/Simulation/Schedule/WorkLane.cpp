#include "Platform/Simulation/Schedule/WorkLane.h"

#include <algorithm>
#include <utility>

namespace ostravel::simulation {

WorkLane::WorkLane(std::string label, platform::DispatchQueueKind kind)
    : label_(std::move(label)), kind_(kind) {}

void WorkLane::submit(ItemNumber item, ItemKind kind) {
  waiting_.push_back({item, kind});
}

std::vector<ItemNumber> WorkLane::takeStartable() {
  std::vector<ItemNumber> startable;
  while (reported_ < waiting_.size()) {
    const auto& candidate = waiting_[reported_];
    const bool isFirst = reported_ == 0 && running_.empty();
    if (runsAlone(candidate.kind) && !isFirst) {
      break;
    }
    const bool behindOneAlone = (reported_ > 0 && runsAlone(waiting_[reported_ - 1].kind)) ||
                                (!running_.empty() && runsAlone(running_.back()));
    if (behindOneAlone) {
      break;
    }
    startable.push_back(candidate.item);
    ++reported_;
  }
  return startable;
}

std::optional<ItemNumber> WorkLane::nextBefore(ItemNumber end, ItemKind kind) const {
  if (waiting_.empty() || waiting_.front().item >= end) {
    return std::nullopt;
  }
  const bool waitsForAll = runsAlone(kind);
  const bool behindBarrier = std::any_of(
      waiting_.begin(), waiting_.end(),
      [end](const Waiting& other) { return other.item < end && other.kind == ItemKind::barrier; });
  if (!waitsForAll && !behindBarrier) {
    return std::nullopt;
  }
  return waiting_.front().item;
}

bool WorkLane::runningItemBlocks(ItemKind kind) const {
  if (running_.empty()) {
    return false;
  }
  const bool barrierWaits = std::any_of(waiting_.begin(), waiting_.end(), [](const Waiting& other) {
    return other.kind == ItemKind::barrier;
  });
  return runsAlone(kind) || runsAlone(running_.back()) || barrierWaits;
}

void WorkLane::start(ItemNumber item) {
  const auto at = std::find_if(waiting_.begin(), waiting_.end(),
                               [item](const Waiting& other) { return other.item == item; });
  running_.push_back(at->kind);
  waiting_.erase(at);
  --reported_;
}

void WorkLane::startUnsubmitted(ItemKind kind) {
  running_.push_back(kind);
}

void WorkLane::finish() {
  running_.pop_back();
}

bool WorkLane::runsAlone(ItemKind kind) const {
  return kind_ == platform::DispatchQueueKind::serial || kind == ItemKind::barrier;
}

}  // namespace ostravel::simulation
