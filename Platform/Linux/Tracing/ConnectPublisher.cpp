#include "Platform/Linux/Tracing/ConnectPublisher.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>

#include "Base/FileDescriptor.h"
#include "ConnectTableProgram.h"
#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Platform/Linux/Kernel/SocketOption.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;
using platform::Result;

namespace {

constexpr int kNetworkCookie = 71;  // SO_NETNS_COOKIE, newer than some headers

FileDescriptor makeSocket() {
  return FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

std::optional<std::uint64_t> cookieOf(const FileDescriptor& socket, int kind) {
  return socketOption<std::uint64_t>(socket.get(), SOL_SOCKET, kind);
}

// A socket that has sent a SYN, to a listener that has been closed again.
FileDescriptor connectToOurselves() {
  const FileDescriptor listener = makeSocket();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  FileDescriptor socket = makeSocket();
  if (::bind(listener.get(), generic, size) != 0 || ::listen(listener.get(), 1) != 0 ||
      ::getsockname(listener.get(), generic, &size) != 0 ||
      (::connect(socket.get(), generic, size) != 0 && errno != EINPROGRESS)) {
    return FileDescriptor();
  }
  return socket;
}

}  // namespace

Result<std::unique_ptr<ConnectPublisher>> ConnectPublisher::start(
    const ConnectTracer& tracer, std::uint16_t proxyPort, std::optional<PacketMarks> marks) {
  if (tracer.detail() != ConnectTracer::Detail::programs) {
    return platform::posixError(ENOTSUP, "the kernel does not show which program a process runs");
  }
  KernelProgram object(
      ::bpf_object__open_mem(kConnectTableProgram, sizeof kConnectTableProgram, nullptr));
  if (!object) {
    return platform::systemCallError(errno, "the program is not understood");
  }
  bpf_map* const records = ::bpf_object__find_map_by_name(object.get(), "processes");
  if (::bpf_map__reuse_fd(records, tracer.recordsDescriptor()) != 0 ||
      ::bpf_object__load(object.get()) != 0) {
    return platform::systemCallError(errno, "the program cannot be loaded");
  }
  std::unique_ptr<ConnectPublisher> publisher(new ConnectPublisher(std::move(object), tracer));
  auto error = publisher->mapMemory();
  if (!error) {
    error = publisher->fillState(proxyPort, marks);
  }
  if (!error) {
    error = publisher->attach();
  }
  if (!error) {
    error = publisher->examineOwnConnect();
  }
  if (error) {
    return *std::move(error);
  }
  return publisher;
}

ConnectPublisher::~ConnectPublisher() = default;

SocketMarker ConnectPublisher::marker() const {
  return {tracer_.recordsDescriptor(), ::bpf_object__find_map_fd_by_name(object_.get(), "marked")};
}

OptionalError ConnectPublisher::mapMemory() {
  const auto map = [this](const char* name, std::size_t size, int protection) {
    return MemoryMapping::ofFile(::bpf_object__find_map_fd_by_name(object_.get(), name), size,
                                 protection);
  };
  auto sets = map("connects", ConnectTable::kSets * sizeof(ConnectTable::Set), PROT_READ);
  auto state = map("states", sizeof(ConnectTable::State), PROT_READ | PROT_WRITE);
  if (!sets || !state) {
    return (sets ? state : sets).error();
  }
  sets_ = *std::move(sets);
  state_ = *std::move(state);
  return std::nullopt;
}

OptionalError ConnectPublisher::fillState(std::uint16_t proxyPort,
                                          std::optional<PacketMarks> marks) {
  const auto network = cookieOf(makeSocket(), kNetworkCookie);
  if (!network) {
    return platform::systemCallError(errno, "network namespaces cannot be distinguished");
  }
  if (::getrandom(&state()->seed, sizeof state()->seed, 0) != sizeof state()->seed) {
    return platform::systemCallError(errno, "there is no randomness");
  }
  state()->network = *network;
  state()->extension = static_cast<std::uint32_t>(::getpid());
  state()->proxyPort = proxyPort;
  if (marks) {
    state()->markMask = marks->mask();
    state()->mark = marks->own();
  }
  return std::nullopt;
}

OptionalError ConnectPublisher::attach() {
  const auto cgroupRoot = openCgroupRoot();
  if (!cgroupRoot) {
    return cgroupRoot.error();
  }
  return attachPrograms(object_.get(), cgroupRoot->get(), links_);
}

OptionalError ConnectPublisher::examineOwnConnect() {
  const FileDescriptor socket = connectToOurselves();
  const auto cookie = cookieOf(socket, SO_COOKIE);
  const auto published = cookie ? table().findSocket(*cookie) : std::nullopt;
  if (!published || published->record != tracer_.recordOf(*cookie) ||
      published->socketUser != ::geteuid()) {
    return platform::posixError(ENOTSUP, "a connect is not published");
  }
  // Some kernels cannot set the second option this way (before 6.1).
  presetsOwnSockets_ =
      state()->markMask != 0 &&
      socketOption<std::uint32_t>(socket.get(), SOL_SOCKET, SO_MARK) == state()->mark &&
      socketOption<int>(socket.get(), IPPROTO_TCP, TCP_NODELAY) == 1;
  state()->leavesOutMarked = 1;
  return std::nullopt;
}

}  // namespace ostravel::linuxplatform
