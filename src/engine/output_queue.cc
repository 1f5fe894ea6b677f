#include "engine/output_queue.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>

namespace corvane::engine {

namespace {
// Chunks handed to one sendmsg.
constexpr size_t kMaxIov = 16;
}  // namespace

bool OutputQueue::Push(Bytes frame, bool past_limit) {
  if (frame.size() <= kChunkSize / 4) return Push(std::span<const uint8_t>(frame), past_limit);
  if (!Fits(Cost(frame), past_limit)) return false;
  pending_ += frame.size();
  memory_ += Cost(frame);
  chunks_.push_back(std::move(frame));
  return true;
}

bool OutputQueue::Push(std::span<const uint8_t> frame, bool past_limit) {
  if (frame.size() > kChunkSize / 4) return Push(Bytes(frame.begin(), frame.end()), past_limit);
  // Appending never moves a chunk (its capacity is reserved), so the chunk being written may
  // take more frames too.
  const bool tail_has_room = !chunks_.empty() && chunks_.back().capacity() == kChunkSize &&
                             chunks_.back().size() + frame.size() <= kChunkSize;
  if (!tail_has_room) {
    if (!Fits(kChunkSize + sizeof(Bytes), past_limit)) return false;
    Bytes chunk;
    chunk.reserve(kChunkSize);
    memory_ += Cost(chunk);
    chunks_.push_back(std::move(chunk));
  }
  chunks_.back().insert(chunks_.back().end(), frame.begin(), frame.end());
  pending_ += frame.size();
  return true;
}

OutputQueue::FlushResult OutputQueue::Flush(int fd) {
  while (!chunks_.empty()) {
    iovec iov[kMaxIov];
    size_t count = 0;
    for (size_t i = 0; i < chunks_.size() && count < kMaxIov; ++i, ++count) {
      const size_t skip = i == 0 ? offset_ : 0;
      iov[count].iov_base = chunks_[i].data() + skip;
      iov[count].iov_len = chunks_[i].size() - skip;
    }
    msghdr message{};
    message.msg_iov = iov;
    message.msg_iovlen = count;
    ssize_t n = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return FlushResult::kBlocked;
      return FlushResult::kError;
    }
    pending_ -= static_cast<size_t>(n);
    while (n > 0) {
      const size_t left = chunks_.front().size() - offset_;
      if (static_cast<size_t>(n) < left) {
        offset_ += static_cast<size_t>(n);
        break;
      }
      n -= static_cast<ssize_t>(left);
      memory_ -= Cost(chunks_.front());
      chunks_.pop_front();
      offset_ = 0;
    }
  }
  return FlushResult::kEmpty;
}

}  // namespace corvane::engine
