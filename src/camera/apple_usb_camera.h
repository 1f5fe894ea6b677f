// AppleUsbCamera: the camera channel `io.corvane/apple_usb_camera` of one window's engine.
// Every session it opens is stamped with its `owner`, so one window can neither read nor close
// another's; the sessions themselves live in the process's AppleUsbHub.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "camera/apple_usb_hub.h"
#include "channel/binary_messenger.h"
#include "channel/method_channel.h"

namespace corvane::camera {

inline constexpr const char* kMethodChannel = "io.corvane/apple_usb_camera";

class AppleUsbCamera {
 public:
  struct Options {
    std::shared_ptr<AppleUsbHub> hub;  // the process's hub by default
    // Whether the application shows at least one window; asked on the main thread. A host
    // without windows is never hidden, which is the default.
    std::function<bool()> application_visible;
  };

  // What the host tells the camera about its window and the application.
  enum class Happening {
    kApplicationHidden,
    kApplicationWillTerminate,
    kSystemWillSleep,
    kWindowMinimised,
    kWindowClosed,
  };

  // Opens the channel on `messenger` (call on the main thread).
  AppleUsbCamera(channel::BinaryMessenger& messenger, Options options);
  // Ends this window's sessions with "ended".
  ~AppleUsbCamera();
  AppleUsbCamera(const AppleUsbCamera&) = delete;
  AppleUsbCamera& operator=(const AppleUsbCamera&) = delete;

  // Closing the window ends its sessions with "ended" and removes them; everything else
  // suspends them ("suspended", kept until closed).
  void Notify(Happening happening);

  const std::string& owner() const { return owner_; }

 private:
  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);

  const std::string owner_;
  std::shared_ptr<AppleUsbHub> hub_;
  std::function<bool()> application_visible_;
  std::unique_ptr<channel::MethodChannel> methods_;
};

}  // namespace corvane::camera
