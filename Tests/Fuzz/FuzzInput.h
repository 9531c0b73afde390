#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace ostravel::fuzz {

// Consumes an input from its front. When it is used up, numbers are zero and texts are empty.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size)
      : left_(reinterpret_cast<const char*>(data), size) {}

  std::uint8_t number() {
    if (left_.empty()) {
      return 0;
    }
    const auto byte = static_cast<std::uint8_t>(left_.front());
    left_.remove_prefix(1);
    return byte;
  }

  std::string_view text(std::size_t size) {
    const auto taken = left_.substr(0, std::min(size, left_.size()));
    left_.remove_prefix(taken.size());
    return taken;
  }

  std::string_view rest() const { return left_; }

 private:
  std::string_view left_;
};

// Ends the process, which a fuzzer reports as a finding.
inline void require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
  }
}

// Passes the text to the consumer in pieces; the sizes are derived from the number. There are few
// enough of them for long texts not to take most of a fuzzer's time.
template <typename Consumer>
void inPieces(std::string_view text, std::uint64_t sizes, Consumer consume) {
  const std::size_t most = std::max<std::size_t>(7, text.size() / 16);
  while (!text.empty()) {
    const auto size = std::min<std::size_t>(text.size(), 1 + sizes % most);
    sizes = sizes / 7 * 2862933555777941757U + 3037000493U;
    if (!consume(text.substr(0, size))) {
      return;
    }
    text.remove_prefix(size);
  }
}

}  // namespace ostravel::fuzz
