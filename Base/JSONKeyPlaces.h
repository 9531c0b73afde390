#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace ostravel {

// The positions of the members of a JSON object in its text, for error messages: a parsed value has
// no position.
class JSONKeyPlaces {
 public:
  // text: an object (RFC 8259) that Jansson accepts. Members of nested objects are not recorded.
  explicit JSONKeyPlaces(std::string_view text);

  // ":LINE:COLUMN" of the key's opening quote, both counted from 1, the column in characters; empty
  // if there is no such key.
  std::string of(std::string_view key) const;

 private:
  std::map<std::string, std::string, std::less<>> places_;
};

}  // namespace ostravel
