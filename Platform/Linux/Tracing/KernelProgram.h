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

// Attaches all programs of the object, which is loaded: those for a control group to this one, the
// others to what they name. After an error, those in links are attached.
platform::OptionalError attachPrograms(bpf_object* object, int cgroup,
                                       std::vector<KernelProgramLink>& links);

}  // namespace ostravel::linuxplatform
