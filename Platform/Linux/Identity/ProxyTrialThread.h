#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "Platform/Linux/Identity/ProxyTrial.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"

namespace ostravel::linuxplatform {

// Puts the program that listens on the proxy's port to trial on a thread of its own, once for every
// listening socket; one that does not answer is asked again, with growing pauses. Owned by the
// verdict thread's owner, in whose network namespace it works.
class ProxyTrialThread {
 public:
  static constexpr std::chrono::milliseconds kFirstPause{500};
  static constexpr std::chrono::seconds kLongestPause{30};

  struct Result {
    ProxyTrial::Outcome outcome;
    // The names of all who have a hand in the listening socket, for people.
    std::map<uid_t, std::string> userNames;
  };

  explicit ProxyTrialThread(std::uint16_t port);
  ProxyTrialThread(const ProxyTrialThread&) = delete;
  ProxyTrialThread& operator=(const ProxyTrialThread&) = delete;
  ~ProxyTrialThread();

  // The result of the latest trial of this listening socket, which is held by a process of owner.
  // Absent while there is none; it is on its way then, instead of any trial of another socket. Does
  // not wait.
  std::optional<Result> resultOf(const SocketInformation& listener, uid_t owner);

 private:
  using Clock = std::chrono::steady_clock;

  // A listening socket, and the user whose process holds it.
  struct Request {
    SocketInformation listener;
    uid_t owner = 0;
  };

  void run();
  // Absent when the trial was interrupted, or another socket listens now.
  std::optional<Result> tryOnce(const Request& request);
  // Makes the result known, unless another socket is to be tried now.
  void publish(std::uint64_t listener, std::optional<Result> result);
  // Absent: until something changes.
  void wait(std::optional<Clock::time_point> until);

  const std::uint16_t port_;
  // Readable when what the lock guards has changed; only used with the lock held, so that a trial
  // is not interrupted by the request for it.
  EventDescriptor changed_;
  std::mutex lock_;
  bool isStopping_ = false;
  std::optional<Request> request_;
  std::optional<Result> result_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
