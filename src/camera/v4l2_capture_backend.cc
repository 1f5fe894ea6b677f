#include "camera/v4l2_capture_backend.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <libv4l2.h>
#include <libv4lconvert.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <vector>

#include "camera/apple_usb_hub.h"
#include "camera/camera_portal.h"
#include "camera/udev_cameras.h"
#include "camera/v4l2_frames.h"
#include "channel/log.h"
#include "dispatch/glib_source.h"

namespace corvane::camera {

namespace {

constexpr std::string_view kLogDomain = "corvane-camera";
constexpr const char* kPermission = "permission";
constexpr const char* kDeviceBusy = "deviceBusy";
constexpr const char* kUnsupported = "unsupported";
constexpr const char* kUnavailable = "unavailable";

// Enough for the driver to fill one while we read another; more only adds latency.
constexpr uint32_t kBufferCount = 4;
constexpr int kSizes[][2] = {{1280, 720}, {640, 480}};

int Ioctl(int fd, unsigned long request, void* arg) {
  int r;
  do {
    r = v4l2_ioctl(fd, request, arg);
  } while (r < 0 && errno == EINTR);
  return r;
}

// The opened device and its buffers. Shared between the stream (hub queue) and the capture
// queue, which alone touches it once streaming has started.
struct Device {
  struct Buffer {
    void* start = MAP_FAILED;
    size_t length = 0;
  };

  int fd = -1;
  std::unique_ptr<V4l2Converter> converter;
  std::vector<Buffer> buffers;
  bool streaming = false;
  GSource* source = nullptr;
  CaptureStream::Handlers handlers;

  ~Device() { Close(); }

  void Close() {
    dispatch::DestroySource(source);
    if (fd < 0) return;
    if (streaming) {
      v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
      Ioctl(fd, VIDIOC_STREAMOFF, &type);
      streaming = false;
    }
    for (Buffer& b : buffers) {
      if (b.start != MAP_FAILED) v4l2_munmap(b.start, b.length);
    }
    buffers.clear();
    converter.reset();
    v4l2_close(fd);
    fd = -1;
  }

  bool MapBuffers() {
    v4l2_requestbuffers request{};
    request.count = kBufferCount;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (Ioctl(fd, VIDIOC_REQBUFS, &request) < 0 || request.count == 0) return false;
    buffers.resize(request.count);
    for (uint32_t i = 0; i < request.count; ++i) {
      v4l2_buffer buffer{};
      buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
      buffer.memory = V4L2_MEMORY_MMAP;
      buffer.index = i;
      if (Ioctl(fd, VIDIOC_QUERYBUF, &buffer) < 0) return false;
      buffers[i].length = buffer.length;
      buffers[i].start = v4l2_mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                                   buffer.m.offset);
      if (buffers[i].start == MAP_FAILED) return false;
      if (Ioctl(fd, VIDIOC_QBUF, &buffer) < 0) return false;
    }
    v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (Ioctl(fd, VIDIOC_STREAMON, &type) < 0) return false;
    streaming = true;
    return true;
  }

  // Capture queue: the device has frames (or has gone).
  bool OnReadable(GIOCondition condition) {
    bool took = false;
    BufferQueue queue{[this, &took](v4l2_buffer* b) {
                        const int r = Ioctl(fd, VIDIOC_DQBUF, b);
                        took = took || r == 0;
                        return r;
                      },
                      [this](const v4l2_buffer& b) {
                        v4l2_buffer again = b;
                        Ioctl(fd, VIDIOC_QBUF, &again);
                      }};
    const char* failure = TakeNewestBuffer(queue, [this](const v4l2_buffer& b) {
      if (b.index >= buffers.size()) return;
      const size_t used = std::min<size_t>(b.bytesused, buffers[b.index].length);
      V4l2Sample sample(*converter, static_cast<const uint8_t*>(buffers[b.index].start), used,
                        BufferTimeNs(b));
      handlers.on_sample(sample);
    });
    // An error condition with nothing to dequeue would wake us again at once, for ever.
    if (!failure && !took && (condition & (G_IO_ERR | G_IO_HUP))) failure = kStreamFailed;
    if (!failure) return true;
    channel::Log(channel::LogLevel::kInfo, kLogDomain, std::string("capture stopped: ") + failure);
    handlers.on_failure(failure);
    GSource* own = std::exchange(source, nullptr);
    g_source_unref(own);  // removed by returning false
    return false;
  }
};

class V4l2Backend;

class V4l2Stream final : public CaptureStream {
 public:
  V4l2Stream(V4l2Backend& backend, std::string devnode, std::shared_ptr<Device> device)
      : backend_(backend), devnode_(std::move(devnode)), device_(std::move(device)) {}
  ~V4l2Stream() override { Stop(); }

