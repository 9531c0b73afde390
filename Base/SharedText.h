#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "Base/ReferenceCounted.h"

namespace ostravel {

// A text that is never changed, of which all copies of the object share one. Takes one word.
class SharedText {
 public:
  explicit SharedText(std::string_view text) : kept_(makeReference<const Kept>(text)) {}

  const std::string& operator*() const { return kept_->text; }
  const std::string* operator->() const { return &kept_->text; }

  // How many objects share it.
  std::size_t count() const { return kept_.count(); }
  bool isSameAs(const SharedText& other) const { return kept_ == other.kept_; }

 private:
  struct Kept final : ReferenceCounted {
    explicit Kept(std::string_view value) : text(value) {}

    const std::string text;
  };

  Reference<const Kept> kept_;
};

}  // namespace ostravel
