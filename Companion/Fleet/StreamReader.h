#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Companion/Fleet/NATSHandle.h"

namespace ostravel::companion {

// Receives what the server answers on one connection, for all of its readers in turn. Declare it
// before the connection, see NATSSubscription.
struct StreamAnswers {
  NATSSubscription subscription;
  // Addresses begin with this.
  std::string inbox;

  natsStatus subscribe(natsConnection* connection);
};

// Reads the fleet's stream from a position onwards, with a consumer of its own on the server. It
// requests batches itself, because natsSubscription_Fetch of libnats 3.4.1 writes beyond its list
// when answers to an earlier request arrive late. Used by one thread; the answers outlive it.
class StreamReader {
 public:
  // Creates the consumer, which waits for the server's answer. On failure null, with the problem.
  static std::unique_ptr<StreamReader> make(natsConnection* connection, jsCtx* jetStream,
                                            const StreamAnswers& answers, std::uint64_t position,
                                            std::string& problem);

  // Passes on what arrives within the time, or at once what has arrived: one batch at most, in the
  // order of the stream. False if the server no longer knows the consumer, or hangs: this reader is
  // then useless.
  bool read(std::chrono::milliseconds longest, const std::function<void(natsMsg*)>& take);

 private:
  enum class Kind {
    ofStream,
    status,    // the server's: how the request has ended
    unrelated  // a late answer to an earlier reader
  };

  StreamReader(natsConnection* connection, const StreamAnswers& answers,
               const std::string& consumer);

  bool request();
  Kind kindOf(natsMsg* message) const;
  // After a status.
  bool isUsableAfter(natsMsg* status);

  natsConnection* const connection_;
  natsSubscription* const answers_;
  // Of requests for messages, and of their answers.
  const std::string subject_;
  const std::string address_;
  // What the addresses for acknowledgements of this consumer's messages contain.
  const std::string mark_;
  // Messages that the open request may still bring; 0: no request is open.
  int expected_ = 0;
  // When the open request must have ended.
  std::chrono::steady_clock::time_point deadline_;
};

}  // namespace ostravel::companion
