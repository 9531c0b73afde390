#include "Companion/Fleet/FleetPublisher.h"

#include <jansson.h>
#include <pthread.h>

#include <algorithm>
#include <utility>

#include "Base/JSONHandle.h"
#include "Base/ParseNumber.h"

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;

// What is under way at a time: a millisecond's worth of a fast network, and little enough for the
// buffers of a socket, so that sending does not wait.
constexpr std::size_t kWindowMessages = 1024;
constexpr std::size_t kWindowSize = std::size_t{1024} * 1024;

// Waits for the thread while a disk is stuck: tens of thousands of events.
constexpr std::size_t kReceivedSize = std::size_t{16} * 1024 * 1024;

constexpr auto kSyncInterval = 1s;
constexpr auto kStreamCheckInterval = 5s;
constexpr auto kMissingStreamPause = 500ms;
constexpr auto kDropReportInterval = 10s;
constexpr auto kFarewell = 500ms;

std::size_t sizeOf(const FleetMessage& message) {
  return sizeof(message) + message.json.size();
}

}  // namespace

FleetPublisher::FleetPublisher(Options options)
    : options_(std::move(options)),
      connection_(options_.server, "ostravel-monitor on " + nameOfThisHost()),
      spool_(options_.folder, options_.limits),
      reportedDropped_(spool_.dropped()),
      counts_{.waiting = spool_.waiting(), .dropped = spool_.dropped()},
      thread_([this] { run(); }) {
  ::pthread_setname_np(thread_.native_handle(), "fleet");
}

FleetPublisher::~FleetPublisher() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  wakeUp_.notify_one();
  thread_.join();
}

void FleetPublisher::publish(FleetMessage message) {
  {
    const std::lock_guard lock(mutex_);
    const std::size_t size = sizeOf(message);
    if (overflow_ > 0 || receivedSize_ + size > kReceivedSize) {
      ++overflow_;
      return;
    }
    receivedSize_ += size;
    received_.push_back(std::move(message));
  }
  wakeUp_.notify_one();
}

FleetPublisher::Counts FleetPublisher::counts() const {
  const std::lock_guard lock(mutex_);
  return {.waiting = counts_.waiting + received_.size(), .dropped = counts_.dropped + overflow_};
}

void FleetPublisher::run() {
  Time end = Time::max();
  while (std::chrono::steady_clock::now() < end) {
    step();
    const std::lock_guard lock(mutex_);
    if (isEnding_ && end == Time::max()) {
      end = std::chrono::steady_clock::now() + kFarewell;
    }
    if (isEnding_ && received_.empty() && (counts_.waiting == 0 || !connection_.isConnected())) {
      break;
    }
  }
  spool_.sync();
}

void FleetPublisher::step() {
  const bool hasReceived = takeReceived();
  maintainConnection();
  const Time now = std::chrono::steady_clock::now();
  if (connection_.isConnected()) {
    sendExpired(now);
    fillWindow(now);
  }
  if (!sent_.empty() && connection_.isConnected()) {
    receiveAnswers();
  } else if (!hasReceived) {
    waitForWork();
  }
  saveSpool(now);
  reportDropped(now);
  const std::lock_guard lock(mutex_);
  counts_ = {.waiting = spool_.waiting(), .dropped = spool_.dropped()};
}

bool FleetPublisher::takeReceived() {
  std::deque<FleetMessage> received;
  std::uint64_t overflow = 0;
  {
    const std::lock_guard lock(mutex_);
    received.swap(received_);
    receivedSize_ = 0;
    overflow = std::exchange(overflow_, 0);
    // Counted without interruption: they are with the spool in a moment.
    counts_.waiting += received.size();
    counts_.dropped += overflow;
  }
  for (FleetMessage& message : received) {
    static_cast<void>(spool_.append(std::move(message)));
  }
  spool_.countDropped(overflow);
  return !received.empty();
}

