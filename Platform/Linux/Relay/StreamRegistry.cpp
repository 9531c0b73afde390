#include "Platform/Linux/Relay/StreamRegistry.h"

#include <memory>
#include <utility>
#include <vector>

#include "Platform/Linux/Relay/StreamSocket.h"

namespace ostravel::linuxplatform {

StreamRegistry::Place StreamRegistry::add(StreamSocket& stream) {
  const std::lock_guard guard(lock_);
  if (free_.empty()) {
    streams_.push_back(&stream);
    return static_cast<Place>(streams_.size() - 1);
  }
  const Place place = free_.back();
  free_.pop_back();
  streams_[place] = &stream;
  return place;
}

void StreamRegistry::remove(Place place) {
  const std::lock_guard guard(lock_);
  streams_[place] = nullptr;
  free_.push_back(place);
}

void StreamRegistry::dropCompletions() {
  // Without the lock: destroying a completion may release the last reference to a stream, here or
  // on another thread, and the stream then removes itself from the registry.
  std::vector<std::shared_ptr<StreamSocket>> streams;
  {
    const std::lock_guard guard(lock_);
    for (StreamSocket* const registered : streams_) {
      // One that is being destroyed waits for the lock, and has no owner any more.
      if (auto stream = registered != nullptr ? registered->weak_from_this().lock() : nullptr) {
        streams.push_back(std::move(stream));
      }
    }
  }
  for (const auto& stream : streams) {
    stream->dropCompletions();
  }
}

}  // namespace ostravel::linuxplatform
