#include "Tests/Extension/Support/TunnelTest.h"

namespace ostravel::test {

namespace {

// Runs every item where it is submitted, so that the moment of an emit can be observed.
class ImmediateQueue final : public platform::DispatchQueue {
 public:
  const std::string& label() const override { return label_; }
  void async(Work work) override { work(); }
  void asyncBarrier(Work work) override { work(); }

 protected:
  void runSync(const Work& work) override { work(); }
  void runSyncBarrier(const Work& work) override { work(); }

 private:
  const std::string label_ = "immediate";
};

}  // namespace

const std::string TunnelTest::kRequest =
    "CONNECT 192.0.2.10:443 HTTP/1.1\r\n"
    "Host: 192.0.2.10:443\r\n"
    "X-Ostravel-App-Id: com.example.app\r\n"
    "X-Ostravel-Flow-Id: FLOW\r\n"
    "\r\n";

TunnelTest::TunnelTest() = default;

TunnelTest::TunnelTest(const simulation::SimulationOptions& options) : simulation_(options) {}

void TunnelTest::make(const Setup& setup) {
  flow_ = simulation_.makeTCPFlow(setup.appId, setup.remoteEndpoint);
  flow_->open(std::nullopt, [](const platform::OptionalError&) {});
  const auto created =
      simulation_.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
  connection_ = simulation_.connection(simulation_.connectionCount() - 1);
  simulation_.run();

  OVTunnelConnection::FlowIdCallback onEstablished;
  OVTunnelConnection::Callback onProxyUnavailable;
  OVTunnelConnection::FlowIdCallback onClose;
  if (setup.withCallbacks) {
    onEstablished = [this](const FlowIdentifier& id) {
      look();
      simulation_.journal().add("established " + id.text());
    };
    onProxyUnavailable = [this] {
      look();
      simulation_.journal().add("proxy unavailable");
    };
    onClose = [this](const FlowIdentifier& id) {
      simulation_.journal().add("closed " + id.text());
    };
  }
  tunnel_ = std::make_shared<OVTunnelConnection>(
      makeReference<const OVTunnelConnection::Common>(simulation_, setup.handshakeTimeout,
                                                      makeMonitoringClient(), onEstablished,
                                                      onProxyUnavailable, onClose),
      setup.flow ? setup.flow : flow_, setup.connection ? setup.connection : connection_,
      FlowIdentifier(setup.flowId), SharedText(setup.appId));
  clearJournal();
}

void TunnelTest::start() {
  tunnel_->start();
  simulation_.run();
}

void TunnelTest::startAndConnect() {
  start();
  connection_->accept();
  simulation_.run();
}

void TunnelTest::establish() {
  startAndConnect();
  proxy().send(kSuccess);
  simulation_.run();
}

std::vector<EventFacts> TunnelTest::events() const {
  std::vector<EventFacts> events;
  for (const auto& record : records_) {
    events.push_back(factsOf(record));
  }
  return events;
}

std::vector<EventFacts> TunnelTest::events(std::string_view signal) const {
  auto found = events();
  std::erase_if(found, [signal](const EventFacts& event) { return event.signal != signal; });
  return found;
}

std::vector<std::string> TunnelTest::signals() const {
  std::vector<std::string> signals;
  for (const auto& record : records_) {
    signals.push_back(record.signal);
  }
  return signals;
}

std::string TunnelTest::lineLoggedBefore(std::string_view signal) const {
  for (std::size_t index = 0; index < records_.size(); ++index) {
    if (records_[index].signal == signal) {
      return lineLoggedBefore_[index];
    }
  }
  return "there is no such event";
}

std::shared_ptr<ProxyTunnelMonitoringClient> TunnelTest::makeMonitoringClient() {
  return std::make_shared<ProxyTunnelMonitoringClient>(
      simulation_, "/monitoring.sock", std::make_shared<ImmediateQueue>(),
      ProxyTunnelMonitoringFrameEncoder(),
      [this](const std::string& /*path*/, std::span<const std::byte> frame) {
        records_.push_back(parseFrame(frame));
        const auto& logged = simulation_.logRecords();
        lineLoggedBefore_.push_back(logged.empty() ? "" : logged.back().line);
        simulation_.journal().add("event " + records_.back().signal);
        return platform::OptionalError();
      });
}

void TunnelTest::look() {
  watchdogSeen_ = watchdogState();
  observedSeen_ = connection_->observerCount() > 0;
}

platform::Error someError(const std::string& description) {
  return {"SomeDomain", 77, description};
}

}  // namespace ostravel::test
