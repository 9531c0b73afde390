#include "Platform/Linux/Interception/RedirectTrial.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Kernel/SocketOption.h"
#include "Platform/Linux/Relay/EventLoop.h"

namespace ostravel::linuxplatform {

void RedirectTrial::start(EventLoop& loop, const SocketEndpoint& source,
                          const SocketEndpoint& destination, Completion completion) {
  const auto trial = std::make_shared<RedirectTrial>(loop, std::move(completion));
  const Outcome outcome = trial->connect(source, destination);
  if (outcome != Outcome::arrived) {
    trial->finish(outcome);
  }
}

RedirectTrial::RedirectTrial(EventLoop& loop, Completion completion)
    : loop_(loop), completion_(std::move(completion)) {}

// Returns Outcome::arrived if nothing has prevented it so far.
RedirectTrial::Outcome RedirectTrial::connect(const SocketEndpoint& source,
                                              const SocketEndpoint& destination) {
  const KernelAddress from(source);
  const KernelAddress to(destination);
  FileDescriptor descriptor(
      ::socket(from.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const std::uint32_t mark = loop_.marks().redirect(loop_.index());
  if (!descriptor.isOpen() ||
      ::setsockopt(descriptor.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark) != 0) {
    return Outcome::notTried;
  }
  if (::bind(descriptor.get(), from.get(), from.size) != 0) {
    return Outcome::noSource;
  }
  const auto bound = ownAddressOf(descriptor.get());
  if (!bound) {
    return Outcome::notTried;
  }
  tuple_ = {TransportProtocol::tcp, *bound, destination};
  socket_ = LoopSocket(loop_, descriptor.release());
  if (!socket_.isOpen()) {
    return Outcome::notTried;
  }
  const std::shared_ptr<FlowListener::Waiter> self(shared_from_this(), this);
  loop_.listener().expect(self);
  loop_.listener().keep(self);
  if (::connect(socket_.descriptor(), to.get(), to.size) != 0 && errno != EINPROGRESS) {
    return Outcome::refused;
  }
  waitUntilConnected();
  return Outcome::arrived;
}

void RedirectTrial::waitUntilConnected() {
  socket_.waitUntilWritable([self = shared_from_this()] {
    if (!self->completion_) {
      return;
    }
    const auto result = socketOption<int>(self->socket_.descriptor(), SOL_SOCKET, SO_ERROR);
    if (result && *result != 0) {
      self->finish(Outcome::refused);
    }
    // Wait for the listener, which reports whose connection it is.
    self->isConnected_ = true;
  });
}

void RedirectTrial::accepted(LoopSocket socket) {
  // Reset the connecting side first: conntrack then lets it reuse the addresses and ports.
  finish(Outcome::arrived);
  socket.reset();
}

void RedirectTrial::timedOut() {
  finish(isConnected_ ? Outcome::arrivedElsewhere : Outcome::unanswered);
}

void RedirectTrial::finish(Outcome outcome) {
  if (!completion_) {
    return;
  }
  socket_.reset();
  std::exchange(completion_, nullptr)(outcome);
}

}  // namespace ostravel::linuxplatform
