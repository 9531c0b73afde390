#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "Companion/Fleet/FleetConnection.h"
#include "Companion/Fleet/FleetMessage.h"
#include "Companion/Fleet/FleetServer.h"
#include "Companion/Fleet/Spool.h"

namespace ostravel::companion {

// Sends the messages of this machine to the stream of the fleet, each at least once, on a separate
// thread. They arrive in order, except that a message that is sent again may arrive later. Owned by
// main.
//
// Every message goes to the spool first, and leaves it when the server has acknowledged that it is
// stored. A window of them is unacknowledged at a time; a message without a timely acknowledgement
// is sent again, and so is the whole window after a new connection. The server recognises
// duplicates by the header Nats-Msg-Id.
//
// Records that have not been acknowledged within a second are then on the disk, safe from a power
// failure.
class FleetPublisher {
 public:
  struct Options {
    FleetServer server;
    std::string folder;  // of the spool
    Spool::Limits limits = {};
    // Receives lines for the log, at most one for each change of state; runs on the publisher's
    // thread.
    std::function<void(const std::string&)> report = [](const std::string&) {};
    // The time after which a message is sent again; doubles with each attempt. Tests shorten it.
    std::chrono::milliseconds patience = std::chrono::seconds(5);
  };

  // Throws std::runtime_error with a readable reason: a wrong option, or a folder that cannot be
  // used. An unreachable server is no error.
  explicit FleetPublisher(Options options);
  // Waits half a second for acknowledgements; unacknowledged messages stay in the spool.
  ~FleetPublisher();
  FleetPublisher(const FleetPublisher&) = delete;
  FleetPublisher& operator=(const FleetPublisher&) = delete;

  // Accepts the message, or drops and counts it if the disk has been stuck for a long time. Never
  // waits for the disk or the network. Usable from any thread.
  void publish(FleetMessage message);

  struct Counts {
    std::uint64_t waiting = 0;  // for an acknowledgement
    std::uint64_t dropped = 0;  // since the spool was created
  };
  Counts counts() const;

 private:
  using Time = std::chrono::steady_clock::time_point;

  // The server's answer to one message.
  struct Answer {
    std::string subject;
    std::string body;
    bool hasNoStream = false;
  };

  // Input of the publisher's thread from other threads. The library may still use it after the
  // publisher has been destroyed.
  struct Mailbox {
    std::mutex mutex;
    std::condition_variable wakeUp;
    std::deque<FleetMessage> received;
    std::size_t receivedSize = 0;
    std::uint64_t overflow = 0;
    std::deque<Answer> answers;
    bool isEnding = false;
    Counts counts;
  };

  static void receiveAnswer(natsConnection* connection, natsSubscription* subscription,
                            natsMsg* message, void* mailbox);

  struct Sent {
    NumberedMessage message;
    Time sendAgain;
    int attempts = 1;
  };

  void run();
  void step();
  void takeReceived();
  void maintainConnection();
  void subscribeToAnswers();
  void sendAll();
  void sendExpired(Time now);
  void fillWindow(Time now);
  bool send(Sent& sent, Time now);
  void forget(std::uint64_t sequence);
  void handleAnswers();
  void handleAnswer(const Answer& answer);
  void handleMissingStream();
  void saveSpool(Time now);
  void waitForWork();
  enum class State { starting, connected, unreachable, refused, withoutStream };
  void reportState(State state, const std::string& text);
  void reportDropped(Time now);

  const Options options_;
  const std::shared_ptr<Mailbox> mailbox_ = std::make_shared<Mailbox>();
  // Before the connection, see NATSSubscription. For the publisher's thread only.
  NATSSubscription answers_;
  // Before the spool, so that wrong options are reported before a folder is created.
  FleetConnection connection_;
  Spool spool_;

  // For the publisher's thread only.
  std::string inbox_;
  std::uint64_t object_ = 0;
  std::uint64_t generation_ = 0;
  std::map<std::uint64_t, Sent> sent_;
  std::size_t sentSize_ = 0;
  Time nextSync_;
  Time nextStreamCheck_;
  Time nextDropReport_;
  std::uint64_t reportedDropped_;
  State reportedState_ = State::starting;

  std::thread thread_;
};

}  // namespace ostravel::companion
