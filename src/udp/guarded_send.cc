#include "udp/guarded_send.h"

namespace corvane::udp {

channel::Value GuardedReply::StatusMap(const std::string& request_id, const char* status,
                                       bool write_attempted) {
  channel::ValueMap map;
  map.Append(channel::Value("requestId"), channel::Value(request_id));
  map.Append(channel::Value("status"), channel::Value(status));
  map.Append(channel::Value("writeAttempted"), channel::Value(write_attempted));
  return channel::Value(std::move(map));
}

void GuardedReply::Answer(const char* status, bool write_attempted) {
  if (!result_) return;
  // The result hops to the main thread by itself.
  result_->Success(StatusMap(request_id_, status, write_attempted));
  result_.reset();
}

void GuardedDatagram::StartTimer(dispatch::Queue& queue, std::chrono::milliseconds timeout) {
  timer_ = clock_.After(queue, timeout, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->FinishUnlessAttempted(status::kTimedOut);
  });
}

void GuardedDatagram::WriteOn(std::shared_ptr<UdpFlow> flow) {
  connection_ = std::move(flow);
  owns_connection_ = false;
  AttemptWrite();
}

void GuardedDatagram::WriteOnOwn(std::shared_ptr<UdpFlow> flow) {
  connection_ = std::move(flow);
  owns_connection_ = true;
  connection_->SetStateHandler([weak = weak_from_this()](FlowState state, const std::string&) {
    auto self = weak.lock();
    if (!self) return;
    if (state == FlowState::kReady) {
      self->AttemptWrite();
    } else if (state == FlowState::kFailed || state == FlowState::kCancelled) {
      self->FinishUnlessAttempted(status::kDisconnected);
    }
  });
  connection_->Start();
}

void GuardedDatagram::AttemptWrite() {
  if (finished_ || attempted_ || !connection_) return;
  // Both deadlines are checked right before the hand-over: the wall-clock one so that a stale
  // command never goes out after a clock change, the monotonic one so that a long stall of
  // the queue cannot let it out either.
  if (clock_.NowWallMs() < expires_at_ms_ && clock_.NowMonotonic() < end_uptime_) {
    attempted_ = true;
    connection_->Send(data_, [weak = weak_from_this()](const std::optional<std::string>& error) {
      if (auto self = weak.lock()) self->Finish(error ? status::kUncertain : status::kSent);
    });
  } else {
    FinishUnlessAttempted(status::kTimedOut);
  }
}

void GuardedDatagram::FinishUnlessAttempted(const char* status) {
  Finish(attempted_ ? status::kUncertain : status);
}

void GuardedDatagram::Finish(const char* status) {
  if (finished_) return;
  finished_ = true;
  timer_.Cancel();
  // A connection of its own goes with the datagram; the session's shared one stays.
  if (owns_connection_ && connection_) connection_->Cancel();
  connection_.reset();
  // The completion may drop the last reference to this datagram.
  auto keep = shared_from_this();
  auto completion = std::move(completion_);
  completion_ = nullptr;
  if (completion) completion(status, attempted_);
}

}  // namespace corvane::udp
