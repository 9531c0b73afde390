#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Tests/Contract/ContractPeer.h"

namespace ostravel::contract {

// A peer with a real socket. What it can do at once it does inside the call; the rest is done by
// the thread of the SocketPeers that it belongs to. Never blocks, unlike TestSocket: many peers
// share that thread.
class SocketPeer final : public ContractPeer {
 public:
  enum class Stage { idle, connecting, connected };

  // Takes over a non-blocking socket, which is connected or idle. wakeUp makes its thread ask again
  // what it waits for.
  SocketPeer(int descriptor, Stage stage, std::function<void()> wakeUp);
  ~SocketPeer() override;

  // Connects it. The outcome of the connection is observed from then on only.
  void connectTo(const sockaddr* address, socklen_t size);
  // What an application whose flow was not carried sees.
  void noteRefused();
  void noteLeftToSystem();

  // What to poll for; 0 for nothing.
  short awaitedEvents() const;
  int descriptor() const;
  // Continues where it stopped.
  void proceed();

  void send(std::string bytes) override;
  void endSending() override;
  void reset() override;
  void stopReceiving() override;
  void resumeReceiving() override;
  std::string received() const override;
  std::size_t receivedCount() const override;
  bool sawEnd() const override;
  bool sawReset() const override;
  bool wasLeftToSystem() const override;

 private:
  // All expect the lock to be held.
  bool isOver() const { return sawReset_ || descriptor_ < 0; }
  void finishConnecting();
  void sendSome();
  void receiveSome();
  void fail();

  const std::function<void()> wakeUp_;
  mutable std::mutex lock_;
  int descriptor_;
  Stage stage_;
  std::string outgoing_;
  std::size_t sent_ = 0;
  bool endsSending_ = false;
  bool endedSending_ = false;
  bool isReceiving_ = true;
  std::string received_;
  bool sawEnd_ = false;
  bool sawReset_ = false;
  bool leftToSystem_ = false;
};

}  // namespace ostravel::contract
