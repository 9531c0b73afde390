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
// resolver on this machine, and the monitor of systemd-resolved. Names are learned only from
// answers to queries that were seen here: with the query's ID, from its server, to its socket, for
// its name.
//
// The owners of a name:
//
//   the application whose socket has asked;
//   its user, if the application is unknown, for example because it closed the socket at once;
//   the machine as well, if that user is root or a system user who has asked one of the configured
//   resolvers, or if the configured resolver itself has asked, on behalf of applications that do
//   not reach it through port 53.
//
// Its thread does all slow work. No flow waits for it: the flow first reads the copies that have
// arrived itself. The kernel copies an answer before the application receives it, so a name is
// known before its first flow starts, and a second name of an address before a flow could be given
// the first one by mistake.
class HostNameObserver {
 public:
  struct Paths {
    std::string resolvers;
    std::string monitor;
  };
  static Paths defaultPaths() {
    return {ConfiguredResolvers::kDefaultPath, ResolvedMonitor::kDefaultPath};
  }

  // applications: identifies the askers; used by this object's thread only. The error's sentence
  // says what the kernel lacks.
  static platform::Result<std::unique_ptr<HostNameObserver>> start(
      std::unique_ptr<ApplicationIdentifierSource> applications, Paths paths = defaultPaths());
  HostNameObserver(const HostNameObserver&) = delete;
  HostNameObserver& operator=(const HostNameObserver&) = delete;
  ~HostNameObserver();

  // Reads the copies that have arrived, at least four and for at most kCatchUpTime; true if none is
  // left. Call it before find(), except for a flow that began before an earlier call that returned
  // true. From any thread.
  bool catchUp();
  static constexpr std::chrono::microseconds kCatchUpTime{250};

  // The name of the application's flow to this address; see HostNames::find. From any thread.
  std::optional<HostNames::Found> find(std::optional<uid_t> user, std::string_view identifier,
                                       const SocketEndpoint& address) {
    return names_.find(user, identifier, address, HostNames::Clock::now());
  }

  // See HostNames::size. From any thread.
  std::size_t nameCount() const { return names_.size(); }

  // See HostNames::setUnresolvable. From any thread.
  void setUnresolvable(const HostNames::Found& found) {
    names_.setUnresolvable(found, HostNames::Clock::now());
  }

  // Replaces the registrations for later queries. From any thread.
  void replaceRegistrations(ApplicationRegistrations registrations);

 private:
  // An answer that arrived before its asker was found.
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
  // False if no asker has to be found.
  bool findAsker();
  OpenQuestions::Asker askerOf(const OpenQuestions::Asked& asked);

  // Called with the lock held.
  void handle(const PacketLog::Packet& packet);
  void handleQuery(std::span<const std::byte> message, const TransportPacket& packet,
                   const PacketLog::Packet& copy);
  void handleAnswer(std::span<const std::byte> message, const TransportPacket& packet);
  void learn(const OpenQuestions::Asked& asked, std::span<const ResolvedAddress> addresses);

  HostNames names_;
  const SystemUsers systemUsers_;
  EventDescriptor stop_;

  // Guards the members up to earlyAnswers_. Held for one message at a time.
  std::mutex lock_;
  const std::unique_ptr<PacketLog> log_;
  DNSMessageStreams streams_;
  OpenQuestions questions_;
  // The questions whose askers have to be found, by number.
  std::deque<std::uint64_t> anonymous_;
  std::map<std::uint64_t, EarlyAnswer> earlyAnswers_;
  std::optional<ApplicationRegistrations> newRegistrations_;

  // Used by the thread only.
  const std::unique_ptr<ApplicationIdentifierSource> applications_;
  ConfiguredResolvers resolvers_;
  ResolvedMonitor monitor_;

  const std::unique_ptr<DNSCopies> copies_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
