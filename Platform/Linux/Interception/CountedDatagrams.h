#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <string_view>
#include <unordered_map>

#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// Which flows of UDP have been counted, and with which result. Every datagram is decided anew, but
// those of one flow that are decided alike count once. Bounded: the flows whose last datagram is
// oldest are forgotten first. Not thread-safe.
class CountedDatagrams {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // As long as the kernel treats unanswered datagrams as one flow (conntrack: 30 s).
  static constexpr std::chrono::seconds kLifetime{30};

  explicit CountedDatagrams(std::size_t capacity) : capacity_(capacity) {}

  // Notes a datagram. True if it is the first of its flow, if the result is another one than
  // before, or if the one before is kLifetime ago. result: of static storage.
  bool isNew(const FlowTuple& flow, std::string_view result, TimePoint now);

 private:
  struct Entry {
    FlowTuple flow;
    std::string_view result;
    TimePoint last;
  };

  const std::size_t capacity_;
  // The flow with the latest datagram first.
  std::list<Entry> entries_;
  std::unordered_map<FlowTuple, std::list<Entry>::iterator, FlowTupleHash> positions_;
};

}  // namespace ostravel::linuxplatform
