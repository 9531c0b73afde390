#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"

#include <algorithm>
#include <utility>

#include "Platform/Linux/Identity/PrintableIdentifier.h"

namespace ostravel::linuxplatform {

namespace {

// A packet is queued for the second time right after its first verdict, after those that arrived in
// the meantime.
constexpr std::size_t kMaximumBoundFlows = 64;

// Between two searches for the listener's owner while nothing is sent.
constexpr std::chrono::milliseconds kShortestWatchPause{250};
constexpr std::chrono::milliseconds kLongestWatchPause{10'000};

}  // namespace

ApplicationIdentifierSource::ApplicationIdentifierSource(std::uint16_t proxyPort, Warn warn,
                                                         const std::string& registrationsFolder,
                                                         const std::vector<uid_t>& proxyUsers,
                                                         ConnectTracer::Detail traced,
                                                         std::optional<PacketMarks> marks,
                                                         std::vector<std::string> reserved,
                                                         ProcessTableSource processes)
    : warn_(std::move(warn)),
      reserved_(std::move(reserved)),
      makeProcesses_(std::move(processes)),
      processes_(makeProcesses_()),
      registrations_(registrationsFolder, warn_),
      names_(makeNames()) {
  registrations_.warnOfUselessPaths(*processes_);
  auto diagnostics = SocketDiagnostics::open();
  if (!diagnostics) {
    warn_(diagnostics.error().localizedDescription + "; every flow is left to the system");
    return;
  }
  auto othersDiagnostics = SocketDiagnostics::open();
  if (!othersDiagnostics) {
    warn_(othersDiagnostics.error().localizedDescription + "; every flow is left to the system");
    return;
  }
  diagnostics_ = *std::move(diagnostics);
  startTracing(proxyPort, traced, marks);
  proxyPort_ = std::make_shared<ProxyInstance::Port>(
      *std::move(othersDiagnostics), ProxyProcess::addressOf(proxyPort), publisher_);
  proxy_.emplace(*diagnostics_, *processes_, proxyPort, warn_,
                 publisher_ ? std::optional(publisher_->listener()) : std::nullopt);
  trust_.emplace(*proxy_, proxyPort, proxyUsers, warn_, makeProcesses_);
}

ApplicationIdentifierSource::ApplicationIdentifierSource(std::shared_ptr<ConnectTracer> tracer,
                                                         ApplicationRegistrations registrations,
                                                         std::vector<std::string> reserved,
                                                         std::shared_ptr<const ScriptNames> scripts,
                                                         ProcessTableSource processes)
    : reserved_(std::move(reserved)),
      tracer_(std::move(tracer)),
      makeProcesses_(std::move(processes)),
      processes_(makeProcesses_()),
      registrations_(std::move(registrations)),
      names_(makeNames()),
      scripts_(std::move(scripts)) {
  if (auto diagnostics = SocketDiagnostics::open()) {
    diagnostics_ = *std::move(diagnostics);
  }
}

ApplicationIdentifierSource::~ApplicationIdentifierSource() = default;

std::unique_ptr<ApplicationIdentifierSource> ApplicationIdentifierSource::forAnotherThread() const {
  return std::unique_ptr<ApplicationIdentifierSource>(new ApplicationIdentifierSource(
      tracer_, registrations_, reserved_, scripts_, makeProcesses_));
}

std::string ApplicationIdentifierSource::applicationOf(const FlowTuple& sent,
                                                       std::uint32_t outputInterface) {
  if (!diagnostics_) {
    return {};
  }
  const Sender sender = lookUpSender(sent, outputInterface);
  if (sender.process == nullptr) {
    return {};
  }
  noteGroup(*sender.process, sender.group);
  return identifierOf(*sender.process, *sender.user);
}

void ApplicationIdentifierSource::startTracing(std::uint16_t proxyPort,
                                               ConnectTracer::Detail wanted,
                                               std::optional<PacketMarks> marks) {
  auto tracer = ConnectTracer::start(wanted);
  if (!tracer) {
    warn_("connects cannot be traced (" + tracer.error().localizedDescription +
          "); processes are looked up in /proc instead");
    return;
  }
  tracer_ = *std::move(tracer);
  if (tracer_->detail() == ConnectTracer::Detail::programs) {
    if (auto scripts = ScriptTracer::start()) {
      scripts_ = std::make_shared<const ScriptNames>(*std::move(scripts));
    }
  }
  if (auto publisher = ConnectPublisher::start(*tracer_, proxyPort, marks)) {
    publisher_ = *std::move(publisher);
  }
}

Identification ApplicationIdentifierSource::identify(const FirstPacket& first,
                                                     std::uint32_t outputInterface) {
  Identification result;
  const auto leave = [&result](LeaveReason reason) {
    result.leaveReason = reason;
    return result;
  };
  if (!diagnostics_) {
    return leave(LeaveReason::diagnosticsFailed);
  }
  Sender sender = publishedSender(first);
  if (sender.process == nullptr) {
    sender = lookUpSender(first.tuple, outputInterface);
  }
  result.user = sender.user;
  if (sender.leaveReason) {
    return leave(*sender.leaveReason);
  }
  if (sender.process != nullptr) {
    result.process = sender.process->process.pid;
  }
  const auto proxyState = proxy_->refresh(result.process);
  if (proxyState == ProxyProcess::State::absent) {
    result.proxy.emplace(proxyPort_);
  }
  if (proxyState == ProxyProcess::State::unknown) {
    return leave(LeaveReason::proxyUnknown);
  }
  if (proxyState == ProxyProcess::State::known) {
    if (!trust_->holdsFor(result.user)) {
      return leave(LeaveReason::proxyNotTrusted);
    }
    const auto isOfProxy =
        sender.process != nullptr ? isProxy(*sender.process) : std::optional(false);
    if (!isOfProxy) {
      return leave(LeaveReason::proxyUnknown);
    }
    if (*isOfProxy) {
      markFurtherSockets(*sender.process, sender.cookie);
      result.identifier = kProxyIdentifier;
      return result;
    }
    const bool isKnown = sender.process != nullptr && sender.process->process.executableFile;
    if (!isKnown && mayBelongToProxy(sender)) {
      return leave(LeaveReason::proxyUnknown);
    }
    result.proxy.emplace(proxy_->ownerLife(), proxy_->listenerCookie(), proxyPort_);
    result.mayBelongToProxy = mayDialForProxy(sender.process);
  }
  if (sender.process != nullptr) {
    noteGroup(*sender.process, sender.group);
    result.identifier = identifierOf(*sender.process, *sender.user);
  }
  return result;
}

ApplicationIdentifierSource::Sender ApplicationIdentifierSource::publishedSender(
    const FirstPacket& first) {
  const auto connect =
      publisher_ ? publisher_->table().find(first.tuple, first.initialSequence) : std::nullopt;
  // Packets of a bound socket may be queued twice, so isBound() has to see them.
  if (!connect || connect->boundInterface != 0) {
    return {};
  }
  return {.process = tracedSender(connect->record, connect->place),
          .user = connect->socketUser,
          .cookie = connect->cookie,
          .group = connect->cgroup};
}

ApplicationIdentifierSource::Sender ApplicationIdentifierSource::lookUpSender(
    const FlowTuple& flow, std::uint32_t outputInterface) {
  const auto answer = diagnostics_->find(flow, outputInterface);
  if (!answer) {
    return {.leaveReason = LeaveReason::diagnosticsFailed};
  }
  const auto& socket = *answer;
  Sender sender;
  const bool mustBeLeft = isBound(flow, socket);
  if (socket && !mustBeLeft) {
    sender = senderOf(*socket);
  }
  if (socket) {
    sender.user = socket->uid;
    sender.cookie = socket->cookie;
    sender.group = socket->cgroup;
    sender.hasNoHolder = socket->inode == 0;
  }
  if (mustBeLeft) {
    sender.leaveReason = LeaveReason::notCarried;
  }
  return sender;
}

bool ApplicationIdentifierSource::isBound(const FlowTuple& flow,
                                          const std::optional<SocketInformation>& socket) {
  if (!socket) {
    // Each packet of a socket that is bound to a VRF is queued twice: first for the interface of
    // the VRF, then for the outgoing one, which does not lead to the socket.
    return std::find(boundFlows_.begin(), boundFlows_.end(), flow) != boundFlows_.end();
  }
  if (socket->boundInterface == 0) {
    return false;
  }
  boundFlows_.push_back(flow);
  if (boundFlows_.size() > kMaximumBoundFlows) {
    boundFlows_.pop_front();
  }
  return true;
}

std::optional<std::string> ApplicationIdentifierSource::watchProxy() {
  const auto now = std::chrono::steady_clock::now();
  if (!proxy_ || now < nextWatch_) {
    return std::nullopt;
  }
  const auto state = proxy_->recheck();
  // Grows, so that an owner that cannot be found is not searched for continuously while nothing is
  // sent.
  watchPause_ = state == ProxyProcess::State::unknown
                    ? std::clamp(2 * watchPause_, kShortestWatchPause, kLongestWatchPause)
                    : std::chrono::milliseconds::zero();
  nextWatch_ = now + watchPause_;
  const bool isServing = state == ProxyProcess::State::known && trust_->holdsFor(std::nullopt);
  switch (state) {
    case ProxyProcess::State::absent:
      proxyReason_ = "nothing listens on port " + std::to_string(proxy_->port());
      break;
    case ProxyProcess::State::unknown:
      proxyReason_ = "the process that listens on port " + std::to_string(proxy_->port()) +
                     " has not been found";
      break;
    case ProxyProcess::State::known:
      proxyReason_ = trust_->reason();
      break;
  }
  servingProxy_ = isServing ? trust_->description() : std::string();
  return isServing ? trust_->takeNews() : std::nullopt;
}

std::optional<ApplicationDescription> ApplicationIdentifierSource::describe(pid_t process) {
  KnownProcess* const known = holder(process);
  if (known == nullptr) {
    return std::nullopt;
  }
  if (proxy_ && proxy_->listenerCookie() != 0 && isProxy(*known).value_or(false)) {
    return ApplicationDescription{std::string(kProxyIdentifier), "proxy"};
  }
  const uid_t user = known->process.stamp.uid;
  const std::string identifier = identifierOf(*known, user);
  const bool isRegistered =
      registrations_.identifierOf(known->process.executable, {user, known->process.stamp.realUser})
          .has_value();
  std::string_view source = isRegistered ? "registration" : "name";
  if (identifier.empty()) {
    source = "nothing";
  } else if (identifier.starts_with('/')) {
    source = "path";
  }
  return ApplicationDescription{identifier, source};
}

ApplicationDescription ApplicationIdentifierSource::describe(const std::string& executable) const {
  if (auto registered = registrations_.identifierOf(executable, {0})) {
    return {printableIdentifier(*registered), "registration"};
  }
  return {printableIdentifier(executable), "path"};
}

void ApplicationIdentifierSource::replaceRegistrations(ApplicationRegistrations registrations) {
  registrations_ = std::move(registrations);
  names_ = makeNames();
  known_.forgetIdentifiers();
}

ApplicationNames ApplicationIdentifierSource::makeNames() const {
  std::vector<std::string> names = registrations_.identifiers();
  names.insert(names.end(), reserved_.begin(), reserved_.end());
  names.emplace_back(kProxyIdentifier);
  return ApplicationNames(names, systemUsers_);
}

void ApplicationIdentifierSource::noteGroup(KnownProcess& sender, std::uint64_t group) const {
  if (group == 0 || sender.socketGroup == group) {
    return;
  }
  // The group of a process that has just been examined is up to date.
  const bool isNew = std::exchange(sender.socketGroup, group) == 0;
  if (!isNew && processes_->refreshControlGroup(sender.process)) {
    sender.identifier.reset();
  }
}

ApplicationIdentifierSource::Sender ApplicationIdentifierSource::senderOf(
    const SocketInformation& socket) {
  const auto record = tracer_ ? tracer_->recordOf(socket.cookie) : std::nullopt;
  if (record && tracer_->detail() == ConnectTracer::Detail::programs) {
    return {.process = tracedSender(*record, 0)};
  }
  if (socket.inode == 0) {
    return {};
  }
  // The socket was connected before the tracer started, or there is no tracer with enough detail.
  if (!processes_->allowance().permits(socket.uid)) {
    return {.leaveReason = LeaveReason::searchBudget};
  }
  const auto connector = record ? std::optional(record->process) : std::nullopt;
  const auto found = processes_->holderOf(socket.inode, socket.uid, connector);
  // Another process has received the socket from the one that connected it.
  if (!found || (connector && found != connector)) {
    return {};
  }
  return {.process = holder(*found)};
}

KnownProcess* ApplicationIdentifierSource::tracedSender(const ConnectRecord& record,
                                                        std::uint64_t place) {
  const ProcessStamp stamp{.startTime = record.startTime,
                           .stackStart = record.stackStart,
                           .uid = record.user,
                           .realUser = record.realUser};
  KnownProcess* const known = known_.find(record.process);
  if (known != nullptr && known->process.stamp == stamp &&
      known->process.executableFile == record.executable) {
    refresh(*known, record.executable, place);
    return known;
  }
  auto process = processes_->find(record.process, record.executable);
  if (!process || process->stamp.startTime != stamp.startTime ||
      process->stamp.stackStart != stamp.stackStart) {
    return nullptr;
  }
  // Its users may have changed in the meantime.
  process->stamp = stamp;
  KnownProcess& inserted = known_.insert(std::move(*process));
  // Otherwise it is examined again at once.
  inserted.place = processes_->isAnswering() ? place : 0;
  return &inserted;
}

KnownProcess* ApplicationIdentifierSource::holder(pid_t pid) {
  KnownProcess* const known = known_.find(pid);
  if (known != nullptr && processes_->stampOf(pid) == known->process.stamp) {
    refresh(*known, std::nullopt, 0);
    return known;
  }
  auto process = processes_->find(pid);
  return process ? &known_.insert(std::move(*process)) : nullptr;
}

void ApplicationIdentifierSource::refresh(KnownProcess& known,
                                          std::optional<FileIdentity> executable,
                                          std::uint64_t place) {
  // The place was noted before the last examination.
  if (place != 0 && place == known.place && known.process.isExecutableSettled) {
    return;
  }
  known.place = place;
  if (processes_->refreshExecutable(known.process, executable)) {
    known.identifier.reset();
    known.comparedListener = 0;
  }
}

std::optional<bool> ApplicationIdentifierSource::isProxy(KnownProcess& sender) const {
  if (sender.comparedListener != proxy_->listenerCookie()) {
    const auto isIncluded = proxy_->includes(sender.process);
    if (!isIncluded) {
      return std::nullopt;
    }
    sender.comparedListener = proxy_->listenerCookie();
    sender.isProxy = *isIncluded;
  }
  return sender.isProxy;
}

void ApplicationIdentifierSource::markFurtherSockets(KnownProcess& sender,
                                                     std::uint64_t cookie) const {
  const auto changes = proxy_->settledChanges();
  const Process& process = sender.process;
  if (!publisher_ || !changes || sender.marked == changes || !process.executableFile) {
    return;
  }
  // Set even if marking fails: it is not repeated before the listener changes.
  sender.marked = changes;
  publisher_->marker().mark(cookie,
                            {.process = process.pid,
                             .realUser = process.stamp.realUser,
                             .user = process.stamp.uid,
                             .startTime = process.stamp.startTime,
                             .stackStart = process.stamp.stackStart,
                             .executable = *process.executableFile},
                            *changes);
}

bool ApplicationIdentifierSource::mayDialForProxy(const KnownProcess* sender) const {
  return !trust_->knowsDialler() &&
         (sender == nullptr || trust_->mayDial(sender->process.stamp.uid));
}

bool ApplicationIdentifierSource::mayBelongToProxy(const Sender& sender) const {
  // Once no process holds a socket, some kernels do not report its user either.
  return sender.user && (sender.hasNoHolder || proxy_->mayRunAs(*sender.user));
}

std::string ApplicationIdentifierSource::identifierOf(KnownProcess& sender,
                                                      uid_t socketUser) const {
  if (sender.identifier && sender.identifiedUser == socketUser) {
    return *sender.identifier;
  }
  std::string identifier = findIdentifier(sender.process, socketUser);
  // Otherwise it may lack the name of its script, for example.
  if (processes_->isAnswering()) {
    sender.identifier = identifier;
    sender.identifiedUser = socketUser;
  }
  return identifier;
}

std::string ApplicationIdentifierSource::findIdentifier(const Process& process,
                                                        uid_t socketUser) const {
  if (process.isExecutableGenuine) {
    const auto registered = registrations_.identifierOf(
        process.executable, {socketUser, process.stamp.uid, process.stamp.realUser});
    if (registered) {
      return printableIdentifier(*registered);
    }
  }
  if (const auto name = names_.nameOf(process, socketUser, *processes_)) {
    return printableIdentifier(*name);
  }
  if (const auto script = scripts_ ? scripts_->nameOf(process, *processes_) : std::nullopt) {
    return printableIdentifier(*script);
  }
  return process.isExecutableGenuine ? printableIdentifier(process.executable) : std::string();
}

}  // namespace ostravel::linuxplatform
