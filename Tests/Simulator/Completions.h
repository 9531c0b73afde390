#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/Interface/Completion.h"
#include "Tests/Simulator/Strand.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

inline const platform::Error* pointerTo(const platform::OptionalError& error) {
  return error ? &*error : nullptr;
}

inline std::string_view viewOf(const platform::Data& data) {
  const auto bytes = data.bytes();
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// A completion that is recorded, on the strand, before the system's own runs.
platform::ErrorCompletion observed(World& world, const std::shared_ptr<Strand>& strand,
                                   HistoryKind kind, std::uint32_t flow,
                                   platform::ErrorCompletion completion);
// With the fault of late results, data may arrive after later events.
platform::ReadCompletion observed(World& world, const std::shared_ptr<Strand>& strand,
                                  HistoryKind kind, std::uint32_t flow,
                                  platform::ReadCompletion completion);

}  // namespace ostravel::simulator
