#include "Platform/Linux/Tracing/ConnectTracer.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Base/FileDescriptor.h"
#include "ConnectTracerPlainProgram.h"
#include "ConnectTracerProgram.h"
#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Platform/Linux/Kernel/SocketOption.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;
using platform::Result;

Result<std::unique_ptr<ConnectTracer>> ConnectTracer::start(Detail wanted) {
  // Failures are reported by the caller, in one line.
  ::libbpf_set_print(nullptr);
  if (wanted == Detail::programs) {
    auto tracer = startWith(Detail::programs);
    if (tracer) {
      return tracer;
    }
  }
  return startWith(Detail::processes);
}

Result<std::unique_ptr<ConnectTracer>> ConnectTracer::startWith(Detail detail) {
  const auto cgroupRoot = openCgroupRoot();
  if (!cgroupRoot) {
    return cgroupRoot.error();
  }
  KernelProgram object(
      detail == Detail::programs
          ? ::bpf_object__open_mem(kConnectTracerProgram, sizeof kConnectTracerProgram, nullptr)
          : ::bpf_object__open_mem(kConnectTracerPlainProgram, sizeof kConnectTracerPlainProgram,
                                   nullptr));
  if (!object) {
    return platform::systemCallError(errno, "the program is not understood");
  }
  if (::bpf_object__load(object.get()) != 0) {
    return platform::systemCallError(errno, "the program cannot be loaded");
  }
  std::unique_ptr<ConnectTracer> tracer(new ConnectTracer(std::move(object), detail));
  if (auto error = attachPrograms(tracer->object_.get(), cgroupRoot->get(), tracer->links_)) {
    return *std::move(error);
  }
  if (auto error = tracer->examineOwnRecord()) {
    return *std::move(error);
  }
  return tracer;
}

ConnectTracer::ConnectTracer(KernelProgram object, Detail detail)
    : object_(std::move(object)),
      detail_(detail),
      processes_(::bpf_object__find_map_by_name(object_.get(), "processes")) {}

ConnectTracer::~ConnectTracer() = default;

OptionalError ConnectTracer::examineOwnRecord() const {
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // Connecting a UDP socket sends nothing, and is traced even if the address is unreachable.
  constexpr std::uint16_t kDiscardPort = 9;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kDiscardPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const auto cookie = socketOption<std::uint64_t>(socket.get(), SOL_SOCKET, SO_COOKIE);
  const auto record = cookie ? recordOf(*cookie) : std::nullopt;
  // The kernel reports process numbers of the initial process namespace.
  if (!record || record->process != ::getpid()) {
    return platform::posixError(ENOTSUP,
                                "processes are not seen under the numbers that /proc shows");
  }
  if (detail_ == Detail::processes) {
    return std::nullopt;
  }
  const auto self = LocalProcessTable().find(::getpid(), record->executable);
  const ProcessStamp recorded{.startTime = record->startTime,
                              .stackStart = record->stackStart,
                              .uid = record->user,
                              .realUser = record->realUser};
  // Fails before Linux 5.14, which does not report the inode of an open file.
  if (!self || self->stamp != recorded || !self->isExecutableGenuine) {
    return platform::posixError(ENOTSUP, "programs are not seen as /proc shows them");
  }
  return std::nullopt;
}

int ConnectTracer::recordsDescriptor() const {
  return ::bpf_map__fd(processes_);
}

std::optional<ConnectRecord> ConnectTracer::recordOf(std::uint64_t cookie) const {
  KernelConnectRecord record{};
  if (::bpf_map__lookup_elem(processes_, &cookie, sizeof cookie, &record, sizeof record, 0) != 0) {
    return std::nullopt;
  }
  return record.inUserUnits();
}

}  // namespace ostravel::linuxplatform
