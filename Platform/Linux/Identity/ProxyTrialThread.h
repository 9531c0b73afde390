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

// Tests the program that listens on the proxy's port on a separate thread, once per listening
// socket; a program that does not answer is tested again, with growing pauses. Owned by ProxyTrust;
// works in the network namespace of the thread that creates it.
class ProxyTrialThread {
 public:
  static constexpr std::chrono::milliseconds kFirstPause{500};
  static constexpr std::chrono::seconds kLongestPause{30};

  struct Result {
    ProxyTrial::Outcome outcome;
    // The display names of all users who control the listening socket.
    std::map<uid_t, std::string> userNames;
  };

  ProxyTrialThread(std::uint16_t port, ProcessTableSource processes);
  ProxyTrialThread(const ProxyTrialThread&) = delete;
  ProxyTrialThread& operator=(const ProxyTrialThread&) = delete;
  ~ProxyTrialThread();

  // The result of the latest trial of this listening socket, which is held by a process of owner.
  // Empty if there is none yet; a trial is then requested, which replaces that of any other socket.
  // Does not block.
  std::optional<Result> resultOf(const SocketInformation& listener, uid_t owner);

 private:
  using Clock = std::chrono::steady_clock;

  // A listening socket, and the user whose process holds it.
  struct Request {
    SocketInformation listener;
    uid_t owner = 0;
  };

  void run();
  // Empty if the trial was interrupted or another socket listens now.
  std::optional<Result> tryOnce(const Request& request);
  // Publishes the result unless another socket has been requested.
  void publish(std::uint64_t listener, std::optional<Result> result);
  // Empty: wait until something changes.
  void wait(std::optional<Clock::time_point> until);

  const std::uint16_t port_;
  const ProcessTableSource processes_;
  // Readable when the state guarded by the lock has changed. Used only with the lock held, so that
  // a trial is not interrupted by the request that started it.
  EventDescriptor changed_;
  std::mutex lock_;
  bool isStopping_ = false;
  std::optional<Request> request_;
  std::optional<Result> result_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
