#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"

#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <variant>

#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform::test {

namespace {

// Destinations without a listener, in case the redirection fails.
constexpr const char* kDestinationIPv4 = "127.0.2.1";
constexpr const char* kDestinationIPv6 = "::1";

std::uint16_t nextDestinationPort() {
  static std::uint16_t last = 20'000;
  return ++last;
}

}  // namespace

std::pair<platform::ReadCompletion, std::future<ReadOutcome>> readCompletion() {
  auto promise = std::make_shared<std::promise<ReadOutcome>>();
  auto future = promise->get_future();
  return {[promise](const std::optional<platform::Data>& data, platform::OptionalError error) {
            ReadOutcome outcome{std::nullopt, std::move(error)};
            if (data) {
              const auto bytes = data->bytes();
              outcome.bytes.emplace(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            }
            // Throws if it is called twice.
            promise->set_value(std::move(outcome));
          },
          std::move(future)};
}

std::pair<platform::ErrorCompletion, std::future<platform::OptionalError>> errorCompletion() {
  auto promise = std::make_shared<std::promise<platform::OptionalError>>();
  auto future = promise->get_future();
  return {[promise](platform::OptionalError error) { promise->set_value(std::move(error)); },
          std::move(future)};
}

platform::Error someError() {
  return {"test", 7, "the tunnel failed"};
}

RelayTest::RelayTest() : destinationPort_(nextDestinationPort()) {
  const std::string port = std::to_string(destinationPort_);
  platform::TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {
      {{kDestinationIPv4, port}, 32, platform::NetworkRuleProtocol::tcp},
      {{kDestinationIPv6, port}, 128, platform::NetworkRuleProtocol::tcp}};
  const FlowListener& listener = loop().listener();
  // Nothing reads the queue.
  auto installed = InterceptionTable::install(settings, loops_.marks(), 0,
                                              {{listener.ipv4Port(), listener.ipv6Port()}});
  if (!installed) {
    throw std::runtime_error(installed.error().localizedDescription);
  }
  table_ = *std::move(installed);
  for (const auto family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    loops_.redirectPath().setUsable(family, true);
  }
}

bool RelayTest::eventually(const std::function<bool()>& condition) {
  return testing::waitUntil([this, &condition] { return onLoop(condition); });
}

FlowTuple RelayTest::tupleOf(const SocketEndpoint& source) const {
  FlowTuple tuple;
  tuple.source = source;
  const bool isIPv4 = source.family == AddressFamily::ipv4;
  tuple.destination = *parseAddressLiteral(
      {isIPv4 ? kDestinationIPv4 : kDestinationIPv6, std::to_string(destinationPort_)});
  return tuple;
}

int RelayTest::arrive(ApplicationSocket& application) {
  application.setMark(loops_.marks().redirect(0));
  const bool isIPv4 = application.local().family == AddressFamily::ipv4;
  return application.connectTo(isIPv4 ? kDestinationIPv4 : kDestinationIPv6, destinationPort_);
}

RelayTest::Flow RelayTest::makeFlow(const SocketEndpoint& source) {
  auto verdict = std::make_shared<Verdict>();
  auto flow = std::make_shared<LinuxTCPFlow>(
      loop(), source, recordOf("org.example.browser", tupleOf(source).destination),
      std::make_unique<RecordedPacket>(verdict));
  return {std::move(flow), std::move(verdict)};
}

RelayTest::CarriedFlow RelayTest::carryFlow() {
  ApplicationSocket application(kApplicationIPv4);
  Flow made = makeFlow(application.local());
  auto [completion, future] = readCompletion();
  made.flow->read(std::move(completion));
  EXPECT_EQ(made.verdict->wait(), "redirect 0");
  EXPECT_EQ(arrive(application), 0);
  application.send("x");
  EXPECT_EQ(waitFor(std::move(future)).bytes, "x");
  return {std::move(made.flow), std::move(application)};
}

std::shared_ptr<LinuxTCPConnection> RelayTest::connectTo(const platform::HostEndpoint& endpoint) {
  return onLoop([&endpoint] { return EventLoopGroup::connect(endpoint); });
}

RelayTest::Connected RelayTest::connect() {
  return connectFor(nullptr);
}

RelayTest::Connected RelayTest::connectFor(Reference<UserShare> user) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  auto connection = onLoop([&] {
    const EventLoop::Service service(loop(), user);
    return loops_.connect({"127.0.0.1", std::to_string(listener.local().port)});
  });
  ApplicationSocket server = listener.accept();
  EXPECT_FALSE(write(*connection, "x"));
  EXPECT_EQ(server.receive(1).bytes, "x");
  return {std::move(connection), std::move(server)};
}

ReadOutcome RelayTest::read(LinuxTCPFlow& flow) {
  auto [completion, future] = readCompletion();
  flow.read(std::move(completion));
  return waitFor(std::move(future));
}

ReadOutcome RelayTest::read(LinuxTCPConnection& connection, std::size_t minimum,
                            std::size_t maximum) {
  auto [completion, future] = readCompletion();
  connection.read(minimum, maximum, std::move(completion));
  return waitFor(std::move(future));
}

platform::OptionalError RelayTest::write(LinuxTCPFlow& flow, const std::string& bytes) {
  auto [completion, future] = errorCompletion();
  flow.write(platform::Data::copyOf(bytes), std::move(completion));
  return waitFor(std::move(future));
}

platform::OptionalError RelayTest::write(LinuxTCPConnection& connection, const std::string& bytes) {
  auto [completion, future] = errorCompletion();
  connection.write(platform::Data::copyOf(bytes), std::move(completion));
  return waitFor(std::move(future));
}

std::future<platform::OptionalError> RelayTest::writeUntilStalled(LinuxTCPConnection& connection,
                                                                  std::size_t& acknowledged) {
  // Each is much larger than the one before, so that the kernel, which may free some more of its
  // buffers a moment later, does not complete the last one.
  constexpr std::size_t kFirst = 256 * 1024;
  constexpr std::size_t kGrowth = 4;
  acknowledged = 0;
  for (std::size_t size = kFirst;; size *= kGrowth) {
    auto [completion, future] = errorCompletion();
    connection.write(platform::Data::copyOf(std::string(size, 'w')), std::move(completion));
    // The write is tried on the loop at once; a completion follows in the next turn.
    drain();
    drain();
    if (future.wait_for(0s) != std::future_status::ready) {
      return std::move(future);
    }
    EXPECT_FALSE(future.get());
    acknowledged += size;
  }
}

RelayTest::Activity RelayTest::activityWithin(std::chrono::milliseconds time) {
  const auto look = [this] {
    timespec cpu{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    return Activity{loop().counters().wakeups,
                    std::chrono::seconds(cpu.tv_sec) + std::chrono::nanoseconds(cpu.tv_nsec)};
  };
  const Activity before = onLoop(look);
  std::promise<void> elapsed;
  LoopTimer timer(loop().timers());
  onLoop([&timer, &elapsed, time] { timer.start(time, [&elapsed] { elapsed.set_value(); }); });
  elapsed.get_future().wait();
  const Activity after = onLoop(look);
  return {after.wakeups - before.wakeups, after.cpuTime - before.cpuTime};
}

}  // namespace ostravel::linuxplatform::test
