#pragma once

#include <utility>

#include "Platform/Interface/Result.h"
#include "Platform/Linux/Tracing/KernelProgram.h"

namespace ostravel::linuxplatform {

// A filter for listening TCP sockets (SO_ATTACH_BPF in socket(7)), without which the kernel resets
// about one sound connection in 200,000: one whose first data arrives at the moment at which the
// kernel accepts it. With the filter this data arrives when its sender repeats it, after 0.2 s.
// Other packets pass, and so do all that conntrack does not track. A socket keeps its filter when
// this object is gone.
class ArrivalFilter {
 public:
  // Requires Linux 5.8 with type information. On failure the error's description is a clause with
  // the reason.
  static platform::Result<ArrivalFilter> load();

  // What a socket is given; valid as long as this object.
  int descriptor() const;

 private:
  explicit ArrivalFilter(KernelProgram object) : object_(std::move(object)) {}

  KernelProgram object_;
};

}  // namespace ostravel::linuxplatform
