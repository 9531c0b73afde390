#import "Tests/Platform/macOS/Provider/WholeFlow.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#include "Tests/Platform/macOS/Support/MemoryInUse.h"
#import "Tests/Platform/macOS/Support/ObjectCensus.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::macos::test {
namespace {

// Without a proxy

TEST_F(WholeFlowTest, WithoutAProxyEveryFlowIsLeftToTheSystem) {
  provider_.startUp();
  standin::settleWorkers();
  EXPECT_FALSE(offerTCP("192.0.2.1", 443).wasTaken);
  EXPECT_FALSE(provider_.offer(standin::makeUDPFlow({})));
  EXPECT_FALSE(provider_.offer(standin::makeUnknownFlow({})));
  EXPECT_FALSE(provider_.offer(nil));
}

// With the companions

TEST_F(CompanionFlowTest, ATCPFlowIsCarriedBothWaysUntilTheApplicationEnds) {
  const TestListener origin;
  const auto flow = offerTCPTo(origin);
  ASSERT_TRUE(flow.wasTaken);
  flow.application.send("ping");
  const auto connection = origin.accept();
  EXPECT_EQ(connection.receive(4), "ping");
  connection.send("pong");
  EXPECT_EQ(flow.application.receive(4), "pong");

  flow.application.endSending();
  EXPECT_EQ(connection.receiveToEnd(), "");
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::orderly);
  EXPECT_EQ(flow.record->openedLocalEndpoint(), nil);
  const auto closed = awaitEvent("tunnel_closed");
  EXPECT_NE(closed.find("\"detail\":\"eof\""), std::string::npos) << closed;
  EXPECT_NE(closed.find("\"app_id\":\"com.example.application\""), std::string::npos) << closed;
  EXPECT_EQ(flow.record->closeReadError(), nil);
  EXPECT_EQ(flow.record->closeWriteError(), nil);
}

TEST_F(CompanionFlowTest, ATCPFlowIsCarriedUntilTheOriginEnds) {
  const TestListener origin;
  const auto flow = offerTCPTo(origin);
  ASSERT_TRUE(flow.wasTaken);
  const std::string sent(3'000'000, 'x');
  std::thread sender([&origin, &sent] {
    auto connection = origin.accept();
    connection.send(sent);
  });
  EXPECT_EQ(flow.application.receiveToEnd(), sent);
  sender.join();
}

TEST_F(CompanionFlowTest, TheEventsDescribeTheFlow) {
  const TestListener origin;
  const auto flow = offerTCPTo(origin);
  EXPECT_FALSE(awaitEvent("provider_started").empty());
  EXPECT_NE(awaitEvent("connect_handshake_started").find(origin.target()), std::string::npos);
  EXPECT_NE(awaitEvent("connect_handshake_succeeded").find("elapsed_ms"), std::string::npos);
  flow.application.endSending();
  EXPECT_FALSE(awaitEvent("tunnel_closed").empty());
}

TEST_F(CompanionFlowTest, AUDPFlowIsRefused) {
  @autoreleasepool {
    NEAppProxyUDPFlow* const flow =
        standin::makeUDPFlow({.endpoint = standin::makeHostEndpoint(@"192.0.2.1", @"5353")});
    const auto record = standin::recordOf(flow);
    EXPECT_TRUE(provider_.offer(flow));
    EXPECT_TRUE(record->isReadClosed());
    EXPECT_TRUE(record->isWriteClosed());
    EXPECT_EQ(record->closeReadError(), nil);
    EXPECT_EQ(record->closeWriteError(), nil);
  }
}

TEST_F(CompanionFlowTest, AUDPFlowWithoutALocalEndpointIsRefused) {
  EXPECT_TRUE(provider_.offer(standin::makeUDPFlow({.endpoint = nil})));
  EXPECT_TRUE(provider_.offer(standin::makeUDPFlow({.endpoint = standin::makeOtherEndpoint()})));
}

