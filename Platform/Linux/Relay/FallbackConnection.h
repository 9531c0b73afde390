#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "Platform/Interface/TCPConnection.h"
#include "Platform/Linux/Relay/ConnectByName.h"
#include "Platform/Shared/StateObservers.h"

namespace ostravel::linuxplatform {

class EventLoop;

// A connection to the local proxy that requests a host by name, and falls back to its address if
// the proxy answers that it cannot resolve or reach the name (502, 503 or 504; RFC 9110, section
// 15.6). That answer is withheld, a second connection replaces the first, and the same request is
// sent with the address. The owner notices only that the answer takes longer.
//
//   new --the request is written--> asked --the answer is another--> passing
//                                     |                                 ^
//                                     +--502, 503, 504--> retrying -----+
//
// In the state passing it only forwards. An unexpected request is forwarded unchanged, and so is
// any second answer. A refusal for any other reason is the proxy's decision, which a request for
// the address must not circumvent.
//
// Like the connections that it wraps: created on their event loop, where everything happens.
class FallbackConnection final : public platform::TCPConnection,
                                 public platform::KeyValueObserver,
                                 public std::enable_shared_from_this<FallbackConnection> {
  struct Private {};

 public:
  using Dial = std::function<std::shared_ptr<platform::TCPConnection>()>;

  // dial: makes a connection to the proxy; called here and for the retry, on the loop.
  static std::shared_ptr<FallbackConnection> connect(EventLoop& loop, ConnectByName byName,
                                                     Dial dial);

  FallbackConnection(Private /*unused*/, EventLoop& loop, ConnectByName byName, Dial dial);
  ~FallbackConnection() override;

  platform::TCPConnectionState state() const override;
  platform::OptionalError error() const override;
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override;

  // The wrapped connection's state.
  void observeValue(std::optional<std::string_view> keyPath, platform::Observable* object) override;

 private:
  enum class Stage : std::uint8_t { fresh, asked, retrying, passing };

  std::shared_ptr<platform::TCPConnection> connection() const;
  void observeConnection();
  void noteRequest(const platform::Data& data);
  void readAnswer();
  void receiveAnswer(std::optional<platform::Data> data, platform::OptionalError error);
  void passAnswer();
  void retry();
  void continueRetry();
  void sendRetry();
  void finishRead(std::optional<platform::Data> data, platform::OptionalError error);

  EventLoop& loop_;
  const ConnectByName byName_;
  const Dial dial_;
  platform::StateObservers observers_;
  std::atomic<Stage> stage_ = Stage::fresh;
  // The request for the second connection.
  std::string retryRequest_;
  // The part of the answer that has arrived.
  std::string answer_;
  // The owner's outstanding read of the answer.
  std::size_t maximum_ = 0;
  platform::ReadCompletion completion_;

  mutable std::mutex lock_;
  // Guarded by lock_; changed on the loop only.
  std::shared_ptr<platform::TCPConnection> connection_;
  // Guarded by lock_.
  bool isCancelled_ = false;
};

}  // namespace ostravel::linuxplatform
