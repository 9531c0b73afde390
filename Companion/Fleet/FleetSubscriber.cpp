#include "Companion/Fleet/FleetSubscriber.h"

#include <pthread.h>

#include <asio/post.hpp>
#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

#include "Base/ParseNumber.h"

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;

// About 30 MB. Duplicates are at most an outage of one machine or server apart, and the server
// itself detects those of the last minutes.
constexpr std::size_t kRecentIds = 200'000;

// Exceeds any fleet.
constexpr std::size_t kMostMachines = 500'000;

// How late the subscriber notices that it shall end.
constexpr auto kLongestWait = 500ms;
constexpr auto kPause = 500ms;

std::string headerOf(natsMsg* message, const char* name) {
  const char* value = nullptr;
  return natsMsgHeader_Get(message, name, &value) == NATS_OK && value != nullptr ? value : "";
}

}  // namespace

FleetSubscriber::FleetSubscriber(asio::io_context& ioContext, Options options)
    : ioContext_(ioContext),
      options_(std::move(options)),
      connection_(options_.server, "ostravel-monitor on " + nameOfThisHost()),
      recent_(kRecentIds),
      dropped_(kMostMachines),
      thread_([this] { run(); }) {
  ::pthread_setname_np(thread_.native_handle(), "fleet");
}

FleetSubscriber::~FleetSubscriber() {
  {
    const std::lock_guard lock(ending_->mutex);
    ending_->hasBegun = true;
  }
  ending_->wakeUp.notify_one();
  thread_.join();
}

void FleetSubscriber::run() {
  while (!isEnding()) {
    step();
  }
}

void FleetSubscriber::step() {
  connection_.maintain();
  if (!connection_.isConnected()) {
    report("cannot reach " + options_.server.url);
    pause();
    return;
  }
  if (!hasConsumer() && !makeConsumer()) {
    pause();
    return;
  }
  fetch();
}

bool FleetSubscriber::hasConsumer() {
  if (connection_.generation() != generation_) {
    reader_.reset();
    jetStream_.reset();
  }
  return reader_ != nullptr;
}

bool FleetSubscriber::makeConsumer() {
  generation_ = connection_.generation();
  if (const std::string problem = ensureFleetStream(connection_.get()); !problem.empty()) {
    report(options_.server.url + " has no stream of events: " + problem);
    return false;
  }
  jsCtx* jetStream = nullptr;
  jsStreamInfo* stream = nullptr;
  jsErrCode code{};
  if (natsConnection_JetStream(&jetStream, connection_.get(), nullptr) != NATS_OK) {
    return false;
  }
  jetStream_.reset(jetStream);
  if (js_GetStreamInfo(&stream, jetStream, kFleetStream, nullptr, &code) != NATS_OK) {
    return false;
  }
  const JetStreamInfo owned(stream);
  next_ = positionIn(*stream);

  std::string problem;
  if (!subscribeToAnswers(problem)) {
    report(options_.server.url + " permits no subscription: " + problem);
    return false;
  }
  reader_ = StreamReader::make(connection_.get(), jetStream, answers_, *next_, problem);
  if (!reader_) {
    report(options_.server.url + " permits no subscription: " + problem);
    return false;
  }
  report("connected to " + options_.server.url);
  return true;
}

// Once for each of the library's connections, which restores it.
bool FleetSubscriber::subscribeToAnswers(std::string& problem) {
  if (connection_.object() == object_) {
    return true;
  }
  if (const natsStatus status = answers_.subscribe(connection_.get()); status != NATS_OK) {
    problem = natsStatus_GetText(status);
    return false;
  }
  object_ = connection_.object();
  return true;
}

// The position at which to continue in the stream, which may have been replaced.
std::optional<std::uint64_t> FleetSubscriber::positionIn(const jsStreamInfo& stream) {
  if (!next_) {
    return options_.fromBeginning ? 1 : stream.State.LastSeq + 1;
  }
  return *next_ > stream.State.LastSeq + 1 ? 1 : *next_;
}

