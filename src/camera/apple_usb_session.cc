#include "camera/apple_usb_session.h"

#include <utility>

#include "imaging/jpeg_encoder.h"

namespace corvane::camera {

namespace {
constexpr const char* kUnavailable = "unavailable";
constexpr const char* kTooLarge = "tooLarge";
constexpr const char* kTimeout = "timeout";
constexpr const char* kDeviceBusy = "deviceBusy";
}  // namespace

// Everything the capture queue touches. The session is held weakly: the capture queue must
// never be the one to drop the session's last reference (that would join its own thread).
struct AppleUsbSession::CaptureSide {
  CaptureSide(int64_t byte_limit, dispatch::Queue& hub) : limit(byte_limit), hub_queue(hub) {}

  std::mutex frame_lock;
  std::optional<uint64_t> wanted;  // guarded by frame_lock

  // Capture queue only.
  std::optional<int64_t> last_time;
  std::vector<uint8_t> scratch;  // converted pixels, reused from frame to frame

  const int64_t limit;
  dispatch::Queue& hub_queue;
  std::weak_ptr<AppleUsbSession> session;

  // Hands the outcome of request `id` to the hub queue.
  void Post(uint64_t id, std::vector<uint8_t> jpeg, const char* code) {
    hub_queue.Async([weak = session, id, jpeg = std::move(jpeg), code]() mutable {
      auto self = weak.lock();
      if (!self) return;
      if (code) {
        self->Fail(id, code);
      } else {
        self->Deliver(id, std::move(jpeg));
      }
    });
  }
};

AppleUsbSession::AppleUsbSession(Settings settings, dispatch::SerialQueue& queue,
                                 dispatch::Clock& clock, Reply opened)
    : settings_(std::move(settings)),
      queue_(queue),
      clock_(clock),
      capture_(std::make_shared<CaptureSide>(settings_.limit, queue)),
      capture_queue_(std::make_unique<dispatch::SerialQueue>(kFramesQueueLabel)),
      opened_(std::move(opened)) {}

AppleUsbSession::~AppleUsbSession() {
  // A session that goes without ending (the hub itself went) still gives its device back.
  if (stream_) stream_->Stop();
  timer_.Cancel();
}

void AppleUsbSession::Run(std::unique_ptr<CaptureStream> stream) {
  capture_->session = weak_from_this();
  stream_ = std::move(stream);
  CaptureStream::Handlers handlers;
  handlers.on_sample = [side = capture_](CaptureSample& sample) { OnSample(*side, sample); };
  handlers.on_failure = [weak = weak_from_this(), &queue = queue_](const char* code) {
    queue.Async([weak, code] {
      auto self = weak.lock();
      if (self && self->failed) self->failed(code);
    });
  };
  if (const char* error = stream_->Start(*capture_queue_, std::move(handlers))) {
    return Stop(error);
  }
  if (opened_) std::exchange(opened_, nullptr)->Success();
}

void AppleUsbSession::Read(Reply reply) {
  if (terminal_) return reply->Error(*terminal_);
  if (opened_ || pending_) return reply->Error(kDeviceBusy);
  // Any id unique within the session will do: it only has to tell this read from earlier ones.
  const uint64_t id = ++last_request_;
  pending_ = PendingRead{id, std::move(reply)};
  {
    std::lock_guard lock(capture_->frame_lock);
    capture_->wanted = id;
  }
  timer_ = clock_.After(queue_, std::chrono::milliseconds(settings_.timeout_ms),
                        [weak = weak_from_this(), id] {
                          if (auto self = weak.lock()) self->TimedOut(id);
                        });
}

void AppleUsbSession::Stop(const std::string& reason) {
  if (terminal_) return;
  terminal_ = reason;
  {
    std::lock_guard lock(capture_->frame_lock);
    capture_->wanted.reset();
  }
  timer_.Cancel();
  timer_ = dispatch::Timer();
  if (stream_) {
    stream_->Stop();
    stream_.reset();
  }
  if (opened_) std::exchange(opened_, nullptr)->Error(reason);
  if (pending_) {
    Reply reply = std::move(pending_->reply);
    pending_.reset();
    reply->Error(reason);
  }
}

void AppleUsbSession::OnSample(CaptureSide& side, CaptureSample& sample) {
  const std::optional<int64_t> time = sample.presentation_time();
  if (!time) return;
  // Only ever strictly newer than the last frame seen, wanted or not.
  if (side.last_time && *time <= *side.last_time) return;
  side.last_time = time;
  std::optional<uint64_t> id;
  {
    std::lock_guard lock(side.frame_lock);
    id = std::exchange(side.wanted, std::nullopt);
  }
  if (id) Encode(side, sample, *id);
}

void AppleUsbSession::Encode(CaptureSide& side, CaptureSample& sample, uint64_t id) {
  if (!sample.has_image()) return side.Post(id, {}, kUnavailable);
  const int width = sample.width();
  const int height = sample.height();
  if (width <= 0 || height <= 0 || width > kMaxFrameSide || height > kMaxFrameSide ||
      static_cast<int64_t>(width) * height > kMaxFramePixels) {
    return side.Post(id, {}, kTooLarge);
  }
  // Every failure to produce the bytes reads "tooLarge", a picture that will not convert as
  // much as one the encoder refuses; an over-large frame is never re-encoded smaller.
  RgbImage image;
  if (!sample.ReadRgb(side.scratch, &image) || image.width != width || image.height != height) {
    return side.Post(id, {}, kTooLarge);
  }
  std::vector<uint8_t> jpeg =
      imaging::EncodeJpeg(image.pixels, image.width, image.height, image.stride, kJpegQuality);
  if (jpeg.empty() || static_cast<int64_t>(jpeg.size()) > side.limit) {
    return side.Post(id, {}, kTooLarge);
  }
  side.Post(id, std::move(jpeg), nullptr);
}

void AppleUsbSession::Deliver(uint64_t id, std::vector<uint8_t> jpeg) {
  // A frame for a read that timed out, was stopped or was replaced is dropped here.
  if (!pending_ || pending_->id != id || terminal_) return;
  Reply reply = std::move(pending_->reply);
  pending_.reset();
  timer_.Cancel();
  timer_ = dispatch::Timer();
  ++sequence_;
  channel::ValueMap frame;
  frame.Append(channel::Value("sequence"), channel::Value::Integer(sequence_));
  frame.Append(channel::Value("bytes"), channel::Value(std::move(jpeg)));
  reply->Success(channel::Value(std::move(frame)));
}

void AppleUsbSession::Fail(uint64_t id, const char* code) {
  if (pending_ && pending_->id == id && failed) failed(code);
}

void AppleUsbSession::TimedOut(uint64_t id) {
  if (pending_ && pending_->id == id && failed) failed(kTimeout);
}

}  // namespace corvane::camera
