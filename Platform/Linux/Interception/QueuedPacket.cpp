#include "Platform/Linux/Interception/QueuedPacket.h"

#include <utility>

namespace ostravel::linuxplatform {

QueuedPacket::QueuedPacket(std::shared_ptr<PacketQueue> queue, const PacketMarks& marks,
                           const PacketQueue::Packet& packet, std::shared_ptr<UserShare> user,
                           std::optional<ProxyInstance> proxy)
    : queue_(std::move(queue)),
      marks_(marks),
      id_(packet.id),
      mark_(packet.mark),
      user_(std::move(user)),
      proxy_(std::move(proxy)) {
  user_->holdBegan();
}

QueuedPacket::~QueuedPacket() {
  accept();
}

void QueuedPacket::accept() {
  if (queue_->accept(id_)) {
    user_->holdEnded();
  }
}

void QueuedPacket::redirect(unsigned loopIndex) {
  if (proxy_ && !proxy_->isListening()) {
    accept();
  } else {
    acceptMarked(marks_.redirect(loopIndex));
  }
}

void QueuedPacket::refuse() {
  if (proxy_ && proxy_->hasEnded()) {
    accept();
  } else {
    acceptMarked(marks_.refuse());
  }
}

void QueuedPacket::acceptMarked(std::uint32_t mark) {
  if (queue_->acceptMarked(id_, (mark_ & ~marks_.mask()) | mark)) {
    user_->holdEnded();
  }
}

}  // namespace ostravel::linuxplatform
