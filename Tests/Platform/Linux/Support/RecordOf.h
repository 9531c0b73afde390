#pragma once

#include <string_view>

#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform::test {

// The record of a flow that begins now, for tests that need a flow and no journal.
inline Reference<FlowRecord> recordOf(std::string_view application,
                                      const SocketEndpoint& destination) {
  // Never destroyed, because flows may outlive objects of static storage.
  static auto& applications = *new SharedTexts();
  static auto& counters = *new FlowCounters();
  return makeReference<FlowRecord>(FlowRecord::Origin{.application = application,
                                                      .destination = destination,
                                                      .begin = FlowRecord::Clock::now()},
                                   applications, 0.0, counters);
}

}  // namespace ostravel::linuxplatform::test
