#include "Platform/Linux/Tracing/ArrivalFilter.h"

#include <bpf/libbpf.h>

#include <cerrno>

#include "ArrivalFilterProgram.h"

namespace ostravel::linuxplatform {

platform::Result<ArrivalFilter> ArrivalFilter::load() {
  KernelProgram object(
      ::bpf_object__open_mem(kArrivalFilterProgram, sizeof kArrivalFilterProgram, nullptr));
  if (!object) {
    return platform::systemCallError(errno, "the filter is not understood");
  }
  if (::bpf_object__load(object.get()) != 0) {
    return platform::systemCallError(errno, "the filter cannot be loaded");
  }
  return ArrivalFilter(std::move(object));
}

int ArrivalFilter::descriptor() const {
  return ::bpf_program__fd(::bpf_object__find_program_by_name(object_.get(), "filterArrivals"));
}

}  // namespace ostravel::linuxplatform
