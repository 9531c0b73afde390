#include "Platform/Linux/Names/OpenQuestions.h"

#include <utility>

namespace ostravel::linuxplatform {

std::uint64_t OpenQuestions::add(Asked asked, Clock::time_point now) {
  removeExpired(now);
  const Key key{asked.tuple, asked.question.id};
  if (const auto known = byKey_.find(key); known != byKey_.end()) {
    // A retransmission; another question with the same number replaces it.
    if (byNumber_.at(known->second).asked.question == asked.question) {
      return 0;
    }
    close(known->second);
  }
  if (byNumber_.size() >= kInAll || counts_[asked.user] >= kPerUser) {
    return 0;
  }
  ++counts_[asked.user];
  const std::uint64_t number = ++last_;
  asked.number = number;
  byKey_.emplace(key, number);
  byNumber_.emplace(number, Open{std::move(asked), now + kLifetime});
  return number;
}

const OpenQuestions::Asked* OpenQuestions::find(std::uint16_t id, const FlowTuple& answer,
                                                Clock::time_point now) {
  removeExpired(now);
  const FlowTuple question{answer.protocol, answer.destination, answer.source};
  const auto found = byKey_.find({question, id});
  return found != byKey_.end() ? &byNumber_.at(found->second).asked : nullptr;
}

OpenQuestions::Asked* OpenQuestions::find(std::uint64_t number) {
  const auto found = byNumber_.find(number);
  return found != byNumber_.end() ? &found->second.asked : nullptr;
}

void OpenQuestions::close(std::uint64_t number) {
  const auto found = byNumber_.find(number);
  if (found == byNumber_.end()) {
    return;
  }
  const Asked& asked = found->second.asked;
  byKey_.erase({asked.tuple, asked.question.id});
  const auto count = counts_.find(asked.user);
  if (--count->second == 0) {
    counts_.erase(count);
  }
  byNumber_.erase(found);
}

void OpenQuestions::removeExpired(Clock::time_point now) {
  while (!byNumber_.empty() && byNumber_.begin()->second.expiry <= now) {
    close(byNumber_.begin()->first);
  }
}

}  // namespace ostravel::linuxplatform
