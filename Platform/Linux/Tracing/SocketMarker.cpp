#include "Platform/Linux/Tracing/SocketMarker.h"

#include <bpf/bpf.h>

namespace ostravel::linuxplatform {

namespace {

// Must match ConnectTable.bpf.c.
struct Marked {
  KernelConnectRecord record;
  std::uint64_t listenerChanges;
};

}  // namespace

bool SocketMarker::mark(std::uint64_t cookie, const ConnectRecord& sender,
                        std::uint64_t listenerChanges) const {
  // The kernel's own record has the exact start time.
  Marked marked{};
  if (::bpf_map_lookup_elem(records_, &cookie, &marked.record) != 0 ||
      marked.record.inUserUnits() != sender) {
    return false;
  }
  marked.listenerChanges = listenerChanges;
  return ::bpf_map_update_elem(marked_, &marked.record.process, &marked, BPF_ANY) == 0;
}

}  // namespace ostravel::linuxplatform
