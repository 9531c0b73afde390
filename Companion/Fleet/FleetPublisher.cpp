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

// Limit on unacknowledged messages: a millisecond's worth of a fast network, and small enough for
// the buffers of a socket, so that sending does not block.
constexpr std::size_t kWindowMessages = 1024;
constexpr std::size_t kWindowSize = std::size_t{1024} * 1024;

// Limit on the messages that wait for the thread while the disk is stuck: tens of thousands of
// events.
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
      reportedDropped_(spool_.dropped()) {
  mailbox_->counts = {.waiting = spool_.waiting(), .dropped = spool_.dropped()};
  thread_ = std::thread([this] { run(); });
  ::pthread_setname_np(thread_.native_handle(), "fleet");
}

FleetPublisher::~FleetPublisher() {
  {
    const std::lock_guard lock(mailbox_->mutex);
    mailbox_->isEnding = true;
  }
  mailbox_->wakeUp.notify_one();
  thread_.join();
}

void FleetPublisher::publish(FleetMessage message) {
  {
    const std::lock_guard lock(mailbox_->mutex);
    const std::size_t size = sizeOf(message);
    if (mailbox_->overflow > 0 || mailbox_->receivedSize + size > kReceivedSize) {
      ++mailbox_->overflow;
      return;
    }
    mailbox_->receivedSize += size;
    mailbox_->received.push_back(std::move(message));
  }
  mailbox_->wakeUp.notify_one();
}

FleetPublisher::Counts FleetPublisher::counts() const {
  const std::lock_guard lock(mailbox_->mutex);
  return {.waiting = mailbox_->counts.waiting + mailbox_->received.size(),
          .dropped = mailbox_->counts.dropped + mailbox_->overflow};
}

void FleetPublisher::run() {
  Time end = Time::max();
  while (std::chrono::steady_clock::now() < end) {
    step();
    const std::lock_guard lock(mailbox_->mutex);
    if (!mailbox_->isEnding) {
      continue;
    }
    if (end == Time::max()) {
      end = std::chrono::steady_clock::now() + kFarewell;
    }
    if (mailbox_->received.empty() &&
        (mailbox_->counts.waiting == 0 || !connection_.isConnected())) {
      break;
    }
  }
  spool_.sync();
}

void FleetPublisher::step() {
  takeReceived();
  maintainConnection();
  handleAnswers();
  const Time now = std::chrono::steady_clock::now();
  if (connection_.isConnected()) {
    sendExpired(now);
    fillWindow(now);
  }
  saveSpool(now);
  reportDropped(now);
  {
    const std::lock_guard lock(mailbox_->mutex);
    mailbox_->counts = {.waiting = spool_.waiting(), .dropped = spool_.dropped()};
  }
  waitForWork();
}

void FleetPublisher::takeReceived() {
  std::deque<FleetMessage> received;
  std::uint64_t overflow = 0;
  {
    const std::lock_guard lock(mailbox_->mutex);
    received.swap(mailbox_->received);
    mailbox_->receivedSize = 0;
    overflow = std::exchange(mailbox_->overflow, 0);
    // Keeps the count continuous: the spool will count them in a moment.
    mailbox_->counts.waiting += received.size();
    mailbox_->counts.dropped += overflow;
  }
  for (FleetMessage& message : received) {
    static_cast<void>(spool_.append(std::move(message)));
  }
  spool_.countDropped(overflow);
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
  // The library keeps this reference until it has delivered the last message.
  auto* const mailbox = new std::shared_ptr<Mailbox>(mailbox_);
  const auto release = [](void* closure) {
    delete static_cast<std::shared_ptr<Mailbox>*>(closure);
  };
  if (natsConnection_Subscribe(&subscription, connection_.get(), (inbox_ + "*").c_str(),
                               receiveAnswer, mailbox) != NATS_OK) {
    release(mailbox);
    return;
  }
  answers_.reset(subscription);
  natsSubscription_SetOnCompleteCB(subscription, release, mailbox);
  object_ = connection_.object();
}

void FleetPublisher::receiveAnswer(natsConnection* /*connection*/,
                                   natsSubscription* /*subscription*/, natsMsg* message,
                                   void* mailbox) {
  const NATSMessage owned(message);
  Mailbox& box = **static_cast<std::shared_ptr<Mailbox>*>(mailbox);
  {
    const std::lock_guard lock(box.mutex);
    box.answers.push_back(
        {.subject = natsMsg_GetSubject(message),
         .body = std::string(natsMsg_GetData(message),
                             static_cast<std::size_t>(natsMsg_GetDataLength(message))),
         .hasNoStream = natsMsg_IsNoResponders(message)});
  }
  box.wakeUp.notify_one();
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

void FleetPublisher::handleAnswers() {
  std::deque<Answer> answers;
  {
    const std::lock_guard lock(mailbox_->mutex);
    answers.swap(mailbox_->answers);
  }
  for (const Answer& answer : answers) {
    handleAnswer(answer);
  }
}

void FleetPublisher::handleAnswer(const Answer& answer) {
  if (!answer.subject.starts_with(inbox_)) {
    return;  // of a connection before this one
  }
  const auto sequence = parseNumber<std::uint64_t>(answer.subject.substr(inbox_.size()));
  const auto sent = sent_.find(sequence.value_or(0));
  if (sent == sent_.end()) {
    return;
  }
  if (answer.hasNoStream) {
    // Retry soon: another machine may be creating the stream.
    sent->second.sendAgain = std::chrono::steady_clock::now() + kMissingStreamPause;
    handleMissingStream();
    return;
  }
  const JSONHandle json(json_loadb(answer.body.data(), answer.body.size(), 0, nullptr));
  const json_t* const error = json_object_get(json.get(), "error");
  if (error == nullptr && json_is_string(json_object_get(json.get(), "stream"))) {
    spool_.acknowledge(*sequence);
    forget(*sequence);
    return;
  }
  // The message is larger than the stream permits.
  constexpr json_int_t kMessageTooLarge = 10054;
  if (json_integer_value(json_object_get(error, "err_code")) == kMessageTooLarge) {
    spool_.discard(*sequence);
    forget(*sequence);
    return;
  }
  const char* const text = json_string_value(json_object_get(error, "description"));
  // The message stays in the spool and is sent again later.
  reportState(State::refused, options_.server.url + " refuses events: " +
                                  (text == nullptr ? "without a reason" : text) +
                                  "; they wait in " + options_.folder);
}

void FleetPublisher::handleMissingStream() {
  const Time now = std::chrono::steady_clock::now();
  if (now < nextStreamCheck_) {
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
  Time end = std::chrono::steady_clock::now() + (connection_.isConnected() ? 5s : 500ms);
  if (connection_.isConnected()) {
    for (const auto& [sequence, sent] : sent_) {
      end = std::min(end, sent.sendAgain);
    }
  }
  if (spool_.waiting() > 0) {
    end = std::min(end, nextSync_);
  }
  std::unique_lock lock(mailbox_->mutex);
  const bool wasEnding = mailbox_->isEnding;
  if (wasEnding) {
    end = std::min(end, std::chrono::steady_clock::now() + kFarewell);
  }
  mailbox_->wakeUp.wait_until(lock, end, [this, wasEnding] {
    return !mailbox_->received.empty() || !mailbox_->answers.empty() ||
           mailbox_->isEnding != wasEnding;
  });
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
