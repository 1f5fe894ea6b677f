// The machine's cameras: V4L2 capture nodes found through udev, streamed with memory-mapped
// buffers through libv4l2, converted to RGB with libv4lconvert when a frame is asked for.
#pragma once

#include <memory>

#include "camera/capture_backend.h"
#include "dispatch/queue.h"

namespace corvane::camera {

// `hub_queue` carries the unplug monitor and every call but the frames.
std::shared_ptr<CaptureBackend> MakeV4l2CaptureBackend(dispatch::SerialQueue& hub_queue);

}  // namespace corvane::camera
