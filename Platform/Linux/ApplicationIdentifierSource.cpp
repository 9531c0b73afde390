#include "Platform/Linux/ApplicationIdentifierSource.h"

#include <algorithm>
#include <utility>
#include <variant>

namespace ostravel::linuxplatform {

using platform::Error;

namespace {

// More processes than send anything between two moments at which nobody minds finding all of them
// again.
constexpr std::size_t kMaximumKnownProcesses = 4096;
// A packet is queued for the second time right after its first verdict, behind those that came in
// meanwhile.
constexpr std::size_t kMaximumBoundFlows = 64;

// Between two looks for the owner of a listener, while nothing is sent.
constexpr std::chrono::milliseconds kShortestWatchPause{250};
constexpr std::chrono::milliseconds kLongestWatchPause{10'000};

// Text that does not begin like this could be an identifier that the core exempts.
std::optional<std::string> executablePath(const Process& process) {
  if (!process.executable.starts_with('/')) {
    return std::nullopt;
  }
  return process.executable;
}

}  // namespace

ApplicationIdentifierSource::ApplicationIdentifierSource(std::uint16_t proxyPort, Warn warn,
                                                         const std::string& registrationsFolder,
                                                         const std::vector<uid_t>& proxyUsers)
    : warn_(std::move(warn)),
      registrations_(registrationsFolder, warn_),
      sources_{
          [this](const Process& process) -> std::optional<std::string> {
            if (!process.isExecutableGenuine) {
              return std::nullopt;
            }
            return registrations_.identifierOf(process.executable);
          },
          // Other ways to name an application belong here. What they return may be chosen by the
          // application, so it must not be able to equal an identifier that the core exempts.
          &executablePath,
      } {
  auto diagnostics = SocketDiagnostics::open();
  if (const auto* error = std::get_if<Error>(&diagnostics)) {
    warn_(error->localizedDescription + "; every flow is left to the system");
    return;
  }
  diagnostics_ = std::get<std::unique_ptr<SocketDiagnostics>>(std::move(diagnostics));
  proxy_.emplace(*diagnostics_, processes_, proxyPort, warn_);
  trust_.emplace(*proxy_, proxyPort, proxyUsers, warn_);
  auto tracer = ConnectTracer::start();
  if (const auto* reason = std::get_if<std::string>(&tracer)) {
    warn_("connects cannot be traced (" + *reason + "); processes are looked up in /proc instead");
    return;
  }
  tracer_ = std::get<std::unique_ptr<ConnectTracer>>(std::move(tracer));
}

ApplicationIdentifierSource::~ApplicationIdentifierSource() = default;

Identification ApplicationIdentifierSource::identify(const FlowTuple& flow,
                                                     std::uint32_t outputInterface) {
  Identification result;
  const auto leave = [&result](LeaveReason reason) {
    result.leaveToSystem = true;
    result.leaveReason = reason;
    return result;
  };
  if (!diagnostics_) {
    return leave(LeaveReason::diagnosticsFailed);
  }
  const auto answer = diagnostics_->find(flow, outputInterface);
  if (answer.hasFailed) {
    return leave(LeaveReason::diagnosticsFailed);
  }
  if (answer.socket) {
    result.user = answer.socket->uid;
  }
  if (isBound(flow, answer)) {
    return leave(LeaveReason::notCarried);
  }
  KnownProcess* const sender = answer.socket ? senderOf(*answer.socket) : nullptr;
  if (sender != nullptr) {
    result.process = sender->process.pid;
  }
  const auto proxyState = proxy_->refresh(result.process);
  if (proxyState == ProxyProcess::State::unknown) {
    return leave(LeaveReason::proxyUnknown);
  }
  if (proxyState == ProxyProcess::State::known) {
    if (!trust_->holdsFor(result.user)) {
      return leave(LeaveReason::proxyNotTrusted);
    }
    if (sender != nullptr && isProxy(*sender)) {
      result.identifier = kProxyIdentifier;
      return result;
    }
    if (sender == nullptr && answer.socket && mayBeProxys(*answer.socket)) {
      return leave(LeaveReason::proxyUnknown);
    }
    result.mayBelongToProxy = mayDialForProxy(sender);
  }
  if (sender == nullptr) {
    return result;
  }
  if (!sender->identifier) {
    sender->identifier = identifierOf(sender->process);
  }
  result.identifier = *sender->identifier;
  return result;
}

bool ApplicationIdentifierSource::isBound(const FlowTuple& flow,
                                          const SocketDiagnostics::Answer& answer) {
  if (!answer.socket) {
    // Of a socket that is bound to a VRF each packet is queued twice, first for the interface of
    // the VRF and then for the one that it leaves through, which does not lead to the socket.
    return std::find(boundFlows_.begin(), boundFlows_.end(), flow) != boundFlows_.end();
  }
  if (answer.socket->boundInterface == 0) {
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
  const auto state = proxy_->refresh(std::nullopt);
  // An owner that is not found must not be searched for all the time while nothing is sent.
  watchPause_ = state == ProxyProcess::State::unknown
                    ? std::clamp(2 * watchPause_, kShortestWatchPause, kLongestWatchPause)
                    : std::chrono::milliseconds::zero();
  nextWatch_ = now + watchPause_;
  if (state != ProxyProcess::State::known || !trust_->holdsFor(std::nullopt)) {
    return std::nullopt;
  }
  return trust_->takeNews();
}

void ApplicationIdentifierSource::replaceRegistrations(ApplicationRegistrations registrations) {
  registrations_ = std::move(registrations);
  for (auto& [pid, known] : known_) {
    known.identifier.reset();
  }
}

ApplicationIdentifierSource::KnownProcess* ApplicationIdentifierSource::senderOf(
    const SocketInformation& socket) {
  if (tracer_) {
    if (const auto pid = tracer_->processOf(socket.cookie)) {
      if (KnownProcess* const sender = knownProcess(*pid)) {
        return sender;
      }
    }
  }
  // Connected before the tracer started, or handed on by a process that has ended.
  const auto pid = processes_.holderOf(socket.inode, socket.uid);
  return pid ? knownProcess(*pid) : nullptr;
}

ApplicationIdentifierSource::KnownProcess* ApplicationIdentifierSource::knownProcess(pid_t pid) {
  const auto found = known_.find(pid);
  if (found != known_.end()) {
    if (processes_.stampOf(pid) == found->second.process.stamp) {
      return &found->second;
    }
    known_.erase(found);
  }
  auto process = processes_.find(pid);
  if (!process) {
    return nullptr;
  }
  if (known_.size() >= kMaximumKnownProcesses) {
    known_.clear();
  }
  KnownProcess& known = known_[pid];
  known.process = std::move(*process);
  return &known;
}

bool ApplicationIdentifierSource::isProxy(KnownProcess& sender) const {
  if (sender.comparedListener != proxy_->listenerCookie()) {
    sender.comparedListener = proxy_->listenerCookie();
    sender.isProxy = proxy_->includes(sender.process);
  }
  return sender.isProxy;
}

bool ApplicationIdentifierSource::mayDialForProxy(const KnownProcess* sender) const {
  return !trust_->knowsDialler() &&
         (sender == nullptr || trust_->mayDial(sender->process.stamp.uid));
}

bool ApplicationIdentifierSource::mayBeProxys(const SocketInformation& socket) const {
  // Of a socket that no process holds any more, some kernels do not tell the user either.
  return socket.inode == 0 || proxy_->mayRunAs(socket.uid);
}

std::string ApplicationIdentifierSource::identifierOf(const Process& process) const {
  for (const Source& source : sources_) {
    if (auto identifier = source(process)) {
      return std::move(*identifier);
    }
  }
  return {};
}

}  // namespace ostravel::linuxplatform
