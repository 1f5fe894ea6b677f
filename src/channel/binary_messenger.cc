#include "channel/binary_messenger.h"

namespace corvane::channel {

BinaryReply& BinaryReply::operator=(BinaryReply&& other) noexcept {
  if (this != &other) {
    if (sender_) sender_(Bytes());
    sender_ = std::move(other.sender_);
    other.sender_ = nullptr;
  }
  return *this;
}

BinaryReply::~BinaryReply() {
  if (sender_) sender_(Bytes());
}

void BinaryReply::Send(Bytes reply) {
  if (!sender_) return;
  Sender sender = std::move(sender_);
  sender_ = nullptr;
  sender(std::move(reply));
}

}  // namespace corvane::channel
