#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/TCPConnection.h"
#include "Tests/Contract/OverlapCheck.h"

namespace ostravel::contract {

// The smallest relay between a flow and its connection: opens the flow, connects from the
// completion, as a provider does, and carries bytes in both directions until one side ends or
// fails. Held by std::shared_ptr; its completions hold it.
class ContractTunnel : public std::enable_shared_from_this<ContractTunnel> {
 public:
  using Connect = std::function<std::shared_ptr<platform::TCPConnection>()>;

  ContractTunnel(std::shared_ptr<platform::AppProxyTCPFlow> flow, Connect connect);

  void start();
  // Closes both sides, once; from any thread.
  void close(const platform::OptionalError& error);

  bool isRelaying() const { return isRelaying_; }
  bool isClosed() const { return isClosed_; }
  // Two completions ran at the same time.
  bool overlapped() const { return overlap_.overlapped(); }
  // Of both sides: started and completed operations.
  int started() const { return started_; }
  int completed() const { return completed_; }

 private:
  // One direction, and its next step after a read or a write.
  using Step = void (ContractTunnel::*)();
  using Write = void (ContractTunnel::*)(platform::Data, platform::ErrorCompletion);

  void connect();
  void up();
  void down();
  void writeUp(platform::Data data, platform::ErrorCompletion completion);
  void writeDown(platform::Data data, platform::ErrorCompletion completion);
  // Writes what was read, and continues with the next read.
  platform::ReadCompletion thenWrite(Write write, Step next);
  platform::ErrorCompletion thenContinue(Step next);
  std::shared_ptr<platform::TCPConnection> connection() const;

  const std::shared_ptr<platform::AppProxyTCPFlow> flow_;
  const Connect connect_;
  mutable std::mutex lock_;
  // Guarded by lock_: close() may come from a thread that did not make it.
  std::shared_ptr<platform::TCPConnection> connection_;
  std::atomic<bool> isRelaying_ = false;
  std::atomic<bool> isClosed_ = false;
  std::atomic<int> started_ = 0;
  std::atomic<int> completed_ = 0;
  OverlapCheck overlap_;
};

}  // namespace ostravel::contract
