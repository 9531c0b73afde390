#pragma once

#include <list>
#include <memory>
#include <mutex>

namespace ostravel::linuxplatform {

class StreamSocket;

// The streams of an event loop that may have pending completions. A completion keeps its receiver
// alive, often the tunnel that owns the stream, and running it breaks that cycle. Once the loop has
// stopped no completion runs, so the loop has to find and destroy them. Owned by the event loop.
class StreamRegistry {
 public:
  // A stream's entry, removed on destruction.
  class Entry {
   public:
    Entry() = default;
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry();

    bool isRegistered() const { return registry_ != nullptr; }

   private:
    friend class StreamRegistry;

    StreamRegistry* registry_ = nullptr;
    std::list<std::weak_ptr<StreamSocket>>::iterator position_;
  };

  StreamRegistry() = default;
  StreamRegistry(const StreamRegistry&) = delete;
  StreamRegistry& operator=(const StreamRegistry&) = delete;

  // Registers a stream under an unused entry. On the loop's thread; the entry may be destroyed on
  // any thread.
  void add(Entry& entry, std::weak_ptr<StreamSocket> stream);

  // Destroys the pending completions of all streams. Only after the loop's thread has ended.
  void dropCompletions();

 private:
  std::mutex lock_;
  // Guarded by lock_.
  std::list<std::weak_ptr<StreamSocket>> streams_;
};

}  // namespace ostravel::linuxplatform
