#include "Platform/Linux/Relay/StreamRegistry.h"

#include <utility>
#include <vector>

#include "Platform/Linux/Relay/StreamSocket.h"

namespace ostravel::linuxplatform {

StreamRegistry::Entry::~Entry() {
  if (registry_ != nullptr) {
    const std::lock_guard guard(registry_->lock_);
    registry_->streams_.erase(position_);
  }
}

void StreamRegistry::add(Entry& entry, std::weak_ptr<StreamSocket> stream) {
  const std::lock_guard guard(lock_);
  entry.position_ = streams_.insert(streams_.end(), std::move(stream));
  entry.registry_ = this;
}

void StreamRegistry::dropCompletions() {
  // Without the lock: destroying a completion may release the last reference to a stream, here or
  // on another thread, and the stream then removes itself from the registry.
  std::vector<std::shared_ptr<StreamSocket>> streams;
  {
    const std::lock_guard guard(lock_);
    for (const auto& weakStream : streams_) {
      if (auto stream = weakStream.lock()) {
        streams.push_back(std::move(stream));
      }
    }
  }
  for (const auto& stream : streams) {
    stream->dropCompletions();
  }
}

}  // namespace ostravel::linuxplatform
