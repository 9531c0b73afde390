#include "Extension/FilterDataProvider/DomainList.h"

#include <algorithm>
#include <utility>

namespace ostravel {

namespace {

bool entryMatches(std::string_view entry, std::string_view host) {
  return entry.starts_with('.') ? host.ends_with(entry) : host == entry;
}

}  // namespace

DomainList::DomainList(std::vector<std::string> entries, const platform::TextServices& text)
    : lowercasedEntries_(std::move(entries)) {
  for (auto& entry : lowercasedEntries_) {
    entry = text.lowercased(entry);
  }
}

bool DomainList::matches(std::string_view normalisedHost) const {
  return std::any_of(
      lowercasedEntries_.begin(), lowercasedEntries_.end(),
      [normalisedHost](const std::string& entry) { return entryMatches(entry, normalisedHost); });
}

std::string normalisedHost(std::string_view host, const platform::TextServices& text) {
  std::string normalised = text.lowercased(host);
  normalised.erase(std::min(normalised.size(), normalised.find_last_not_of('.') + 1));
  normalised.erase(0, normalised.find_first_not_of('.'));
  return normalised;
}

}  // namespace ostravel
