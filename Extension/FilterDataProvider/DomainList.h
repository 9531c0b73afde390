#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/TextServices.h"

namespace ostravel {

// An ordered list of host entries, and the one matching rule for them. Immutable; usable from any
// thread.
class DomainList {
 public:
  DomainList(std::vector<std::string> entries, const platform::TextServices& text);

  // normalisedHost is the result of normalisedHost(). An entry with a leading "." matches hosts
  // that end with it, so subdomains but never the bare domain; any other entry matches only the
  // equal host.
  bool matches(std::string_view normalisedHost) const;

 private:
  // In lower case. Computed once, because the decision scans the list for every new kind of flow.
  std::vector<std::string> lowercasedEntries_;
};

// The host in lower case, without leading and trailing dots.
std::string normalisedHost(std::string_view host, const platform::TextServices& text);

}  // namespace ostravel
