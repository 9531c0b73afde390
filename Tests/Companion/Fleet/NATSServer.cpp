#include "Tests/Companion/Fleet/NATSServer.h"

#include <csignal>
#include <stdexcept>

#include "Companion/Fleet/FleetConnection.h"
#include "Companion/Fleet/NATSHandle.h"

namespace ostravel::companion::test {

void NATSServer::start() {
  startWith({"-js", "-sd", folder_.path("data")});
}

void NATSServer::startWithoutJetStream() {
  startWith({});
}

void NATSServer::startWith(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{"/usr/sbin/nats-server", "-a", "127.0.0.1", "-p", port_};
  command.insert(command.end(), arguments.begin(), arguments.end());
  server_ = std::make_unique<testing::ChildProcess>(command);
  constexpr std::string_view kAddress = "Listening for client connections on 127.0.0.1:";
  std::string line;
  do {
    line = server_->readErrorLine();
    if (line.empty()) {
      throw std::runtime_error("the NATS server did not start");
    }
    if (const std::size_t at = line.find(kAddress); at != std::string::npos) {
      port_ = line.substr(at + kAddress.size());
    }
  } while (line.find("Server is ready") == std::string::npos);
  server_->discardError();
}

void NATSServer::kill() {
  server_->sendSignal(SIGKILL);
  server_->waitForExit();
}

void NATSServer::choosePort() {
  start();
  kill();
}

std::uint64_t NATSServer::storedMessages() const {
  natsConnection* connection = nullptr;
  jsCtx* jetStream = nullptr;
  jsStreamInfo* stream = nullptr;
  jsErrCode code{};
  if (natsConnection_ConnectTo(&connection, url().c_str()) != NATS_OK) {
    throw std::runtime_error("no connection to the NATS server");
  }
  const NATSConnection ownedConnection(connection);
  natsConnection_JetStream(&jetStream, connection, nullptr);
  const JetStream ownedJetStream(jetStream);
  if (js_GetStreamInfo(&stream, jetStream, kFleetStream, nullptr, &code) != NATS_OK) {
    throw std::runtime_error("no stream");
  }
  return JetStreamInfo(stream)->State.Msgs;
}

}  // namespace ostravel::companion::test
