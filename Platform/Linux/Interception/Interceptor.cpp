#include "Platform/Linux/Interception/Interceptor.h"

#include <fcntl.h>

#include <cerrno>
#include <future>
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
#include "Platform/Linux/Relay/SocketError.h"
#include "Platform/Linux/Tracing/ArrivalFilter.h"

namespace ostravel::linuxplatform {

namespace {

using namespace std::chrono_literals;

// Tolerates one late beat.
static_assert(Heartbeat::kInterval * 4 <= InterceptionTable::kAliveTimeout);
// Limit on the packets that are read before the loop's other work gets its turn: each may take a
// tenth of a millisecond, and a new tunnel needs a few turns.
constexpr std::size_t kMaximumBurst = 16;
// The same as a time, for packets that need slow searches.
constexpr auto kLongestBurst = 10ms;
// The flows of a busy desktop within the longest lifetime of an entry.
constexpr std::size_t kRememberedFlows = 8192;
static_assert(kRememberedFlows <= RecentFlows::kLargestCapacity);

std::vector<InterceptionTable::ListenerPorts> listenerPorts(EventLoopGroup& loops) {
  std::vector<InterceptionTable::ListenerPorts> ports;
  for (unsigned index = 0; index < loops.size(); ++index) {
    const FlowListener& listener = loops.loop(index).listener();
    ports.push_back({listener.ipv4Port(), listener.ipv6Port()});
  }
  return ports;
}

// The loop's sockets are made on its thread.
LoopSocket watchArrivals(EventLoop& loop, const PacketQueue& queue) {
  std::promise<LoopSocket> made;
  loop.post([&loop, &queue, &made] {
    LoopSocket arrivals(loop, ::fcntl(queue.descriptor(), F_DUPFD_CLOEXEC, 0));
    if (arrivals.isOpen()) {
      // New connections before the bytes of others.
      arrivals.goFirst();
    }
    made.set_value(std::move(arrivals));
  });
  return made.get_future().get();
}

// Null if host names are not used, or if the kernel lacks a feature that observing them needs.
std::shared_ptr<HostNameObserver> observeNames(NameUse use,
                                               const ApplicationIdentifierSource& identifiers,
                                               platform::Log& log) {
  if (use == NameUse::off) {
    return nullptr;
  }
  auto observer = HostNameObserver::start(identifiers.forAnotherThread());
  if (!observer) {
    log.error("OstravelProxy: Host names are not observed: %{public}s",
              {observer.error().localizedDescription});
    return nullptr;
  }
  return *std::move(observer);
}

// As long as the identification exists.
FlowRecord::Origin originOf(const FlowTuple& tuple, const Identification& identification,
                            FlowRecord::Clock::time_point begin) {
  return {.isUDP = tuple.protocol == TransportProtocol::udp,
          .application = identification.identifier,
          .destination = tuple.destination,
          .user = identification.user,
          .process = identification.process,
          .begin = begin};
}

}  // namespace

struct Interceptor::Parts {
  std::shared_ptr<platform::Log> log;
  EventLoopGroup& loops;
  DescriptorBudget& descriptors;
  FlowJournal& journal;
  FlowHandler handler;
  ProxyWatcher onProxyWatched;
  ProcessTableSource makeProcesses;
  std::unique_ptr<ApplicationIdentifierSource> identifiers;
  NameUse nameUse;
  std::shared_ptr<HostNameObserver> names;
  std::shared_ptr<PacketQueue> queue;
  std::shared_ptr<const PacketResender> resender;
  std::shared_ptr<RuleInstaller> rules;
  LoopSocket arrivals;
  std::shared_ptr<RedirectSupervisor> redirects;
  std::unique_ptr<AliveKeeper> aliveKeeper;
  Heartbeat& heartbeat;
};

platform::Result<std::unique_ptr<Interceptor>> Interceptor::start(
    const platform::TransparentProxyNetworkSettings& settings, std::shared_ptr<platform::Log> log,
    const Environment& environment, FlowHandler handler) {
  EventLoopGroup& loops = environment.loops;
  // The table is installed last: no packet may be offered before there is a queue.
  auto identifiers = std::make_unique<ApplicationIdentifierSource>(
      platform::limits::kProxyPort,
      [log](const std::string& warning) { log->error("OstravelProxy: %{public}s", {warning}); },
      ApplicationRegistrations::kDefaultFolder, environment.proxyUsers,
      ConnectTracer::Detail::programs, loops.marks(), environment.reservedIdentifiers,
      environment.processes);
  log->info("OstravelProxy: Registrations in force count=%{public}d",
            {static_cast<std::int64_t>(identifiers->registrationCount())});
  auto queue = PacketQueue::open();
  if (!queue) {
    return std::move(queue).error();
  }
  std::shared_ptr<PacketQueue> openQueue = *std::move(queue);
  LoopSocket arrivals = watchArrivals(loops.loop(0), *openQueue);
  if (!arrivals.isOpen()) {
    return socketError(EMFILE);
  }
  const auto rules = std::make_shared<RuleInstaller>(
      RuleInstaller::Plan{.settings = settings,
                          .marks = loops.marks(),
                          .queueNumber = openQueue->number(),
                          .listeners = listenerPorts(loops),
                          .canResend = environment.resender != nullptr,
                          .guardedSocket = environment.guardedSocket},
      log);
  auto table = rules->install();
  if (!table) {
    return std::move(table).error();
  }
  for (const std::string& clash : RoutingRules::read().clashesWith(loops.marks())) {
    log->error("OstravelProxy: Packet marks clash: %{public}s", {clash});
  }
  auto redirects = RedirectSupervisor::start(loops, settings, log);
  auto names = observeNames(environment.names, *identifiers, *log);
  auto aliveKeeper = std::make_unique<AliveKeeper>(
      *std::move(table),
      AliveKeeper::Options{
          .install = [rules] { return rules->install(); },
          .log = log,
          .onRefreshed = environment.onAlive,
          .adjust = [rules](InterceptionTable& installed) { return rules->adjust(installed); }});
  return std::unique_ptr<Interceptor>(new Interceptor(
      {std::move(log), loops, environment.descriptors, environment.journal, std::move(handler),
       environment.onProxyWatched, environment.processes, std::move(identifiers), environment.names,
       std::move(names), std::move(openQueue), environment.resender, rules, std::move(arrivals),
       std::move(redirects), std::move(aliveKeeper), environment.heartbeat}));
}

Interceptor::Interceptor(Parts parts)
    : log_(std::move(parts.log)),
      loops_(parts.loops),
      loop_(loops_.loop(0)),
      descriptors_(parts.descriptors),
      journal_(parts.journal),
      handler_(std::move(parts.handler)),
      onProxyWatched_(std::move(parts.onProxyWatched)),
      makeProcesses_(std::move(parts.makeProcesses)),
      identifiers_(std::move(parts.identifiers)),
      nameUse_(parts.nameUse),
      names_(std::move(parts.names)),
      queue_(std::move(parts.queue)),
      resender_(std::move(parts.resender)),
      rules_(std::move(parts.rules)),
      arrivals_(std::move(parts.arrivals)),
      recentFlows_(kRememberedFlows),
      countedDatagrams_(kRememberedFlows),
      heldFlows_(*queue_),
      leftFlows_(log_),
      redirects_(std::move(parts.redirects)),
      aliveKeeper_(std::move(parts.aliveKeeper)) {
  loops_.setPresetsSockets(identifiers_->presetsOwnSockets());
  // Without the filter a connection is reset now and then, which is not worth a message: the
  // reason, a missing permission or an old kernel, is reported for the tracing of connects.
  if (const auto filter = ArrivalFilter::load()) {
    loops_.setListenerFilter(filter->descriptor());
  }
  loop_.post([this] { waitForPackets(); });
  membership_.emplace(parts.heartbeat.join(
      eventLoopParticipant(loop_.index()),
      [this](Heartbeat::Answer answer) {
        loop_.post([this, answer = std::move(answer)] {
          maintain();
          if (canQueueBeUsed()) {
            answer();
          }
        });
      },
      [this] { aliveKeeper_->beat(); }));
}

Interceptor::~Interceptor() {
  loops_.setPresetsSockets(false);
  redirects_->stop();
  // Rules first, so that no new packet enters a queue that is no longer read.
  aliveKeeper_->removeTable();
  // Nothing is posted to the loop after this, and what was posted before runs first.
  membership_.reset();
  std::promise<void> stopped;
  loop_.post([this, &stopped] {
    stopReceiving();
    stopped.set_value();
  });
  stopped.get_future().wait();
}

bool Interceptor::reloadRegistrations() {
  ApplicationRegistrations registrations(
      ApplicationRegistrations::kDefaultFolder,
      [this](const std::string& warning) { log_->error("OstravelProxy: %{public}s", {warning}); });
  if (!registrations.isComplete()) {
    log_->error("OstravelProxy: Registrations not replaced, those that were in force still are");
    return false;
  }
  registrations.warnOfUselessPaths(*makeProcesses_());
  const auto count = static_cast<std::int64_t>(registrations.size());
  if (names_) {
    names_->replaceRegistrations(registrations);
  }
  std::promise<void> replaced;
  loop_.post([this, &registrations, &replaced] {
    identifiers_->replaceRegistrations(std::move(registrations));
    replaced.set_value();
  });
  replaced.get_future().wait();
  log_->info("OstravelProxy: Registrations replaced count=%{public}d", {count});
  return true;
}

std::future<Interceptor::Inspection> Interceptor::inspect(std::optional<pid_t> process,
                                                          std::optional<std::string> executable) {
  const auto promised = std::make_shared<std::promise<Inspection>>();
  auto result = promised->get_future();
  // Everything that was posted runs before the end of the interception.
  loop_.post([this, promised, process, executable = std::move(executable)] {
    Inspection inspection{.queue = queue_->number(),
                          .held = queue_->heldCount(),
                          .registrations = identifiers_->registrationCount(),
                          .processes = identifiers_->knownProcessCount()};
    if (names_) {
      inspection.names = names_->nameCount();
    }
    if (process) {
      inspection.application = identifiers_->describe(*process);
    } else if (executable) {
      inspection.application = identifiers_->describe(*executable);
    }
    promised->set_value(std::move(inspection));
  });
  return result;
}

void Interceptor::waitForPackets() {
  arrivals_.waitUntilReadable([this] { receive(); });
}

void Interceptor::receive() {
  using Received = PacketQueue::Received;
  const auto begin = std::chrono::steady_clock::now();
  auto received = Received::some;
  for (std::size_t count = 0; received == Received::some && count < kMaximumBurst;
       count += PacketQueue::kPacketsPerReceive) {
    if (std::chrono::steady_clock::now() - begin > kLongestBurst) {
      break;
    }
    areNamesRead_ = false;
    received = queue_->receive([this](const PacketQueue::Packet& packet) { decide(packet); });
  }
  queue_->retryUnsent();
  // After a failure maintain() tries again. Packets may still be waiting, so that waiting for more
  // would return at once.
  isReceivingPaused_ = received == Received::failed;
  if (isReceivingPaused_) {
    return;
  }
  if (received == Received::all) {
    arrivals_.nothingToRead();
  }
  waitForPackets();
}

// Only a verdict or the end of the process releases held packets, so a failed queue must end the
// process: this loop stops its heartbeat, and the guardian kills the process.
bool Interceptor::canQueueBeUsed() {
  const auto failure = queue_->failure();
  if (failure && !hasQueueFailed_) {
    log_->error("OstravelProxy: The queue of packets fails: %{public}s",
                {failure->localizedDescription});
  }
  hasQueueFailed_ = failure.has_value();
  return !hasQueueFailed_;
}

void Interceptor::maintain() {
  const auto now = std::chrono::steady_clock::now();
  if (const auto count = heldFlows_.releaseOld(now); count > 0) {
    log_->error("OstravelProxy: Packets held for too long were let go count=%{public}d",
                {static_cast<std::int64_t>(count)});
  }
  queue_->retryUnsent();
  if (isReceivingPaused_) {
    receive();
  }
  leftFlows_.report(now);
  journal_.maintain();
  if (const auto news = identifiers_->watchProxy()) {
    log_->info("OstravelProxy: %{public}s", {*news});
  }
  if (onProxyWatched_) {
    onProxyWatched_(identifiers_->servingProxy(), identifiers_->proxyReason());
  }
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
    leaveToSystem(packet, *first, *reason, now, std::nullopt);
    return;
  }
  auto identification = identifiers_->identify(*first, packet.outputInterface);
  if (const auto reason = reasonToLeave(tuple, identification)) {
    leaveToSystem(packet, *first, *reason, now, std::move(identification));
    return;
  }
  // Flows of the proxy itself do not count: applications cause them.
  if (identification.identifier != ApplicationIdentifierSource::kProxyIdentifier) {
    shares_.noteActivity(*share, now);
  }
  const bool isTCP = tuple.protocol == TransportProtocol::tcp;
  // The proxy decides about TCP flows only; UDP is refused locally.
  auto heldPacket = std::make_unique<QueuedPacket>(
      queue_, loops_.marks(), packet, share, isTCP ? identification.proxy : std::nullopt,
      isTCP && rules_->mustResend() ? resender_ : nullptr);
  EventLoop& loop = isTCP ? loops_.loop(nextLoop_++ % loops_.size()) : loop_;
  auto record = journal_.open(originOf(tuple, identification, now), loop.index());
  const auto user = identification.user;
  const auto process = identification.process;
  auto flow =
      makeFlow(tuple, std::move(identification), std::move(heldPacket), share, record, loop);
  const bool isTaken = handler_(flow);
  if (isTCP) {
    journal_.publish(std::move(record));
  } else if (countedDatagrams_.isNew(tuple, record->reason(), now)) {
    record->named(hostOf(user, flow->sourceAppSigningIdentifier(), tuple.destination));
    journal_.publish(std::move(record));
  }
  if (isTaken) {
    heldFlows_.add({packet.id, tuple.destination, process, std::move(share)}, now);
  }
  // A flow that the handler does not take releases its packet when it is destroyed: after its
  // record was published, so that the record exists when connect() returns, but before the rest.
  flow.reset();
  // A UDP flow is taken in order to be refused, and so is each further datagram of it. A TCP flow
  // that was not taken must not be offered again.
  if (!isTaken || isTCP) {
    recentFlows_.remember(*first, now);
  }
}

