#pragma once

#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::companion::test {

// A NATS server with JetStream, on a port that stays the same when it is started again.
class NATSServer {
 public:
  NATSServer() = default;

  void start();
  void startWithoutJetStream();
  // As a crash would.
  void kill();
  // It answers nothing until it goes on.
  void suspend() const { server_->suspend(); }
  void resume() const { server_->sendSignal(SIGCONT); }

  // Of the server that runs or ran last.
  std::string url() const { return "nats://127.0.0.1:" + port_; }
  // An address at which nothing listens before start().
  void choosePort();

  // Messages in the stream of the fleet.
  std::uint64_t storedMessages() const;

 private:
  void startWith(const std::vector<std::string>& arguments);

  const testing::TemporaryFolder folder_;
  std::string port_ = "-1";
  std::unique_ptr<testing::ChildProcess> server_;
};

}  // namespace ostravel::companion::test
