#pragma once

#include <bitset>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Platform/Interface/TextServices.h"

namespace ostravel {

// An ordered list of host entries, and the one matching rule for them. Immutable; usable from any
// thread. The cost of a match does not depend on the number of entries.
class DomainList {
 public:
  DomainList(const std::vector<std::string>& entries, const platform::TextServices& text);

  // normalisedHost: the text of a NormalisedHost. An entry with a leading "." matches hosts that
  // end with it, so subdomains but never the bare domain; any other entry matches only the equal
  // host.
  bool matches(std::string_view normalisedHost) const;

 private:
  struct Hash {
    using is_transparent = void;

    std::size_t operator()(std::string_view text) const noexcept {
      return std::hash<std::string_view>{}(text);
    }
  };

  bool contains(std::string_view entry) const;

  // In lower case.
  std::unordered_set<std::string, Hash, std::equal_to<>> entries_;
  // The lengths of the entries, so that most texts need not be looked up; the last bit stands for
  // all greater ones.
  static constexpr std::size_t kLongestLength = 63;
  std::bitset<kLongestLength + 1> lengths_;
};

// A text in lower case. Refers to the original, without a copy, if that is in lower case already.
class LowercasedText {
 public:
  LowercasedText(std::string_view text, const platform::TextServices& services);
  LowercasedText(const LowercasedText&) = delete;
  LowercasedText& operator=(const LowercasedText&) = delete;

  std::string_view text() const { return text_; }

 private:
  std::string copy_;
  std::string_view text_;
};

// The host in lower case, without leading and trailing dots.
class NormalisedHost {
 public:
  NormalisedHost(std::string_view host, const platform::TextServices& services);

  std::string_view text() const { return text_; }

 private:
  const LowercasedText lowercased_;
  std::string_view text_;
};

}  // namespace ostravel