TEST_F(CompanionFlowTest, AFlowOfAnUnknownKindIsLeftToTheSystem) {
  NEAppProxyFlow* const flow = standin::makeUnknownFlow({});
  EXPECT_FALSE(provider_.offer(flow));
  EXPECT_FALSE(standin::recordOf(flow)->isReadClosed());
}

TEST_F(CompanionFlowTest, ANilFlowIsLeftToTheSystem) {
  EXPECT_FALSE(provider_.offer(nil));
}

TEST_F(CompanionFlowTest, AnExemptApplicationsFlowIsLeftToTheSystem) {
  const auto flow = offerTCP({.signingIdentifier = @" com.apple.trustd\n",
                              .endpoint = standin::makeHostEndpoint(@"192.0.2.1", @"443")});
  EXPECT_FALSE(flow.wasTaken);
  EXPECT_FALSE(flow.record->isOpened());
}

TEST_F(CompanionFlowTest, AFlowToTheProxyItselfIsLeftToTheSystem) {
  EXPECT_FALSE(offerTCP("127.0.0.1", kProxyPort).wasTaken);
  EXPECT_FALSE(offerTCP("localhost", kProxyPort).wasTaken);
}

TEST_F(CompanionFlowTest, AFlowIsCarriedWithoutAnIdentifier) {
  const TestListener origin;
  for (const bool hasMetaData : {true, false}) {
    @autoreleasepool {
      const auto flow = offerTCP({.signingIdentifier = nil,
                                  .hasMetaData = hasMetaData,
                                  .endpoint = standin::makeHostEndpoint(
                                      @"127.0.0.1", makeString(std::to_string(origin.port())))});
      ASSERT_TRUE(flow.wasTaken);
      flow.application.send("x");
      EXPECT_EQ(origin.accept().receive(1), "x");
    }
    EXPECT_NE(awaitEvent("tunnel_closed").find("\"app_id\":\"\""), std::string::npos);
  }
}

TEST_F(CompanionFlowTest, TheProxyRefusesAFlowWithoutAHostEndpoint) {
  for (NWEndpoint* endpoint : {static_cast<NWEndpoint*>(nil), standin::makeOtherEndpoint(),
                               static_cast<NWEndpoint*>(standin::makeHostEndpoint(nil, nil))}) {
    const auto flow = offerTCP({.endpoint = endpoint});
    ASSERT_TRUE(flow.wasTaken);
    EXPECT_EQ(flow.application.receiveToEnd(), "");
    EXPECT_FALSE(awaitEvent("connect_handshake_non_200").empty());
    EXPECT_EQ(flow.record->closeReadError(), nil);
  }
}

TEST_F(CompanionFlowTest, AFlowThatCannotBeOpenedIsClosedWithItsError) {
  NSError* const error =
      [NSError errorWithDomain:NEAppProxyErrorDomain
                          code:NEAppProxyFlowErrorAborted
                      userInfo:[NSDictionary dictionaryWithObject:@"aborted"
                                                           forKey:NSLocalizedDescriptionKey]];
  const auto flow = offerTCP({.endpoint = standin::makeHostEndpoint(@"192.0.2.1", @"443")},
                             [error](auto& record) { record.failOpening(error); });
  ASSERT_TRUE(flow.wasTaken);
  const auto& record = flow.record;
  ASSERT_TRUE(waitUntil([&] { return record->isWriteClosed(); }));
  // The object itself, not an equal one.
  EXPECT_EQ(record->closeReadError(), error);
  EXPECT_EQ(record->closeWriteError(), error);
  EXPECT_TRUE(wasLogged("OstravelProxy: Failed to open flow: aborted"));
}

TEST_F(CompanionFlowTest, AFlowThatOpensAfterTheProviderIsDestroyedIsReset) {
  const auto flow = outliveProvider();
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::reset);
  EXPECT_FALSE(flow.record->wasLeftToSystem());
  EXPECT_FALSE(flow.record->isReadClosed());
}

