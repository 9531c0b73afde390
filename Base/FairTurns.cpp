#include "Base/FairTurns.h"

namespace ostravel {

void FairTurns::clear() {
  order_.clear();
  latest_ = nullptr;
  // Emptied first, because destroying work may call back.
  const auto lines = std::exchange(lines_, {});
}

FairTurns::Line& FairTurns::lineOf(Party party) {
  if (latest_ == nullptr || latestParty_ != party) {
    latest_ = &lines_[party];
    latestParty_ = party;
  }
  return *latest_;
}

bool FairTurns::mayRunNow(Party party) {
  if (spent_ >= limits_.total) {
    return false;
  }
  const Line& line = lineOf(party);
  return line.waiting.empty() && line.spent < limits_.share;
}

void FairTurns::spend(Party party, std::size_t bytes) {
  lineOf(party).spent += bytes;
  spent_ += bytes;
  requestTurn();
}

void FairTurns::enqueue(Party party, Work work) {
  Line& line = lineOf(party);
  line.waiting.push_back(std::move(work));
  const bool isFirst = line.waiting.size() == 1;
  if (isFirst && &line != served_) {
    order_.push_back(party);
  }
  requestTurn();
}

void FairTurns::requestTurn() {
  if (!std::exchange(isTurnRequested_, true)) {
    later_([this] { takeTurn(); });
  }
}

void FairTurns::takeTurn() {
  isTurnRequested_ = false;
  beginTurn();
  for (std::size_t parties = order_.size(); parties > 0 && spent_ < limits_.total; --parties) {
    const Party party = order_.front();
    order_.pop_front();
    serve(party);
  }
  if (!order_.empty()) {
    requestTurn();
  }
}

void FairTurns::beginTurn() {
  spent_ = 0;
  if (lines_.size() > kKeptLines) {
    latest_ = nullptr;
    std::erase_if(lines_, [](const auto& entry) { return entry.second.waiting.empty(); });
  }
  for (auto& [party, line] : lines_) {
    line.spent = 0;
  }
}

void FairTurns::serve(Party party) {
  // Keeps its address when the work adds lines.
  Line& line = lineOf(party);
  served_ = &line;
  while (!line.waiting.empty() && line.spent < limits_.share && spent_ < limits_.total) {
    const Work work = std::move(line.waiting.front());
    line.waiting.pop_front();
    spend(party, kCostOfOperation);
    work();
  }
  served_ = nullptr;
  if (line.waiting.empty()) {
    return;
  }
  if (line.spent < limits_.share) {
    // Interrupted by the total, so it is the first in the next turn.
    order_.push_front(party);
  } else {
    order_.push_back(party);
  }
}

}  // namespace ostravel
