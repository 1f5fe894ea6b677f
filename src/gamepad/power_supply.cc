#include "gamepad/power_supply.h"

#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>

namespace corvane::gamepad {

namespace {

namespace fs = std::filesystem;

// Sysfs attributes are a line of text; anything longer is not what we are looking for.
constexpr size_t kMaxAttribute = 64;
// A machine has a handful of supplies; a tree with thousands is not worth walking on the main
// thread.
constexpr int kMaxSupplies = 256;

std::optional<std::string> ReadAttribute(const fs::path& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  char buffer[kMaxAttribute];
  in.read(buffer, sizeof buffer);
  std::string text(buffer, static_cast<size_t>(in.gcount()));
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

std::optional<fs::path> Canonical(const fs::path& path) {
  std::error_code error;
  fs::path resolved = fs::canonical(path, error);
  if (error) return std::nullopt;
  return resolved;
}

// True when `ancestor` is `path` or one of its parent directories.
bool Contains(const fs::path& ancestor, const fs::path& path) {
  auto a = ancestor.begin();
  auto p = path.begin();
  for (; a != ancestor.end(); ++a, ++p) {
    if (p == path.end() || *a != *p) return false;
  }
  return true;
}

double LevelOf(const fs::path& supply) {
  if (auto capacity = ReadAttribute(supply / "capacity")) {
    int percent = 0;
    auto [end, error] =
        std::from_chars(capacity->data(), capacity->data() + capacity->size(), percent);
    if (error == std::errc() && end == capacity->data() + capacity->size()) return percent / 100.0;
  }
  // Some drivers only know a coarse level.
  if (auto level = ReadAttribute(supply / "capacity_level")) {
    if (*level == "Critical") return 0.05;
    if (*level == "Low") return 0.2;
    if (*level == "Normal") return 0.5;
    if (*level == "High") return 0.8;
    if (*level == "Full") return 1.0;
  }
  return std::numeric_limits<double>::quiet_NaN();
}

BatteryState StateOf(const fs::path& supply) {
  const auto status = ReadAttribute(supply / "status");
  if (!status) return BatteryState::kUnknown;
  if (*status == "Discharging") return BatteryState::kDischarging;
  if (*status == "Charging") return BatteryState::kCharging;
  if (*status == "Full") return BatteryState::kFull;
  // "Not charging" and "Unknown": on a cable, but whether it is full nobody says.
  return BatteryState::kUnknown;
}

}  // namespace

std::optional<Battery> ReadPowerSupplyBattery(const std::string& sysfs_root,
                                              const std::string& device_node) {
  const std::string name = fs::path(device_node).filename().string();
  if (name.empty() || name == "." || name == "..") return std::nullopt;
  const fs::path root(sysfs_root);
  std::optional<fs::path> node = Canonical(root / "class" / "input" / name);
  if (!node) node = Canonical(root / "class" / "hidraw" / name);
  if (!node) return std::nullopt;

  std::error_code error;
  int seen = 0;
  for (fs::directory_iterator it(root / "class" / "power_supply", error), end;
       !error && it != end && ++seen <= kMaxSupplies; it.increment(error)) {
    const fs::directory_entry& supply = *it;
    if (ReadAttribute(supply.path() / "scope") != "Device") continue;
    const std::optional<fs::path> device = Canonical(supply.path() / "device");
    // The supply hangs off the controller's HID device; the input and hidraw nodes sit below it.
    if (!device || !Contains(*device, *node)) continue;
    return Battery{LevelOf(supply.path()), StateOf(supply.path())};
  }
  return std::nullopt;
}

}  // namespace corvane::gamepad