TEST_F(CompanionFlowTest, AReadWithoutDataOrErrorIsTheEnd) {
  const TestListener origin;
  const auto flow = offerTCPTo(origin, [](auto& record) { record.setNextRead(nil, nil); });
  ASSERT_TRUE(flow.wasTaken);
  EXPECT_NE(awaitEvent("tunnel_closed").find("\"detail\":\"eof\""), std::string::npos);
  ASSERT_TRUE(waitUntil([&] { return flow.record->isWriteClosed(); }));
  EXPECT_EQ(flow.record->closeWriteError(), nil);
}

TEST_F(CompanionFlowTest, AReadErrorClosesBothSidesWithIt) {
  const TestListener origin;
  const auto flow = offerTCPTo(origin, [](auto& record) {
    record.setNextRead(nil, [NSError errorWithDomain:NEAppProxyErrorDomain code:2 userInfo:nil]);
  });
  ASSERT_TRUE(flow.wasTaken);
  ASSERT_TRUE(waitUntil([&] { return flow.record->isWriteClosed(); }));
  EXPECT_EQ([flow.record->closeReadError() code], 2);
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::reset);
}

TEST_F(CompanionFlowTest, FlowsContinueAfterASecondStart) {
  provider_.startUp();
  const TestListener origin;
  const auto flow = offerTCPTo(origin);
  ASSERT_TRUE(flow.wasTaken);
  flow.application.send("x");
  EXPECT_EQ(origin.accept().receive(1), "x");
}

TEST_F(CompanionFlowTest, StoppingReleasesTheTunnels) {
  const TestListener origin;
  const auto flow = offerTCPTo(origin);
  ASSERT_TRUE(flow.wasTaken);
  flow.application.send("x");
  const auto connection = origin.accept();
  EXPECT_EQ(connection.receive(1), "x");
  EXPECT_EQ(provider_.stop()->count, 1);
  // Nothing holds it any more, so the system closes both ends.
  connection.receiveToEnd();
  flow.application.waitForEnd();
}

