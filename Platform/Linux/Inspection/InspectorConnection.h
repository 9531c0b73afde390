#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Inspection/InspectionMessage.h"
#include "Platform/Linux/Inspection/InspectorHealth.h"
#include "Platform/Linux/Inspection/LateAnswers.h"

namespace ostravel::linuxplatform {

// Asks the inspector, on a local socket that belongs to root or to this user. At most one question
// is open. An inspector that does not answer delays one question until its deadline; until that
// answer arrives, further questions fail at once. It is kept for the same question, see
// LateAnswers. Reconnects after the inspector has ended, with growing pauses if that fails. Owned
// by a RemoteProcessTable; used by one thread.
class InspectorConnection {
 public:
  using Clock = std::chrono::steady_clock;

  // A busy machine may delay an answer for so long without a line in the log.
  static constexpr std::chrono::seconds kToleratedSilence{1};
  // A question that has been open for so long is abandoned, with its connection.
  static constexpr std::chrono::seconds kLongestSilence{5};
  static constexpr std::chrono::milliseconds kFirstPause{100};
  static constexpr std::chrono::milliseconds kLongestPause{5000};

  struct Reply {
    InspectionAnswer answer;
    // Open if the answer carries one.
    FileDescriptor descriptor;
    // It is the answer to the same question asked earlier.
    bool isLate = false;
  };

  InspectorConnection(std::string path, std::shared_ptr<InspectorHealth> health);

  // Waits for at most patience, and not if an answer was kept. Empty if there is no valid answer in
  // time.
  std::optional<Reply> ask(InspectionQuestion question, std::chrono::milliseconds patience);

 private:
  enum class Outcome { answered, pending, ended };

  // Receives the answer to the open question, if it has arrived.
  void receiveLate();
  bool isReady();
  void connect();
  bool send(const std::string& message);
  // Receives until the open question is answered, nothing is left, or the connection has ended.
  Outcome receive(std::optional<Reply>& reply);
  Outcome await(Clock::time_point deadline, std::optional<Reply>& reply);
  void giveUp(const std::string& reason);

  const std::string path_;
  const std::shared_ptr<InspectorHealth> health_;
  FileDescriptor socket_;
  // The number of the last question, and since when it has been open, if it is.
  std::uint64_t number_ = 0;
  std::optional<Clock::time_point> openSince_;
  // Present if the answer to the last question may be used later.
  std::optional<LateAnswers::Subject> subject_;
  LateAnswers late_;
  // When to connect again, and the pause after another failure.
  Clock::time_point nextAttempt_;
  std::chrono::milliseconds pause_ = kFirstPause;
};

}  // namespace ostravel::linuxplatform
