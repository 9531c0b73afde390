#include "Platform/Linux/Relay/FallbackConnection.h"

#include <cerrno>
#include <utility>

#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/SocketError.h"

namespace ostravel::linuxplatform {

using platform::Data;
using platform::OptionalError;
using platform::TCPConnectionState;

namespace {

constexpr std::string_view kStateKeyPath = platform::StateObservers::kKeyPath;

// "HTTP/1.1 502" (RFC 9112, section 4).
constexpr std::string_view kVersion = "HTTP/1.";
constexpr std::size_t kStatusBegin = 9;
constexpr std::size_t kStatusEnd = 12;

bool cannotResolve(std::string_view answer) {
  const std::string_view status = answer.substr(kStatusBegin, kStatusEnd - kStatusBegin);
  return status == "502" || status == "503" || status == "504";
}

bool mayBeStatusLine(std::string_view answer) {
  return answer.substr(0, kVersion.size()) == kVersion.substr(0, answer.size());
}

// The beginning of the request for this target (RFC 9112, section 3.2.3).
std::string requestFor(const std::string& target) {
  return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
}

}  // namespace

std::shared_ptr<FallbackConnection> FallbackConnection::connect(EventLoop& loop,
                                                                ConnectByName byName, Dial dial) {
  auto made =
      std::make_shared<FallbackConnection>(Private(), loop, std::move(byName), std::move(dial));
  made->observeConnection();
  return made;
}

FallbackConnection::FallbackConnection(Private /*unused*/, EventLoop& loop, ConnectByName byName,
                                       Dial dial)
    : loop_(loop), byName_(std::move(byName)), dial_(std::move(dial)), connection_(dial_()) {}

FallbackConnection::~FallbackConnection() {
  finishRead(std::nullopt, socketError(ECANCELED));
}

std::shared_ptr<platform::TCPConnection> FallbackConnection::connection() const {
  const std::lock_guard guard(lock_);
  return connection_;
}

void FallbackConnection::observeConnection() {
  connection_->addObserver(weak_from_this(), kStateKeyPath);
}

// State

TCPConnectionState FallbackConnection::state() const {
  // The first connection has been established, and nothing has ended yet.
  return stage_ == Stage::retrying ? TCPConnectionState::connected : connection()->state();
}

OptionalError FallbackConnection::error() const {
  return connection()->error();
}

void FallbackConnection::addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                                     std::string_view /*keyPath*/) {
  if (observers_.add(std::move(observer))) {
    loop_.post([weakSelf = weak_from_this()] {
      if (const auto self = weakSelf.lock()) {
        self->observers_.notifyOfMissedChange(*self);
      }
    });
  }
}

void FallbackConnection::removeObserver(platform::KeyValueObserver& observer,
                                        std::string_view /*keyPath*/) {
  observers_.remove(observer);
}

void FallbackConnection::observeValue(std::optional<std::string_view> /*keyPath*/,
                                      platform::Observable* object) {
  // The first connection may still report its end after it has been replaced.
  if (dynamic_cast<platform::TCPConnection*>(object) != connection_.get()) {
    return;
  }
  if (stage_ == Stage::retrying) {
    continueRetry();
    return;
  }
  observers_.notify(*this);
}

// Transfer

void FallbackConnection::write(Data data, platform::ErrorCompletion completion) {
  loop_.runWith(*this, [data = std::move(data),
                        completion = std::move(completion)](FallbackConnection& self) mutable {
    if (self.stage_ == Stage::fresh) {
      self.noteRequest(data);
    }
    self.connection_->write(std::move(data), std::move(completion));
  });
}

void FallbackConnection::noteRequest(const Data& data) {
  const auto bytes = data.bytes();
  const std::string_view request(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::string expected = requestFor(byName_.named);
  if (!request.starts_with(expected)) {
    stage_ = Stage::passing;
    return;
  }
  retryRequest_ = requestFor(byName_.literal).append(request.substr(expected.size()));
  stage_ = Stage::asked;
}

void FallbackConnection::read(std::size_t minimum, std::size_t maximum,
                              platform::ReadCompletion completion) {
  loop_.runWith(*this, [minimum, maximum,
                        completion = std::move(completion)](FallbackConnection& self) mutable {
    if (self.stage_ != Stage::asked) {
      self.connection_->read(minimum, maximum, std::move(completion));
      return;
    }
    self.maximum_ = maximum;
    self.completion_ = std::move(completion);
    self.readAnswer();
  });
}

void FallbackConnection::finishRead(std::optional<Data> data, OptionalError error) {
  if (const auto completion = std::exchange(completion_, nullptr)) {
    completion(std::move(data), std::move(error));
  }
}

void FallbackConnection::readAnswer() {
  connection_->read(1, maximum_ - answer_.size(),
                    [weakSelf = weak_from_this()](std::optional<Data> data, OptionalError error) {
                      if (const auto self = weakSelf.lock()) {
                        self->receiveAnswer(std::move(data), std::move(error));
                      }
                    });
}

void FallbackConnection::receiveAnswer(std::optional<Data> data, OptionalError error) {
  if (error || !data || data->empty()) {
    // The next read reports the end or the error again.
    stage_ = Stage::passing;
    if (answer_.empty()) {
      finishRead(std::move(data), std::move(error));
    } else {
      passAnswer();
    }
    return;
  }
  const auto bytes = data->bytes();
  answer_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const bool isComplete = answer_.size() >= kStatusEnd;
  if (mayBeStatusLine(answer_) && !isComplete && answer_.size() < maximum_) {
    readAnswer();
  } else if (mayBeStatusLine(answer_) && isComplete && cannotResolve(answer_)) {
    retry();
  } else {
    passAnswer();
  }
}

void FallbackConnection::passAnswer() {
  stage_ = Stage::passing;
  retryRequest_ = {};
  finishRead(Data::copyOf(std::exchange(answer_, {})), std::nullopt);
}

void FallbackConnection::cancel() {
  const auto current = [this] {
    const std::lock_guard guard(lock_);
    isCancelled_ = true;
    return connection_;
  }();
  current->cancel();
}

// Retry

void FallbackConnection::retry() {
  if (byName_.onUnresolvable) {
    byName_.onUnresolvable();
  }
  answer_ = {};
  stage_ = Stage::retrying;
  const auto next = dial_();
  bool isCancelled = false;
  const auto refused = [&] {
    const std::lock_guard guard(lock_);
    isCancelled = isCancelled_;
    return std::exchange(connection_, next);
  }();
  refused->cancel();
  observeConnection();
  if (isCancelled) {
    next->cancel();
  }
}

void FallbackConnection::continueRetry() {
  switch (connection_->state()) {
    case TCPConnectionState::connected:
      sendRetry();
      break;
    case TCPConnectionState::disconnected:
    case TCPConnectionState::cancelled: {
      stage_ = Stage::passing;
      const auto failure = connection_->error();
      finishRead(std::nullopt, failure ? failure : socketError(ECANCELED));
      break;
    }
    case TCPConnectionState::invalid:
    case TCPConnectionState::connecting:
    case TCPConnectionState::waiting:
      break;
  }
}

void FallbackConnection::sendRetry() {
  stage_ = Stage::passing;
  connection_->write(Data::copyOf(std::exchange(retryRequest_, {})), [weakSelf = weak_from_this()](
                                                                         OptionalError error) {
    const auto self = weakSelf.lock();
    if (!self) {
      return;
    }
    if (error) {
      self->finishRead(std::nullopt, std::move(error));
      return;
    }
    self->connection_->read(1, self->maximum_, std::exchange(self->completion_, nullptr));
  });
}

}  // namespace ostravel::linuxplatform
