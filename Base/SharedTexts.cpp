#include "Base/SharedTexts.h"

#include <algorithm>

namespace ostravel {

SharedText SharedTexts::of(std::string_view text) {
  const std::lock_guard guard(lock_);
  if (const auto found = texts_.find(text); found != texts_.end()) {
    return *found;
  }
  if (texts_.size() >= nextSweep_) {
    // A count of one cannot grow meanwhile: only this table could copy it, and it is locked.
    std::erase_if(texts_, [](const SharedText& kept) { return kept.count() == 1; });
    nextSweep_ = std::max(kSmallestSweep, 2 * texts_.size());
  }
  return *texts_.insert(SharedText(text)).first;
}

std::size_t SharedTexts::size() const {
  const std::lock_guard guard(lock_);
  return texts_.size();
}

}  // namespace ostravel
