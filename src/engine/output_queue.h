// What waits to be written to one engine client. Small frames are packed into large chunks, so
// that a client that stops reading costs about what its queued bytes weigh, not a heap block
// per frame; the bound is on that memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

namespace corvane::engine {

class OutputQueue {
 public:
  using Bytes = std::vector<uint8_t>;

  // Frames up to this size are copied into a shared chunk; larger ones are queued as they are.
  static constexpr size_t kChunkSize = 64 * 1024;

  // `limit` bounds memory() while something is queued; one frame is always taken into an
  // empty queue, so that a single large frame can still leave.
  explicit OutputQueue(size_t limit) : limit_(limit) {}

  // False, leaving the queue as it was, when the frame would take it past its limit, unless
  // `past_limit` says the frame must be taken all the same.
  bool Push(Bytes frame, bool past_limit = false);
  bool Push(std::span<const uint8_t> frame, bool past_limit = false);

  enum class FlushResult { kEmpty, kBlocked, kError };
  // Writes what `fd` (non-blocking) takes now.
  FlushResult Flush(int fd);

  bool empty() const { return chunks_.empty(); }
  // Bytes still to write.
  size_t pending() const { return pending_; }
  // What the queue holds in memory, allocation slack included.
  size_t memory() const { return memory_; }

 private:
  static size_t Cost(const Bytes& chunk) { return chunk.capacity() + sizeof(Bytes); }
  bool Fits(size_t extra, bool past_limit) const {
    return past_limit || chunks_.empty() || memory_ + extra <= limit_;
  }

  size_t limit_;
  std::deque<Bytes> chunks_;
  size_t offset_ = 0;  // into chunks_.front()
  size_t pending_ = 0;
  size_t memory_ = 0;
};

}  // namespace corvane::engine
