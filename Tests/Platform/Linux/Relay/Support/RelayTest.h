#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Relay/LinuxTCPFlow.h"
#include "Tests/Platform/Linux/Relay/Support/ApplicationSocket.h"
#include "Tests/Platform/Linux/Relay/Support/RecordedPacket.h"
#include "Tests/Platform/Linux/Relay/Support/RelayNetwork.h"
#include "Tests/Platform/Linux/Support/RecordOf.h"

namespace ostravel::linuxplatform::test {

using namespace std::chrono_literals;

// The longest wait of a test.
inline constexpr auto kPatience = 20s;

template <typename Value>
Value waitFor(std::future<Value> future) {
  if (future.wait_for(kPatience) != std::future_status::ready) {
    ADD_FAILURE() << "it did not happen";
    return Value();
  }
  return future.get();
}

// The arguments of a completion.
struct ReadOutcome {
  std::optional<std::string> bytes;
  platform::OptionalError error;

  bool isEnd() const { return !bytes && !error; }
};

// A completion and the future of its arguments. Reads the chunk's bytes. Not an Outcome, which is
// polled: these tests wait for one completion at a time, and sleep until it runs.
std::pair<platform::ReadCompletion, std::future<ReadOutcome>> readCompletion();
std::pair<platform::ErrorCompletion, std::future<platform::OptionalError>> errorCompletion();

// One event loop, and flows and connections on it.
class RelayTest : public ::testing::Test {
 protected:
  RelayTest();

  struct Flow {
    std::shared_ptr<LinuxTCPFlow> flow;
    std::shared_ptr<Verdict> verdict;
  };
  // Both ends of one side of a tunnel.
  struct CarriedFlow {
    std::shared_ptr<LinuxTCPFlow> flow;
    ApplicationSocket application;
  };
  struct Connected {
    std::shared_ptr<LinuxTCPConnection> connection;
    ApplicationSocket server;
  };

  EventLoop& loop() { return loops_.loop(0); }

  // Runs work on the loop and returns its result.
  template <typename Work>
  auto onLoop(Work work) -> decltype(work()) {
    std::packaged_task<decltype(work())()> task(std::move(work));
    auto result = task.get_future();
    loop().post(std::move(task));
    return result.get();
  }
  // Returns when everything posted before has run.
  void drain() {
    onLoop([] {});
  }
  // Checks the condition repeatedly, on the loop.
  bool eventually(const std::function<bool()>& condition);

  FlowTuple tupleOf(const SocketEndpoint& source) const;
  // Does what the kernel does with the SYN of a released flow: makes the application's connection
  // to its destination arrive at the loop. Returns the result of connect().
  int arrive(ApplicationSocket& application);
  // A flow from an application with this source.
  Flow makeFlow(const SocketEndpoint& source);
  // A flow that was released by a read and accepted. The read is answered with "x" from the
  // application; the test need not know of it.
  CarriedFlow carryFlow();
  std::shared_ptr<LinuxTCPConnection> connectTo(const platform::HostEndpoint& endpoint);
  Connected connect();
  // For a tunnel of this user.
  Connected connectFor(Reference<UserShare> user);

  ReadOutcome read(LinuxTCPFlow& flow);
  ReadOutcome read(LinuxTCPConnection& connection, std::size_t minimum, std::size_t maximum);
  platform::OptionalError write(LinuxTCPFlow& flow, const std::string& bytes);
  platform::OptionalError write(LinuxTCPConnection& connection, const std::string& bytes);
  // Writes until a write does not complete, whose future is returned.
  std::future<platform::OptionalError> writeUntilStalled(LinuxTCPConnection& connection,
                                                         std::size_t& acknowledged);

  // What the loop does in an interval: the number of wake-ups, and its CPU time.
  struct Activity {
    std::uint64_t wakeups = 0;
    std::chrono::nanoseconds cpuTime{};
  };
  Activity activityWithin(std::chrono::milliseconds time);

  DescriptorBudget budget_{100'000};
  EventLoopGroup loops_{budget_, 1};

 private:
  // Different in every test, because conntrack remembers redirections for a while.
  const std::uint16_t destinationPort_;
  std::unique_ptr<InterceptionTable> table_;
};

// Any error with which the core may close.
platform::Error someError();

}  // namespace ostravel::linuxplatform::test
