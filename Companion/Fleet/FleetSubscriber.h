#pragma once

#include <asio/io_context.hpp>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Companion/Fleet/DroppedCounts.h"
#include "Companion/Fleet/FleetConnection.h"
#include "Companion/Fleet/FleetMessage.h"
#include "Companion/Fleet/FleetServer.h"
#include "Companion/Fleet/RecentIds.h"
#include "Companion/Fleet/StreamReader.h"

namespace ostravel::companion {

// Receives the messages of all machines from the stream of the fleet, each once and in the order of
// the stream, on a separate thread. Owned by main.
//
// It remembers its position, and continues there after every interruption. The server keeps
// messages that have not been received, so a slow receiver loses nothing within the stream's
// retention; messages that are missing nevertheless are counted and reported.
class FleetSubscriber {
 public:
  struct Options {
    FleetServer server;
    bool fromBeginning = false;  // of the stream; otherwise only new messages
    // Runs on the io_context's thread.
    std::function<void(const FleetMessage&)> event;
    // Called with the number of events that a machine had to drop. Runs on the subscriber's thread.
    std::function<void(std::uint64_t events)> dropped = [](std::uint64_t) {};
    // Receives lines for the log. Runs on the subscriber's thread.
    std::function<void(const std::string&)> report = [](const std::string&) {};
  };

  // Throws std::runtime_error with a readable reason if an option is wrong. The io_context outlives
  // this object, which is destroyed on its thread or while it does not run.
  FleetSubscriber(asio::io_context& ioContext, Options options);
  ~FleetSubscriber();
  FleetSubscriber(const FleetSubscriber&) = delete;
  FleetSubscriber& operator=(const FleetSubscriber&) = delete;

 private:
  void run();
  void step();
  bool hasConsumer();
  bool makeConsumer();
  bool subscribeToAnswers(std::string& problem);
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
  // Before the connection, see StreamAnswers. For the subscriber's thread only.
  StreamAnswers answers_;
  FleetConnection connection_;

  // For the subscriber's thread only.
  std::uint64_t object_ = 0;
  JetStream jetStream_;
  std::unique_ptr<StreamReader> reader_;
  std::uint64_t generation_ = 0;
  // The position in the stream; none before its first message is known.
  std::optional<std::uint64_t> next_;
  RecentIds recent_;
  DroppedCounts dropped_;
  std::string reported_;

  // Shared with what is still posted to the io_context at the end.
  struct Ending {
    std::mutex mutex;
    std::condition_variable wakeUp;
    bool hasBegun = false;
  };
  const std::shared_ptr<Ending> ending_ = std::make_shared<Ending>();

  std::thread thread_;  // last, because it uses all of them
};

}  // namespace ostravel::companion
