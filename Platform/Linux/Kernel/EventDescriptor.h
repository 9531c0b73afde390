#pragma once

namespace ostravel::linuxplatform {

// A counter in the kernel that wakes a thread which polls it (eventfd(2)). signal() may be called
// from any thread.
class EventDescriptor {
 public:
  EventDescriptor();
  EventDescriptor(const EventDescriptor&) = delete;
  EventDescriptor& operator=(const EventDescriptor&) = delete;
  ~EventDescriptor();

  int descriptor() const { return descriptor_; }

  void signal();
  // Takes back all signals so far; false if there was none.
  bool consume();

 private:
  int descriptor_;
};

}  // namespace ostravel::linuxplatform