void Interceptor::leaveToSystem(const PacketQueue::Packet& packet, const FirstPacket& first,
                                LeaveReason reason, FlowRecord::Clock::time_point begin,
                                std::optional<Identification> sender) {
  queue_->accept(packet.id);
  // A datagram is not part of a connection, so the next one may be judged differently.
  if (first.tuple.protocol == TransportProtocol::tcp) {
    recentFlows_.remember(first, std::chrono::steady_clock::now());
  } else if (!countedDatagrams_.isNew(first.tuple, linuxplatform::nameOf(reason), begin)) {
    return;
  }
  leftFlows_.add(reason, packet.uid);
  if (!journal_.countLeft(linuxplatform::nameOf(reason), begin)) {
    return;
  }
  // Few enough for all to be identified, although the flow no longer waits: people want to know
  // which applications an outage of the proxy affects.
  const bool isForProxy = reason == LeaveReason::onTrial || reason == LeaveReason::handshakeShare;
  if (!sender && isForProxy) {
    sender = identifiers_->identify(first, packet.outputInterface);
  }
  if (!sender || sender->leaveReason) {
    sender = Identification();
  }
  if (!sender->user) {
    sender->user = packet.uid;
  }
  journal_.publishLeft(originOf(first.tuple, *sender, begin), linuxplatform::nameOf(reason),
                       hostOf(sender->user, sender->identifier, first.tuple.destination));
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
    // Tunnels of the kernel, which cannot fall back to TCP.
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
  // One user's flood would delay the others; without other active users there is no limit. A
  // datagram can cost even more than a SYN: finding its socket is slow if many sockets share its
  // port.
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
  // A packet of a kernel tunnel may carry the user of its inner packet's socket, but has no socket
  // itself.
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

std::shared_ptr<platform::AppProxyFlow> Interceptor::makeFlow(
    const FlowTuple& tuple, Identification identification, std::unique_ptr<HeldPacket> packet,
    Reference<UserShare> share, Reference<FlowRecord> record, EventLoop& loop) {
  if (tuple.protocol == TransportProtocol::udp) {
    return std::make_shared<LinuxUDPFlow>(tuple, std::move(identification.identifier),
                                          std::move(packet), std::move(record));
  }
  auto name = nameOf(identification, tuple.destination);
  if (name) {
    record->named(name->host);
  }
  return std::make_shared<LinuxTCPFlow>(loop, tuple.source, std::move(record), std::move(packet),
                                        std::move(share), std::move(name));
}

std::optional<FlowName> Interceptor::nameOf(const Identification& sender,
                                            const SocketEndpoint& destination) {
  if (!names_) {
    return std::nullopt;
  }
  areNamesRead_ = areNamesRead_ || names_->catchUp();
  const auto found = names_->find(sender.user, sender.identifier, destination);
  if (!found) {
    return std::nullopt;
  }
  return FlowName{
      found->name, nameUse_ == NameUse::connect && found->isResolvable,
      [names = std::weak_ptr(names_), log = log_, name = *found] {
        log->info("OstravelProxy: The proxy cannot resolve a name, asking for its address");
        if (const auto observer = names.lock()) {
          observer->setUnresolvable(name);
        }
      }};
}

std::string Interceptor::hostOf(std::optional<uid_t> user, std::string_view application,
                                const SocketEndpoint& destination) const {
  const auto found = names_ ? names_->find(user, application, destination) : std::nullopt;
  return found ? found->name : std::string();
}

bool Interceptor::hasListenerFor(AddressFamily family) const {
  // The same for all loops: the namespace either has the family's loopback address or not.
  const FlowListener& listener = loops_.loop(0).listener();
  return (family == AddressFamily::ipv4 ? listener.ipv4Port() : listener.ipv6Port()) != 0;
}

void Interceptor::stopReceiving() {
  arrivals_ = LoopSocket();
  while (queue_->receive([](const PacketQueue::Packet& /*packet*/) {}) ==
         PacketQueue::Received::some) {
  }
  queue_->acceptAll();
}

}  // namespace ostravel::linuxplatform
