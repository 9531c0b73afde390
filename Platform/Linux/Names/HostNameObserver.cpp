#include "Platform/Linux/Names/HostNameObserver.h"

#include <poll.h>
#include <pthread.h>

#include <array>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

constexpr std::uint16_t kPort = 53;

// How many messages a flow reads itself: at most, and in any case, even if the time is up. The
// latter suffices for an application's queries for both families and their answers; a preempted
// thread may lose all its time before reading any.
constexpr unsigned kMaximumBurst = 16;
constexpr unsigned kMinimumBurst = 4;

// Nothing else reports that resolved has been restarted.
constexpr int kLongestWaitMilliseconds = 2000;

// The oldest ones are likely to belong to processes that have ended.
constexpr std::size_t kMaximumAnonymous = 256;

}  // namespace

platform::Result<std::unique_ptr<HostNameObserver>> HostNameObserver::start(
    std::unique_ptr<ApplicationIdentifierSource> applications, Paths paths) {
  auto log = PacketLog::open();
  if (!log) {
    return std::move(log).error();
  }
  auto copies = DNSCopies::install((*log)->group());
  if (!copies) {
    return std::move(copies).error();
  }
  return std::unique_ptr<HostNameObserver>(new HostNameObserver(
      std::move(applications), std::move(paths), *std::move(log), *std::move(copies)));
}

HostNameObserver::HostNameObserver(std::unique_ptr<ApplicationIdentifierSource> applications,
                                   Paths paths, std::unique_ptr<PacketLog> log,
                                   std::unique_ptr<DNSCopies> copies)
    : systemUsers_(SystemUsers::read()),
      log_(std::move(log)),
      applications_(std::move(applications)),
      resolvers_(std::move(paths.resolvers)),
      monitor_(std::move(paths.monitor)),
      copies_(std::move(copies)),
      thread_([this] { run(); }) {}

HostNameObserver::~HostNameObserver() {
  stop_.signal();
  thread_.join();
}

bool HostNameObserver::catchUp() {
  const auto deadline = HostNames::Clock::now() + kCatchUpTime;
  for (unsigned count = 0; count < kMaximumBurst; ++count) {
    if (!receiveOne()) {
      // Another thread may also have read the messages needed.
      return true;
    }
    if (count + 1 >= kMinimumBurst && HostNames::Clock::now() > deadline) {
      break;
    }
  }
  return false;
}

void HostNameObserver::replaceRegistrations(ApplicationRegistrations registrations) {
  const std::lock_guard guard(lock_);
  newRegistrations_ = std::move(registrations);
}

void HostNameObserver::takeRegistrations() {
  std::optional<ApplicationRegistrations> registrations;
  {
    const std::lock_guard guard(lock_);
    registrations = std::exchange(newRegistrations_, std::nullopt);
  }
  if (registrations) {
    applications_->replaceRegistrations(*std::move(registrations));
  }
}

void HostNameObserver::run() {
  ::pthread_setname_np(::pthread_self(), "names");
  while (!stop_.consume()) {
    // Askers first: a socket may be closed as soon as it has its answer, whereas copies can wait.
    if (!findAsker() && !receiveOne()) {
      wait();
    }
  }
}

void HostNameObserver::wait() {
  monitor_.refresh(HostNames::Clock::now());
  std::array<pollfd, 3> waited{{{stop_.descriptor(), POLLIN, 0},
                                {log_->descriptor(), POLLIN, 0},
                                {monitor_.descriptor(), POLLIN, 0}}};
  if (::poll(waited.data(), waited.size(), kLongestWaitMilliseconds) <= 0 ||
      waited[2].revents == 0) {
    return;
  }
  monitor_.receive([this](const ResolvedMonitor::Answer& answer) {
    names_.learn(HostNames::Owner::machine(), answer.name, answer.addresses,
                 HostNames::Clock::now());
  });
}

bool HostNameObserver::receiveOne() {
  const std::lock_guard guard(lock_);
  return log_->receive([this](const PacketLog::Packet& packet) { handle(packet); });
}

