#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace ostravel::linuxplatform {

class StreamSocket;

// The streams of an event loop that may have pending completions. A completion keeps its receiver
// alive, often the tunnel that owns the stream, and running it breaks that cycle. Once the loop has
// stopped no completion runs, so the loop has to find and destroy them. Owned by the event loop.
class StreamRegistry {
 public:
  // Of a registered stream, until it is removed.
  using Place = std::uint32_t;
  static constexpr Place kNone = ~Place{0};

  StreamRegistry() = default;
  StreamRegistry(const StreamRegistry&) = delete;
  StreamRegistry& operator=(const StreamRegistry&) = delete;

  // On the loop's thread.
  Place add(StreamSocket& stream);
  // Called while the stream is destroyed, on any thread, before its members are.
  void remove(Place place);

  // Destroys the pending completions of all streams. Only after the loop's thread has ended.
  void dropCompletions();

 private:
  std::mutex lock_;
  // Both guarded by lock_: the streams, null in places that are free again, and those places.
  std::deque<StreamSocket*> streams_;
  std::vector<Place> free_;
};

}  // namespace ostravel::linuxplatform
