#include "Tests/Simulator/FlowScript.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

#include "Tests/Simulator/RandomStreams.h"

namespace ostravel::simulator {

namespace {

using namespace std::chrono_literals;
using simulation::SimulatedPeer;
using simulation::SimulatedTCPConnection;

struct Application {
  std::string_view identifier;
  bool isExempt;
};

constexpr std::size_t kUsualApplications = 4;
constexpr std::array<Application, 16> kApplications = {{
    {"com.example.browser", false},
    {"org.example.mail", false},
    {"com.example.Editor", false},
    {"com.apple.trustd", true},
    // Only unusual ones from here on.
    {"", false},
    {" \t\n", false},
    {"  com.example.padded\r\n", false},
    {" com.apple.trustd\n", true},
    {"COM.APPLE.TRUSTD", true},
    // Its entry in the list has capitals, so that it never matches.
    {"com.apple.WebCore", false},
    {"com.apple.webcore", false},
    {"line\r\nX-Injected: yes", false},
    {"quote\"back\\slash/", false},
    {"\xC3\xA4pfel.\xE2\x82\xAC", false},
    {"/usr/bin/program with spaces", false},
    {"com.fortinet.FortiClient", true},
}};

enum class HostKind : std::uint8_t { plain, exempt, realTime, localProxy };

struct Host {
  std::string_view name;
  std::string_view port;
  HostKind kind;
};

constexpr std::size_t kUsualHosts = 6;
constexpr std::array<Host, 26> kHosts = {{
    {"www.example.org", "443", HostKind::plain},
    {"api.example.com", "443", HostKind::plain},
    {"192.0.2.10", "80", HostKind::plain},
    {"2001:db8::1", "443", HostKind::plain},
    {"www.apple.com", "443", HostKind::exempt},
    {"meet.google.com", "443", HostKind::realTime},
    // Only unusual ones from here on.
    {"", "", HostKind::plain},
    {"example.org", "0", HostKind::plain},
    {"apple.com", "443", HostKind::plain},
    {"notapple.com", "443", HostKind::plain},
    {"WWW.Apple.COM.", "443", HostKind::exempt},
    {"...gstatic.com", "443", HostKind::exempt},
    {"a.b.gstatic.com..", "443", HostKind::exempt},
    {"gateway.icloud.com", "443", HostKind::exempt},
    {"zoom.us", "443", HostKind::realTime},
    {"us02web.Zoom.US", "443", HostKind::realTime},
    {"notzoom.us", "443", HostKind::plain},
    {"127.0.0.1", "8080", HostKind::localProxy},
    {"localhost", "8080", HostKind::localProxy},
    {"LocalHost", "8080", HostKind::plain},
    {"127.0.0.1", "80", HostKind::plain},
    {"fe80::1%eth0", "443", HostKind::plain},
    {"unknown", "0", HostKind::plain},
    {"\xE4\xBE\x8B\xE3\x81\x88.example", "443", HostKind::plain},
    {"broken\xFF\xFEname", "443", HostKind::plain},
    {"host with spaces", "https", HostKind::plain},
}};

constexpr std::array<std::string_view, 5> kSuccesses = {
    "HTTP/1.1 200 Connection established\r\n\r\n",
    "HTTP/1.0 200 OK\r\nProxy-Agent: example\r\n\r\n",
    "HTTP/1.1 200\r\n\r\n",
    "  HTTP/1.1 200 OK \t\r\nX: \xC3\xA4\r\n\r\n",
    "HTTP/1.1 2000 more\r\n\r\n",
};
constexpr std::array<std::string_view, 6> kRejections = {
    "HTTP/1.1 502 Bad Gateway\r\n\r\n",
    "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic\r\n\r\nbody",
    "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n",
    "HTTP/2 200\r\n\r\n",
    "http/1.1 200 OK\r\n\r\n",
    "HTTP/1.1  200 OK\r\n\r\n",
};
constexpr std::array<std::string_view, 5> kGarbage = {
    "\r\n\r\n",
    "\r\nHTTP/1.1 200 OK\r\n\r\n",
    "HTTP/1.1 200 OK\r\nX: \xFF\r\n\r\n",
    " \t \r\nHTTP/1.1 200 OK\r\n\r\n",
    "HTTP/1.1 200 OK\n\n",
};
// More than a header may have, in pieces.
constexpr std::size_t kEndlessHeader = 17000;

Expectation expectationOf(FlowScript::Protocol protocol, const Application& application,
                          HostKind host) {
  if (application.isExempt || host == HostKind::exempt) {
    return Expectation::leave;
  }
  switch (protocol) {
    case FlowScript::Protocol::tcp:
      return host == HostKind::localProxy ? Expectation::leave : Expectation::carry;
    case FlowScript::Protocol::udp:
      return host == HostKind::realTime ? Expectation::leave : Expectation::drop;
    case FlowScript::Protocol::unknown:
      break;
  }
  return Expectation::leave;
}

}  // namespace

FlowScript::FlowScript(World& world, std::uint64_t seed, std::uint32_t number)
    : world_(world), number_(number), random_(seed, streams::kFlows + number) {
  const auto kind = random_.below(32);
  protocol_ = kind == 0 ? Protocol::unknown : kind < 5 ? Protocol::udp : Protocol::tcp;
  const bool isStrange = strikes(Fault::strangeEndpoints, 2);
  const auto& application =
      kApplications[random_.below(isStrange ? kApplications.size() : kUsualApplications)];
  Host host = kHosts[random_.below(isStrange ? kHosts.size() : kUsualHosts)];
  facts_.hasEndpoint = protocol_ != Protocol::unknown && !(isStrange && random_.below(8) == 0);
  if (!facts_.hasEndpoint) {
    host = {"", "", HostKind::plain};
  }
  facts_.identifier = application.identifier;
  facts_.host = host.name;
  facts_.port = host.port;
  facts_.expectation = expectationOf(protocol_, application, host.kind);
}

FlowScript::FlowScript(World& world, std::uint32_t number, OfferedFlow facts)
    : world_(world), number_(number), random_(0, 0), facts_(std::move(facts)) {}

void FlowScript::keep(const std::shared_ptr<simulation::SimulatedTCPFlow>& flow,
                      const std::shared_ptr<Strand>& strand) {
  flow_ = flow;
  strand_ = strand;
  application_ = flow->application();
}

void FlowScript::keep(const std::shared_ptr<SimulatedTCPConnection>& connection) {
  connection_ = connection;
  proxy_ = connection->peer();
  connectedAt_ = world_.queue().now();
}

void FlowScript::after(std::chrono::nanoseconds delay, Action action) {
  world_.after(delay, [self = shared_from_this(), action] { (self.get()->*action)(); });
}

std::chrono::nanoseconds FlowScript::shortDelay() {
  return random_.below(4) == 0 ? std::chrono::microseconds(random_.below(20000)) : 0us;
}

std::string FlowScript::payload() {
  // One draw a statement: the order of arguments is the compiler's choice.
  const bool isLong = random_.below(16) == 0;
  const std::size_t size = 1 + random_.below(isLong ? 6000 : 200);
  const auto letter = static_cast<char>('a' + random_.below(26));
  std::string bytes(size, letter);
  const auto marker = std::to_string(random_.next());
  bytes.replace(0, std::min(bytes.size(), marker.size()), marker, 0,
                std::min(bytes.size(), marker.size()));
  return bytes;
}

// The application

void FlowScript::begin(const std::shared_ptr<simulation::SimulatedTCPFlow>& flow,
                       const std::shared_ptr<Strand>& strand) {
  keep(flow, strand);
  if (strikes(Fault::slowApplications, 3)) {
    application_->holdWrites();
    if (random_.below(2) == 0) {
      after(std::chrono::milliseconds(random_.below(3000)), &FlowScript::releaseApplication);
    }
  }
  if (strikes(Fault::applicationResets, 6)) {
    after(std::chrono::microseconds(1 + random_.below(random_.below(2) == 0 ? 100 : 6000000)),
          &FlowScript::resetApplication);
  }
  chunksToSend_ = random_.below(4);
  if (chunksToSend_ > 0) {
    after(shortDelay(), &FlowScript::sendFromApplication);
  }
}

void FlowScript::sendFromApplication() {
  if (applicationEnded_ || chunksToSend_ == 0) {
    return;
  }
  application_->send(payload());
  if (--chunksToSend_ > 0) {
    after(shortDelay(), &FlowScript::sendFromApplication);
  } else if (random_.below(2) == 0) {
    after(shortDelay(), &FlowScript::endApplication);
  }
}

void FlowScript::endApplication() {
  if (application_ && !std::exchange(applicationEnded_, true)) {
    application_->endSending();
  }
}

void FlowScript::resetApplication() {
  if (!isWindingUp_) {
    application_->reset();
  }
}

void FlowScript::releaseApplication() {
  application_->releaseWrites();
}

// The proxy

void FlowScript::connect(const std::shared_ptr<SimulatedTCPConnection>& connection) {
  keep(connection);
  if (strikes(Fault::silentConnections, 6)) {
    return;
  }
  if (strikes(Fault::proxyResets, 8)) {
    after(std::chrono::microseconds(1 + random_.below(random_.below(2) == 0 ? 1000 : 6000000)),
          &FlowScript::resetProxy);
  }
  if (random_.below(8) == 0) {
    // The kernel was faster than the system.
    connection->setState(platform::TCPConnectionState::connected);
  } else {
    after(shortDelay(), &FlowScript::accept);
  }
  if (strikes(Fault::earlyAnswers, 8)) {
    answer();
  }
}

void FlowScript::accept() {
  if (const auto connection = connection_.lock()) {
    connection->accept();
  }
}

void FlowScript::receiveRequest() {
  if (answered_ || strikes(Fault::silentProxy, 6)) {
    return;
  }
  if (strikes(Fault::deadlines, 2)) {
    constexpr std::array<std::chrono::nanoseconds, 5> kOffsets = {-1ms, -1ns, 0ns, 1ns, 1ms};
    const auto moment =
        connectedAt_ + HistoryChecker::kHandshakeTimeout + kOffsets[random_.below(kOffsets.size())];
    after(moment - world_.queue().now(), &FlowScript::answer);
    return;
  }
  after(shortDelay(), &FlowScript::answer);
}

void FlowScript::answer() {
  if (proxyEnded_ || std::exchange(answered_, true)) {
    return;
  }
  if (strikes(Fault::proxyEnds, 6)) {
    endProxy();
    return;
  }
  answer_ = answerText();
  sendAnswer();
}

std::string FlowScript::answerText() {
  if (strikes(Fault::proxyStatuses, 3)) {
    return std::string(kRejections[random_.below(kRejections.size())]);
  }
  if (strikes(Fault::proxyGarbage, 3)) {
    const auto drawn = random_.below(kGarbage.size() + 1);
    return drawn == kGarbage.size() ? std::string(kEndlessHeader, 'x')
                                    : std::string(kGarbage[drawn]);
  }
  isSuccess_ = true;
  std::string text(kSuccesses[random_.below(kSuccesses.size())]);
  if (strikes(Fault::leftovers, 2)) {
    text += payload();
  }
  return text;
}

void FlowScript::sendAnswer() {
  if (proxyEnded_) {
    return;
  }
  const bool isWhole = answer_.size() > 1000 || !world_.has(Fault::segmentedAnswers);
  const std::size_t size = isWhole ? answer_.size() : 1 + random_.below(answer_.size());
  proxy_->send(std::string_view(answer_).substr(0, size));
  answer_.erase(0, size);
  if (!answer_.empty()) {
    after(shortDelay(), &FlowScript::sendAnswer);
    return;
  }
  if (!isSuccess_) {
    return;
  }
  chunksFromOrigin_ = random_.below(4);
  if (chunksFromOrigin_ > 0) {
    after(shortDelay(), &FlowScript::sendFromOrigin);
  } else if (strikes(Fault::proxyEnds, 3)) {
    after(shortDelay(), &FlowScript::endProxy);
  }
}

void FlowScript::sendFromOrigin() {
  if (proxyEnded_ || chunksFromOrigin_ == 0) {
    return;
  }
  proxy_->send(payload());
  if (--chunksFromOrigin_ > 0) {
    after(shortDelay(), &FlowScript::sendFromOrigin);
  } else if (random_.below(2) == 0) {
    after(shortDelay(), &FlowScript::endProxy);
  }
}

void FlowScript::endProxy() {
  if (proxy_ && !std::exchange(proxyEnded_, true)) {
    proxy_->endSending();
  }
}

void FlowScript::resetProxy() {
  if (!isWindingUp_) {
    proxy_->reset();
  }
}

void FlowScript::windUp() {
  isWindingUp_ = true;
  if (application_) {
    application_->releaseWrites();
    endApplication();
  }
  if (proxy_ && !proxyEnded_) {
    if (!answer_.empty()) {
      proxy_->send(std::exchange(answer_, {}));
    }
    if (answered_) {
      endProxy();
    }
  }
}

void FlowScript::dropCompletions() {
  if (const auto flow = flow_.lock()) {
    flow->dropCompletions();
  }
  if (strand_) {
    strand_->dropWaiting();
  }
  if (proxy_) {
    proxy_->dropCompletions();
  }
}

}  // namespace ostravel::simulator
