#pragma once

#include <asio/io_context.hpp>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Companion/Fleet/FleetConnection.h"
#include "Companion/Fleet/FleetMessage.h"
#include "Companion/Fleet/FleetServer.h"
#include "Companion/Fleet/RecentIds.h"

namespace ostravel::companion {

// Receives the messages of all machines from the stream of the fleet, each once and in the order of
// the stream, from a thread of its own. Owned by main.
//
// It remembers how far it has come, and goes on there after every interruption. The server keeps
// what the receiver has not taken yet, so a slow one loses nothing within the time that the stream
// keeps messages; what is missing all the same is counted and reported.
class FleetSubscriber {
 public:
  struct Options {
    FleetServer server;
    bool fromBeginning = false;  // of the stream; else what comes from now on
    // Runs on the io_context's thread.
    std::function<void(const FleetMessage&)> event;
    // Lines for people. Runs on the subscriber's thread.
    std::function<void(const std::string&)> report = [](const std::string&) {};
  };

  // Throws std::runtime_error with a readable reason when an option is wrong. The io_context must
  // outlive this object.
  FleetSubscriber(asio::io_context& ioContext, Options options);
  ~FleetSubscriber();
  FleetSubscriber(const FleetSubscriber&) = delete;
  FleetSubscriber& operator=(const FleetSubscriber&) = delete;

 private:
  void run();
  void step();
  bool hasConsumer();
  bool makeConsumer();
  std::optional<std::uint64_t> positionIn(const jsStreamInfo& stream);
  void fetch();
  void take(natsMsg* received, std::vector<FleetMessage>& batch);
  void noteDropped(const FleetMessage& message, const std::string& count);
  void deliver(std::vector<FleetMessage> batch);
  void report(const std::string& text);
  void pause();
  bool isEnding() const;

  asio::io_context& ioContext_;
  const Options options_;
  FleetConnection connection_;

  // Of the subscriber's thread.
  JetStream jetStream_;
  NATSSubscription subscription_;
  std::uint64_t generation_ = 0;
  // In the stream; none before its first message is known.
  std::optional<std::uint64_t> next_;
  RecentIds recent_;
  // By machine.
  std::map<std::string, std::uint64_t> dropped_;
  std::string reported_;

  mutable std::mutex mutex_;
  std::condition_variable wakeUp_;
  bool isEnding_ = false;

  std::thread thread_;  // the last one: it uses all of them
};

}  // namespace ostravel::companion