bool HostNameObserver::findAsker() {
  OpenQuestions::Asked asked;
  {
    const std::lock_guard guard(lock_);
    if (anonymous_.empty()) {
      return false;
    }
    const std::uint64_t number = anonymous_.front();
    anonymous_.pop_front();
    const auto early = earlyAnswers_.find(number);
    const OpenQuestions::Asked* const open = questions_.find(number);
    if (early == earlyAnswers_.end() && open == nullptr) {
      return true;
    }
    asked = open != nullptr ? *open : early->second.asked;
  }
  asked.asker = askerOf(asked);
  const std::lock_guard guard(lock_);
  if (OpenQuestions::Asked* const open = questions_.find(asked.number)) {
    open->asker = asked.asker;
  } else if (const auto early = earlyAnswers_.find(asked.number); early != earlyAnswers_.end()) {
    // Until now the name belonged to the user.
    names_.forget(HostNames::Owner::user(asked.user), asked.question.name);
    learn(asked, early->second.addresses);
    earlyAnswers_.erase(early);
  }
  return true;
}

OpenQuestions::Asker HostNameObserver::askerOf(const OpenQuestions::Asked& asked) {
  takeRegistrations();
  OpenQuestions::Asker asker;
  asker.application = applications_->applicationOf(asked.tuple, asked.outputInterface);
  resolvers_.refresh(HostNames::Clock::now());
  const bool isUnknownService = asker.application.empty() && systemUsers_.includes(asked.user) &&
                                resolvers_.includes(asked.tuple.destination);
  asker.isForMachine = isUnknownService || resolvers_.isResolver(asked.user);
  return asker;
}

void HostNameObserver::handle(const PacketLog::Packet& copy) {
  const auto packet = parseTransportPacket(copy.bytes);
  if (!packet) {
    return;
  }
  const auto handleMessage = [this, &copy, &packet](std::span<const std::byte> message) {
    if (copy.isOutgoing && packet->tuple.destination.port == kPort) {
      handleQuery(message, *packet, copy);
    } else if (!copy.isOutgoing && packet->tuple.source.port == kPort) {
      handleAnswer(message, *packet);
    }
  };
  if (packet->tuple.protocol == TransportProtocol::tcp) {
    streams_.receive(*packet, handleMessage);
  } else {
    handleMessage(packet->payload);
  }
}

void HostNameObserver::handleQuery(std::span<const std::byte> message,
                                   const TransportPacket& packet, const PacketLog::Packet& copy) {
  // A packet without a user was not sent by a program.
  auto question = copy.uid ? parseDNSQuestion(message) : std::nullopt;
  if (!question) {
    return;
  }
  const std::uint64_t number = questions_.add({.question = *std::move(question),
                                               .user = *copy.uid,
                                               .tuple = packet.tuple,
                                               .outputInterface = copy.outputInterface,
                                               .number = 0,
                                               .asker = std::nullopt},
                                              HostNames::Clock::now());
  if (number == 0) {
    return;
  }
  anonymous_.push_back(number);
  if (anonymous_.size() > kMaximumAnonymous) {
    // Its name remains the user's.
    earlyAnswers_.erase(anonymous_.front());
    anonymous_.pop_front();
  }
}

void HostNameObserver::handleAnswer(std::span<const std::byte> message,
                                    const TransportPacket& packet) {
  const auto id = idOfDNSAnswer(message);
  const OpenQuestions::Asked* const open =
      id ? questions_.find(*id, packet.tuple, HostNames::Clock::now()) : nullptr;
  if (open == nullptr) {
    return;
  }
  auto addresses = parseDNSAnswer(message, open->question);
  // A damaged answer may be a forgery that arrives before the true one.
  if (addresses.empty()) {
    return;
  }
  OpenQuestions::Asked asked = *open;
  questions_.close(asked.number);
  learn(asked, addresses);
  if (!asked.asker) {
    const std::uint64_t number = asked.number;
    earlyAnswers_.insert_or_assign(number, EarlyAnswer{std::move(asked), std::move(addresses)});
  }
}

void HostNameObserver::learn(const OpenQuestions::Asked& asked,
                             std::span<const ResolvedAddress> addresses) {
  const auto now = HostNames::Clock::now();
  const std::string application = asked.asker ? asked.asker->application : std::string();
  const bool isForMachine = asked.asker && asked.asker->isForMachine;
  names_.learn(HostNames::Owner::application(asked.user, application), asked.question.name,
               addresses, now);
  if (isForMachine) {
    names_.learn(HostNames::Owner::machine(), asked.question.name, addresses, now);
  }
}

}  // namespace ostravel::linuxplatform