void FleetPublisher::maintainConnection() {
  connection_.maintain();
  if (!connection_.isConnected()) {
    reportState(State::unreachable, "cannot reach " + options_.server.url + ": " +
                                        connection_.problem() + "; events wait in " +
                                        options_.folder);
    return;
  }
  if (connection_.object() != object_) {
    subscribeToAnswers();
  }
  if (connection_.generation() != generation_) {
    generation_ = connection_.generation();
    reportState(State::connected, "connected to " + options_.server.url);
    sendAll();
  }
}

void FleetPublisher::subscribeToAnswers() {
  answers_.reset();
  natsInbox* inbox = nullptr;
  natsSubscription* subscription = nullptr;
  if (natsInbox_Create(&inbox) != NATS_OK) {
    return;
  }
  const NATSInbox owned(inbox);
  inbox_ = std::string(inbox) + ".";
  if (natsConnection_SubscribeSync(&subscription, connection_.get(), (inbox_ + "*").c_str()) ==
      NATS_OK) {
    answers_.reset(subscription);
    object_ = connection_.object();
  }
}

void FleetPublisher::sendAll() {
  const Time now = std::chrono::steady_clock::now();
  for (auto& [sequence, sent] : sent_) {
    sent.sendAgain = now;
    sent.attempts = 0;
  }
}

void FleetPublisher::sendExpired(Time now) {
  for (auto place = sent_.begin(); place != sent_.end();) {
    auto& [sequence, sent] = *place++;
    if (sent.sendAgain <= now) {
      ++sent.attempts;
      send(sent, now);
    }
  }
}

void FleetPublisher::fillWindow(Time now) {
  while (sent_.size() < kWindowMessages && sentSize_ < kWindowSize) {
    std::optional<NumberedMessage> message = spool_.next();
    if (!message) {
      return;
    }
    const std::uint64_t sequence = message->sequence;
    sentSize_ += sizeOf(message->message);
    Sent& sent = sent_[sequence];
    sent.message = std::move(*message);
    send(sent, now);
  }
}

bool FleetPublisher::send(Sent& sent, Time now) {
  constexpr int kMostDoublings = 4;
  sent.sendAgain =
      now + options_.patience * (1 << std::clamp(sent.attempts - 1, 0, kMostDoublings));
  const std::string sequence = std::to_string(sent.message.sequence);
  const FleetMessage& message = sent.message.message;
  natsMsg* made = nullptr;
  if (natsMsg_Create(&made, fleetSubject(message).c_str(), (inbox_ + sequence).c_str(),
                     message.json.data(), static_cast<int>(message.json.size())) != NATS_OK) {
    return false;
  }
  const NATSMessage owned(made);
  for (const auto& [name, value] :
       {std::pair("Nats-Msg-Id", message.id), std::pair("Ostravel-Host", message.host),
        std::pair("Ostravel-Boot", message.bootId), std::pair("Ostravel-Sequence", sequence),
        std::pair("Ostravel-Dropped", std::to_string(sent.message.droppedBefore))}) {
    if (natsMsgHeader_Set(made, name, value.c_str()) != NATS_OK) {
      return false;
    }
  }
  const natsStatus status = natsConnection_PublishMsg(connection_.get(), made);
  if (status == NATS_MAX_PAYLOAD) {
    spool_.discard(sent.message.sequence);
    forget(sent.message.sequence);
  }
  return status == NATS_OK;
}

void FleetPublisher::forget(std::uint64_t sequence) {
  const auto place = sent_.find(sequence);
  sentSize_ -= sizeOf(place->second.message.message);
  sent_.erase(place);
}

