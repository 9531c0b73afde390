#include "Platform/Linux/ConnectTracer.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "ConnectTracerProgram.h"
#include "Platform/Linux/CgroupRoot.h"
#include "Platform/Linux/FileDescriptor.h"

namespace ostravel::linuxplatform {

namespace {

std::string because(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

void ConnectTracer::ObjectRelease::operator()(bpf_object* object) const {
  ::bpf_object__close(object);
}

void ConnectTracer::LinkRelease::operator()(bpf_link* link) const {
  ::bpf_link__destroy(link);
}

std::variant<std::unique_ptr<ConnectTracer>, std::string> ConnectTracer::start() {
  // What goes wrong is reported by the caller, in one line.
  ::libbpf_set_print(nullptr);
  const FileDescriptor cgroupRoot = openCgroupRoot();
  if (!cgroupRoot.isOpen()) {
    return because("control groups of version 2 cannot be reached");
  }
  std::unique_ptr<bpf_object, ObjectRelease> object(
      ::bpf_object__open_mem(kConnectTracerProgram, sizeof kConnectTracerProgram, nullptr));
  if (!object) {
    return because("the program is not understood");
  }
  if (::bpf_object__load(object.get()) != 0) {
    return because("the program cannot be loaded");
  }
  std::unique_ptr<ConnectTracer> tracer(new ConnectTracer(std::move(object)));
  if (auto reason = tracer->attach(cgroupRoot.get())) {
    return std::move(*reason);
  }
  // The numbers that the kernel reports are those of the first process namespace.
  if (!tracer->seesThisProcess()) {
    return "processes are not seen under the numbers that /proc shows";
  }
  return tracer;
}

ConnectTracer::ConnectTracer(std::unique_ptr<bpf_object, ObjectRelease> object)
    : object_(std::move(object)),
      processes_(::bpf_object__find_map_by_name(object_.get(), "processes")) {}

ConnectTracer::~ConnectTracer() = default;

std::optional<std::string> ConnectTracer::attach(int cgroupRoot) {
  bpf_program* program = nullptr;
  bpf_object__for_each_program(program, object_.get()) {
    std::unique_ptr<bpf_link, LinkRelease> link(::bpf_program__attach_cgroup(program, cgroupRoot));
    if (!link) {
      return because("the program cannot be attached");
    }
    links_.push_back(std::move(link));
  }
  return std::nullopt;
}

bool ConnectTracer::seesThisProcess() const {
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // Sends nothing, and is seen even where the address cannot be reached.
  constexpr std::uint16_t kDiscardPort = 9;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kDiscardPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  std::uint64_t cookie = 0;
  socklen_t size = sizeof cookie;
  const bool isKnown = ::getsockopt(socket.get(), SOL_SOCKET, SO_COOKIE, &cookie, &size) == 0;
  return isKnown && processOf(cookie) == ::getpid();
}

std::optional<pid_t> ConnectTracer::processOf(std::uint64_t cookie) const {
  std::uint32_t process = 0;
  if (::bpf_map__lookup_elem(processes_, &cookie, sizeof cookie, &process, sizeof process, 0) !=
      0) {
    return std::nullopt;
  }
  return static_cast<pid_t>(process);
}

}  // namespace ostravel::linuxplatform
