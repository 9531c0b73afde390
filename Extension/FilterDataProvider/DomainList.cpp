#include "Extension/FilterDataProvider/DomainList.h"

#include <algorithm>

namespace ostravel {

namespace {

// False for capitals and for everything beyond ASCII, about which only the platform knows.
bool isLowercaseASCII(char character) {
  const bool isASCII = static_cast<unsigned char>(character) < 0x80;
  return isASCII && (character < 'A' || character > 'Z');
}

}  // namespace

DomainList::DomainList(const std::vector<std::string>& entries,
                       const platform::TextServices& text) {
  for (const auto& entry : entries) {
    const auto& added = *entries_.insert(text.lowercased(entry)).first;
    lengths_.set(std::min(added.size(), kLongestLength));
  }
}

bool DomainList::contains(std::string_view entry) const {
  return lengths_[std::min(entry.size(), kLongestLength)] && entries_.contains(entry);
}

bool DomainList::matches(std::string_view normalisedHost) const {
  // A host that begins with a dot is only a suffix of itself, which is looked up below.
  if (!normalisedHost.starts_with('.') && contains(normalisedHost)) {
    return true;
  }
  for (auto dot = normalisedHost.find('.'); dot != std::string_view::npos;
       dot = normalisedHost.find('.', dot + 1)) {
    if (contains(normalisedHost.substr(dot))) {
      return true;
    }
  }
  return false;
}

LowercasedText::LowercasedText(std::string_view text, const platform::TextServices& services)
    : text_(text) {
  if (!std::all_of(text.begin(), text.end(), isLowercaseASCII)) {
    copy_ = services.lowercased(text);
    text_ = copy_;
  }
}

NormalisedHost::NormalisedHost(std::string_view host, const platform::TextServices& services)
    : lowercased_(host, services), text_(lowercased_.text()) {
  text_.remove_prefix(std::min(text_.size(), text_.find_first_not_of('.')));
  text_.remove_suffix(text_.size() - std::min(text_.size(), text_.find_last_not_of('.') + 1));
}

}  // namespace ostravel
