#include "Companion/Fleet/StreamReader.h"

#include <algorithm>
#include <string_view>

#include "Companion/Fleet/FleetConnection.h"
#include "Companion/Fleet/FleetMessage.h"

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Messages that are requested at once, all of which may be in memory.
constexpr int kBatch = 512;
// How long the server keeps a request open, and how much later its last answer may arrive.
constexpr std::chrono::nanoseconds kRequestTime = 2s;
constexpr auto kAnswerTime = 2s;

using ConsumerInfo = NATSHandle<jsConsumerInfo, jsConsumerInfo_Destroy>;

}  // namespace

natsStatus StreamAnswers::subscribe(natsConnection* connection) {
  natsInbox* made = nullptr;
  natsStatus status = natsInbox_Create(&made);
  if (status != NATS_OK) {
    return status;
  }
  inbox = made;
  natsInbox_Destroy(made);
  natsSubscription* answers = nullptr;
  status = natsConnection_SubscribeSync(&answers, connection, (inbox + ".*").c_str());
  subscription.reset(answers);
  // A batch is the limit: nothing may be lost, because the server sends it only once.
  return status == NATS_OK ? natsSubscription_SetPendingLimits(answers, -1, -1) : status;
}

StreamReader::StreamReader(natsConnection* connection, const StreamAnswers& answers,
                           const std::string& consumer)
    : connection_(connection),
      answers_(answers.subscription.get()),
      subject_(std::string("$JS.API.CONSUMER.MSG.NEXT.") + kFleetStream + '.' + consumer),
      address_(answers.inbox + '.' + consumer),
      mark_(std::string(".") + kFleetStream + '.' + consumer + '.') {}

std::unique_ptr<StreamReader> StreamReader::make(natsConnection* connection, jsCtx* jetStream,
                                                 const StreamAnswers& answers,
                                                 std::uint64_t position, std::string& problem) {
  jsConsumerConfig configuration;
  jsConsumerConfig_Init(&configuration);
  // Messages need no acknowledgement: when the connection breaks, a new consumer starts after the
  // last message that was processed.
  configuration.AckPolicy = js_AckNone;
  configuration.DeliverPolicy = js_DeliverByStartSequence;
  configuration.OptStartSeq = position;
  configuration.FilterSubject = kFleetSubjects.data();
  configuration.MemoryStorage = true;
  jsConsumerInfo* consumer = nullptr;
  jsErrCode code{};
  const natsStatus status =
      js_AddConsumer(&consumer, jetStream, kFleetStream, &configuration, nullptr, &code);
  if (status != NATS_OK) {
    problem = natsStatus_GetText(status);
    return nullptr;
  }
  const ConsumerInfo owned(consumer);
  return std::unique_ptr<StreamReader>(new StreamReader(connection, answers, consumer->Name));
}

bool StreamReader::read(std::chrono::milliseconds longest,
                        const std::function<void(natsMsg*)>& take) {
  if (expected_ == 0 && !request()) {
    return false;
  }
  const auto end = Clock::now() + longest;
  std::chrono::milliseconds wait = longest;
  do {
    natsMsg* received = nullptr;
    const natsStatus status =
        natsSubscription_NextMsg(&received, answers_, std::max(wait, 1ms).count());
    if (status == NATS_TIMEOUT) {
      return Clock::now() < deadline_;
    }
    if (status != NATS_OK) {
      return false;
    }
    const NATSMessage message(received);
    const Kind kind = kindOf(received);
    if (kind == Kind::status) {
      return isUsableAfter(received);
    }
    if (kind == Kind::ofStream) {
      --expected_;
      take(received);
      // Only what else has arrived.
      wait = 0ms;
    }
  } while (expected_ > 0 && Clock::now() < end);
  return true;
}

bool StreamReader::request() {
  const std::string text = R"({"batch":)" + std::to_string(kBatch) + R"(,"expires":)" +
                           std::to_string(kRequestTime.count()) + '}';
  if (natsConnection_PublishRequestString(connection_, subject_.c_str(), address_.c_str(),
                                          text.c_str()) != NATS_OK) {
    return false;
  }
  expected_ = kBatch;
  deadline_ = Clock::now() + kRequestTime + kAnswerTime;
  return true;
}

// Headers would not distinguish them: a machine chooses those of its messages.
StreamReader::Kind StreamReader::kindOf(natsMsg* message) const {
  const char* const reply = natsMsg_GetReply(message);
  if (reply != nullptr && *reply != '\0') {
    return std::string_view(reply).find(mark_) == std::string_view::npos ? Kind::unrelated
                                                                         : Kind::ofStream;
  }
  return natsMsg_GetSubject(message) == address_ ? Kind::status : Kind::unrelated;
}

bool StreamReader::isUsableAfter(natsMsg* status) {
  expected_ = 0;
  const char* code = nullptr;
  if (natsMsgHeader_Get(status, "Status", &code) != NATS_OK || code == nullptr) {
    return false;
  }
  // No more messages within the time of the request. Others: no such consumer, or no server.
  return std::string_view(code) == "408" || std::string_view(code) == "404";
}

}  // namespace ostravel::companion
