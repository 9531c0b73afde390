#include "Extension/main/SystemCheck.h"

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timex.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/ProxyTunnelCore/ProxyTCPReachabilityProbe.h"
#include "Extension/main/ConfigurationCheck.h"
#include "Extension/main/ConfigurationFile.h"
#include "Extension/main/Privileges.h"
#include "Extension/main/ProxyAddress.h"
#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"
#include "Platform/Linux/Identity/ProxyTrial.h"
#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Interception/TranslationTable.h"
#include "Platform/Linux/Kernel/PacketLog.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Kernel/RoutingRules.h"
#include "Platform/Linux/Names/BootClock.h"
#include "Platform/Linux/Names/ConfiguredResolvers.h"
#include "Platform/Linux/Names/DNSCopies.h"
#include "Platform/Linux/Names/NameUse.h"
#include "Platform/Linux/Names/ResolvedMonitor.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/LinuxSocketCalls.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel {

namespace {

using namespace linuxplatform;
using namespace std::chrono_literals;
using Level = CheckReport::Level;

// Examples of the values that the kernel chooses at the start.
constexpr std::uint16_t kExampleQueue = 43100;
constexpr std::uint16_t kFirstExamplePort = 50000;

// Longer than the trial of a listener takes.
constexpr auto kProxyPatience = 4s;
static_assert(kProxyPatience > linuxplatform::ProxyTrial::kAnswerDeadline +
                                   linuxplatform::ProxyTrial::kArrivalDeadline);
constexpr auto kProxyPause = 50ms;

// One or two browsers use up fewer.
constexpr rlim_t kFewDescriptors = 4096;

std::vector<InterceptionTable::ListenerPorts> examplePorts(const PacketMarks& marks) {
  const unsigned loops = EventLoopGroup::usualCount(marks);
  std::vector<InterceptionTable::ListenerPorts> ports;
  for (unsigned loop = 0; loop < loops; ++loop) {
    const auto first = static_cast<std::uint16_t>(kFirstExamplePort + 2 * loop);
    ports.push_back({first, static_cast<std::uint16_t>(first + 1)});
  }
  return ports;
}

class SystemCheck {
 public:
  explicit SystemCheck(const CommandLine::Options& options) : options_(options) {}

  CheckReport run() {
    checkPermissions();
    checkConfiguration();
    checkDescriptors();
    checkClocks();
    checkLoopback();
    if (mayAdminister_) {
      checkKernel();
      checkRoutingRules();
      checkNames();
      if (options_.inspectorPath) {
        checkInspector();
      }
      checkApplicationsAndProxy();
    }
    return std::move(report_);
  }

 private:
  void add(Level level, const std::string& subject, const std::string& finding) {
    report_.add(level, subject, finding);
  }

  void checkPermissions() {
    const Privileges privileges = Privileges::ofThisProcess();
    const auto inspection = options_.inspection();
    const auto obstacle = privileges.obstacle(inspection);
    const auto losses = privileges.losses(inspection);
    mayAdminister_ = !obstacle;
    if (obstacle) {
      add(Level::problem, "permissions",
          obstacle->localizedDescription + "; the kernel and the proxy are not examined");
      return;
    }
    for (const std::string& loss : losses) {
      add(Level::warning, "permissions", loss);
    }
    if (losses.empty()) {
      add(Level::ok, "permissions", "all that are used");
    }
  }

  void checkConfiguration() {
    const std::string path = options_.configurationPath.value_or(kDefaultConfigurationPath);
    const auto read = readProviderConfiguration(options_.configurationPath);
    if (!read) {
      add(Level::problem, "configuration", read.error().localizedDescription);
      return;
    }
    if (!*read) {
      add(Level::ok, "configuration", path + " does not exist, and need not; no event is sent");
      return;
    }
    const auto warnings = configurationWarnings(**read, path);
    for (const std::string& warning : warnings) {
      add(Level::warning, "configuration", warning);
    }
    if (warnings.empty()) {
      add(Level::ok, "configuration", path);
    }
    checkMonitor(**read);
  }

  void checkMonitor(const platform::ProviderConfiguration& configuration) {
    const auto found = configuration.find("monitoringSocketPath");
    const auto* const path =
        found == configuration.end() ? nullptr : std::get_if<std::string>(&found->second);
    if (path == nullptr || path->empty()) {
      return;
    }
    if (const int failure = connectTo(*path); failure == 0 || failure == EAGAIN) {
      add(Level::ok, "monitor", "listens on " + *path);
    } else {
      add(Level::warning, "monitor",
          "nobody listens on " + *path + " (" + std::strerror(failure) +
              "), so events are lost: start ostravel-monitor --socket " + *path);
    }
  }

  // What connect(2) to the local socket says; 0 if somebody listens.
  static int connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    return ::connect(socket.get(), generic, sizeof address) == 0 ? 0 : errno;
  }

