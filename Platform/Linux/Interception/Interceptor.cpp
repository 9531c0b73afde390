#include "Platform/Linux/Interception/Interceptor.h"

#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Interception/FlowAdmission.h"
#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Interception/QueuedPacket.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Kernel/RoutingRules.h"
#include "Platform/Linux/Relay/LinuxTCPFlow.h"
#include "Platform/Linux/Relay/LinuxUDPFlow.h"

namespace ostravel::linuxplatform {

namespace {

using namespace std::chrono_literals;

// Tolerates one late beat.
static_assert(Heartbeat::kInterval * 4 <= InterceptionTable::kAliveTimeout);
// Packets read before the next ping is answered.
constexpr std::size_t kMaximumBurst = 64;
constexpr auto kLongestBurst = 100ms;
// The flows of a busy desktop within the longest lifetime of an entry.
constexpr std::size_t kRememberedFlows = 8192;

std::vector<InterceptionTable::ListenerPorts> listenerPorts(EventLoopGroup& loops) {
  std::vector<InterceptionTable::ListenerPorts> ports;
  for (unsigned index = 0; index < loops.size(); ++index) {
    const FlowListener& listener = loops.loop(index).listener();
    ports.push_back({listener.ipv4Port(), listener.ipv6Port()});
  }
  return ports;
}

}  // namespace

struct Interceptor::Parts {
  std::shared_ptr<platform::Log> log;
  EventLoopGroup& loops;
  DescriptorBudget& descriptors;
  FlowHandler handler;
  std::function<void(const std::string&)> onProxyWatched;
  std::unique_ptr<ApplicationIdentifierSource> identifiers;
  std::shared_ptr<PacketQueue> queue;
  std::shared_ptr<RedirectSupervisor> redirects;
  std::unique_ptr<AliveKeeper> aliveKeeper;
  Heartbeat& heartbeat;
};

platform::Result<std::unique_ptr<Interceptor>> Interceptor::start(
    const platform::TransparentProxyNetworkSettings& settings, std::shared_ptr<platform::Log> log,
    const Environment& environment, FlowHandler handler) {
  EventLoopGroup& loops = environment.loops;
  // The table comes last: nothing may be offered before there is a thread to decide.
  auto identifiers = std::make_unique<ApplicationIdentifierSource>(
      platform::limits::kProxyPort,
      [log](const std::string& warning) { log->error("OstravelProxy: %{public}s", {warning}); },
      ApplicationRegistrations::kDefaultFolder, environment.proxyUsers,
      ConnectTracer::Detail::programs, loops.marks());
  log->info("OstravelProxy: Registrations in force count=%{public}d",
            {static_cast<std::int64_t>(identifiers->registrationCount())});
  auto queue = PacketQueue::open();
  if (!queue) {
    return std::move(queue).error();
  }
  std::shared_ptr<PacketQueue> openQueue = *std::move(queue);
  const auto install = [settings, marks = loops.marks(), number = openQueue->number(),
                        ports = listenerPorts(loops)] {
    return InterceptionTable::install(settings, marks, number, ports);
  };
  auto table = install();
  if (!table) {
    return std::move(table).error();
  }
  for (const std::string& clash : RoutingRules::read().clashesWith(loops.marks())) {
    log->error("OstravelProxy: Packet marks clash: %{public}s", {clash});
  }
  auto redirects = RedirectSupervisor::start(loops, settings, log);
  auto aliveKeeper =
      std::make_unique<AliveKeeper>(*std::move(table), install, log, environment.onAlive);
  return std::unique_ptr<Interceptor>(
      new Interceptor({std::move(log), loops, environment.descriptors, std::move(handler),
                       environment.onProxyWatched, std::move(identifiers), std::move(openQueue),
                       std::move(redirects), std::move(aliveKeeper), environment.heartbeat}));
}

Interceptor::Interceptor(Parts parts)
    : log_(std::move(parts.log)),
      loops_(parts.loops),
      descriptors_(parts.descriptors),
      handler_(std::move(parts.handler)),
      onProxyWatched_(std::move(parts.onProxyWatched)),
      identifiers_(std::move(parts.identifiers)),
      queue_(std::move(parts.queue)),
      recentFlows_(kRememberedFlows),
      heldFlows_(*queue_),
      leftFlows_(log_),
      redirects_(std::move(parts.redirects)),
      aliveKeeper_(std::move(parts.aliveKeeper)),
      membership_(parts.heartbeat.join(
          kVerdictThreadParticipant,
          // The thread answers through the membership.
          [this](const Heartbeat::Answer& /*answer*/) { ping_.signal(); },
          [this] { aliveKeeper_->beat(); })),
      thread_([this] { run(); }) {}

Interceptor::~Interceptor() {
  redirects_->stop();
  // Rules first, so that no new packet enters a queue that is no longer read.
  aliveKeeper_->removeTable();
  stop_.signal();
  thread_.join();
}

void Interceptor::reloadRegistrations() {
  ApplicationRegistrations registrations(
      ApplicationRegistrations::kDefaultFolder,
      [this](const std::string& warning) { log_->error("OstravelProxy: %{public}s", {warning}); });
  if (!registrations.isComplete()) {
    log_->error("OstravelProxy: Registrations not replaced, those that were in force still are");
    return;
  }
  registrations.warnOfUselessPaths();
  const auto count = static_cast<std::int64_t>(registrations.size());
  {
    const std::lock_guard guard(registrationsLock_);
    newRegistrations_ = std::move(registrations);
  }
  registrationsChanged_.signal();
  log_->info("OstravelProxy: Registrations replaced count=%{public}d", {count});
}

void Interceptor::takeRegistrations() {
  registrationsChanged_.consume();
  const std::lock_guard guard(registrationsLock_);
  if (newRegistrations_) {
    identifiers_->replaceRegistrations(*std::exchange(newRegistrations_, std::nullopt));
  }
}

void Interceptor::run() {
  ::pthread_setname_np(::pthread_self(), "verdict");
  while (true) {
    std::array<pollfd, 4> waited{{{stop_.descriptor(), POLLIN, 0},
                                  {registrationsChanged_.descriptor(), POLLIN, 0},
                                  {queue_->descriptor(), POLLIN, 0},
                                  {ping_.descriptor(), POLLIN, 0}}};
    if (::poll(waited.data(), waited.size(), -1) < 0) {
      continue;
    }
    if (waited[0].revents != 0) {
      break;
    }
    // Before the packets, so that every flow that starts after the change sees it.
    if (waited[1].revents != 0) {
      takeRegistrations();
    }
    if (waited[2].revents != 0) {
      receive();
    }
    queue_->retryUnsent();
    if (ping_.consume()) {
      maintainHeldFlows();
      if (const auto news = identifiers_->watchProxy()) {
        log_->info("OstravelProxy: %{public}s", {*news});
      }
      if (onProxyWatched_) {
        onProxyWatched_(identifiers_->servingProxy());
      }
      membership_.answer();
    }
  }
  acceptEverything();
}

void Interceptor::receive() {
  const auto begin = std::chrono::steady_clock::now();
  for (std::size_t count = 0; count < kMaximumBurst; count += PacketQueue::kPacketsPerReceive) {
    // A series of slow searches must not make the thread appear hung.
    if (std::chrono::steady_clock::now() - begin > kLongestBurst) {
      return;
    }
    if (!queue_->receive([this](const PacketQueue::Packet& packet) { decide(packet); })) {
      return;
    }
  }
}

void Interceptor::maintainHeldFlows() {
  const auto now = std::chrono::steady_clock::now();
  if (const auto count = heldFlows_.releaseOld(now); count > 0) {
    log_->error("OstravelProxy: Packets held for too long were let go count=%{public}d",
                {static_cast<std::int64_t>(count)});
  }
  leftFlows_.report(now);
}

void Interceptor::decide(const PacketQueue::Packet& packet) {
  const auto now = std::chrono::steady_clock::now();
  const auto first = parseFirstPacket(packet.bytes);
  if (!first || recentFlows_.contains(*first, now)) {
    queue_->accept(packet.id);
    return;
  }
  const FlowTuple& tuple = first->tuple;
  // Cheap tests first, so that a flood is not identified packet by packet.
  auto share = shares_.of(packet.uid);
  if (const auto reason = reasonToLeave(tuple, packet, *share, now)) {
    leaveToSystem(packet, *first, *reason);
    return;
  }
  auto identification = identifiers_->identify(*first, packet.outputInterface);
  if (const auto reason = reasonToLeave(tuple, identification)) {
    leaveToSystem(packet, *first, *reason);
    return;
  }
  heldFlows_.add({packet.id, tuple.destination, identification.process, share}, now);
  // The proxy's own flows are caused by those of applications.
  if (identification.identifier != ApplicationIdentifierSource::kProxyIdentifier) {
    shares_.noteActivity(*share, now);
  }
  const bool isTCP = tuple.protocol == TransportProtocol::tcp;
  // The proxy decides about TCP flows only; UDP is refused locally.
  auto heldPacket = std::make_unique<QueuedPacket>(queue_, loops_.marks(), packet, share,
                                                   isTCP ? identification.proxy : std::nullopt);
  const auto flow =
      makeFlow(tuple, std::move(identification), std::move(heldPacket), std::move(share));
  const bool isTaken = handler_(flow);
  // A flow that the handler does not take releases its packet when destroyed at the end of this
  // scope. A UDP flow is taken in order to be refused, and so is each further datagram of it. A TCP
  // flow that was not taken must not be offered again.
  if (!isTaken || isTCP) {
    recentFlows_.remember(*first, now);
  }
}

void Interceptor::leaveToSystem(const PacketQueue::Packet& packet, const FirstPacket& first,
                                LeaveReason reason) {
  queue_->accept(packet.id);
  leftFlows_.add(reason, packet.uid);
  // A datagram is not part of a connection, so the next one may be judged differently.
  if (first.tuple.protocol == TransportProtocol::tcp) {
    recentFlows_.remember(first, std::chrono::steady_clock::now());
  }
}

std::optional<LeaveReason> Interceptor::reasonToLeave(const FlowTuple& tuple,
                                                      const PacketQueue::Packet& packet,
                                                      UserShare& share,
                                                      UserShare::Clock::time_point now) const {
  if (descriptors_.nearLimit()) {
    return LeaveReason::descriptors;
  }
  if (!hasListenerFor(tuple.destination.family)) {
    return LeaveReason::noListener;
  }
  if (!loops_.redirectPath().isUsable(tuple.destination.family)) {
    return LeaveReason::redirectPath;
  }
  if (tuple.protocol == TransportProtocol::udp) {
    // Tunnels of the kernel itself, which TCP could not replace.
    if (!packet.uid) {
      return LeaveReason::kernelSocket;
    }
    // Refusing QUIC makes sense only where TCP is proxied.
    if (share.isOnTrial()) {
      return LeaveReason::onTrial;
    }
  } else if (const auto reason = FlowAdmission::reasonAgainst(share, descriptors_, now)) {
    return reason;
  }
  // One user's flood would delay the others; a user that is alone may have everything. A datagram
  // can cost even more than a SYN: finding its socket takes long if many share its port.
  if (share.exceedsRate(now) && shares_.isOtherActive(share, now)) {
    return LeaveReason::offerShare;
  }
  return std::nullopt;
}

std::optional<LeaveReason> Interceptor::reasonToLeave(const FlowTuple& tuple,
                                                      const Identification& identification) const {
  if (identification.leaveReason) {
    return identification.leaveReason;
  }
  // A tunnel's packet may carry the socket of its inner packet, and has no socket itself.
  if (tuple.protocol == TransportProtocol::udp && !identification.user) {
    return LeaveReason::kernelSocket;
  }
  const bool isProxysOwn = identification.mayBelongToProxy &&
                           heldFlows_.isOtherHeldFor(tuple.destination, identification.process);
  if (isProxysOwn || heldFlows_.isLoopLikely(tuple.destination, identification.process)) {
    return LeaveReason::mayBelongToProxy;
  }
  return std::nullopt;
}

std::shared_ptr<platform::AppProxyFlow> Interceptor::makeFlow(const FlowTuple& tuple,
                                                              Identification identification,
                                                              std::unique_ptr<HeldPacket> packet,
                                                              std::shared_ptr<UserShare> share) {
  if (tuple.protocol == TransportProtocol::udp) {
    return std::make_shared<LinuxUDPFlow>(tuple, std::move(identification.identifier),
                                          std::move(packet));
  }
  // Host names of the address belong here once DNS answers are observed.
  platform::HostEndpoint remote{tuple.destination.addressText(),
                                std::to_string(tuple.destination.port)};
  EventLoop& loop = loops_.loop(nextLoop_++ % loops_.size());
  return std::make_shared<LinuxTCPFlow>(loop, tuple, std::move(identification.identifier),
                                        std::move(remote), std::move(packet), std::move(share));
}

bool Interceptor::hasListenerFor(AddressFamily family) const {
  // The same for all loops: the namespace either has the family's loopback address or not.
  const FlowListener& listener = loops_.loop(0).listener();
  return (family == AddressFamily::ipv4 ? listener.ipv4Port() : listener.ipv6Port()) != 0;
}

void Interceptor::acceptEverything() {
  while (queue_->receive([](const PacketQueue::Packet& /*packet*/) {})) {
  }
  queue_->acceptAll();
}

}  // namespace ostravel::linuxplatform
