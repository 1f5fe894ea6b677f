// A game controller made in the kernel through /dev/uhid: the kernel's own HID drivers take it for
// real hardware. A thread answers the driver's feature-report requests and keeps what it sends.
#pragma once

#include <linux/uhid.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace corvane::device {

using Report = std::vector<uint8_t>;

struct PadModel {
  std::string name;
  uint16_t vendor = 0;
  uint16_t product = 0;
  Report descriptor;
  std::map<uint8_t, Report> features;  // by report id, the id byte included
};

class UhidPad {
 public:
  explicit UhidPad(const PadModel& model);
  ~UhidPad();  // unplugs the pad
  UhidPad(const UhidPad&) = delete;
  UhidPad& operator=(const UhidPad&) = delete;

  bool created() const { return fd_ >= 0; }
  void Input(const Report& report);
  std::vector<Report> Outputs();

 private:
  void Write(const uhid_event& event);
  void Serve();

  PadModel model_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<Report> outputs_;
  std::thread thread_;
};

// A USB DualSense as hid-playstation knows it (input report 1 of 64 bytes, output report 2,
// calibration, pairing and firmware feature reports), with `mac` as its address.
PadModel DualSense(uint8_t mac);
// A DualSense input report whose status byte is `status` (battery level and charging state).
Report DualSenseInput(uint8_t status);
// A plain USB gamepad (8 buttons, two axes) that hid-generic takes.
PadModel GenericPad();

}  // namespace corvane::device
