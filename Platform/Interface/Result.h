#pragma once

#include <utility>
#include <variant>

#include "Platform/Interface/Error.h"

namespace ostravel::platform {

// The outcome of an operation that can fail: its value or an error. Access to the absent one throws
// std::bad_variant_access.
template <typename Value>
class [[nodiscard]] Result {
 public:
  Result(Value value) : outcome_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : outcome_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const { return outcome_.index() == 0; }

  Value& operator*() & { return std::get<0>(outcome_); }
  const Value& operator*() const& { return std::get<0>(outcome_); }
  Value&& operator*() && { return std::get<0>(std::move(outcome_)); }
  Value* operator->() { return &std::get<0>(outcome_); }
  const Value* operator->() const { return &std::get<0>(outcome_); }

  const Error& error() const& { return std::get<1>(outcome_); }
  Error&& error() && { return std::get<1>(std::move(outcome_)); }

 private:
  std::variant<Value, Error> outcome_;
};

}  // namespace ostravel::platform
