#pragma once

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

// A kernel counter that wakes a polling thread (eventfd(2)). signal() may be called from any
// thread.
class EventDescriptor {
 public:
  // Throws std::system_error if there are no descriptors left.
  EventDescriptor();

  int descriptor() const { return descriptor_.get(); }

  void signal();
  // Clears all signals so far; false if there were none.
  bool consume();

 private:
  const FileDescriptor descriptor_;
};

}  // namespace ostravel::linuxplatform
