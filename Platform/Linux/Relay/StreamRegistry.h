#pragma once

#include <list>
#include <memory>
#include <mutex>

namespace ostravel::linuxplatform {

class StreamSocket;

// The streams of an event loop in which completions may wait. A completion holds whom it is for,
// often the tunnel that the stream itself belongs to, and running it is what takes that apart. When
// the loop has stopped no completion runs, so somebody has to know where they are and drop them.
// Owned by the event loop.
class StreamRegistry {
 public:
  // A stream's place, which it gives up by destroying it.
  class Place {
   public:
    Place() = default;
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place();

    bool isTaken() const { return registry_ != nullptr; }

   private:
    friend class StreamRegistry;

    StreamRegistry* registry_ = nullptr;
    std::list<std::weak_ptr<StreamSocket>>::iterator position_;
  };

  StreamRegistry() = default;
  StreamRegistry(const StreamRegistry&) = delete;
  StreamRegistry& operator=(const StreamRegistry&) = delete;

  // Takes a place that is not taken. For the loop's thread; the place may be given up on any.
  void add(Place& place, std::weak_ptr<StreamSocket> stream);

  // Drops what waits in any stream. Once the loop's thread has ended.
  void dropCompletions();

 private:
  std::mutex lock_;
  // Guarded by lock_.
  std::list<std::weak_ptr<StreamSocket>> streams_;
};

}  // namespace ostravel::linuxplatform
