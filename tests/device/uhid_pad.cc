#include "device/uhid_pad.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>

namespace corvane::device {

UhidPad::UhidPad(const PadModel& model) : model_(model) {
  fd_ = open("/dev/uhid", O_RDWR | O_CLOEXEC);
  if (fd_ < 0) return;
  uhid_event create{};
  create.type = UHID_CREATE2;
  auto& c = create.u.create2;
  snprintf(reinterpret_cast<char*>(c.name), sizeof c.name, "%s", model.name.c_str());
  c.rd_size = static_cast<uint16_t>(model.descriptor.size());
  memcpy(c.rd_data, model.descriptor.data(), model.descriptor.size());
  c.bus = 0x03;  // BUS_USB: hid-playstation binds USB DualSenses by id
  c.vendor = model.vendor;
  c.product = model.product;
  Write(create);
  thread_ = std::thread([this] { Serve(); });
}

UhidPad::~UhidPad() {
  if (fd_ < 0) return;
  stop_ = true;
  thread_.join();
  uhid_event destroy{};
  destroy.type = UHID_DESTROY;
  Write(destroy);
  close(fd_);
}

void UhidPad::Write(const uhid_event& event) {
  if (write(fd_, &event, sizeof event) != sizeof event) perror("uhid write");
}

void UhidPad::Input(const Report& report) {
  uhid_event input{};
  input.type = UHID_INPUT2;
  input.u.input2.size = static_cast<uint16_t>(report.size());
  memcpy(input.u.input2.data, report.data(), report.size());
  Write(input);
}

std::vector<Report> UhidPad::Outputs() {
  std::lock_guard lock(mutex_);
  return outputs_;
}

void UhidPad::Serve() {
  pollfd p{fd_, POLLIN, 0};
  while (!stop_) {
    if (poll(&p, 1, 50) <= 0) continue;
    uhid_event event{};
    if (read(fd_, &event, sizeof event) <= 0) continue;
    if (event.type == UHID_OUTPUT) {
      std::lock_guard lock(mutex_);
      Report output(event.u.output.size);
      memcpy(output.data(), event.u.output.data, output.size());
      outputs_.push_back(std::move(output));
    } else if (event.type == UHID_GET_REPORT) {
      uhid_event reply{};
      reply.type = UHID_GET_REPORT_REPLY;
      reply.u.get_report_reply.id = event.u.get_report.id;
      const auto found = model_.features.find(event.u.get_report.rnum);
      if (found == model_.features.end()) {
        reply.u.get_report_reply.err = EIO;
      } else {
        reply.u.get_report_reply.size = static_cast<uint16_t>(found->second.size());
        memcpy(reply.u.get_report_reply.data, found->second.data(), found->second.size());
      }
      Write(reply);
    }
  }
}

namespace {

Report Feature(uint8_t id, size_t size) {
  Report report(size);
  report[0] = id;
  return report;
}

}  // namespace

PadModel DualSense(uint8_t mac) {
  PadModel pad{"Sony Interactive Entertainment Wireless Controller", 0x054C, 0x0CE6, {}, {}};
  // Vendor-defined reports of the sizes the driver checks: input 1 (63 bytes), output 2 (62),
  // features 5 (calibration, 40), 9 (pairing, 19) and 0x20 (firmware, 63).
  pad.descriptor = {0x05, 0x01, 0x09, 0x05, 0xA1, 0x01, 0x06, 0x00, 0xFF, 0x15, 0x00, 0x26,
                    0xFF, 0x00, 0x75, 0x08, 0x85, 0x01, 0x09, 0x20, 0x95, 0x3F, 0x81, 0x02,
                    0x85, 0x02, 0x09, 0x21, 0x95, 0x3E, 0x91, 0x02, 0x85, 0x05, 0x09, 0x22,
                    0x95, 0x28, 0xB1, 0x02, 0x85, 0x09, 0x09, 0x23, 0x95, 0x13, 0xB1, 0x02,
                    0x85, 0x20, 0x09, 0x24, 0x95, 0x3F, 0xB1, 0x02, 0xC0};
  // Calibration: every plus/minus pair apart, since the driver divides by their difference.
  Report calibration = Feature(0x05, 41);
  for (size_t at = 7; at < 35; at += 4) {
    calibration[at] = 0x10;  // plus 0x2010, minus -0x2010, little endian
    calibration[at + 1] = 0x20;
    calibration[at + 2] = 0xF0;
    calibration[at + 3] = 0xDF;
  }
  Report pairing = Feature(0x09, 20);
  pairing[1] = mac;
  pairing[6] = 0xC0;
  pad.features = {{0x05, calibration}, {0x09, pairing}, {0x20, Feature(0x20, 64)}};
  return pad;
}

Report DualSenseInput(uint8_t status) {
  Report report(64, 0);
  report[0] = 0x01;
  report[1] = report[2] = report[3] = report[4] = 0x80;  // sticks centred
  report[8] = 0x08;                                      // hat released
  report[33] = report[37] = 0x80;                        // no touches
  report[53] = status;
  return report;
}

PadModel GenericPad() {
  return PadModel{
      "Corvane Test Pad",
      0xF055,
      0x0001,
      {0x05, 0x01, 0x09, 0x05, 0xA1, 0x01, 0x05, 0x09, 0x19, 0x01, 0x29, 0x08, 0x15, 0x00,
       0x25, 0x01, 0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0x05, 0x01, 0x09, 0x30, 0x09, 0x31,
       0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08, 0x95, 0x02, 0x81, 0x02, 0xC0},
      {}};
}

}  // namespace corvane::device