  const char* Configure() override;
  const char* Start(dispatch::SerialQueue& capture_queue, Handlers handlers) override;
  void Stop() override;

  const std::string& devnode() const { return devnode_; }
  // The device went away (udev); reported like a failed read would.
  void Unplugged() {
    if (running_ && device_) device_->handlers.on_failure(kStreamDisconnected);
  }

 private:
  V4l2Backend& backend_;
  const std::string devnode_;
  std::shared_ptr<Device> device_;
  dispatch::SerialQueue* capture_queue_ = nullptr;
  bool running_ = false;
};

class V4l2Backend final : public CaptureBackend, public std::enable_shared_from_this<V4l2Backend> {
 public:
  explicit V4l2Backend(dispatch::SerialQueue& hub_queue)
      : hub_queue_(hub_queue), sandboxed_(InSandbox()) {}

  Authorization authorization() override {
    if (sandboxed_) {
      const int answer = portal_answer_.load();
      if (answer < 0) return Authorization::kNotDetermined;
      if (answer == 0) return Authorization::kDenied;
    }
    // Nodes exist but this user may open none of them: access is denied (group "video").
    const auto nodes = cameras_.Enumerate();
    bool any_accessible = nodes.empty();
    for (const auto& node : nodes) any_accessible = any_accessible || node.accessible;
    return any_accessible ? Authorization::kAuthorized : Authorization::kDenied;
  }

  void RequestAccess(std::function<void(bool granted)> done) override {
    // Outside a sandbox device rights are the system's to give; there is no one to ask.
    if (!sandboxed_) return done(authorization() == Authorization::kAuthorized);
    RequestPortalCameraAccess([self = shared_from_this(), done](bool granted) {
      self->portal_answer_ = granted ? 1 : 0;
      done(granted);
    });
  }

  std::vector<CameraDevice> Enumerate() override {
    std::vector<CameraDevice> devices;
    nodes_.clear();
    for (CaptureNode& node : cameras_.Enumerate()) {
      // Two nodes of one device may share a name-derived id; the first keeps it.
      if (!nodes_.emplace(node.id, node.devnode).second) continue;
      devices.push_back(CameraDevice{std::move(node.id), std::move(node.name)});
    }
    return devices;
  }