  void checkDescriptors() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (const auto obstacle = descriptorObstacle()) {
      add(Level::problem, "open files", *obstacle);
      return;
    }
    const rlim_t tunnels = (limit.rlim_max - linuxplatform::limits::kDescriptorReserve) / 2;
    add(limit.rlim_max < kFewDescriptors ? Level::warning : Level::ok, "open files",
        "the hard limit of " + std::to_string(limit.rlim_max) + " is enough for about " +
            std::to_string(tunnels) + " connections at a time, further ones go direct" +
            (limit.rlim_max < kFewDescriptors ? ": raise it with ulimit -n or LimitNOFILE=" : ""));
  }

  // Events contain the time of day. Processes are distinguished by their start time since boot.
  void checkClocks() {
    timex state{};
    struct stat program {};
    const auto now = std::time(nullptr);
    if (::stat("/proc/self/exe", &program) == 0 && now < program.st_mtime) {
      add(Level::warning, "clocks",
          "the time of day is before that of this program's file, so that of events is wrong: set "
          "the clock");
    } else if (::adjtimex(&state) == TIME_ERROR || (state.status & STA_UNSYNC) != 0) {
      add(Level::warning, "clocks",
          "the time of day is not synchronised, so that of events may be wrong: start a time "
          "service such as systemd-timesyncd");
    } else {
      add(Level::ok, "clocks", "synchronised");
    }
    std::ifstream offsets("/proc/self/timens_offsets");
    std::string clock;
    long long seconds = 0;
    long long nanoseconds = 0;
    while (offsets >> clock >> seconds >> nanoseconds) {
      if (clock == "boottime" && (seconds != 0 || nanoseconds != 0)) {
        add(Level::warning, "clocks",
            "this time namespace has another time since boot than the kernel, so the recorded "
            "processes cannot be distinguished: run outside of it");
      }
    }
  }

  void checkLoopback() {
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_addr = in6addr_loopback;
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool hasIPv4 = canBind(reinterpret_cast<const sockaddr*>(&ipv4), sizeof ipv4);
    const bool hasIPv6 = canBind(reinterpret_cast<const sockaddr*>(&ipv6), sizeof ipv6);
    if (!hasIPv4) {
      add(Level::problem, "loopback",
          "127.0.0.1 cannot be bound, and the proxy is expected there: ip link set lo up");
    }
    if (!hasIPv6) {
      add(Level::ok, "loopback", "::1 is missing: connections over IPv6 go direct");
    }
    if (hasIPv4 && hasIPv6) {
      add(Level::ok, "loopback", "127.0.0.1 and ::1");
    }
  }

  static bool canBind(const sockaddr* address, socklen_t size) {
    const FileDescriptor socket(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return socket.isOpen() && ::bind(socket.get(), address, size) == 0;
  }

  void checkKernel() {
    const auto settings = PacketTunnelProvider::networkSettings();
    const auto error = InterceptionTable::examine(settings, options_.marks, kExampleQueue,
                                                  examplePorts(options_.marks));
    if (error && error->code == EPERM) {
      add(Level::ok, "rules", "an instance is running: it owns the nftables table inet ostravel");
    } else if (error) {
      add(Level::problem, "rules", error->localizedDescription);
    } else {
      add(Level::ok, "rules", "the kernel accepts all that would be installed");
    }
    const auto queue = PacketQueue::open();
    if (queue) {
      add(Level::ok, "packet queue", "number " + std::to_string((*queue)->number()) + " is free");
    } else {
      add(Level::problem, "packet queue", queue.error().localizedDescription);
    }
  }

  void checkRoutingRules() {
    const auto clashes = RoutingRules::read().clashesWith(options_.marks);
    for (const std::string& clash : clashes) {
      add(Level::warning, "packet marks", clash);
    }
    if (clashes.empty()) {
      std::ostringstream mask;
      mask << std::hex << options_.marks.mask();
      add(Level::ok, "packet marks", "no routing rule uses bits of 0x" + mask.str());
    }
  }

  // Names are a gain: without them connections go by their addresses.
  void checkNames() {
    if (options_.names == NameUse::off) {
      add(Level::ok, "names", "not observed (--names off)");
      return;
    }
    const auto log = PacketLog::open();
    const auto error = log ? DNSCopies::examine((*log)->group()) : log.error();
    // An instance is running.
    const bool isInUse = error && (error->code == EPERM || error->code == EBUSY);
    if (error && !isInUse) {
      add(Level::warning, "names",
          error->localizedDescription +
              "; until then connections go by their addresses, and the lists of domains have no "
              "effect");
      return;
    }
    checkResolvers();
    checkResolvedMonitor();
  }

  void checkResolvers() {
    ConfiguredResolvers resolvers;
    resolvers.refresh(BootClock::now());
    const std::string path = ConfiguredResolvers::kDefaultPath;
    if (resolvers.servers().empty()) {
      add(Level::warning, "names",
          path +
              " names no resolver, so no name holds for the whole machine: list there, as root, "
              "those that applications ask");
      return;
    }
    std::string addresses;
    for (const SocketEndpoint& server : resolvers.servers()) {
      addresses += (addresses.empty() ? "" : ", ") + server.addressText();
    }
    add(Level::ok, "names",
        "from DNS answers; those of the resolvers in " + path + " (" + addresses +
            ") hold for the whole machine");
  }

  void checkResolvedMonitor() {
    const std::string path = ResolvedMonitor::kDefaultPath;
    struct stat folder {};
    if (::stat(path.substr(0, path.rfind('/')).c_str(), &folder) != 0) {
      return;
    }
    if (const int failure = connectTo(path); failure != 0) {
      add(Level::warning, "names",
          "what applications ask systemd-resolved by its own protocol is not seen (" + path + ": " +
              std::strerror(failure) + "): systemd 252 or later shows it to root");
    } else {
      add(Level::ok, "names", "also from systemd-resolved's monitor");
    }
  }

  void checkInspector() {
    // This process exists, so only an answer can be missing.
    const auto processes = options_.processTables([](const std::string& /*warning*/) {})();
    if (processes->stampOf(::getpid())) {
      add(Level::ok, "inspector", "answers on " + *options_.inspectorPath);
    } else {
      add(Level::warning, "inspector",
          "does not answer on " + *options_.inspectorPath +
              ", and processes that are not known yet have no identifier until it does: systemctl "
              "restart ostravel-inspector.socket");
    }
  }

  void checkApplicationsAndProxy() {
    std::vector<std::string> warnings;
    ApplicationIdentifierSource identifiers(
        platform::limits::kProxyPort,
        [&warnings](const std::string& warning) { warnings.push_back(warning); },
        ApplicationRegistrations::kDefaultFolder, options_.proxyUsers,
        ConnectTracer::Detail::programs, std::nullopt, {},
        options_.processTables([](const std::string& /*warning*/) {}));
    for (const std::string& warning : std::exchange(warnings, {})) {
      add(Level::warning, "applications", warning);
    }
    const auto count = identifiers.registrationCount();
    add(Level::ok, "applications",
        std::to_string(count) + (count == 1 ? " registration" : " registrations") + " in force");
    checkProxy(identifiers, warnings);
  }

  void checkProxy(ApplicationIdentifierSource& identifiers,
                  const std::vector<std::string>& warnings) {
    const std::string address = proxyAddress();
    LinuxSocketCalls sockets(options_.marks);
    ProxyTCPReachabilityProbe probe(sockets, std::string(platform::limits::kProxyHost),
                                    platform::limits::kProxyPort, platform::limits::kProbeTimeout);
    if (probe.check() == ProxyHealthProbeResult::unreachable) {
      add(Level::warning, "local proxy",
          "nothing answers on " + address +
              ", and connections go direct until something does: start a proxy, such as "
              "ostravel-sidecar");
      return;
    }
    const auto deadline = std::chrono::steady_clock::now() + kProxyPatience;
    do {
      static_cast<void>(identifiers.watchProxy());
      if (!identifiers.servingProxy().empty()) {
        add(Level::ok, "local proxy",
            identifiers.servingProxy() +
                " answers CONNECT and belongs to a user who may serve all");
        return;
      }
      std::this_thread::sleep_for(kProxyPause);
    } while (warnings.empty() && std::chrono::steady_clock::now() < deadline);
    for (const std::string& warning : warnings) {
      add(Level::warning, "local proxy", warning);
    }
    if (warnings.empty()) {
      add(Level::warning, "local proxy",
          "the listener on " + address +
              " has not answered a CONNECT: it is used when it does; look at its log");
    }
  }

  const CommandLine::Options& options_;
  CheckReport report_;
  bool mayAdminister_ = false;
};

}  // namespace

