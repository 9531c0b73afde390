#include "Companion/Fleet/FleetSubscriber.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <memory>
#include <thread>

#include "Companion/Fleet/FleetPublisher.h"
#include "Tests/Companion/Fleet/FleetReceiver.h"
#include "Tests/Companion/Fleet/FleetSamples.h"
#include "Tests/Companion/Fleet/NATSServer.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::companion::test {
namespace {

using namespace std::chrono_literals;

class FleetSubscriberTest : public ::testing::Test {
 protected:
  FleetSubscriberTest() { server_.start(); }

  std::unique_ptr<FleetPublisher> publisher(Spool::Limits limits = {}) const {
    return std::make_unique<FleetPublisher>(FleetPublisher::Options{
        .server = {.url = server_.url()}, .folder = folder_.path("spool"), .limits = limits});
  }

  // Messages that any user of the server could send.
  void sendForged(const std::string& subject, const std::string& host) const {
    natsConnection* connection = nullptr;
    ASSERT_EQ(natsConnection_ConnectTo(&connection, server_.url().c_str()), NATS_OK);
    const NATSConnection ownedConnection(connection);
    natsMsg* message = nullptr;
    ASSERT_EQ(natsMsg_Create(&message, subject.c_str(), nullptr, "{}", 2), NATS_OK);
    const NATSMessage ownedMessage(message);
    natsMsgHeader_Set(message, "Nats-Msg-Id", ("forged-" + host).c_str());
    natsMsgHeader_Set(message, "Ostravel-Host", host.c_str());
    natsMsgHeader_Set(message, "Ostravel-Boot", "boot-1");
    ASSERT_EQ(natsConnection_PublishMsg(connection, message), NATS_OK);
    natsConnection_Flush(connection);
  }

  NATSServer server_;
  const testing::TemporaryFolder folder_;
};

TEST_F(FleetSubscriberTest, ShowsEventsFromNowOn) {
  const std::unique_ptr<FleetPublisher> machine = publisher();
  machine->publish(messageNumber(1));
  FleetReceiver(server_.url()).waitFor(1);
  FleetReceiver receiver(server_.url(), false);
  receiver.reports.waitFor("connected");
  machine->publish(messageNumber(2));
  receiver.waitFor(1);
  EXPECT_EQ(receiver.messages().front(), messageNumber(2));
}

TEST_F(FleetSubscriberTest, LeavesNothingToDoForAnIOContextThatGoesOn) {
  const std::unique_ptr<FleetPublisher> machine = publisher();
  machine->publish(messageNumber(1));
  FleetReceiver(server_.url()).waitFor(1);
  asio::io_context ioContext;
  int shown = 0;
  // Whether the message has been posted can be seen only afterwards.
  for (auto pause = 1ms; ioContext.poll() == 0; pause *= 2) {
    ioContext.restart();
    {
      const FleetSubscriber subscriber(
          ioContext, {.server = {.url = server_.url()},
                      .fromBeginning = true,
                      .event = [&shown](const FleetMessage& /*message*/) { ++shown; }});
      std::this_thread::sleep_for(pause);
    }
  }
  EXPECT_EQ(shown, 0);
}

TEST_F(FleetSubscriberTest, ContinuesWhereItWasWhenTheServerIsBack) {
  FleetReceiver receiver(server_.url(), false);
  receiver.reports.waitFor("connected");
  const std::unique_ptr<FleetPublisher> machine = publisher();
  int number = 0;
  for (int round = 0; round < 3; ++round) {
    for (int count = 0; count < 1000; ++count) {
      machine->publish(messageNumber(++number));
    }
    receiver.waitFor(static_cast<std::size_t>(number) - 500);
    server_.kill();
    server_.start();
  }
  receiver.waitFor(static_cast<std::size_t>(number));
  machine->publish(messageNumber(++number));
  receiver.waitFor(static_cast<std::size_t>(number));
  std::set<std::string> ids;
  for (const FleetMessage& message : receiver.messages()) {
    EXPECT_TRUE(ids.insert(message.id).second) << message.id;
  }
  EXPECT_EQ(ids.size(), static_cast<std::size_t>(number));
}

TEST_F(FleetSubscriberTest, ShowsAllMachines) {
  FleetReceiver receiver(server_.url());
  const std::unique_ptr<FleetPublisher> machine = publisher();
  machine->publish(messageNumber(1, "host-1"));
  machine->publish(messageNumber(1, "host-2.example.org"));
  receiver.waitFor(2);
  EXPECT_EQ(receiver.messages()[1].host, "host-2.example.org");
}

TEST_F(FleetSubscriberTest, ReportsWhatAMachineDropped) {
  const Spool::Limits limits{.folder = 500, .segment = 150, .memory = 0};
  FleetReceiver receiver(server_.url());
  server_.kill();
  std::uint64_t dropped = 0;
  {
    std::unique_ptr<FleetPublisher> machine = publisher(limits);
    for (int number = 1; number <= 100; ++number) {
      machine->publish(messageNumber(number));
    }
    // Its end waits until each of them is in the spool or dropped.
    machine = nullptr;
    machine = publisher(limits);
    dropped = machine->counts().dropped;
    ASSERT_GT(dropped, 0U);
    ASSERT_EQ(machine->counts().waiting + dropped, 100U);
    server_.start();
    while (machine->counts().waiting > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    machine->publish(messageNumber(101));
    receiver.waitFor(101 - dropped);
  }
  receiver.reports.waitFor("host-1 dropped " + std::to_string(dropped) + " events");
  // A later subscriber learns of it with its first message.
  FleetReceiver later(server_.url(), false);
  later.reports.waitFor("connected");
  publisher(limits)->publish(messageNumber(102));
  later.reports.waitFor("host-1 had dropped " + std::to_string(dropped) + " events before");
}

TEST_F(FleetSubscriberTest, IgnoresAMessageThatNamesAnotherMachine) {
  FleetReceiver receiver(server_.url());
  receiver.reports.waitFor("connected");
  sendForged("ostravel.events.host-2.boot-1", "host-1");
  receiver.reports.waitFor("a message is not from where it claims to be");
  sendForged("ostravel.events.host-2.boot-1", "host-2");
  receiver.waitFor(1);
  EXPECT_EQ(receiver.messages().front().host, "host-2");
}

TEST_F(FleetSubscriberTest, ReportsAMissingServer) {
  server_.kill();
  FleetReceiver receiver(server_.url());
  receiver.reports.waitFor("cannot reach " + server_.url());
  server_.start();
  receiver.reports.waitFor("connected to " + server_.url());
}

}  // namespace
}  // namespace ostravel::companion::test
