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

// A connection to the local proxy that asks for a host by its name, and for the address instead if
// the proxy answers that it cannot resolve or reach the name (502, 503 or 504; RFC 9110, section
// 15.6). The answer is held back, a second connection replaces the first, and the same request goes
// out with the address: the owner only notices that the answer takes longer.
//
//   new --the request is written--> asked --the answer is another--> passing
//                                     |                                 ^
//                                     +--502, 503, 504--> retrying -----+
//
// Passing on, it only forwards. A request that is not the expected one is forwarded as it is, and
// so is the second answer, whatever it is. A refusal for any other reason is the proxy's decision,
// which the address must not circumvent.
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
  // What is written instead on the second connection.
  std::string retryRequest_;
  // What has arrived of the answer.
  std::string answer_;
  // The read that waits for the answer.
  std::size_t maximum_ = 0;
  platform::ReadCompletion completion_;

  mutable std::mutex lock_;
  // Guarded by lock_; changed on the loop only.
  std::shared_ptr<platform::TCPConnection> connection_;
  // Guarded by lock_.
  bool isCancelled_ = false;
};

}  // namespace ostravel::linuxplatform
