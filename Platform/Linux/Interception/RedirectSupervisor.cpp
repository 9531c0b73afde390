#include "Platform/Linux/Interception/RedirectSupervisor.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Relay/FlowListener.h"

namespace ostravel::linuxplatform {

namespace {

using namespace std::chrono_literals;
using platform::NetworkRule;
using platform::TransparentProxyNetworkSettings;

// A connection that is lost within this time after a successful test does not cause another test:
// its loss has another cause.
constexpr auto kFreshSuccess = 100ms;

const char* loopbackText(AddressFamily family) {
  return family == AddressFamily::ipv4 ? "127.0.0.1" : "::1";
}

const char* nameOf(AddressFamily family) {
  return family == AddressFamily::ipv4 ? "IPv4" : "IPv6";
}

SocketEndpoint loopback(AddressFamily family) {
  return *SocketEndpoint::atAddress(loopbackText(family));
}

std::vector<SocketEndpoint> loopbackDestinations(const TransparentProxyNetworkSettings& settings,
                                                 AddressFamily family) {
  const auto isExcluded = [&settings](const NetworkRule& rule) {
    return std::any_of(settings.excludedNetworkRules.begin(), settings.excludedNetworkRules.end(),
                       [&rule](const NetworkRule& excluded) {
                         return excluded.destinationNetwork == rule.destinationNetwork;
                       });
  };
  std::vector<SocketEndpoint> destinations;
  for (const NetworkRule& rule : settings.includedNetworkRules) {
    const auto endpoint = parseAddressLiteral(rule.destinationNetwork);
    if (rule.protocol == platform::NetworkRuleProtocol::tcp && endpoint &&
        rule.destinationNetwork.hostname == loopbackText(family) && !isExcluded(rule)) {
      destinations.push_back(*endpoint);
    }
  }
  return destinations;
}

// An address for documentation, which no host has (RFC 5737, RFC 3849).
const char* distantText(AddressFamily family) {
  return family == AddressFamily::ipv4 ? "192.0.2.1" : "2001:db8::1";
}

std::optional<SocketEndpoint> distantDestination(const TransparentProxyNetworkSettings& settings,
                                                 AddressFamily family) {
  for (const NetworkRule& rule : settings.includedNetworkRules) {
    const auto network = parseAddressLiteral(rule.destinationNetwork);
    if (rule.protocol == platform::NetworkRuleProtocol::tcp && rule.destinationPrefix == 0 &&
        network && network->family == family) {
      return parseAddressLiteral({distantText(family), rule.destinationNetwork.port});
    }
  }
  return std::nullopt;
}

std::optional<SocketEndpoint> withoutPort(std::optional<SocketEndpoint> endpoint) {
  if (endpoint) {
    endpoint->port = 0;
  }
  return endpoint;
}

// The source address of the default route; nothing is sent.
std::optional<SocketEndpoint> sourceOfDefaultRoute(AddressFamily family) {
  const KernelAddress to(*parseAddressLiteral({distantText(family), "9"}));
  const FileDescriptor descriptor(::socket(to.storage.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (::connect(descriptor.get(), to.get(), to.size) != 0) {
    return std::nullopt;
  }
  return withoutPort(ownAddressOf(descriptor.get()));
}

bool isLinkLocal(const SocketEndpoint& endpoint) {
  const auto& bytes = endpoint.address;
  return endpoint.family == AddressFamily::ipv4 ? bytes[0] == 169 && bytes[1] == 254
                                                : bytes[0] == 0xfe && (bytes[1] & 0xc0U) == 0x80;
}

// The first address of any interface except loopback.
std::optional<SocketEndpoint> sourceOfSomeInterface(AddressFamily family) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    return std::nullopt;
  }
  std::optional<SocketEndpoint> found;
  for (const ifaddrs* entry = list; entry != nullptr && !found; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_LOOPBACK) != 0) {
      continue;
    }
    const int systemFamily = entry->ifa_addr->sa_family;
    KernelAddress address;
    address.size = systemFamily == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (systemFamily == (family == AddressFamily::ipv4 ? AF_INET : AF_INET6)) {
      std::memcpy(address.get(), entry->ifa_addr, address.size);
      found = withoutPort(address.endpoint());
      if (found && isLinkLocal(*found)) {
        found.reset();
      }
    }
  }
  ::freeifaddrs(list);
  return found;
}

