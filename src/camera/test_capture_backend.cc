#include "camera/test_capture_backend.h"

#include <future>

namespace corvane::camera {

namespace {

class TestSample final : public CaptureSample {
 public:
  explicit TestSample(const TestCaptureBackend::Frame& frame) : frame_(frame) {}
  std::optional<int64_t> presentation_time() const override { return frame_.time_ns; }
  bool has_image() const override { return frame_.rgb && !frame_.rgb->empty(); }
  int width() const override { return frame_.width; }
  int height() const override { return frame_.height; }
  bool ReadRgb(std::vector<uint8_t>&, RgbImage* image) override {
    const size_t row = static_cast<size_t>(frame_.width) * 3;
    if (!has_image() || frame_.width <= 0 || frame_.height <= 0 ||
        frame_.rgb->size() < row * static_cast<size_t>(frame_.height)) {
      return false;
    }
    *image = RgbImage{frame_.rgb->data(), frame_.width, frame_.height, row};
    return true;
  }

 private:
  const TestCaptureBackend::Frame& frame_;
};

}  // namespace

class TestCaptureBackend::Stream final : public CaptureStream {
 public:
  Stream(TestCaptureBackend& backend, std::string device_id)
      : backend_(backend), device_id_(std::move(device_id)) {}
  ~Stream() override { Stop(); }

  const char* Configure() override {
    std::lock_guard lock(backend_.mutex_);
    auto it = backend_.configure_failures_.find(device_id_);
    return it == backend_.configure_failures_.end() ? nullptr : it->second;
  }
  const char* Start(dispatch::SerialQueue& capture_queue, Handlers handlers) override {
    std::lock_guard lock(backend_.mutex_);
    auto it = backend_.start_failures_.find(device_id_);
    if (it != backend_.start_failures_.end()) return it->second;
    backend_.running_[device_id_] =
        std::make_shared<Running>(Running{&capture_queue, std::move(handlers)});
    started_ = true;
    backend_.changed_.notify_all();
    return nullptr;
  }
  void Stop() override {
    std::lock_guard lock(backend_.mutex_);
    if (!started_) return;
    started_ = false;
    backend_.running_.erase(device_id_);
    backend_.changed_.notify_all();
  }

 private:
  TestCaptureBackend& backend_;
  const std::string device_id_;
  bool started_ = false;  // guarded by the backend's mutex
};

void TestCaptureBackend::SetDevices(std::vector<CameraDevice> devices) {
  std::lock_guard lock(mutex_);
  devices_ = std::move(devices);
}

void TestCaptureBackend::SetAuthorization(Authorization authorization) {
  std::lock_guard lock(mutex_);
  authorization_ = authorization;
}

void TestCaptureBackend::SetAccessAnswer(bool granted) {
  std::lock_guard lock(mutex_);
  access_answer_ = granted;
}

void TestCaptureBackend::HoldAccessAnswers() {
  std::lock_guard lock(mutex_);
  hold_access_ = true;
}

void TestCaptureBackend::AnswerAccess(bool granted) {
  std::vector<std::function<void(bool)>> held;
  {
    std::lock_guard lock(mutex_);
    hold_access_ = false;
    held.swap(held_access_);
    authorization_ = granted ? Authorization::kAuthorized : Authorization::kDenied;
  }
  for (auto& done : held) done(granted);
}

void TestCaptureBackend::FailOpen(const std::string& device_id, const char* code) {
  std::lock_guard lock(mutex_);
  open_failures_[device_id] = code;
}

void TestCaptureBackend::FailConfigure(const std::string& device_id, const char* code) {
  std::lock_guard lock(mutex_);
  configure_failures_[device_id] = code;
}

void TestCaptureBackend::FailStart(const std::string& device_id, const char* code) {
  std::lock_guard lock(mutex_);
  start_failures_[device_id] = code;
}

int TestCaptureBackend::access_requests() const {
  std::lock_guard lock(mutex_);
  return access_requests_;
}

bool TestCaptureBackend::streaming(const std::string& device_id) const {
  std::lock_guard lock(mutex_);
  return running_.count(device_id) != 0;
}

bool TestCaptureBackend::WaitStreaming(const std::string& device_id, bool running,
                                       std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout,
                           [&] { return (running_.count(device_id) != 0) == running; });
}

bool TestCaptureBackend::Deliver(const std::string& device_id, const Frame& frame) {
  auto taken = std::make_shared<std::promise<void>>();
  std::future<void> done = taken->get_future();
  {
    // Posting under the lock: once Stop has run the queue may be gone.
    std::lock_guard lock(mutex_);
    auto it = running_.find(device_id);
    if (it == running_.end()) return false;
    it->second->queue->Async([running = it->second, frame, taken] {
      TestSample sample(frame);
      running->handlers.on_sample(sample);
      taken->set_value();
    });
  }
  // A queue torn down before it ran the frame breaks the promise; either way it is over.
  try {
    done.get();
  } catch (const std::future_error&) {
    return false;
  }
  return true;
}

bool TestCaptureBackend::Fail(const std::string& device_id, const char* code) {
  std::shared_ptr<Running> running;
  {
    std::lock_guard lock(mutex_);
    auto it = running_.find(device_id);
    if (it == running_.end()) return false;
    running = it->second;
  }
  running->handlers.on_failure(code);
  return true;
}

Authorization TestCaptureBackend::authorization() {
  std::lock_guard lock(mutex_);
  return authorization_;
}

void TestCaptureBackend::RequestAccess(std::function<void(bool granted)> done) {
  bool granted;
  {
    std::lock_guard lock(mutex_);
    ++access_requests_;
    if (hold_access_) {
      held_access_.push_back(std::move(done));
      return;
    }
    granted = access_answer_;
    authorization_ = granted ? Authorization::kAuthorized : Authorization::kDenied;
  }
  done(granted);
}

std::vector<CameraDevice> TestCaptureBackend::Enumerate() {
  std::lock_guard lock(mutex_);
  return devices_;
}

std::unique_ptr<CaptureStream> TestCaptureBackend::Open(const CameraDevice& device,
                                                        const char** error) {
  std::lock_guard lock(mutex_);
  auto it = open_failures_.find(device.id);
  if (it != open_failures_.end()) {
    *error = it->second;
    return nullptr;
  }
  return std::make_unique<Stream>(*this, device.id);
}

}  // namespace corvane::camera