void FleetSubscriber::fetch() {
  std::vector<FleetMessage> batch;
  const bool isUsable =
      reader_->read(kLongestWait, [this, &batch](natsMsg* received) { take(received, batch); });
  if (!batch.empty()) {
    deliver(std::move(batch));
  }
  if (!isUsable) {
    reader_.reset();
    pause();
  }
}

void FleetSubscriber::take(natsMsg* received, std::vector<FleetMessage>& batch) {
  jsMsgMetaData* data = nullptr;
  if (natsMsg_GetMetaData(&data, received) != NATS_OK) {
    return;
  }
  const std::uint64_t sequence = JetStreamMetaData(data)->Sequence.Stream;
  if (sequence < *next_) {
    return;
  }
  if (sequence > *next_ && *next_ > 1) {
    options_.report("no longer in the stream: " + std::to_string(sequence - *next_) + " events");
  }
  next_ = sequence + 1;

  FleetMessage message{
      .host = headerOf(received, "Ostravel-Host"),
      .bootId = headerOf(received, "Ostravel-Boot"),
      .id = headerOf(received, "Nats-Msg-Id"),
      .json = std::string(natsMsg_GetData(received),
                          static_cast<std::size_t>(natsMsg_GetDataLength(received)))};
  const std::string_view subject = natsMsg_GetSubject(received);
  if (!isFleetSubject(subject, message) || !isPlainName(message.id)) {
    options_.report("a message is not from where it claims to be, and is ignored");
    return;
  }
  noteDropped(message, headerOf(received, "Ostravel-Dropped"));
  if (recent_.add(message.id)) {
    batch.push_back(std::move(message));
  }
}

void FleetSubscriber::noteDropped(const FleetMessage& message, const std::string& count) {
  const std::optional<std::uint64_t> dropped = parseNumber<std::uint64_t>(count);
  if (!dropped) {
    return;
  }
  const DroppedCounts::Change change = dropped_.add(message.host, *dropped);
  if (change.isRestart) {
    options_.report("more than " + std::to_string(kMostMachines) +
                    " machines: what they drop is counted from now on");
  }
  if (change.before > 0) {
    // Before the first message that is shown; from the beginning on, all of it would have been.
    options_.report(message.host + " had dropped " + std::to_string(change.before) +
                    " events before");
    options_.dropped(options_.fromBeginning ? change.before : 0);
  }
  if (change.since > 0) {
    options_.report(message.host + " dropped " + std::to_string(change.since) + " events");
    options_.dropped(change.since);
  }
}

void FleetSubscriber::deliver(std::vector<FleetMessage> batch) {
  struct Delivery {
    std::vector<FleetMessage> batch;
    bool isDone = false;
  };
  const auto delivery = std::make_shared<Delivery>(Delivery{.batch = std::move(batch)});
  asio::post(ioContext_, [this, ending = ending_, delivery] {
    {
      const std::lock_guard lock(ending->mutex);
      if (ending->hasBegun) {
        // This object may no longer be there.
        return;
      }
    }
    for (const FleetMessage& message : delivery->batch) {
      options_.event(message);
    }
    const std::lock_guard lock(ending->mutex);
    delivery->isDone = true;
    ending->wakeUp.notify_one();
  });
  std::unique_lock lock(ending_->mutex);
  ending_->wakeUp.wait(lock, [this, &delivery] { return delivery->isDone || ending_->hasBegun; });
}

void FleetSubscriber::report(const std::string& text) {
  if (std::exchange(reported_, text) != text) {
    options_.report(text);
  }
}

void FleetSubscriber::pause() {
  std::unique_lock lock(ending_->mutex);
  ending_->wakeUp.wait_for(lock, kPause, [this] { return ending_->hasBegun; });
}

bool FleetSubscriber::isEnding() const {
  const std::lock_guard lock(ending_->mutex);
  return ending_->hasBegun;
}

}  // namespace ostravel::companion
