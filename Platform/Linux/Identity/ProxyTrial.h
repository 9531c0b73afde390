#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Processes/ProcessTable.h"

namespace ostravel::linuxplatform {

// Asks the program that listens on 127.0.0.1 on the proxy's port for one tunnel to a port of our
// own, and finds out whether it answers like a proxy and which process dials out for it:
//
//   this process ── CONNECT 127.0.0.1:P ──> listener ──> ... ──> port P of this process
//                ── secret ──────────────────────────────────>
//
// Any local process can connect to P in the meantime. Only the connection that delivers the secret,
// which only the proxy receives, belongs to the tunnel, and the process at its other end is part of
// the proxy, however many programs are in between.
//
// Created for one trial and used by one thread, which may block up to the deadlines; never on an
// event loop.
class ProxyTrial {
 public:
  // A proxy needs about a millisecond for a local tunnel, but may have to be started first.
  static constexpr std::chrono::seconds kAnswerDeadline{2};
  // From the response to the secret's arrival. Some proxies dial only after they have responded.
  static constexpr std::chrono::seconds kArrivalDeadline{1};
  // Connections to P that are kept open until one of them proves to be the tunnel.
  static constexpr std::size_t kMaximumCallers = 32;

  enum class Judgement { proxy, notAProxy, unanswered };

  struct Outcome {
    Judgement judgement = Judgement::unanswered;
    // The response in readable form: its first line, or why there is none.
    std::string answer;
    // The process that accepted the trial, unless it has ended.
    std::optional<Process> acceptor;
    // The process that connected to P.
    std::optional<Process> dialler;
  };

  // interrupt: a descriptor that becomes readable when the trial must be abandoned. listener: the
  // cookie of the listening socket. The diagnostics outlive the trial.
  ProxyTrial(SocketDiagnostics& diagnostics, const ProcessTableSource& processes,
             std::uint16_t port, std::uint64_t listener, int interrupt);

  // Empty if it was interrupted or another socket listens now.
  std::optional<Outcome> run();

 private:
  using Clock = std::chrono::steady_clock;

  // A connection to P, and how much of the secret it has delivered.
  struct Caller {
    FileDescriptor connection;
    std::size_t delivered = 0;
  };

  Outcome ask();
  FileDescriptor connectToListener();
  // Returns what has arrived once the header is complete, the first line rules out a tunnel, the
  // deadline has passed, or the connection has ended.
  std::string receiveAnswer(int connection);
  // The first connection to the target that delivers the secret.
  FileDescriptor awaitSecret(const FileDescriptor& target, std::string_view secret);
  std::vector<Caller>::iterator receiveSecret(std::vector<Caller>& callers,
                                              std::string_view secret);
  // The process at the other end of one of our connections.
  std::optional<Process> peerOf(const FileDescriptor& connection);
  bool isStillListening();
  // False after the deadline or an interruption.
  bool waitFor(int descriptor, short events);
  bool isInterrupted() const;

  SocketDiagnostics& diagnostics_;
  const std::unique_ptr<ProcessTable> processes_;
  const SocketEndpoint address_;
  const std::uint64_t listener_;
  const int interrupt_;
  std::uint64_t searches_ = 0;
  Clock::time_point deadline_;
};

}  // namespace ostravel::linuxplatform
