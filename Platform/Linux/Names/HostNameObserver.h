#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/Interface/Result.h"
#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"
#include "Platform/Linux/Identity/ApplicationRegistrations.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"
#include "Platform/Linux/Kernel/PacketLog.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Names/ConfiguredResolvers.h"
#include "Platform/Linux/Names/DNSCopies.h"
#include "Platform/Linux/Names/DNSMessageStreams.h"
#include "Platform/Linux/Names/HostNames.h"
#include "Platform/Linux/Names/OpenQuestions.h"
#include "Platform/Linux/Names/ResolvedMonitor.h"

namespace ostravel::linuxplatform {

// Learns host names from copies of the DNS messages that this machine's applications send and
// receive: queries and answers on port 53, on the network as well as between an application and a
// resolver on this machine, and the monitor of systemd-resolved. Only an answer to a query that was
// seen here teaches anything: with its number, from its server, to its socket, for its name.
//
// Whom a name belongs to:
//
//   the application whose socket has asked;
//   its user, if the application is not known, as when it has closed the socket at once;
//   the machine as well, if that user is root or a system user who has asked one of the configured
//   resolvers, or if the configured resolver itself has asked, which it does for applications that
//   reach it by other ways than port 53.
//
// Its thread does everything that may take a while. Nothing waits for it: a flow first reads the
// copies that have arrived by then itself. The kernel makes the copy of an answer before the
// application receives it, so a name is known before its first flow starts, and a second name of an
// address before a flow could be called by the first one.
class HostNameObserver {
 public:
  struct Paths {
    std::string resolvers;
    std::string monitor;
  };
  static Paths defaultPaths() {
    return {ConfiguredResolvers::kDefaultPath, ResolvedMonitor::kDefaultPath};
  }

  // applications: who has asked; for this object's thread alone. The error's sentence says what the
  // kernel lacks.
  static platform::Result<std::unique_ptr<HostNameObserver>> start(
      std::unique_ptr<ApplicationIdentifierSource> applications, Paths paths = defaultPaths());
  HostNameObserver(const HostNameObserver&) = delete;
  HostNameObserver& operator=(const HostNameObserver&) = delete;
  ~HostNameObserver();

  // What a flow of the application to this address is called; see HostNames::find. From any thread;
  // bounded work, at most kCatchUpTime more than four messages.
  std::optional<HostNames::Found> find(std::optional<uid_t> user, std::string_view identifier,
                                       const SocketEndpoint& address);
  static constexpr std::chrono::microseconds kCatchUpTime{250};

  // See HostNames::setUnresolvable. From any thread.
  void setUnresolvable(const HostNames::Found& found) {
    names_.setUnresolvable(found, HostNames::Clock::now());
  }

  // As those of interception, for later queries. From any thread.
  void replaceRegistrations(ApplicationRegistrations registrations);

 private:
  // An answer that was there before it was known who had asked.
  struct EarlyAnswer {
    OpenQuestions::Asked asked;
    std::vector<ResolvedAddress> addresses;
  };

  HostNameObserver(std::unique_ptr<ApplicationIdentifierSource> applications, Paths paths,
                   std::unique_ptr<PacketLog> log, std::unique_ptr<DNSCopies> copies);

  void run();
  void wait();
  void takeRegistrations();
  // False if there was no message.
  bool receiveOne();
  // False if nobody has to be found.
  bool findAsker();
  OpenQuestions::Asker askerOf(const OpenQuestions::Asked& asked);

  // These need the lock.
  void handle(const PacketLog::Packet& packet);
  void handleQuery(std::span<const std::byte> message, const TransportPacket& packet,
                   const PacketLog::Packet& copy);
  void handleAnswer(std::span<const std::byte> message, const TransportPacket& packet);
  void learn(const OpenQuestions::Asked& asked, std::span<const ResolvedAddress> addresses);

  HostNames names_;
  const SystemUsers systemUsers_;
  EventDescriptor stop_;

  // Guards what follows, up to the next comment. Held for one message at a time.
  std::mutex lock_;
  const std::unique_ptr<PacketLog> log_;
  DNSMessageStreams streams_;
  OpenQuestions questions_;
  // The numbers of questions whose asker has to be found.
  std::deque<std::uint64_t> anonymous_;
  std::map<std::uint64_t, EarlyAnswer> earlyAnswers_;
  std::optional<ApplicationRegistrations> newRegistrations_;

  // For the thread alone.
  const std::unique_ptr<ApplicationIdentifierSource> applications_;
  ConfiguredResolvers resolvers_;
  ResolvedMonitor monitor_;

  const std::unique_ptr<DNSCopies> copies_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
