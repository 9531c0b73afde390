// The minimum that a relay does if it holds the first packet of a connection until its tunnel is
// established: one thread, one queue, no identity, no limits, no events, no log. `compare` measures
// it as the limit that the extension can approach.
//
// The rules are the caller's: first packets go to the queue, and those that get kReleaseMark with
// their verdict are redirected to the listener. IPv4 only. Any failure ends the program: this is a
// measuring instrument.

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Base/DescriptorLimit.h"
#include "Base/FileDescriptor.h"
#include "Benchmarks/EpollTurn.h"

namespace {

using ostravel::FileDescriptor;
using ostravel::benchmarks::takeTurn;

constexpr std::uint16_t kQueue = 7;
constexpr std::uint32_t kReleaseMark = 0x1;
constexpr std::size_t kCopiedBytes = 64;
constexpr std::size_t kChunk = 512 * 1024;
constexpr std::size_t kLongestAnswer = 4096;
constexpr unsigned kPacketsAtOnce = 16;
constexpr std::size_t kPacketBuffer = 2048;
constexpr int kBacklog = 4096;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

const sockaddr* generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// What distinguishes a held connection from all others of this machine.
std::uint64_t sourceKey(in_addr_t address, in_port_t port) {
  return std::uint64_t{address} << 16U | port;
}

// The verdicts and the packets of one queue.
class HeldPackets {
 public:
  HeldPackets() : socket_(::mnl_socket_open2(NETLINK_NETFILTER, SOCK_NONBLOCK | SOCK_CLOEXEC)) {
    if (socket_ == nullptr || ::mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) < 0) {
      fail("the netlink socket");
    }
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* header = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, kQueue);
    ::nfq_nlmsg_cfg_put_cmd(header, AF_UNSPEC, NFQNL_CFG_CMD_BIND);
    send(header);
    header = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, kQueue);
    ::nfq_nlmsg_cfg_put_params(header, NFQNL_COPY_PACKET, kCopiedBytes);
    send(header);
    for (unsigned index = 0; index < kPacketsAtOnce; ++index) {
      parts_[index] = {buffers_[index].data(), buffers_[index].size()};
      messages_[index].msg_hdr.msg_iov = &parts_[index];
      messages_[index].msg_hdr.msg_iovlen = 1;
    }
  }

  int descriptor() const { return ::mnl_socket_get_fd(socket_); }

  // Calls handle(id, source address, source port, destination address, destination port) for each.
  template <typename Handle>
  void receive(const Handle& handle) {
    const int count =
        ::recvmmsg(descriptor(), messages_.data(), kPacketsAtOnce, MSG_DONTWAIT, nullptr);
    if (count < 0 && errno != EAGAIN && errno != ENOBUFS) {
      fail("the queue");
    }
    for (int index = 0; index < count; ++index) {
      const auto& message = messages_[static_cast<std::size_t>(index)];
      parse(buffers_[static_cast<std::size_t>(index)].data(), message.msg_len, handle);
    }
  }

  void release(std::uint32_t id, bool isRedirected) {
    alignas(nlmsghdr) std::array<char, 128> buffer{};
    nlmsghdr* const header = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_VERDICT, kQueue);
    ::nfq_nlmsg_verdict_put(header, static_cast<int>(id), NF_ACCEPT);
    if (isRedirected) {
      ::nfq_nlmsg_verdict_put_mark(header, kReleaseMark);
    }
    send(header);
  }

 private:
  void send(const nlmsghdr* header) {
    if (::mnl_socket_sendto(socket_, header, header->nlmsg_len) < 0) {
      fail("a message to the queue");
    }
  }

  template <typename Handle>
  static void parse(const char* message, std::size_t size, const Handle& handle) {
    const auto* const header = reinterpret_cast<const nlmsghdr*>(message);
    std::array<nlattr*, NFQA_MAX + 1> attributes{};
    if (!::mnl_nlmsg_ok(header, static_cast<int>(size)) || header->nlmsg_type == NLMSG_ERROR ||
        ::nfq_nlmsg_parse(header, attributes.data()) < 0 ||
        attributes[NFQA_PACKET_HDR] == nullptr || attributes[NFQA_PAYLOAD] == nullptr) {
      return;
    }
    const auto* const packet = static_cast<const nfqnl_msg_packet_hdr*>(
        ::mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]));
    const auto* const bytes =
        static_cast<const std::uint8_t*>(::mnl_attr_get_payload(attributes[NFQA_PAYLOAD]));
    const std::size_t headerSize = std::size_t{bytes[0] & 0x0fU} * 4;
    if (::mnl_attr_get_payload_len(attributes[NFQA_PAYLOAD]) < headerSize + 4) {
      return;
    }
    in_addr_t source = 0;
    in_addr_t destination = 0;
    std::array<in_port_t, 2> ports{};
    std::memcpy(&source, bytes + 12, sizeof source);
    std::memcpy(&destination, bytes + 16, sizeof destination);
    std::memcpy(ports.data(), bytes + headerSize, sizeof ports);
    handle(ntohl(packet->packet_id), source, ports[0], destination, ports[1]);
  }

  mnl_socket* socket_;
  alignas(nlmsghdr) std::array<std::array<char, kPacketBuffer>, kPacketsAtOnce> buffers_{};
  std::array<iovec, kPacketsAtOnce> parts_{};
  std::array<mmsghdr, kPacketsAtOnce> messages_{};
};