  std::unique_ptr<CaptureStream> Open(const CameraDevice& device, const char** error) override {
    auto it = nodes_.find(device.id);
    const std::string devnode = it == nodes_.end() ? std::string() : it->second;
    const int raw = devnode.empty() ? -1 : open(devnode.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (raw < 0) {
      *error = errno == EACCES || errno == EPERM ? kPermission : kDeviceBusy;
      return nullptr;
    }
    // libv4l2 for the device's plugins; its own conversion stays off so that a frame nobody
    // asked for is never converted.
    const int fd = v4l2_fd_open(raw, V4L2_DISABLE_CONVERSION);
    if (fd < 0) {
      close(raw);
      *error = kDeviceBusy;
      return nullptr;
    }
    auto opened = std::make_shared<Device>();
    opened->fd = fd;
    opened->converter = std::make_unique<V4l2Converter>(v4lconvert_create(fd));
    auto stream = std::make_unique<V4l2Stream>(*this, devnode, std::move(opened));
    return stream;
  }

  // Hub queue: streams that run are watched for unplugging while any runs.
  void Started(V4l2Stream* stream) {
    running_.push_back(stream);
    if (running_.size() == 1) {
      cameras_.StartMonitor(hub_queue_.context(), [this](const std::string& devnode) {
        for (V4l2Stream* s : running_) {
          if (s->devnode() == devnode) s->Unplugged();
        }
      });
    }
  }
  void Stopped(V4l2Stream* stream) {
    std::erase(running_, stream);
    if (running_.empty()) cameras_.StopMonitor();
  }

 private:
  dispatch::SerialQueue& hub_queue_;
  const bool sandboxed_;
  std::atomic<int> portal_answer_{-1};  // inside a sandbox: not asked yet, denied (0), granted
  UdevCameras cameras_;
  std::map<std::string, std::string> nodes_;  // id -> device node, from the last enumeration
  std::vector<V4l2Stream*> running_;
};

const char* V4l2Stream::Configure() {
  Device& device = *device_;
  for (const auto& size : kSizes) {
    std::optional<v4l2_format> source = device.converter->SourceFor(size[0], size[1]);
    if (!source) continue;
    if (Ioctl(device.fd, VIDIOC_S_FMT, &*source) < 0) {
      return errno == EBUSY ? kDeviceBusy : kUnavailable;
    }
    if (static_cast<int>(source->fmt.pix.width) != size[0] ||
        static_cast<int>(source->fmt.pix.height) != size[1]) {
      return kUnsupported;
    }
    device.converter->SetSource(*source);
    return nullptr;
  }
  return kUnsupported;
}

const char* V4l2Stream::Start(dispatch::SerialQueue& capture_queue, Handlers handlers) {
  if (!device_ || !device_->MapBuffers()) {
    if (device_) device_->Close();
    return kDeviceBusy;
  }
  device_->handlers = std::move(handlers);
  capture_queue_ = &capture_queue;
  running_ = true;
  backend_.Started(this);
  capture_queue.Async([device = device_, context = capture_queue.context()] {
    if (device->fd < 0) return;  // stopped before it began
    device->source =
        g_unix_fd_source_new(device->fd, static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP));
    GUnixFDSourceFunc on_readable = [](int, GIOCondition condition, void* data) -> gboolean {
      return static_cast<Device*>(data)->OnReadable(condition) ? G_SOURCE_CONTINUE
                                                               : G_SOURCE_REMOVE;
    };
    // The source goes before the device does (Close destroys it), so a plain pointer will do.
    g_source_set_callback(device->source, G_SOURCE_FUNC(on_readable), device.get(), nullptr);
    g_source_set_name(device->source, "corvane camera frames");
    g_source_attach(device->source, context);
  });
  return nullptr;
}

void V4l2Stream::Stop() {
  if (!device_) return;
  std::shared_ptr<Device> device = std::move(device_);
  if (running_) {
    running_ = false;
    backend_.Stopped(this);
    // The capture queue owns the device once it streams; it closes it after any frame it is
    // handing over.
    capture_queue_->Async([device] { device->Close(); });
  } else {
    device->Close();
  }
}

}  // namespace

std::shared_ptr<CaptureBackend> MakeV4l2CaptureBackend(dispatch::SerialQueue& hub_queue) {
  return std::make_shared<V4l2Backend>(hub_queue);
}

std::shared_ptr<AppleUsbHub> AppleUsbHub::Shared() {
  // Never destroyed: callbacks of the capture stack may arrive until the process ends.
  static auto* hub = new std::shared_ptr<AppleUsbHub>(AppleUsbHub::Create(
      Options{[](dispatch::SerialQueue& queue) { return MakeV4l2CaptureBackend(queue); }}));
  return *hub;
}

}  // namespace corvane::camera
