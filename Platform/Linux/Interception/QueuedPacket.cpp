#include "Platform/Linux/Interception/QueuedPacket.h"

#include <utility>

namespace ostravel::linuxplatform {

QueuedPacket::State::State(std::shared_ptr<const PacketQueue> queue, const PacketMarks& marks,
                           std::uint32_t id, std::uint32_t mark, std::shared_ptr<UserShare> user)
    : queue_(std::move(queue)), marks_(marks), id_(id), mark_(mark), user_(std::move(user)) {
  user_->holdBegan();
}

QueuedPacket::State::~State() {
  accept();
}

bool QueuedPacket::State::decide() {
  if (isDecided_.exchange(true)) {
    return false;
  }
  user_->holdEnded();
  return true;
}

void QueuedPacket::State::accept() {
  if (decide()) {
    queue_->accept(id_);
  }
}

void QueuedPacket::State::acceptMarked(std::uint32_t mark) {
  if (decide()) {
    queue_->acceptMarked(id_, (mark_ & ~marks_.mask()) | mark);
  }
}

QueuedPacket::QueuedPacket(std::shared_ptr<State> state, std::optional<ProcessLife> proxy)
    : state_(std::move(state)), proxy_(proxy) {}

QueuedPacket::~QueuedPacket() {
  state_->accept();
}

void QueuedPacket::accept() {
  state_->accept();
}

void QueuedPacket::redirect(unsigned loopIndex) {
  state_->redirect(loopIndex);
}

void QueuedPacket::refuse() {
  if (proxy_ && proxy_->hasEnded()) {
    state_->accept();
    return;
  }
  state_->refuse();
}

}  // namespace ostravel::linuxplatform
