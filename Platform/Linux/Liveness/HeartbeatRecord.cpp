#include "Platform/Linux/Liveness/HeartbeatRecord.h"

#include <sys/mman.h>

#include <cerrno>
#include <memory>
#include <new>
#include <system_error>

namespace ostravel::linuxplatform {

HeartbeatRecord::HeartbeatRecord() {
  void* const memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "mmap");
  }
  shared_ = new (memory) Shared;
}

HeartbeatRecord::~HeartbeatRecord() {
  std::destroy_at(shared_);
  ::munmap(shared_, sizeof(Shared));
}

}  // namespace ostravel::linuxplatform
