// Both ends of the connections that `compare` measures: an origin server, and the applications that
// use it. Built so that whatever is between them is the bottleneck: received bytes are discarded
// without copying, and one buffer is sent repeatedly.
//
// The first byte of a connection selects its purpose:
//
//   x   the rest of a request of kRequestSize bytes is answered with kAnswerSize bytes
//   d   bytes are sent until the connection ends
//   u   bytes are discarded until the connection ends
//
// Results are one JSON object on standard output. SIGALRM ends a measurement that takes much too
// long.

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Base/DescriptorLimit.h"
#include "Base/FileDescriptor.h"
#include "Benchmarks/EpollTurn.h"
#include "Platform/Linux/Kernel/KernelAddress.h"

namespace {

using namespace std::chrono_literals;
using ostravel::FileDescriptor;
using ostravel::raiseDescriptorLimit;
using ostravel::benchmarks::takeTurn;
using ostravel::linuxplatform::KernelAddress;
using ostravel::linuxplatform::parseAddressLiteral;
using Clock = std::chrono::steady_clock;

// A short HTTP request and its answer.
constexpr std::size_t kRequestSize = 128;
constexpr std::size_t kAnswerSize = 512;
constexpr std::size_t kSendSize = 256 * 1024;
constexpr std::size_t kDiscardSize = 1024 * 1024;
constexpr int kBacklog = 4096;
// Streams have reached full speed by then.
constexpr auto kWarmUp = 300ms;
// A longer exchange has failed.
constexpr auto kExchangeTimeout = 5s;
// The time that a measurement may take in addition to its own.
constexpr unsigned kStallSeconds = 20;
// Connections that are opened one after the other before any of them is closed.
constexpr unsigned kConnectBatch = 16;

const std::vector<std::byte>& sentBytes() {
  static const std::vector<std::byte> bytes(kSendSize, std::byte{0x5a});
  return bytes;
}

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

KernelAddress parseAddress(const std::string& host, const std::string& port) {
  const auto endpoint = parseAddressLiteral({host, port});
  if (!endpoint) {
    throw std::invalid_argument("not an address and a port: " + host + " " + port);
  }
  return KernelAddress(*endpoint);
}

FileDescriptor makeSocket(const KernelAddress& address, int flags = 0) {
  FileDescriptor socket(::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (!socket.isOpen()) {
    fail("socket");
  }
  return socket;
}

void setTimeout(const FileDescriptor& socket, std::chrono::seconds timeout) {
  const timeval value{.tv_sec = timeout.count(), .tv_usec = 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
  // Applies to connect() too (socket(7)).
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
}

// Origin

// Serves all connections with one thread and no other memory than this.
class Origin {
 public:
  explicit Origin(const KernelAddress& address)
      : listener_(makeSocket(address, SOCK_NONBLOCK)), events_(::epoll_create1(EPOLL_CLOEXEC)) {
    const int on = 1;
    ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(listener_.get(), address.get(), address.size) != 0 ||
        ::listen(listener_.get(), kBacklog) != 0 || !events_.isOpen()) {
      fail("the listener");
    }
    watch(EPOLL_CTL_ADD, listener_.get(), EPOLLIN);
  }

  [[noreturn]] void run() {
    while (true) {
      takeTurn(events_, [this](const epoll_event& event) {
        const int descriptor = event.data.fd;
        if (descriptor == listener_.get()) {
          acceptSome();
        } else {
          serve(connections_[static_cast<std::size_t>(descriptor)]);
        }
      });
    }
  }

 private:
  struct Connection {
    FileDescriptor socket;
    char purpose = 0;
    std::size_t received = 0;
  };

  void watch(int operation, int descriptor, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    ::epoll_ctl(events_.get(), operation, descriptor, &event);
  }

  void acceptSome() {
    while (true) {
      FileDescriptor socket(
          ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (!socket.isOpen()) {
        return;
      }
      const int descriptor = socket.get();
      const auto index = static_cast<std::size_t>(descriptor);
      connections_.resize(std::max(connections_.size(), index + 1));
      connections_[index] = {std::move(socket)};
      watch(EPOLL_CTL_ADD, descriptor, EPOLLIN);
    }
  }

  void serve(Connection& connection) {
    const bool goesOn = connection.purpose == 'd' ? feed(connection) : receive(connection);
    if (!goesOn) {
      connection = {};
    }
  }

  bool receive(Connection& connection) {
    const int descriptor = connection.socket.get();
    if (connection.purpose == 0) {
      const auto received = ::recv(descriptor, &connection.purpose, 1, 0);
      if (received <= 0) {
        return false;
      }
      connection.received = 1;
      if (connection.purpose == 'd') {
        watch(EPOLL_CTL_MOD, descriptor, EPOLLOUT);
        return true;
      }
    }
    const auto received = ::recv(descriptor, nullptr, kDiscardSize, MSG_TRUNC);
    if (received <= 0) {
      return received < 0 && errno == EAGAIN;
    }
    connection.received += static_cast<std::size_t>(received);
    if (connection.purpose == 'x' && connection.received == kRequestSize) {
      connection.purpose = 0;
      ::send(descriptor, sentBytes().data(), kAnswerSize, MSG_NOSIGNAL);
    }
    return true;
  }

  static bool feed(const Connection& connection) {
    return ::send(connection.socket.get(), sentBytes().data(), kSendSize, MSG_NOSIGNAL) > 0 ||
           errno == EAGAIN;
  }

  FileDescriptor listener_;
  FileDescriptor events_;
  // Indexed by descriptor.
  std::vector<Connection> connections_;
};

// Applications

bool exchange(const FileDescriptor& socket) {
  std::array<char, kRequestSize> request{};
  request[0] = 'x';
  if (::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    return false;
  }
  std::array<char, kAnswerSize> answer{};
  return ::recv(socket.get(), answer.data(), answer.size(), MSG_WAITALL) ==
         static_cast<ssize_t>(answer.size());
}

// A connection that has completed one exchange; not open if anything failed.
FileDescriptor connectAndExchange(const KernelAddress& address) {
  FileDescriptor socket = makeSocket(address);
  setTimeout(socket, kExchangeTimeout);
  errno = 0;
  if (::connect(socket.get(), address.get(), address.size) != 0) {
    std::fprintf(stderr, "connect: %s\n", std::strerror(errno));
    return {};
  }
  if (!exchange(socket)) {
    // Without an error the stream has ended too early.
    std::fprintf(stderr, "exchange: %s\n", errno != 0 ? std::strerror(errno) : "end of stream");
    return {};
  }
  return socket;
}

double microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

// By nearest rank; values are sorted.
double percentile(const std::vector<double>& values, std::size_t percent) {
  return values.empty() ? 0.0 : values[(values.size() - 1) * percent / 100];
}

class Stream {
 public:
  Stream(const KernelAddress& address, char purpose)
      : socket_(makeSocket(address)), isDownload_(purpose == 'd') {
    setTimeout(socket_, kExchangeTimeout);
    if (::connect(socket_.get(), address.get(), address.size) != 0 ||
        ::send(socket_.get(), &purpose, 1, MSG_NOSIGNAL) != 1) {
      fail("a stream");
    }
  }

  void run(const std::atomic<bool>& isOver) {
    while (!isOver) {
      const auto count = isDownload_
                             ? ::recv(socket_.get(), nullptr, kDiscardSize, MSG_TRUNC)
                             : ::send(socket_.get(), sentBytes().data(), kSendSize, MSG_NOSIGNAL);
      if (count <= 0) {
        hasFailed_ = true;
        return;
      }
      bytes_.fetch_add(static_cast<std::uint64_t>(count), std::memory_order_relaxed);
    }
  }

  std::uint64_t bytes() const { return bytes_.load(std::memory_order_relaxed); }
  bool hasFailed() const { return hasFailed_; }

 private:
  FileDescriptor socket_;
  const bool isDownload_;
  std::atomic<std::uint64_t> bytes_ = 0;
  std::atomic<bool> hasFailed_ = false;
};

int runStreams(const KernelAddress& address, char purpose, unsigned count, unsigned seconds) {
  std::vector<std::unique_ptr<Stream>> streams;
  for (unsigned index = 0; index < count; ++index) {
    streams.push_back(std::make_unique<Stream>(address, purpose));
  }
  const auto bytesSoFar = [&streams] {
    std::uint64_t bytes = 0;
    for (const auto& stream : streams) {
      bytes += stream->bytes();
    }
    return bytes;
  };
  std::atomic<bool> isOver = false;
  std::vector<std::thread> threads;
  for (const auto& stream : streams) {
    threads.emplace_back([&stream = *stream, &isOver] { stream.run(isOver); });
  }
  std::this_thread::sleep_for(kWarmUp);
  const auto begin = Clock::now();
  const auto bytesBefore = bytesSoFar();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const auto measuredBytes = bytesSoFar() - bytesBefore;
  const auto elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
  isOver = true;
  for (auto& thread : threads) {
    thread.join();
  }
  const auto failures = std::count_if(streams.begin(), streams.end(),
                                      [](const auto& stream) { return stream->hasFailed(); });
  std::printf("{\"bytes_per_second\": %.0f, \"bytes\": %llu, \"failures\": %ld}\n",
              static_cast<double>(measuredBytes) / elapsed,
              static_cast<unsigned long long>(bytesSoFar()), static_cast<long>(failures));
  return EXIT_SUCCESS;
}

int runExchanges(const KernelAddress& address, unsigned workers, unsigned seconds) {
  struct Worker {
    std::vector<double> latencies;
    unsigned failures = 0;
  };
  std::vector<Worker> results(workers);
  std::vector<std::thread> threads;
  const auto begin = Clock::now();
  const auto end = begin + std::chrono::seconds(seconds);
  for (auto& result : results) {
    threads.emplace_back([&address, &result, end] {
      auto start = Clock::now();
      // At least one each.
      do {
        const FileDescriptor socket = connectAndExchange(address);
        const auto now = Clock::now();
        if (socket.isOpen()) {
          result.latencies.push_back(microseconds(now - start));
        } else {
          ++result.failures;
        }
        start = now;
      } while (start < end);
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const auto elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
  std::vector<double> latencies;
  unsigned failures = 0;
  for (const auto& result : results) {
    latencies.insert(latencies.end(), result.latencies.begin(), result.latencies.end());
    failures += result.failures;
  }
  std::sort(latencies.begin(), latencies.end());
  std::printf(
      "{\"connections\": %zu, \"per_second\": %.1f, \"p50_us\": %.1f, \"p99_us\": %.1f, "
      "\"failures\": %u}\n",
      latencies.size(), static_cast<double>(latencies.size()) / elapsed, percentile(latencies, 50),
      percentile(latencies, 99), failures);
  return EXIT_SUCCESS;
}

// Opens connections, uses each once, prints how many there are, and keeps them until standard input
// ends.
int holdConnections(const KernelAddress& address, unsigned count, unsigned workers) {
  std::vector<FileDescriptor> sockets(count);
  std::atomic<unsigned> next = 0;
  std::vector<std::thread> threads;
  for (unsigned worker = 0; worker < workers; ++worker) {
    threads.emplace_back([&address, &sockets, &next] {
      for (unsigned index = next++; index < sockets.size(); index = next++) {
        sockets[index] = connectAndExchange(address);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const auto held = std::count_if(sockets.begin(), sockets.end(),
                                  [](const auto& socket) { return socket.isOpen(); });
  std::printf("{\"held\": %ld}\n", static_cast<long>(held));
  std::fflush(stdout);
  ::alarm(0);
  char ignored = 0;
  while (::read(STDIN_FILENO, &ignored, 1) > 0) {
  }
  return EXIT_SUCCESS;
}

// How long connect() takes here and in another network namespace, alternately, so that other load
// on the machine affects both.
class ConnectTimes {
 public:
  ConnectTimes(const KernelAddress& address, const std::string& otherNamespace)
      : address_(address), namespaces_{open("/proc/self/ns/net"), open(otherNamespace)} {}

  void measure(unsigned count) {
    for (unsigned done = 0; done < count; done += kConnectBatch) {
      std::array<std::array<FileDescriptor, 2>, kConnectBatch> sockets;
      // A socket belongs to the namespace in which it was created.
      for (const std::size_t side : {1U, 0U}) {
        enter(side);
        for (auto& pair : sockets) {
          pair[side] = makeSocket(address_);
          setTimeout(pair[side], kExchangeTimeout);
        }
      }
      bool isSwapped = false;
      for (const auto& pair : sockets) {
        // Alternates the order, so that neither is always second.
        const std::size_t first = std::exchange(isSwapped, !isSwapped) ? 1 : 0;
        connectOne(first, pair[first]);
        connectOne(1 - first, pair[1 - first]);
      }
    }
  }

  void print() {
    for (auto& values : values_) {
      std::sort(values.begin(), values.end());
    }
    std::printf(
        "{\"here_p50_us\": %.1f, \"here_p99_us\": %.1f, \"there_p50_us\": %.1f, "
        "\"there_p99_us\": %.1f, \"failures\": %u}\n",
        percentile(values_[0], 50), percentile(values_[0], 99), percentile(values_[1], 50),
        percentile(values_[1], 99), failures_);
  }

 private:
  static FileDescriptor open(const std::string& path) {
    FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor.isOpen()) {
      fail(path);
    }
    return descriptor;
  }

  void enter(std::size_t side) const {
    if (::setns(namespaces_[side].get(), CLONE_NEWNET) != 0) {
      fail("setns");
    }
  }

  void connectOne(std::size_t side, const FileDescriptor& socket) {
    const auto start = Clock::now();
    const int result = ::connect(socket.get(), address_.get(), address_.size);
    const auto end = Clock::now();
    if (result == 0) {
      values_[side].push_back(microseconds(end - start));
    } else {
      ++failures_;
    }
  }

  const KernelAddress address_;
  const std::array<FileDescriptor, 2> namespaces_;
  std::array<std::vector<double>, 2> values_;
  unsigned failures_ = 0;
};

int serve(const KernelAddress& address) {
  Origin origin(address);
  std::puts("ready");
  std::fflush(stdout);
  ::alarm(0);
  origin.run();
}

int measureConnect(const KernelAddress& address, const std::string& otherNamespace,
                   unsigned count) {
  ConnectTimes times(address, otherNamespace);
  times.measure(count);
  times.print();
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Makes the load that the relays are compared with.", "benchmark_load");
  app.require_subcommand(1);
  std::string host = "127.0.0.1";
  std::string port = "80";
  app.add_option("--host", host, "address of the origin server")->capture_default_str();
  app.add_option("--port", port, "its port")->capture_default_str();
  unsigned seconds = 2;
  app.add_option("--seconds", seconds, "how long to measure")->capture_default_str();
  unsigned count = 1;
  app.add_option("--count", count, "streams, connections to hold, or connects to time")
      ->capture_default_str();
  unsigned workers = 16;
  app.add_option("--workers", workers, "connections made at the same time")->capture_default_str();
  std::string otherNamespace = "/proc/self/ns/net";
  app.add_option("--other-namespace", otherNamespace, "network namespace to compare with");
  auto* const serveCommand = app.add_subcommand("serve", "be the origin server");
  auto* const download = app.add_subcommand("download", "receive over streams");
  auto* const upload = app.add_subcommand("upload", "send over streams");
  auto* const rate = app.add_subcommand("rate", "make connections with one small exchange each");
  auto* const hold = app.add_subcommand("hold", "keep idle connections");
  app.add_subcommand("connect", "time connect() here and in another namespace");
  CLI11_PARSE(app, argc, argv);

  ::alarm(seconds + kStallSeconds);
  raiseDescriptorLimit();
  try {
    const KernelAddress address = parseAddress(host, port);
    if (*serveCommand) {
      return serve(address);
    }
    if (*download || *upload) {
      return runStreams(address, *download ? 'd' : 'u', count, seconds);
    }
    if (*rate) {
      return runExchanges(address, workers, seconds);
    }
    if (*hold) {
      return holdConnections(address, count, workers);
    }
    return measureConnect(address, otherNamespace, count);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "benchmark_load: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
