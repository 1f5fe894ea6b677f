// Video capture nodes as udev knows them: enumeration with stable ids, and a monitor that
// reports when one goes away.
#pragma once

#include <functional>
#include <string>
#include <vector>

typedef struct _GMainContext GMainContext;
typedef struct _GSource GSource;
struct udev;
struct udev_monitor;

namespace corvane::camera {

struct CaptureNode {
  std::string id;       // /dev/v4l/by-id name, else vendor:product:serial, else the node name
  std::string name;     // the product's name
  std::string devnode;  // /dev/videoN
  bool accessible;      // this user may open it
};

class UdevCameras {
 public:
  UdevCameras();
  ~UdevCameras();
  UdevCameras(const UdevCameras&) = delete;
  UdevCameras& operator=(const UdevCameras&) = delete;

  // Nodes that capture video, in udev's order; metadata and touch-sensor nodes are left out.
  std::vector<CaptureNode> Enumerate();

  // Reports the device node of every removed video device, on `context`. No polling: the
  // monitor's socket wakes the context.
  bool StartMonitor(GMainContext* context, std::function<void(const std::string& devnode)> removed);
  void StopMonitor();
  bool monitoring() const { return source_ != nullptr; }

 private:
  static int OnMonitorReadable(int fd, unsigned condition, void* self);

  udev* udev_ = nullptr;
  udev_monitor* monitor_ = nullptr;
  GSource* source_ = nullptr;
  std::function<void(const std::string&)> removed_;
};

}  // namespace corvane::camera
