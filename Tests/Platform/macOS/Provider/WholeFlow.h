#pragma once

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#import "Tests/Platform/macOS/Provider/PrincipalObject.h"
#import "Tests/StandInMac/LogRecord.h"
#include "Tests/StandInMac/StreamSocket.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::macos::test {

using testing::ChildProcess;
using testing::TemporaryFolder;
using testing::TestListener;
using testing::TestSocket;
using testing::waitUntil;

inline constexpr std::uint16_t kProxyPort = 8080;

// A flow as the system offers it, and its application.
struct OfferedFlow {
  bool wasTaken;
  std::shared_ptr<standin::FlowRecord> record;
  TestSocket application;
};

inline bool wasLogged(const std::string& text) {
  for (const auto& line : standin::loggedLines()) {
    if (line.text == text) {
      return true;
    }
  }
  return false;
}

// Whole flows through the principal object, with real sockets on both sides.
class WholeFlowTest : public ::testing::Test {
 protected:
  WholeFlowTest() { standin::clearLogRecord(); }
  ~WholeFlowTest() override {
    provider_.stop();
    provider_.release();
    [pool_ release];
  }

  // Holds what the fixture makes, and is drained before the test's own pool.
  NSAutoreleasePool* const pool_ = [[NSAutoreleasePool alloc] init];

  // prepare may say how the flow behaves; it is called before the provider gets it.
  using Prepare = std::function<void(standin::FlowRecord&)>;
  OfferedFlow offerTCP(
      const standin::FlowDescription& description, const Prepare& prepare = [](auto&) {}) {
    @autoreleasepool {
      const auto ends = standin::makeStreamPair();
      NEAppProxyTCPFlow* const flow = standin::makeTCPFlow(description, ends.provider);
      auto record = standin::recordOf(flow);
      prepare(*record);
      return {provider_.offer(flow), std::move(record), TestSocket(ends.application)};
    }
  }
  OfferedFlow offerTCP(
      const std::string& host, std::uint16_t port, const Prepare& prepare = [](auto&) {}) {
    @autoreleasepool {
      return offerTCP({.endpoint = standin::makeHostEndpoint(makeString(host),
                                                             makeString(std::to_string(port)))},
                      prepare);
    }
  }
  OfferedFlow offerTCPTo(
      const TestListener& origin, const Prepare& prepare = [](auto&) {}) {
    return offerTCP("127.0.0.1", origin.port(), prepare);
  }

  // A flow whose opening has not completed when its provider is destroyed, and completes
  // afterwards.
  OfferedFlow outliveProvider() {
    auto flow = offerTCP({.endpoint = standin::makeHostEndpoint(@"192.0.2.1", @"443")},
                         [](auto& record) { record.holdOpening(); });
    EXPECT_TRUE(flow.wasTaken);
    provider_.release();
    EXPECT_TRUE(waitUntil([] { return wasLogged("OstravelProxy: deinit"); }));
    flow.record->letOpeningGo();
    return flow;
  }

  // Starts, and waits until the first probe has found the proxy.
  void startWithProxy() {
    provider_.startUp();
    ASSERT_TRUE(waitUntil([this] {
      @autoreleasepool {
        // Refused at once when it is taken, so it leaves no trace.
        return provider_.offer(standin::makeUDPFlow({.signingIdentifier = @"com.example.probe"}));
      }
    }));
  }

  PrincipalObject provider_;
};

// With the sidecar as the proxy, and the monitor.
class CompanionFlowTest : public WholeFlowTest {
 protected:
  CompanionFlowTest() {
    sidecar_.emplace(
        std::vector<std::string>{OSTRAVEL_SIDECAR_PROGRAM, "--listen", "127.0.0.1:8080"});
    sidecar_->readOutputLine();
    monitor_.emplace(
        std::vector<std::string>{OSTRAVEL_MONITOR_PROGRAM, "--json", "--socket", path_});
    monitor_->readErrorLine();
    provider_.configure([NSDictionary dictionaryWithObject:makeString(path_)
                                                    forKey:@"monitoringSocketPath"]);
    startWithProxy();
  }

  // The next event with this code.
  std::string awaitEvent(const std::string& code) {
    std::string line;
    do {
      line = monitor_->readOutputLine();
    } while (!line.empty() && line.find("\"extension." + code + "\"") == std::string::npos);
    return line;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path("events");
  std::optional<ChildProcess> sidecar_;
  std::optional<ChildProcess> monitor_;
};

// With a proxy that the test plays.
class ScriptedProxyTest : public WholeFlowTest {
 protected:
  ScriptedProxyTest() { startWithProxy(); }
  ~ScriptedProxyTest() override {
    standin::setConnectionCreationFailure(false);
    ::close(proxy_);
  }

  // The next connection that sends a request; the probes' connections send nothing.
  TestSocket acceptTunnel() {
    while (true) {
      TestSocket connection(::accept(proxy_, nullptr, nullptr));
      request_ = connection.receiveThrough("\r\n\r\n");
      if (!request_.empty()) {
        return connection;
      }
    }
  }
  // The core's error: flows are closed with one of the domain for flows, which holds it.
  platform::OptionalError closeError(const OfferedFlow& flow) {
    EXPECT_TRUE(waitUntil([&flow] { return flow.record->isWriteClosed(); }));
    @autoreleasepool {
      NSError* const error = flow.record->closeWriteError();
      EXPECT_TRUE(error == nil || [[error domain] isEqualToString:NEAppProxyErrorDomain]);
      return errorFrom([[error userInfo] objectForKey:NSUnderlyingErrorKey]);
    }
  }

  std::string request_;

 private:
  // The port is always the same, and connections of the test before may linger.
  static int listenOnProxyPort() {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kProxyPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 ||
        ::listen(descriptor, SOMAXCONN) < 0) {
      throw std::runtime_error("the proxy's port");
    }
    return descriptor;
  }

  const int proxy_ = listenOnProxyPort();
};

}  // namespace ostravel::macos::test
