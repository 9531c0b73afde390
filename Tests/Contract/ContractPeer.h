#pragma once

#include <cstddef>
#include <string>

namespace ostravel::contract {

// The far end of a flow or of a connection: an application or a proxy, as the contract tests play
// it on every platform. Works on its own once asked to; usable from any thread.
class ContractPeer {
 public:
  ContractPeer() = default;
  ContractPeer(const ContractPeer&) = delete;
  ContractPeer& operator=(const ContractPeer&) = delete;
  virtual ~ContractPeer() = default;

  // Sends the bytes as fast as they are taken; returns at once.
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
  // The near end's orderly end, or its reset; at most one of the two. A connection that was refused
  // counts as reset.
  virtual bool sawEnd() const = 0;
  virtual bool sawReset() const = 0;
  // Only an application: its flow was given back to the system before anything of it was carried.
  virtual bool wasLeftToSystem() const = 0;
};

}  // namespace ostravel::contract
