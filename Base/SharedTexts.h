#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string_view>
#include <unordered_set>

#include "Base/SharedText.h"

namespace ostravel {

// Keeps one copy of each text that many objects hold, such as the identifier of an application with
// thousands of flows. Texts that nobody holds any more are dropped when the number of texts has
// doubled. Usable from any thread; the texts outlive it.
class SharedTexts {
 public:
  SharedText of(std::string_view text);

  std::size_t size() const;

 private:
  static constexpr std::size_t kSmallestSweep = 64;

  struct Hash {
    using is_transparent = void;

    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
    std::size_t operator()(const SharedText& text) const {
      return (*this)(std::string_view(*text));
    }
  };
  struct Equal {
    using is_transparent = void;

    static std::string_view view(std::string_view text) { return text; }
    static std::string_view view(const SharedText& text) { return *text; }
    template <typename Left, typename Right>
    bool operator()(const Left& left, const Right& right) const {
      return view(left) == view(right);
    }
  };

  mutable std::mutex lock_;
  // Guarded by lock_.
  std::unordered_set<SharedText, Hash, Equal> texts_;
  std::size_t nextSweep_ = kSmallestSweep;
};

}  // namespace ostravel