void FleetPublisher::receiveAnswers() {
  // Also how long a new message can wait while others are under way.
  constexpr std::int64_t kWaitMilliseconds = 10;
  std::uint64_t waiting = 1;
  while (waiting > 0) {
    natsMsg* answer = nullptr;
    const natsStatus status = natsSubscription_NextMsg(&answer, answers_.get(), kWaitMilliseconds);
    const NATSMessage owned(answer);
    if (status == NATS_OK) {
      handleAnswer(answer);
    } else if (status == NATS_NO_RESPONDERS) {
      handleMissingStream();
    } else {
      if (status != NATS_TIMEOUT) {
        waitForWork();
      }
      return;
    }
    if (natsSubscription_QueuedMsgs(answers_.get(), &waiting) != NATS_OK) {
      return;
    }
  }
}

void FleetPublisher::handleAnswer(natsMsg* answer) {
  const std::string_view subject = natsMsg_GetSubject(answer);
  const std::optional<std::uint64_t> sequence =
      parseNumber<std::uint64_t>(subject.substr(std::min(inbox_.size(), subject.size())));
  if (!sequence || !sent_.contains(*sequence)) {
    return;
  }
  const std::string_view body(natsMsg_GetData(answer),
                              static_cast<std::size_t>(natsMsg_GetDataLength(answer)));
  const JSONHandle json(json_loadb(body.data(), body.size(), 0, nullptr));
  if (json_is_string(json_object_get(json.get(), "stream")) &&
      json_object_get(json.get(), "error") == nullptr) {
    spool_.acknowledge(*sequence);
    forget(*sequence);
    return;
  }
  handleRefusal(*sequence, body);
}

void FleetPublisher::handleRefusal(std::uint64_t sequence, std::string_view body) {
  const JSONHandle json(json_loadb(body.data(), body.size(), 0, nullptr));
  const json_t* error = json_object_get(json.get(), "error");
  // Larger than the stream takes.
  constexpr json_int_t kMessageTooLarge = 10054;
  if (json_integer_value(json_object_get(error, "err_code")) == kMessageTooLarge) {
    spool_.discard(sequence);
    forget(sequence);
    return;
  }
  const char* text = json_string_value(json_object_get(error, "description"));
  // It stays where it is and is sent again later.
  reportState(State::refused, options_.server.url + " refuses events: " +
                                  (text == nullptr ? "without a reason" : text) +
                                  "; they wait in " + options_.folder);
}

void FleetPublisher::handleMissingStream() {
  const Time now = std::chrono::steady_clock::now();
  if (now < nextStreamCheck_) {
    // The library does not say which message it was.
    for (auto& [sequence, sent] : sent_) {
      sent.sendAgain = std::min(sent.sendAgain, now + kMissingStreamPause);
    }
    return;
  }
  nextStreamCheck_ = now + kStreamCheckInterval;
  const std::string problem = ensureFleetStream(connection_.get());
  if (problem.empty()) {
    sendAll();
    return;
  }
  reportState(State::withoutStream, options_.server.url + " has no stream for the events (" +
                                        problem + "); they wait in " + options_.folder);
}

void FleetPublisher::saveSpool(Time now) {
  spool_.saveState();
  if (now >= nextSync_) {
    nextSync_ = now + kSyncInterval;
    if (spool_.waiting() > 0) {
      spool_.sync();
    }
  }
}

void FleetPublisher::waitForWork() {
  const auto limit = connection_.isConnected() ? 5s : 500ms;
  std::unique_lock lock(mutex_);
  wakeUp_.wait_for(lock, limit, [this] { return !received_.empty() || isEnding_; });
}

void FleetPublisher::reportState(State state, const std::string& text) {
  if (reportedState_ != state) {
    reportedState_ = state;
    options_.report(text);
  }
}

void FleetPublisher::reportDropped(Time now) {
  const std::uint64_t dropped = spool_.dropped();
  if (dropped == reportedDropped_ || now < nextDropReport_) {
    return;
  }
  nextDropReport_ = now + kDropReportInterval;
  const std::string reason = spool_.problem() ? " (" + spool_.problem().message() + ")" : "";
  options_.report("events dropped: " + std::to_string(dropped - reportedDropped_) + reason);
  reportedDropped_ = dropped;
}

}  // namespace ostravel::companion
