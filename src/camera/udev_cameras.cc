#include "camera/udev_cameras.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <libudev.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "dispatch/glib_source.h"

namespace corvane::camera {

namespace {

constexpr const char* kByIdPrefix = "/dev/v4l/by-id/";

std::string Text(const char* text) { return text ? std::string(text) : std::string(); }

struct Probe {
  bool capture = false;
  std::string card;
};

bool Accessible(const std::string& devnode) { return access(devnode.c_str(), R_OK | W_OK) == 0; }

// Asks the node itself what it does. udev's tag cannot be trusted alone: it marks touch sensors
// (touchpads, touchscreens) ":capture:" too. Opening a node another program streams from is
// allowed.
Probe ProbeNode(const std::string& devnode) {
  Probe probe;
  const int fd = open(devnode.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    // Without rights there is no telling; counted as a camera, so that a user outside the
    // video group hears "permission" rather than of no camera at all.
    probe.capture = (errno == EACCES || errno == EPERM);
    return probe;
  }
  v4l2_capability caps{};
  if (ioctl(fd, VIDIOC_QUERYCAP, &caps) == 0) {
    const uint32_t node_caps =
        (caps.capabilities & V4L2_CAP_DEVICE_CAPS) ? caps.device_caps : caps.capabilities;
    probe.capture = (node_caps & V4L2_CAP_VIDEO_CAPTURE) && !(node_caps & V4L2_CAP_TOUCH);
    probe.card.assign(reinterpret_cast<const char*>(caps.card),
                      strnlen(reinterpret_cast<const char*>(caps.card), sizeof caps.card));
  }
  close(fd);
  return probe;
}

// udev's own probe of the node (":capture:" for capture nodes, ":meta:" alone for metadata
// ones), which spares opening nodes that are surely no camera; empty where udevd did not run.
std::string UdevCapabilities(udev_device* device) {
  return Text(udev_device_get_property_value(device, "ID_V4L_CAPABILITIES"));
}

std::string StableId(udev_device* device) {
  udev_list_entry* link = udev_device_get_devlinks_list_entry(device);
  for (; link; link = udev_list_entry_get_next(link)) {
    const std::string path = Text(udev_list_entry_get_name(link));
    if (path.rfind(kByIdPrefix, 0) == 0) return path.substr(strlen(kByIdPrefix));
  }
  udev_device* usb = udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device");
  if (usb) {
    std::string id = Text(udev_device_get_sysattr_value(usb, "idVendor")) + ":" +
                     Text(udev_device_get_sysattr_value(usb, "idProduct"));
    const std::string serial = Text(udev_device_get_sysattr_value(usb, "serial"));
    if (!serial.empty()) id += ":" + serial;
    if (id != ":") return id;
  }
  return Text(udev_device_get_sysname(device));
}

std::string ProductName(udev_device* device, const std::string& card) {
  std::string name = Text(udev_device_get_property_value(device, "ID_V4L_PRODUCT"));
  if (!name.empty()) return name;
  udev_device* usb = udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device");
  if (usb) name = Text(udev_device_get_sysattr_value(usb, "product"));
  if (!name.empty()) return name;
  if (!card.empty()) return card;
  return Text(udev_device_get_sysattr_value(device, "name"));
}

}  // namespace

UdevCameras::UdevCameras() : udev_(udev_new()) {}

UdevCameras::~UdevCameras() {
  StopMonitor();
  if (udev_) udev_unref(udev_);
}

std::vector<CaptureNode> UdevCameras::Enumerate() {
  std::vector<CaptureNode> nodes;
  if (!udev_) return nodes;
  udev_enumerate* enumerate = udev_enumerate_new(udev_);
  if (!enumerate) return nodes;
  udev_enumerate_add_match_subsystem(enumerate, "video4linux");
  udev_enumerate_scan_devices(enumerate);
  udev_list_entry* entry = udev_enumerate_get_list_entry(enumerate);
  for (; entry; entry = udev_list_entry_get_next(entry)) {
    udev_device* device = udev_device_new_from_syspath(udev_, udev_list_entry_get_name(entry));
    if (!device) continue;
    const std::string devnode = Text(udev_device_get_devnode(device));
    if (!devnode.empty()) {
      const std::string described = UdevCapabilities(device);
      Probe probe;
      if (described.empty() || described.find(":capture:") != std::string::npos) {
        probe = ProbeNode(devnode);
      }
      if (probe.capture) {
        nodes.push_back(CaptureNode{StableId(device), ProductName(device, probe.card), devnode,
                                    Accessible(devnode)});
      }
    }
    udev_device_unref(device);
  }
  udev_enumerate_unref(enumerate);
  return nodes;
}

bool UdevCameras::StartMonitor(GMainContext* context,
                               std::function<void(const std::string& devnode)> removed) {
  if (source_) return true;
  if (!udev_) return false;
  monitor_ = udev_monitor_new_from_netlink(udev_, "udev");
  if (!monitor_) return false;
  if (udev_monitor_filter_add_match_subsystem_devtype(monitor_, "video4linux", nullptr) < 0 ||
      udev_monitor_enable_receiving(monitor_) < 0) {
    udev_monitor_unref(monitor_);
    monitor_ = nullptr;
    return false;
  }
  removed_ = std::move(removed);
  source_ = g_unix_fd_source_new(udev_monitor_get_fd(monitor_), G_IO_IN);
  GUnixFDSourceFunc on_readable = [](int fd, GIOCondition condition, void* self) -> gboolean {
    return OnMonitorReadable(fd, condition, self);
  };
  g_source_set_callback(source_, G_SOURCE_FUNC(on_readable), this, nullptr);
  g_source_set_name(source_, "corvane camera unplug");
  g_source_attach(source_, context);
  return true;
}

void UdevCameras::StopMonitor() {
  dispatch::DestroySource(source_);
  if (monitor_) udev_monitor_unref(monitor_);
  monitor_ = nullptr;
  removed_ = nullptr;
}

int UdevCameras::OnMonitorReadable(int, unsigned, void* data) {
  auto* self = static_cast<UdevCameras*>(data);
  while (udev_device* device = udev_monitor_receive_device(self->monitor_)) {
    const std::string action = Text(udev_device_get_action(device));
    const std::string devnode = Text(udev_device_get_devnode(device));
    udev_device_unref(device);
    if (action == "remove" && !devnode.empty() && self->removed_) self->removed_(devnode);
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace corvane::camera
