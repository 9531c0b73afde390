#include "Platform/Linux/Interception/QueuedPacket.h"

#include <utility>

namespace ostravel::linuxplatform {

QueuedPacket::QueuedPacket(std::shared_ptr<PacketQueue> queue, const PacketMarks& marks,
                           const PacketQueue::Packet& packet, Reference<UserShare> user,
                           std::optional<ProxyInstance> proxy,
                           std::shared_ptr<const PacketResender> resender)
    : queue_(std::move(queue)),
      marks_(marks),
      id_(packet.id),
      mark_(packet.mark),
      user_(std::move(user)),
      proxy_(std::move(proxy)),
      resender_(std::move(resender)),
      bytes_(resender_ ? std::vector(packet.bytes.begin(), packet.bytes.end())
                       : std::vector<std::byte>()) {
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
  } else if (resender_) {
    resendMarked(markWith(marks_.redirect(loopIndex)));
  } else {
    acceptMarked(markWith(marks_.redirect(loopIndex)));
  }
}

void QueuedPacket::refuse() {
  if (proxy_ && proxy_->hasEnded()) {
    accept();
  } else {
    repeatMarked(markWith(marks_.refuse()));
  }
}

void QueuedPacket::acceptMarked(std::uint32_t mark) {
  if (queue_->acceptMarked(id_, mark)) {
    user_->holdEnded();
  }
}

void QueuedPacket::repeatMarked(std::uint32_t mark) {
  if (queue_->repeatMarked(id_, mark)) {
    user_->holdEnded();
  }
}

void QueuedPacket::resendMarked(std::uint32_t mark) {
  if (queue_->replace(id_, [this, mark] { return resender_->resend(bytes_, mark); })) {
    user_->holdEnded();
  }
}

}  // namespace ostravel::linuxplatform
