#include "Platform/Linux/Kernel/SocketDiagnostics.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "Base/FileDescriptor.h"

#include "Platform/Interface/ProviderError.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Kernel/NetlinkMessage.h"

namespace ostravel::linuxplatform {

namespace {

// Reached only if the kernel does not answer at all.
constexpr timeval kAnswerTimeout{0, 20'000};
// Limit on the late answers to earlier queries that are skipped; there is hardly ever one.
constexpr int kMaximumStaleAnswers = 8;
// The kernel gives the loopback interface this index in every namespace.
constexpr std::uint32_t kLoopbackInterface = 1;

constexpr std::size_t kAnswerSize = 8192;

void setEndpoint(const SocketEndpoint& endpoint, __be32 (&address)[4], __be16& port) {
  static_assert(sizeof address == std::tuple_size_v<decltype(endpoint.address)>);
  std::memcpy(address, endpoint.address.data(), sizeof address);
  port = htons(endpoint.port);
}

platform::Error queryFailed(int code) {
  return platform::systemCallError(code, "a socket cannot be looked up");
}

bool isLoopback(const SocketEndpoint& endpoint) {
  constexpr std::array<std::uint8_t, 16> kIPv6Loopback{0, 0, 0, 0, 0, 0, 0, 0,
                                                       0, 0, 0, 0, 0, 0, 0, 1};
  return endpoint.family == AddressFamily::ipv4 ? endpoint.address[0] == IN_LOOPBACKNET
                                                : endpoint.address == kIPv6Loopback;
}

SocketEndpoint wildcard(AddressFamily family) {
  return {family, {}, 0};
}

std::optional<std::uint16_t> portOfNewListener(int descriptor) {
  const KernelAddress address({AddressFamily::ipv4, {IN_LOOPBACKNET, 0, 0, 1}, 0});
  if (::bind(descriptor, address.get(), address.size) != 0 || ::listen(descriptor, 0) != 0) {
    return std::nullopt;
  }
  const auto bound = ownAddressOf(descriptor);
  return bound ? std::optional(bound->port) : std::nullopt;
}

// True if it finds a socket that certainly exists.
bool findsOwnListener(SocketDiagnostics& diagnostics) {
  const FileDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto port = portOfNewListener(listener.get());
  const SocketEndpoint local{AddressFamily::ipv4, {IN_LOOPBACKNET, 0, 0, 1}, port.value_or(0)};
  if (!port) {
    return false;
  }
  const auto answer = diagnostics.findListener(local);
  return answer && *answer;
}

int readAttribute(const nlattr* attribute, void* socket) {
  if (::mnl_attr_get_type(attribute) == INET_DIAG_CGROUP_ID) {
    static_cast<SocketInformation*>(socket)->cgroup = valueOf<std::uint64_t>(attribute).value_or(0);
  }
  return MNL_CB_OK;
}

SocketInformation informationFrom(const nlmsghdr* header, const inet_diag_msg& message) {
  SocketInformation socket{
      .uid = message.idiag_uid,
      .inode = message.idiag_inode,
      .cookie = std::uint64_t{message.id.idiag_cookie[1]} << 32U | message.id.idiag_cookie[0],
      .cgroup = 0,
      .boundInterface = message.id.idiag_if,
      .state = message.idiag_state};
  ::mnl_attr_parse(header, sizeof message, &readAttribute, &socket);
  return socket;
}

}  // namespace

void SocketDiagnostics::SocketRelease::operator()(mnl_socket* socket) const {
  ::mnl_socket_close(socket);
}

SocketDiagnostics::Socket SocketDiagnostics::openSocket() {
  Socket socket(::mnl_socket_open2(NETLINK_SOCK_DIAG, SOCK_CLOEXEC));
  if (!socket || ::mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    return nullptr;
  }
  ::setsockopt(::mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout,
               sizeof kAnswerTimeout);
  return socket;
}

platform::Result<std::unique_ptr<SocketDiagnostics>> SocketDiagnostics::open() {
  Socket diagnostics = openSocket();
  if (!diagnostics) {
    return platform::systemCallError(errno, "sockets cannot be looked up");
  }
  std::unique_ptr<SocketDiagnostics> opened(new SocketDiagnostics(std::move(diagnostics)));
  if (!findsOwnListener(*opened)) {
    return platform::providerError(
        platform::kNoSocketDiagnosticsCode,
        "sockets cannot be looked up: the kernel lacks socket diagnostics for TCP "
        "(CONFIG_INET_DIAG)");
  }
  // The first query about UDP would otherwise have to wait for a module to be loaded.
  static_cast<void>(opened->ask(TransportProtocol::udp, wildcard(AddressFamily::ipv4),
                                wildcard(AddressFamily::ipv4), 0));
  return opened;
}

SocketDiagnostics::SocketDiagnostics(Socket diagnostics) : diagnostics_(std::move(diagnostics)) {}

SocketDiagnostics::Answer SocketDiagnostics::find(const FlowTuple& flow,
                                                  std::uint32_t outputInterface) {
  // A query with an interface finds sockets that are bound to it as well as unbound ones. When a
  // packet of a socket that is bound to a VRF is queued for the first time, its interface is the
  // VRF's own.
  return ask(flow.protocol, flow.source, flow.destination, outputInterface);
}

SocketDiagnostics::Answer SocketDiagnostics::findListener(const SocketEndpoint& local) {
  return ask(TransportProtocol::tcp, local, wildcard(local.family),
             isLoopback(local) ? kLoopbackInterface : 0);
}

bool SocketDiagnostics::mayHaveListener(const SocketEndpoint& local) {
  const auto answer = findListener(local);
  return !answer || answer->has_value();
}

SocketDiagnostics::Answer SocketDiagnostics::ask(TransportProtocol protocol,
                                                 const SocketEndpoint& local,
                                                 const SocketEndpoint& remote,
                                                 std::uint32_t interface) {
  alignas(nlmsghdr) std::array<char, 256> buffer{};
  nlmsghdr* const header = ::mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  header->nlmsg_flags = NLM_F_REQUEST;
  header->nlmsg_seq = ++sequence_;
  auto& request = *static_cast<inet_diag_req_v2*>(
      ::mnl_nlmsg_put_extra_header(header, sizeof(inet_diag_req_v2)));
  const bool isTCP = protocol == TransportProtocol::tcp;
  request.sdiag_family = local.family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  request.sdiag_protocol = isTCP ? IPPROTO_TCP : IPPROTO_UDP;
  request.idiag_states = ~0U;
  // A query about UDP takes the perspective of an arriving datagram.
  const SocketEndpoint& source = isTCP ? local : remote;
  const SocketEndpoint& destination = isTCP ? remote : local;
  setEndpoint(source, request.id.idiag_src, request.id.idiag_sport);
  setEndpoint(destination, request.id.idiag_dst, request.id.idiag_dport);
  request.id.idiag_if = interface;
  request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  if (::mnl_socket_sendto(diagnostics_.get(), header, header->nlmsg_len) < 0) {
    return queryFailed(errno);
  }
  return receive(remote.port);
}

SocketDiagnostics::Answer SocketDiagnostics::receive(std::uint16_t remotePort) {
  alignas(nlmsghdr) std::array<char, kAnswerSize> buffer;
  for (int count = 0; count < kMaximumStaleAnswers; ++count) {
    const auto received = ::mnl_socket_recvfrom(diagnostics_.get(), buffer.data(), buffer.size());
    const auto* const header = reinterpret_cast<const nlmsghdr*>(buffer.data());
    if (received < 0) {
      return queryFailed(errno);
    }
    if (completeSize(buffer.data(), received) == 0) {
      return queryFailed(EPROTO);
    }
    if (header->nlmsg_seq != sequence_) {
      continue;
    }
    const auto* const message =
        header->nlmsg_type == SOCK_DIAG_BY_FAMILY ? fixedPart<inet_diag_msg>(*header) : nullptr;
    if (message == nullptr) {
      // A plain acknowledgement does not answer the query.
      const int error = resultOf(*header);
      return error == ENOENT ? Answer(std::nullopt)
                             : Answer(queryFailed(error == 0 ? EPROTO : error));
    }
    // If no connection matches, the kernel returns a listener on the same port. The remains of an
    // ended connection send nothing.
    const bool isListener = message->idiag_state == TCP_LISTEN;
    if (isListener != (remotePort == 0) || message->idiag_state == TCP_TIME_WAIT) {
      return Answer(std::nullopt);
    }
    return Answer(informationFrom(header, *message));
  }
  return queryFailed(ETIMEDOUT);
}

}  // namespace ostravel::linuxplatform