TEST_F(CompanionFlowTest, ManyFlowsAtOnceDoNotMix) {
  constexpr std::size_t kFlows = 24;
  const TestListener origin;
  std::thread echo([&origin] {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kFlows; ++i) {
      threads.emplace_back(
          [connection = origin.accept()] { connection.send(connection.receive(8)); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  });
  std::vector<OfferedFlow> flows;
  for (std::size_t i = 0; i < kFlows; ++i) {
    flows.push_back(offerTCPTo(origin));
    ASSERT_TRUE(flows.back().wasTaken);
    flows.back().application.send("flow" + std::to_string(1000 + i));
  }
  for (std::size_t i = 0; i < kFlows; ++i) {
    EXPECT_EQ(flows[i].application.receive(8), "flow" + std::to_string(1000 + i));
  }
  echo.join();
}

// What most of nine rounds of the same work leave behind: objects and, where the allocator knows,
// more memory than the allowance. Every round shows a leak of the work; only some show a new thread
// or a growing table. Empty if nothing was left.
std::string leftBehind(std::size_t allowance, const std::function<void()>& round) {
  constexpr int kRounds = 9;
  // Longer than sockets linger.
  constexpr std::chrono::seconds kPatience(4);
  takeCensus();
  // The first rounds fill what is kept for the life of the process.
  round();
  round();
  int cleanRounds = 0;
  std::string left;
  for (int count = 0; count < kRounds; ++count) {
    const auto objects = takeCensus();
    const auto memory = memoryInUse();
    round();
    const auto objectsLeft = [&] { return growth(objects, takeCensus()); };
    const auto isMemoryFreed = [&] { return !memory || *memoryInUse() <= *memory + allowance; };
    if (waitUntil([&] { return objectsLeft().empty() && isMemoryFreed(); }, kPatience)) {
      ++cleanRounds;
    } else {
      left += objectsLeft() + (isMemoryFreed() ? "" : "memory") + "\n";
    }
  }
  return cleanRounds > kRounds / 2 ? "" : left;
}

TEST_F(CompanionFlowTest, FlowsLeaveNothingBehind) {
  const TestListener origin;
  constexpr std::size_t kFlows = 6;
  // No completion and no buffer of any flow fits in.
  constexpr std::size_t kAllowance = kFlows * 128;
  const auto carryFlows = [&] {
    for (std::size_t i = 0; i < kFlows; ++i) {
      const auto flow = offerTCPTo(origin);
      ASSERT_TRUE(flow.wasTaken);
      flow.application.send("ping");
      const auto connection = origin.accept();
      EXPECT_EQ(connection.receive(4), "ping");
      flow.application.endSending();
      connection.receiveToEnd();
      EXPECT_FALSE(awaitEvent("tunnel_closed").empty());
    }
    standin::clearLogRecord();
    standin::settleWorkers();
  };
  EXPECT_EQ(leftBehind(kAllowance, carryFlows), "");
}

TEST_F(CompanionFlowTest, TheProviderLeavesNothingBehind) {
  constexpr std::size_t kProviders = 5;
  // A provider takes kilobytes for its lists and queues.
  constexpr std::size_t kAllowance = kProviders * 512;
  const auto live = [this] {
    @autoreleasepool {
      for (std::size_t i = 0; i < kProviders; ++i) {
        PrincipalObject other;
        other.configure([NSDictionary dictionaryWithObject:makeString(path_)
                                                    forKey:@"monitoringSocketPath"]);
        other.startUp();
        other.stop();
      }
    }
    standin::clearLogRecord();
    standin::settleWorkers();
  };
  EXPECT_EQ(leftBehind(kAllowance, live), "");
}

// With a proxy that the test plays

TEST_F(ScriptedProxyTest, TheRequestCarriesBothIdentifiers) {
  const auto flow = offerTCP("2001:db8::1", 443);
  ASSERT_TRUE(flow.wasTaken);
  const auto tunnel = acceptTunnel();
  EXPECT_TRUE(request_.starts_with("CONNECT [2001:db8::1]:443 HTTP/1.1\r\n"
                                   "Host: [2001:db8::1]:443\r\n"
                                   "X-Ostravel-App-Id: com.example.application\r\n"
                                   "X-Ostravel-Flow-Id: "))
      << request_;
}

TEST_F(ScriptedProxyTest, BytesAfterTheAnswerComeFirst) {
  const auto flow = offerTCP("192.0.2.1", 443);
  const auto tunnel = acceptTunnel();
  tunnel.send("HTTP/1.1 200 OK\r\n\r\nleftover,");
  tunnel.send("more");
  EXPECT_EQ(flow.application.receive(13), "leftover,more");
  flow.application.send("up");
  EXPECT_EQ(tunnel.receive(2), "up");
}

TEST_F(ScriptedProxyTest, ARefusalIsAnOrderlyEnd) {
  const auto flow = offerTCP("192.0.2.1", 443);
  acceptTunnel().send("HTTP/1.1 403 Forbidden\r\n\r\n");
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::orderly);
  EXPECT_FALSE(closeError(flow));
}

TEST_F(ScriptedProxyTest, AResetDuringTheHandshakeReachesTheApplication) {
  const auto flow = offerTCP("192.0.2.1", 443);
  acceptTunnel().reset();
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::reset);
  const auto error = closeError(flow);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, platform::kPOSIXErrorDomain);
  EXPECT_EQ([flow.record->closeWriteError() code], NEAppProxyFlowErrorPeerReset);
}

TEST_F(ScriptedProxyTest, ASilentProxyHasFiveSeconds) {
  const auto flow = offerTCP("192.0.2.1", 443);
  const auto tunnel = acceptTunnel();
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::reset);
  EXPECT_EQ(closeError(flow),
            (platform::Error{"OstravelProxy", 1002, "Proxy CONNECT handshake timed out"}));
  tunnel.waitForEnd();
}

TEST_F(ScriptedProxyTest, AMissingConnectionTimesOut) {
  standin::setConnectionCreationFailure(true);
  const auto flow = offerTCP("192.0.2.1", 443);
  EXPECT_EQ(flow.application.waitForEnd(), TestSocket::End::reset);
  const auto error = closeError(flow);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 1002);
}

}  // namespace
}  // namespace ostravel::macos::test