const char* describe(RedirectTrial::Outcome outcome) {
  switch (outcome) {
    case RedirectTrial::Outcome::refused:
      return "refused or not redirected";
    case RedirectTrial::Outcome::unanswered:
      return "not answered";
    case RedirectTrial::Outcome::arrivedElsewhere:
      return "not redirected";
    case RedirectTrial::Outcome::notTried:
      return "not possible to try";
    case RedirectTrial::Outcome::arrived:
    case RedirectTrial::Outcome::noSource:
      break;
  }
  return "";
}

}  // namespace

std::shared_ptr<RedirectSupervisor> RedirectSupervisor::start(
    EventLoopGroup& loops, const TransparentProxyNetworkSettings& settings,
    std::shared_ptr<platform::Log> log, std::chrono::milliseconds pause) {
  auto supervisor = std::make_shared<RedirectSupervisor>(loops, settings, std::move(log), pause);
  loops.redirectPath().setWatcher(supervisor);
  supervisor->home().post([supervisor] {
    for (Family& family : supervisor->families_) {
      supervisor->test(family, 0);
    }
  });
  return supervisor;
}

RedirectSupervisor::RedirectSupervisor(EventLoopGroup& loops,
                                       const TransparentProxyNetworkSettings& settings,
                                       std::shared_ptr<platform::Log> log,
                                       std::chrono::milliseconds pause)
    : loops_(loops),
      log_(std::move(log)),
      pause_(pause),
      families_{Family(loops.loop(0)), Family(loops.loop(0))} {
  for (const auto family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    known(family).family = family;
    known(family).destinations = loopbackDestinations(settings, family);
    known(family).distantDestination = distantDestination(settings, family);
  }
  if (auto opened = SocketDiagnostics::open()) {
    diagnostics_ = *std::move(opened);
    // Entries left by a killed predecessor. Its rules, and with them connection tracking,
    // disappeared before the connections ended, so the kernel may keep the entries for days.
    ConntrackEntries().removeDeadRedirections(
        [this](const SocketEndpoint& endpoint) { return diagnostics_->mayHaveListener(endpoint); });
  }
}

void RedirectSupervisor::stop() {
  loops_.redirectPath().setWatcher({});
  home().post([self = shared_from_this()] {
    self->isStopped_ = true;
    for (Family& family : self->families_) {
      family.retry.cancel();
    }
  });
  for (const auto family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    loops_.redirectPath().setUsable(family, false);
  }
}

// Trials

void RedirectSupervisor::test(Family& family, unsigned loopIndex) {
  if (family.isTesting || isStopped_) {
    return;
  }
  const FlowListener& listener = loops_.loop(loopIndex).listener();
  const bool isIPv4 = family.family == AddressFamily::ipv4;
  if ((isIPv4 ? listener.ipv4Port() : listener.ipv6Port()) == 0) {
    // No listener for this family.
    return;
  }
  if (family.destinations.empty()) {
    conclude(family, loopIndex, "");
    return;
  }
  family.isTesting = true;
  tryNext(family, loopIndex, waysToTry(family));
}

// A redirected connection keeps its application's source address, and filter rules for incoming
// packets often test for loopback addresses. The answers appear to come from the application's
// destination, and rules against forged addresses may reject that.
std::vector<RedirectSupervisor::Way> RedirectSupervisor::waysToTry(const Family& family) {
  const SocketEndpoint nearby = destinationFor(family);
  std::vector<Way> ways{{loopback(family.family), nearby}};
  if (const auto usual = sourceOfDefaultRoute(family.family)) {
    ways.push_back({*usual, family.distantDestination.value_or(nearby)});
  } else if (const auto some = sourceOfSomeInterface(family.family)) {
    ways.push_back({*some, nearby});
  }
  return ways;
}

void RedirectSupervisor::tryNext(Family& family, unsigned loopIndex, std::vector<Way> ways) {
  if (ways.empty()) {
    conclude(family, loopIndex, "");
    return;
  }
  const Way way = ways.front();
  ways.erase(ways.begin());
  EventLoop& loop = loops_.loop(loopIndex);
  loop.post([self = shared_from_this(), &family, loopIndex, &loop, way,
             ways = std::move(ways)]() mutable {
    RedirectTrial::start(
        loop, way.source, way.destination,
        [self, &family, loopIndex, way,
         ways = std::move(ways)](RedirectTrial::Outcome outcome) mutable {
          self->home().post(
              [self, &family, loopIndex, way, outcome, ways = std::move(ways)]() mutable {
                if (outcome == RedirectTrial::Outcome::arrived ||
                    outcome == RedirectTrial::Outcome::noSource) {
                  self->tryNext(family, loopIndex, std::move(ways));
                } else {
                  self->conclude(family, loopIndex,
                                 "from " + way.source.addressText() + ": " + describe(outcome));
                }
              });
        });
  });
}

