#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Interface/SocketCalls.h"
#include "Platform/Simulation/FaultSource.h"

namespace ostravel::simulation {

enum class SocketCallKind {
  socket,
  statusFlags,
  setStatusFlags,
  connect,
  pollWritable,
  pendingError,
  write,
  close,
};

// One call with its arguments and its answer. Members that a call does not have keep these values.
struct SocketCall {
  SocketCallKind kind = SocketCallKind::socket;
  // The argument, or what socket() returned.
  int descriptor = -1;
  int family = 0;
  int type = 0;
  int protocol = 0;
  int flags = 0;
  // The address of a connect, or the bytes of a write.
  std::vector<std::byte> bytes;
  std::chrono::milliseconds timeout{0};
  platform::SocketCallResult result;
};

// Scripted socket calls. Two peers exist, whatever the address: a TCP one, which plays the local
// proxy, and a local one, which plays the monitoring socket. Both refuse until the test makes them
// listen. In addition, the test can script the answer of any call.
//
// A TCP socket that is non-blocking connects in two steps (in progress, then writable with or
// without a pending error); everything else answers at once, and no time passes meanwhile.
// A call with a descriptor that is not open answers EBADF; closing one throws std::logic_error.
class SimulatedSockets final : public platform::SocketCalls {
 public:
  explicit SimulatedSockets(FaultSource& faults);

  // --- Set-up by the test.

  // Which layout the core is to use; linuxABI at first, so that a run is the same everywhere.
  void setAddressLayout(platform::SocketAddressLayout layout) { layout_ = layout; }

  void proxyListening(bool listening) { tcp_ = listening ? Peer::listens : Peer::refuses; }
  // Attempts to connect are never answered: waiting for them times out.
  void proxySilent() { tcp_ = Peer::isSilent; }
  void localListening(bool listening) { local_ = listening ? Peer::listens : Peer::refuses; }

  // The next calls of this kind answer this, each once and in order.
  void answerNext(SocketCallKind kind, platform::SocketCallResult result);
  // All calls of this kind answer this, until it is replaced, or absent for the usual answer.
  void answerAlways(SocketCallKind kind, std::optional<platform::SocketCallResult> result);

  // --- Observations by the test.

  const std::vector<SocketCall>& calls() const { return calls_; }
  std::vector<SocketCall> calls(SocketCallKind kind) const;
  std::size_t openDescriptors() const { return open_.size(); }
  // The bytes that each connection to the local peer has delivered, in the order in which they were
  // established.
  const std::vector<std::string>& localDeliveries() const { return localDeliveries_; }
  void clearCalls() { calls_.clear(); }

  // --- The calls.

  platform::SocketAddressLayout addressLayout() const override { return layout_; }
  platform::SocketCallResult socket(int family, int type, int protocol) override;
  platform::SocketCallResult statusFlags(int descriptor) override;
  platform::SocketCallResult setStatusFlags(int descriptor, int flags) override;
  platform::SocketCallResult connect(int descriptor, std::span<const std::byte> address) override;
  platform::SocketCallResult pollWritable(int descriptor,
                                          std::chrono::milliseconds timeout) override;
  platform::SocketCallResult pendingError(int descriptor) override;
  platform::SocketCallResult write(int descriptor, std::span<const std::byte> bytes) override;
  void close(int descriptor) override;

 private:
  enum class Peer { refuses, listens, isSilent };

  struct Descriptor {
    int family = 0;
    int flags = 0;
    bool isConnected = false;
    bool isConnecting = false;
    int pendingError = 0;
    // The index of its delivery, if it is connected to the local peer.
    std::optional<std::size_t> delivery;
  };

  std::optional<platform::SocketCallResult> scriptedAnswer(SocketCallKind kind);
  platform::SocketCallResult record(SocketCall call, platform::SocketCallResult result);
  Descriptor* find(int descriptor);
  platform::SocketCallResult connectUsual(Descriptor& socket);
  void becomeConnected(Descriptor& socket);

  FaultSource& faults_;
  platform::SocketAddressLayout layout_ = platform::SocketAddressLayout::linuxABI;
  Peer tcp_ = Peer::refuses;
  Peer local_ = Peer::refuses;
  std::map<SocketCallKind, std::deque<platform::SocketCallResult>> nextAnswers_;
  std::map<SocketCallKind, platform::SocketCallResult> standingAnswers_;
  int nextDescriptor_ = 100;
  std::map<int, Descriptor> open_;
  std::vector<SocketCall> calls_;
  std::vector<std::string> localDeliveries_;
};

}  // namespace ostravel::simulation
