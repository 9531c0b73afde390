#include "Platform/Linux/Tracing/KernelProgram.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <optional>
#include <utility>

namespace ostravel::linuxplatform {

void KernelProgramRelease::operator()(bpf_object* object) const {
  ::bpf_object__close(object);
}

void KernelProgramRelease::operator()(bpf_link* link) const {
  ::bpf_link__destroy(link);
}

platform::OptionalError attachPrograms(bpf_object* object, int cgroup,
                                       std::vector<KernelProgramLink>& links) {
  bpf_program* program = nullptr;
  bpf_object__for_each_program(program, object) {
    const bool isOfGroup = ::bpf_program__type(program) != BPF_PROG_TYPE_TRACING;
    KernelProgramLink link(isOfGroup ? ::bpf_program__attach_cgroup(program, cgroup)
                                     : ::bpf_program__attach(program));
    if (!link) {
      return platform::systemCallError(errno, "the program cannot be attached");
    }
    links.push_back(std::move(link));
  }
  return std::nullopt;
}

}  // namespace ostravel::linuxplatform
