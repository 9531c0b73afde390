#include "Companion/Fleet/FleetConnection.h"

#include <new>

#include "Companion/Fleet/FleetMessage.h"
#include "Companion/Fleet/ReconnectDelay.h"

namespace ostravel::companion {

FleetConnection::FleetConnection(const FleetServer& server, const std::string& name)
    : options_(connectionOptions(server, name)) {
  natsStatistics* statistics = nullptr;
  if (natsStatistics_Create(&statistics) != NATS_OK) {
    throw std::bad_alloc();
  }
  statistics_.reset(statistics);
}

void FleetConnection::maintain() {
  const auto now = std::chrono::steady_clock::now();
  if (connection_) {
    if (isConnected()) {
      failures_ = 0;
    }
    if (!natsConnection_IsClosed(connection_.get())) {
      return;
    }
    lastProblem_ = problem();
    connection_.reset();
    nextAttempt_ = now + randomReconnectDelay(++failures_);
  }
  if (now < nextAttempt_) {
    return;
  }
  natsConnection* made = nullptr;
  const natsStatus status = natsConnection_Connect(&made, options_.get());
  connection_.reset(made);
  ++objects_;
  if (!connection_) {
    lastProblem_ = natsStatus_GetText(status);
    nextAttempt_ = now + randomReconnectDelay(++failures_);
  }
}

bool FleetConnection::isConnected() const {
  return connection_ && natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED;
}

std::uint64_t FleetConnection::generation() const {
  std::uint64_t reconnects = 0;
  if (connection_ && natsConnection_GetStats(connection_.get(), statistics_.get()) == NATS_OK) {
    natsStatistics_GetCounts(statistics_.get(), nullptr, nullptr, nullptr, nullptr, &reconnects);
  }
  constexpr unsigned kObjectShift = 32;
  return (objects_ << kObjectShift) + reconnects;
}

std::string FleetConnection::problem() const {
  if (!connection_) {
    return lastProblem_.empty() ? "connecting" : lastProblem_;
  }
  const char* text = nullptr;
  const natsStatus status = natsConnection_GetLastError(connection_.get(), &text);
  if (status == NATS_OK) {
    return "no answer";
  }
  return text != nullptr && *text != '\0' ? text : natsStatus_GetText(status);
}

std::string ensureFleetStream(natsConnection* connection) {
  jsCtx* made = nullptr;
  jsOptions options;
  jsOptions_Init(&options);
  constexpr std::int64_t kWaitMilliseconds = 2000;
  options.Wait = kWaitMilliseconds;
  if (natsConnection_JetStream(&made, connection, &options) != NATS_OK) {
    return "no connection";
  }
  const JetStream jetStream(made);
  jsErrCode code{};
  jsStreamInfo* found = nullptr;
  const natsStatus lookup = js_GetStreamInfo(&found, made, kFleetStream, nullptr, &code);
  if (lookup == NATS_OK) {
    jsStreamInfo_Destroy(found);
    return {};
  }
  if (lookup != NATS_NOT_FOUND) {
    return natsStatus_GetText(lookup);
  }
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  const char* subject = kFleetSubjects.data();
  config.Name = kFleetStream;
  config.Description = "Events of all machines";
  config.Subjects = &subject;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  constexpr std::int64_t kWeek = std::int64_t{7} * 24 * 3600;
  config.MaxAge = kWeek * kNanoseconds;
  // A machine that has missed an acknowledgement sends the message again within this time after it
  // reconnects.
  constexpr std::int64_t kTenMinutes = 600;
  config.Duplicates = kTenMinutes * kNanoseconds;
  const natsStatus status = js_AddStream(nullptr, made, &config, nullptr, &code);
  return status == NATS_OK ? std::string() : natsStatus_GetText(status);
}

}  // namespace ostravel::companion