CheckReport checkSystem(const CommandLine::Options& options) {
  return SystemCheck(options).run();
}

std::optional<std::string> descriptorObstacle() {
  constexpr rlim_t kFewest = linuxplatform::limits::kFewestDescriptors;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max >= kFewest) {
    return std::nullopt;
  }
  return "the limit of " + std::to_string(limit.rlim_max) + " open files is too low: at least " +
         std::to_string(kFewest) +
         " are needed; raise it with ulimit -n, or with LimitNOFILE= of the unit";
}

platform::Result<std::string> plannedRules(const CommandLine::Options& options) {
  auto script = InterceptionTable::script(PacketTunnelProvider::networkSettings(), options.marks,
                                          kExampleQueue, examplePorts(options.marks));
  if (!script) {
    return std::move(script).error();
  }
  return "# The extension chooses the queue's number and the redirections' ports at its start. It\n"
         "# puts tcp and udp into the set alive and renews them four times a second. If no other\n"
         "# program has rules for outgoing packets, the chain offer is at the priority mangle; if\n"
         "# none has rules at the priority raw, there are no chains hide and show.\n" +
         *std::move(script) + TranslationTable::script(options.marks) +
         (options.names == NameUse::off ? "" : DNSCopies::script(kExampleQueue));
}

}  // namespace ostravel
