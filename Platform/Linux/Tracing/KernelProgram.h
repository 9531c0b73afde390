#pragma once

#include <memory>
#include <vector>

#include "Platform/Interface/Error.h"

struct bpf_link;
struct bpf_object;

namespace ostravel::linuxplatform {

struct KernelProgramRelease {
  void operator()(bpf_object* object) const;
  void operator()(bpf_link* link) const;
};

// Programs for the kernel and their maps.
using KernelProgram = std::unique_ptr<bpf_object, KernelProgramRelease>;
// An attached program; the kernel detaches it with this handle.
using KernelProgramLink = std::unique_ptr<bpf_link, KernelProgramRelease>;

// Attaches all programs of the loaded object: those for control groups to this one, the others to
// the attachment points that they name. After an error, links contains the programs that were
// attached.
platform::OptionalError attachPrograms(bpf_object* object, int cgroup,
                                       std::vector<KernelProgramLink>& links);

}  // namespace ostravel::linuxplatform
