#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace ostravel {

// The identifier of a flow, a value that every tunnel and several tables keep for as long as the
// tunnel lives. A UUID as the platform makes it takes sixteen bytes; any other text is kept as it
// is, on the heap.
class FlowIdentifier {
 public:
  // Empty.
  FlowIdentifier() = default;
  explicit FlowIdentifier(std::string_view text);
  FlowIdentifier(const FlowIdentifier& other);
  FlowIdentifier(FlowIdentifier&& other) noexcept
      : high_(std::exchange(other.high_, 0)), low_(std::exchange(other.low_, 0)) {}
  FlowIdentifier& operator=(FlowIdentifier other) noexcept {
    std::swap(high_, other.high_);
    std::swap(low_, other.low_);
    return *this;
  }
  ~FlowIdentifier();

  std::string text() const;
  bool isUUID() const { return high_ != 0; }

  friend bool operator==(const FlowIdentifier& left, const FlowIdentifier& right);

  struct Hash {
    std::size_t operator()(const FlowIdentifier& identifier) const noexcept;
  };

 private:
  // Null for a UUID.
  const std::string* otherText() const;

  // The bits of a UUID. A version of 4 in the first half distinguishes it from another text, for
  // which that half is 0 and the other one is the address of a string.
  std::uint64_t high_ = 0;
  std::uint64_t low_ = 0;
};

}  // namespace ostravel
