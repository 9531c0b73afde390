#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

struct bpf_link;
struct bpf_map;
struct bpf_object;

namespace ostravel::linuxplatform {

// Knows which process has connected a socket, as a small program in the kernel saw it happen.
//
// The program is attached to the root of the control groups, beside whatever else is attached
// there, for as long as the object or the process exists, however that ends: the kernel detaches it
// with the last descriptor of the link. Usable by one thread at a time.
class ConnectTracer {
 public:
  // When it is not possible, a clause that says why: no permission, no control groups of version 2,
  // a kernel before 5.7, a process namespace of our own.
  static std::variant<std::unique_ptr<ConnectTracer>, std::string> start();

  ConnectTracer(const ConnectTracer&) = delete;
  ConnectTracer& operator=(const ConnectTracer&) = delete;
  ~ConnectTracer();

  // The process that connected the socket last, or sent on it unconnected; absent when that was
  // before the tracer started, or many thousand sockets ago. It may have ended since.
  std::optional<pid_t> processOf(std::uint64_t cookie) const;

 private:
  struct ObjectRelease {
    void operator()(bpf_object* object) const;
  };
  struct LinkRelease {
    void operator()(bpf_link* link) const;
  };

  explicit ConnectTracer(std::unique_ptr<bpf_object, ObjectRelease> object);

  // Absent, or why not.
  std::optional<std::string> attach(int cgroupRoot);
  bool seesThisProcess() const;

  const std::unique_ptr<bpf_object, ObjectRelease> object_;
  std::vector<std::unique_ptr<bpf_link, LinkRelease>> links_;
  const bpf_map* processes_ = nullptr;
};

}  // namespace ostravel::linuxplatform
