#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Tests/Support/TemporaryFolder.h"

// A program by itself, because it counts every allocation of the process.

namespace {

std::atomic<std::size_t> bytesInUse = 0;

// The header of an allocation in glibc's malloc.
constexpr std::size_t kHeaderBytes = 8;

void* allocate(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  bytesInUse += ::malloc_usable_size(memory) + kHeaderBytes;
  return memory;
}

void release(void* memory) {
  if (memory != nullptr) {
    bytesInUse -= ::malloc_usable_size(memory) + kHeaderBytes;
    std::free(memory);
  }
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  release(memory);
}

namespace ostravel {
namespace {

using platform::DispatchQueueKind;

// Takes connections, as the kernel does for every listener, and reads nothing by itself.
class DeafCompanion {
 public:
  // backlog: one more connection than this waits, the next one blocks its connect.
  explicit DeafCompanion(int backlog) : path_(folder_.path("events")) {
    descriptor_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(descriptor_, backlog), 0);
  }
  // Connections that wait are reset, so every delivery that is still due fails at once.
  ~DeafCompanion() { ::close(descriptor_); }

  const std::string& path() const { return path_; }

  bool hasWaitingConnection() const {
    pollfd entry{.fd = descriptor_, .events = POLLIN, .revents = 0};
    return ::poll(&entry, 1, 0) == 1;
  }
  // The next connection, which is waited for, and what arrives on it up to its end.
  int accept() const { return ::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC); }
  static std::size_t readToEnd(int connection) {
    std::vector<char> buffer(65536);
    std::size_t total = 0;
    ssize_t count = 0;
    while ((count = ::read(connection, buffer.data(), buffer.size())) > 0) {
      total += static_cast<std::size_t>(count);
    }
    ::close(connection);
    return total;
  }

 private:
  const testing::TemporaryFolder folder_;
  const std::string path_;
  int descriptor_ = -1;
};

// Events as flows cause them, with the most that any of them holds.
ProxyTunnelMonitoringEvent largeEvent(platform::Platform& platform) {
  return {platform.uuidSource(),
          "connect_handshake_failed",
          platform.uuidSource().randomUUID(),
          "error",
          "extension.connect_handshake_response_rejected",
          "Local proxy rejected CONNECT handshake with an answer that is not 200",
          ProxyTunnelMonitoringEvent::Metrics{{"duration_ms", 12.5}, {"pending_handshakes", 48}},
          ProxyTunnelMonitoringEvent::Context{
              {"app_id", "/usr/lib/firefox-esr/firefox-esr-with-a-long-path"},
              {"remote", "[2001:db8:0:1:2:3:4:5]:443"},
              {"proxy", "127.0.0.1:8080"},
              {"detail", std::string(200, 'x')}},
          1.0,
          "1970-01-01T00:00:01Z"};
}

// It allocates only what every event does.
ProxyTunnelMonitoringEvent smallEvent(platform::Platform& platform) {
  return {platform.uuidSource(), "s",          std::nullopt, "info", "c", "m",
          std::nullopt,          std::nullopt, 1.0,          "t"};
}

// Most of its memory is that of a map's nodes.
ProxyTunnelMonitoringEvent eventWithManyItems(platform::Platform& platform) {
  ProxyTunnelMonitoringEvent::Metrics metrics;
  ProxyTunnelMonitoringEvent::Context context;
  for (int number = 0; number < 100; ++number) {
    metrics.emplace(std::to_string(number), number);
    context.emplace(std::to_string(number), "value");
  }
  return {platform.uuidSource(), "s", std::nullopt, "info", "c", "m", metrics, context, 1.0, "t"};
}

// Most of its memory is that of texts; each one matters.
ProxyTunnelMonitoringEvent eventWithLongTexts(platform::Platform& platform) {
  const std::string text(3000, 'x');
  return {platform.uuidSource(),
          "s",
          text,
          "info",
          "c",
          "m",
          ProxyTunnelMonitoringEvent::Metrics{{text, 1.0}},
          ProxyTunnelMonitoringEvent::Context{{text, text}},
          1.0,
          "t"};
}

using MakeEvent = ProxyTunnelMonitoringEvent (*)(platform::Platform&);

class MonitoringMemory : public ::testing::TestWithParam<MakeEvent> {};

TEST_P(MonitoringMemory, OfACompanionThatNeverReadsIsBounded) {
  auto companion = std::make_optional<DeafCompanion>(0);
  linuxplatform::LinuxPlatform platform({});
  ProxyTunnelMonitoringClient client(
      platform, companion->path(),
      platform.makeQueue("com.ostravel.proxyTunnelMonitoring", DispatchQueueKind::serial),
      ProxyTunnelMonitoringFrameEncoder());
  constexpr int kThreads = 4;
  constexpr int kEvents = 20'000;
  const std::size_t before = bytesInUse;

  std::vector<std::thread> emitters;
  for (int thread = 0; thread < kThreads; ++thread) {
    emitters.emplace_back([&client, &platform] {
      for (int number = 0; number < kEvents; ++number) {
        client.emit(GetParam()(platform));
      }
    });
  }
  for (std::thread& emitter : emitters) {
    emitter.join();
  }
  const std::size_t used = bytesInUse - before;

  EXPECT_LE(used, ProxyTunnelMonitoringClient::kMaxWaitingBytes);
  // The estimate is not so cautious that room is wasted.
  EXPECT_GE(used, ProxyTunnelMonitoringClient::kMaxWaitingBytes / 4);
  companion.reset();
}

TEST(MonitoringWrite, ThatBlocksHoldsUpLaterEventsAndNoEmitter) {
  constexpr std::size_t kMoreThanASocketHolds = std::size_t{1} << 20;
  const DeafCompanion companion(16);
  linuxplatform::LinuxPlatform platform({});
  ProxyTunnelMonitoringClient client(
      platform, companion.path(),
      platform.makeQueue("com.ostravel.proxyTunnelMonitoring", DispatchQueueKind::serial),
      ProxyTunnelMonitoringFrameEncoder());
  client.emit({platform.uuidSource(), "large", std::nullopt, "info", "c",
               std::string(kMoreThanASocketHolds, 'x'), std::nullopt, std::nullopt, 1.0, "t"});
  // Connected, so it is the write that waits.
  const int first = companion.accept();

  client.emit(smallEvent(platform));
  EXPECT_FALSE(companion.hasWaitingConnection());

  EXPECT_GT(DeafCompanion::readToEnd(first), kMoreThanASocketHolds);
  EXPECT_GT(DeafCompanion::readToEnd(companion.accept()), 4U);
}

INSTANTIATE_TEST_SUITE_P(Events, MonitoringMemory,
                         ::testing::Values(&largeEvent, &smallEvent, &eventWithManyItems,
                                           &eventWithLongTexts));

}  // namespace
}  // namespace ostravel
