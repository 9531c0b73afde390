#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstddef>

#include "Base/FileDescriptor.h"

namespace ostravel::benchmarks {

// Waits until something has happened, and passes each event to the handler.
template <typename Handler>
void takeTurn(const FileDescriptor& events, const Handler& handler) {
  std::array<epoll_event, 64> happened{};
  const int count =
      ::epoll_wait(events.get(), happened.data(), static_cast<int>(happened.size()), -1);
  for (int index = 0; index < count; ++index) {
    handler(happened[static_cast<std::size_t>(index)]);
  }
}

}  // namespace ostravel::benchmarks
