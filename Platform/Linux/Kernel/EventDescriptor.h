#pragma once

namespace ostravel::linuxplatform {

// A kernel counter that wakes a polling thread (eventfd(2)). signal() may be called from any
// thread.
class EventDescriptor {
 public:
  EventDescriptor();
  EventDescriptor(const EventDescriptor&) = delete;
  EventDescriptor& operator=(const EventDescriptor&) = delete;
  ~EventDescriptor();

  int descriptor() const { return descriptor_; }

  void signal();
  // Clears all signals so far; false if there were none.
  bool consume();

 private:
  int descriptor_;
};

}  // namespace ostravel::linuxplatform
