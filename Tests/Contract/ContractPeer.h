#pragma once

#include <cstddef>
#include <string>

namespace ostravel::contract {

// The far end of a flow or of a connection: an application or a proxy, as the contract tests play
// it on every platform. Carries out each request in the background; usable from any thread.
class ContractPeer {
 public:
  ContractPeer() = default;
  ContractPeer(const ContractPeer&) = delete;
  ContractPeer& operator=(const ContractPeer&) = delete;
  virtual ~ContractPeer() = default;

  // Sends the bytes as fast as they are accepted; returns at once.
  virtual void send(std::string bytes) = 0;
  // Ends its sending direction in order, after everything that it was asked to send.
  virtual void endSending() = 0;
  // Ends both directions with a reset, now.
  virtual void reset() = 0;

  // Receives nothing until receiving is resumed.
  virtual void stopReceiving() = 0;
  virtual void resumeReceiving() = 0;

  virtual std::string received() const = 0;
  virtual std::size_t receivedCount() const = 0;
  // Whether the near end has ended in order, or by a reset; at most one is true. A refused
  // connection counts as reset.
  virtual bool sawEnd() const = 0;
  virtual bool sawReset() const = 0;
  // For applications only: the flow was given back to the system before any byte was carried.
  virtual bool wasLeftToSystem() const = 0;
};

}  // namespace ostravel::contract
