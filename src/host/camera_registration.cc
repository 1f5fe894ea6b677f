#include "host/camera_registration.h"

#include "camera/apple_usb_camera.h"
#include "host/plugin_registry.h"
#include "host/window_watch.h"

namespace corvane::host {

namespace {

using Happening = camera::AppleUsbCamera::Happening;

// Kept by the registry. The watch goes before the camera, so nothing reaches a camera that is
// ending its sessions.
struct CameraRegistration {
  std::shared_ptr<camera::AppleUsbCamera> camera;
  std::shared_ptr<WindowWatch> watch;
  ~CameraRegistration() { watch.reset(); }
};

}  // namespace

std::shared_ptr<void> MakeAppleUsbCamera(Registrar& registrar) {
  auto registration = std::make_shared<CameraRegistration>();
  camera::AppleUsbCamera::Options options;
  options.application_visible = &WindowWatch::ApplicationVisible;
  registration->camera =
      std::make_shared<camera::AppleUsbCamera>(registrar.messenger(), std::move(options));
  auto tell = [weak = std::weak_ptr(registration->camera)](Happening happening) {
    return [weak, happening] {
      if (auto camera = weak.lock()) camera->Notify(happening);
    };
  };
  registration->watch = WindowWatch::Start(
      registrar.view(),
      WindowWatch::Handlers{tell(Happening::kWindowMinimised), tell(Happening::kWindowClosed),
                            tell(Happening::kApplicationHidden), tell(Happening::kSystemWillSleep),
                            tell(Happening::kApplicationWillTerminate)});
  registrar.AddApplicationDelegate(registration->watch);
  return registration;
}

}  // namespace corvane::host