void RedirectSupervisor::conclude(Family& family, unsigned loopIndex, const std::string& failure) {
  family.isTesting = false;
  if (isStopped_) {
    return;
  }
  const std::string name = nameOf(family.family);
  if (failure.empty()) {
    family.lastSuccess = std::chrono::steady_clock::now();
    if (!family.lastFailure.empty() || family.isStuck) {
      log_->info("OstravelProxy: Redirected connections arrive again over %{public}s", {name});
    }
    family.isStuck = false;
    family.failures = 0;
  } else if (failure != family.lastFailure && !family.isStuck) {
    log_->error(
        "OstravelProxy: Redirected connections do not arrive over %{public}s (%{public}s): a rule "
        "of another program drops them, or keeps them from being tracked, on the loopback "
        "interface; flows are left to the system, and this is tried again soon, then every "
        "%{public}d s",
        {name, failure, std::chrono::ceil<std::chrono::seconds>(pause_).count()});
  }
  family.lastFailure = failure;
  loops_.redirectPath().setUsable(family.family, failure.empty());
  if (failure.empty()) {
    return;
  }
  // Further failures do not change the pause.
  family.failures = std::min(family.failures + 1, kEarlyRetries + 1);
  testAfter(family.isStuck ? std::min(kStuckPause, pause_) : pauseAfter(family.failures, pause_),
            family, loopIndex);
}

std::chrono::milliseconds RedirectSupervisor::pauseAfter(unsigned failures,
                                                         std::chrono::milliseconds longest) {
  return failures > kEarlyRetries ? longest
                                  : std::min(kFirstPause * (1U << (failures - 1)), longest);
}

void RedirectSupervisor::testAfter(std::chrono::milliseconds pause, Family& family,
                                   unsigned loopIndex) {
  family.retry.start(
      pause, [self = shared_from_this(), &family, loopIndex] { self->test(family, loopIndex); });
}

// A port without a listener, so that a trial that is not redirected disturbs nobody.
SocketEndpoint RedirectSupervisor::destinationFor(const Family& family) {
  const auto free = std::find_if(family.destinations.begin(), family.destinations.end(),
                                 [this](const SocketEndpoint& destination) {
                                   if (!diagnostics_) {
                                     return true;
                                   }
                                   const auto answer = diagnostics_->findListener(destination);
                                   return answer && !*answer;
                                 });
  return free == family.destinations.end() ? family.destinations.front() : *free;
}

// Lost connections

void RedirectSupervisor::connectionIsMissing(unsigned loopIndex, const FlowTuple& tuple) {
  home().post([self = shared_from_this(), loopIndex, tuple] { self->examine(loopIndex, tuple); });
}

void RedirectSupervisor::connectionWillBeReset(const FlowTuple& tuple) {
  const std::lock_guard guard(resetsLock_);
  resets_.allowReopening(tuple);
}

void RedirectSupervisor::connectionsCannotBeAccepted(unsigned loopIndex, AddressFamily family,
                                                     int error) {
  home().post([self = shared_from_this(), loopIndex, family, error] {
    self->noteStuck(loopIndex, family, error);
  });
}

void RedirectSupervisor::noteStuck(unsigned loopIndex, AddressFamily addressFamily, int error) {
  Family& family = known(addressFamily);
  if (isStopped_ || family.isStuck) {
    return;
  }
  family.isStuck = true;
  // A test that succeeded in the meantime has made it usable again.
  loops_.redirectPath().setUsable(addressFamily, false);
  log_->error(
      "OstravelProxy: Connections cannot be accepted over %{public}s (%{public}s): flows are left "
      "to "
      "the system, and this is tried again every second",
      {nameOf(addressFamily), std::generic_category().message(error)});
  if (!family.isTesting) {
    testAfter(std::min(kStuckPause, pause_), family, loopIndex);
  }
}

void RedirectSupervisor::examine(unsigned loopIndex, const FlowTuple& tuple) {
  if (isStopped_ || !diagnostics_) {
    return;
  }
  const auto answer = diagnostics_->find(tuple, 0);
  if (!answer || !*answer || (*answer)->state != TCP_SYN_SENT) {
    // The application has given up.
    return;
  }
  conntrack_.remove(tuple);
  Family& family = known(tuple.source.family);
  const bool isFresh = std::chrono::steady_clock::now() - family.lastSuccess < kFreshSuccess;
  if (!family.lastFailure.empty() || family.isTesting || isFresh) {
    return;
  }
  // Connections offered in the meantime might be lost as well.
  loops_.redirectPath().setUsable(family.family, false);
  test(family, loopIndex);
}

}  // namespace ostravel::linuxplatform
