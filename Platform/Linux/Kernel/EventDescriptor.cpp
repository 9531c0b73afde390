#include "Platform/Linux/Kernel/EventDescriptor.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace ostravel::linuxplatform {

EventDescriptor::EventDescriptor() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!descriptor_.isOpen()) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

void EventDescriptor::signal() {
  ::eventfd_write(descriptor(), 1);
}

bool EventDescriptor::consume() {
  eventfd_t count = 0;
  return ::eventfd_read(descriptor(), &count) == 0;
}

}  // namespace ostravel::linuxplatform
