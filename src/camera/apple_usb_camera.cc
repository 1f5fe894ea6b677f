#include "camera/apple_usb_camera.h"

#include <glib.h>

namespace corvane::camera {

namespace {

std::string RandomUuid() {
  gchar* text = g_uuid_string_random();
  std::string uuid(text);
  g_free(text);
  return uuid;
}

}  // namespace

AppleUsbCamera::AppleUsbCamera(channel::BinaryMessenger& messenger, Options options)
    : owner_(RandomUuid()),
      hub_(options.hub ? std::move(options.hub) : AppleUsbHub::Shared()),
      application_visible_(std::move(options.application_visible)),
      methods_(std::make_unique<channel::MethodChannel>(messenger, kMethodChannel)) {
  methods_->SetMethodCallHandler(
      [this](const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result) {
        HandleCall(call, std::move(result));
      });
}

AppleUsbCamera::~AppleUsbCamera() {
  methods_.reset();
  hub_->EndOwner(owner_, "ended");
}

void AppleUsbCamera::Notify(Happening happening) {
  hub_->EndOwner(owner_, happening == Happening::kWindowClosed ? "ended" : "suspended");
}

void AppleUsbCamera::HandleCall(const channel::MethodCall& call,
                                std::unique_ptr<channel::MethodResult> result) {
  // Answered here, even while hidden: it says what the machine can do, not what it does now.
  if (call.method == "supported") return result->Success(channel::Value(true));
  AppleUsbHub::Call work;
  work.method = call.method;
  if (call.arguments.map_if()) work.arguments = call.arguments;
  work.owner = owner_;
  work.visible = !application_visible_ || application_visible_();
  work.result = std::move(result);
  hub_->Handle(std::move(work));
}

}  // namespace corvane::camera