// Bytes that one side has sent and the other has not accepted yet.
struct Direction {
  std::vector<char> rest;
  std::size_t sent = 0;
  bool hasEnded = false;
  bool isClosed = false;
};

struct Tunnel {
  std::uint32_t packet = 0;
  bool isReleased = false;
  FileDescriptor proxy;
  FileDescriptor application;
  std::string answer;
  Direction up;
  Direction down;
};

class Relay {
 public:
  Relay(std::uint16_t listenerPort, std::uint16_t proxyPort)
      : events_(::epoll_create1(EPOLL_CLOEXEC)),
        listener_(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
        proxy_(loopback(proxyPort)),
        chunk_(kChunk) {
    const int on = 1;
    ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Inherited by what it accepts.
    ::setsockopt(listener_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const sockaddr_in address = loopback(listenerPort);
    if (!events_.isOpen() || ::bind(listener_.get(), generic(address), sizeof address) != 0 ||
        ::listen(listener_.get(), kBacklog) != 0) {
      fail("the listener");
    }
    watch(packets_.descriptor(), EPOLLIN, nullptr);
    watch(listener_.get(), EPOLLIN, &listenerTag_);
  }

  [[noreturn]] void run() {
    while (true) {
      takeTurn(events_, [this](const epoll_event& event) { serve(event); });
      // Events of this turn may still name them.
      ended_.clear();
    }
  }

 private:
  void watch(int descriptor, std::uint32_t events, void* tag) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = tag;
    if (::epoll_ctl(events_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
      fail("epoll_ctl");
    }
  }

  void serve(const epoll_event& event) {
    if (event.data.ptr == nullptr) {
      packets_.receive([this](auto... values) { dial(values...); });
    } else if (event.data.ptr == &listenerTag_) {
      acceptAll();
    } else {
      auto* const tunnel = static_cast<Tunnel*>(event.data.ptr);
      if (tunnels_.contains(tunnel)) {
        serve(*tunnel);
      }
    }
  }

  void dial(std::uint32_t packet, in_addr_t source, in_port_t port, in_addr_t destination,
            in_port_t destinationPort) {
    auto tunnel = std::make_unique<Tunnel>();
    tunnel->packet = packet;
    tunnel->proxy =
        FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(tunnel->proxy.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // Over the loopback interface the connection is established when this returns.
    if (::connect(tunnel->proxy.get(), generic(proxy_), sizeof proxy_) != 0 &&
        errno != EINPROGRESS) {
      packets_.release(packet, false);
      return;
    }
    std::array<char, INET_ADDRSTRLEN> host{};
    ::inet_ntop(AF_INET, &destination, host.data(), host.size());
    std::array<char, 128> request{};
    const int size = std::snprintf(request.data(), request.size(),
                                   "CONNECT %s:%u HTTP/1.1\r\nHost: %s:%u\r\n\r\n", host.data(),
                                   ntohs(destinationPort), host.data(), ntohs(destinationPort));
    if (::send(tunnel->proxy.get(), request.data(), static_cast<std::size_t>(size), MSG_NOSIGNAL) !=
        size) {
      packets_.release(packet, false);
      return;
    }
    watch(tunnel->proxy.get(), EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, tunnel.get());
    held_[sourceKey(source, port)] = tunnel.get();
    tunnels_[tunnel.get()] = std::move(tunnel);
  }

  void serve(Tunnel& tunnel) {
    if (!tunnel.isReleased) {
      readAnswer(tunnel);
    } else if (tunnel.application.isOpen()) {
      relay(tunnel);
    }
  }

  void readAnswer(Tunnel& tunnel) {
    std::array<char, kLongestAnswer> bytes{};
    const ssize_t count = ::recv(tunnel.proxy.get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && errno == EAGAIN) {
      return;
    }
    if (count > 0) {
      tunnel.answer.append(bytes.data(), static_cast<std::size_t>(count));
    }
    const auto end = tunnel.answer.find("\r\n\r\n");
    if (end == std::string::npos && count > 0 && tunnel.answer.size() < kLongestAnswer) {
      return;
    }
    const std::string_view status = std::string_view(tunnel.answer).substr(0, 12);
    const bool isEstablished =
        end != std::string::npos && status.starts_with("HTTP/1.") && status.ends_with(" 200");
    packets_.release(tunnel.packet, isEstablished);
    if (!isEstablished) {
      finish(tunnel);
      return;
    }
    tunnel.isReleased = true;
    tunnel.down.rest.assign(tunnel.answer.begin() + static_cast<std::ptrdiff_t>(end) + 4,
                            tunnel.answer.end());
    tunnel.answer = {};
    // Over the loopback interface the whole handshake is made by the verdict.
    acceptAll();
  }

  void acceptAll() {
    while (true) {
      sockaddr_in peer{};
      socklen_t size = sizeof peer;
      FileDescriptor accepted(::accept4(listener_.get(), reinterpret_cast<sockaddr*>(&peer), &size,
                                        SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (!accepted.isOpen()) {
        return;
      }
      const auto found = held_.find(sourceKey(peer.sin_addr.s_addr, peer.sin_port));
      if (found == held_.end()) {
        continue;
      }
      Tunnel& tunnel = *found->second;
      held_.erase(found);
      tunnel.application = std::move(accepted);
      watch(tunnel.application.get(), EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, &tunnel);
      if (!tunnel.down.rest.empty()) {
        relay(tunnel);
      }
      return;
    }
  }

  void relay(Tunnel& tunnel) {
    const bool isWhole = move(tunnel.application, tunnel.proxy, tunnel.up) &&
                         move(tunnel.proxy, tunnel.application, tunnel.down);
    if (!isWhole || (tunnel.up.isClosed && tunnel.down.isClosed)) {
      finish(tunnel);
    }
  }

  // Returns false if the tunnel has failed.
  bool move(const FileDescriptor& from, const FileDescriptor& to, Direction& direction) {
    while (!direction.isClosed) {
      if (!sendRest(to, direction)) {
        return errno == EAGAIN;
      }
      if (direction.hasEnded) {
        ::shutdown(to.get(), SHUT_WR);
        direction.isClosed = true;
        return true;
      }
      const ssize_t count = ::recv(from.get(), chunk_.data(), chunk_.size(), 0);
      if (count < 0) {
        return errno == EAGAIN;
      }
      direction.hasEnded = count == 0;
      const ssize_t sent = count == 0 ? 0
                                      : ::send(to.get(), chunk_.data(),
                                               static_cast<std::size_t>(count), MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN) {
        return false;
      }
      const std::ptrdiff_t taken = std::max<ssize_t>(sent, 0);
      if (taken < count) {
        direction.rest.assign(chunk_.begin() + taken, chunk_.begin() + count);
        direction.sent = 0;
      }
    }
    return true;
  }

  // Returns false, with errno, if something is still left.
  static bool sendRest(const FileDescriptor& to, Direction& direction) {
    while (direction.sent < direction.rest.size()) {
      const ssize_t sent = ::send(to.get(), direction.rest.data() + direction.sent,
                                  direction.rest.size() - direction.sent, MSG_NOSIGNAL);
      if (sent < 0) {
        return false;
      }
      direction.sent += static_cast<std::size_t>(sent);
    }
    direction.rest = {};
    direction.sent = 0;
    return true;
  }

  void finish(Tunnel& tunnel) {
    std::erase_if(held_, [&tunnel](const auto& entry) { return entry.second == &tunnel; });
    const auto found = tunnels_.find(&tunnel);
    found->second->proxy = {};
    found->second->application = {};
    ended_.push_back(std::move(found->second));
    tunnels_.erase(found);
  }

  FileDescriptor events_;
  FileDescriptor listener_;
  sockaddr_in proxy_;
  HeldPackets packets_;
  std::vector<char> chunk_;
  char listenerTag_ = 0;
  std::unordered_map<Tunnel*, std::unique_ptr<Tunnel>> tunnels_;
  std::unordered_map<std::uint64_t, Tunnel*> held_;
  std::vector<std::unique_ptr<Tunnel>> ended_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The least that a relay can do that holds first packets.");
  std::uint16_t port = 0;
  std::uint16_t proxyPort = 0;
  app.add_option("--port", port, "The port of the listener.")->required();
  app.add_option("--proxy-port", proxyPort, "The port of the local proxy.")->required();
  CLI11_PARSE(app, argc, argv);
  try {
    ostravel::raiseDescriptorLimit();
    Relay relay(port, proxyPort);
    std::puts("ready");
    std::fflush(stdout);
    relay.run();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "benchmark_limit: %s\n", failure.what());
    return 1;
  }
}
