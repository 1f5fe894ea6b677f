// Runs inside the qemu guest that run-guest.sh boots: the real host, through its socket, against
// the kernel's vivid camera driver and uhid game controllers bound by hid-playstation and
// hid-generic. Cases run in order and each leaves the devices as it found them.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <thread>

#include "camera/jpeg_test_util.h"
#include "device/uhid_pad.h"
#include "json/json_mapping.h"
#include "support/wire_client.h"

namespace corvane::device {
namespace {

using channel::MethodReply;
using channel::Value;
using channel::ValueMap;
using namespace std::chrono_literals;

constexpr char kCamera[] = "io.corvane/apple_usb_camera";
constexpr char kGamepad[] = "io.corvane/gamepad";
constexpr char kToken[] = "6f1c2a9e-4b7d-4e1a-9c3f-2d8b5a7e0c11";

class Host {
 public:
  Host() {
    char dir[] = "/tmp/device-host-XXXXXX";  // a folder of its own: the host refuses /tmp
    socket_ = std::string(mkdtemp(dir)) + "/engine.sock";
    pid_ = fork();
    if (pid_ == 0) {
      execl(CORVANE_HOST_BINARY, CORVANE_HOST_BINARY, "--headless", "--engine-socket",
            socket_.c_str(), nullptr);
      _exit(127);
    }
    for (int i = 0; i < 3000 && !client_.Connect(socket_); ++i) std::this_thread::sleep_for(10ms);
    if (!client_.connected()) {
      fprintf(stderr, "the host did not come up\n");
      std::exit(1);
    }
  }
  ~Host() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }

  uint32_t Send(const char* channel, const std::string& method, Value args = Value()) {
    client_.SendCall(++last_id_, channel, method, std::move(args));
    return last_id_;
  }
  // The reply to `id`; replies to other calls that arrive first are kept for their own turn.
  MethodReply Await(uint32_t id, int timeout_ms = 60000) {
    while (!replies_.count(id)) {
      auto frame = client_.Receive(timeout_ms);
      if (!frame) {
        MethodReply none;
        none.kind = MethodReply::Kind::kError;
        none.error.code = "no reply";
        return none;
      }
      if (frame->kind != engine::FrameKind::kReply) continue;
      replies_[frame->id] = channel::DecodeEnvelope(frame->payload).value.value_or(MethodReply());
    }
    MethodReply reply = replies_[id];
    replies_.erase(id);
    return reply;
  }
  MethodReply Call(const char* channel, const std::string& method, Value args = Value()) {
    return Await(Send(channel, method, std::move(args)));
  }
  pid_t pid() const { return pid_; }

 private:
  std::string socket_;
  pid_t pid_ = -1;
  testing::WireClient client_;
  uint32_t last_id_ = 0;
  std::map<uint32_t, MethodReply> replies_;
};

Host* host = nullptr;

// A reply in one line: the value as JSON, an error as its code.
std::string Text(const MethodReply& reply) {
  if (reply.kind == MethodReply::Kind::kError) return "error " + reply.error.code;
  if (reply.kind == MethodReply::Kind::kNotImplemented) return "not implemented";
  return json::ToJson(reply.value);
}

Value Json(const std::string& text) { return json::ParseJsonValue(text).value.value_or(Value()); }

// ---- camera: vivid ----

std::string VideoNode() {
  for (int i = 0; i < 16; ++i) {
    const std::string path = "/sys/class/video4linux/video" + std::to_string(i) + "/name";
    FILE* f = fopen(path.c_str(), "r");
    char name[64] = {};
    if (f && fgets(name, sizeof name, f) &&
        std::string(name).find("vid-cap") != std::string::npos) {
      fclose(f);
      return "/dev/video" + std::to_string(i);
    }
    if (f) fclose(f);
  }
  return "";
}

void Control(const std::string& setting) {
  const std::string command = "v4l2-ctl -d " + VideoNode() + " -c " + setting;
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

const Value kTokenArgs = Json(std::string(R"({"token":")") + kToken + R"("})");

std::string Open(int64_t max_bytes = 16 << 20, int64_t timeout_ms = 20000) {
  return Text(
      host->Call(kCamera, "open",
                 Json(std::string(R"({"token":")") + kToken + R"(","deviceId":")" +
                      VideoNode().substr(5) + R"(","timeoutMs":)" + std::to_string(timeout_ms) +
                      R"(,"maxFrameBytes":)" + std::to_string(max_bytes) + "}")));
}
std::string Read() { return Text(host->Call(kCamera, "read", kTokenArgs)); }
void Close() { EXPECT_EQ(Text(host->Call(kCamera, "close", kTokenArgs)), "null"); }

// Nodes under /dev the host holds open.
std::vector<std::string> OpenDeviceNodes() {
  std::vector<std::string> nodes;
  const std::string dir = "/proc/" + std::to_string(host->pid()) + "/fd";
  for (const auto& fd : std::filesystem::directory_iterator(dir)) {
    std::error_code error;
    const std::string target = std::filesystem::read_symlink(fd.path(), error).string();
    if (target.rfind("/dev/v", 0) == 0) nodes.push_back(target);
  }
  return nodes;
}

TEST(Camera, ListsVividsCaptureNodeAlone) {
  ASSERT_FALSE(VideoNode().empty());
  EXPECT_EQ(Text(host->Call(kCamera, "list")),
            R"([{"id":")" + VideoNode().substr(5) + R"(","name":"vivid"}])");
}

TEST(Camera, TouchNodeIsNotListed) {
  ASSERT_TRUE(std::filesystem::exists("/dev/v4l-touch0"));
  EXPECT_EQ(Text(host->Call(kCamera, "list")).find("touch"), std::string::npos);
}

TEST(Camera, ReadsColourBarsInOrderNumberedOneTwoThree) {
  ASSERT_EQ(Open(), "null");
  // vivid's 75 % bars, left to right: grey, yellow, cyan, green, magenta, red, blue, black.
  const int bars[8][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                          {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};
  for (int64_t sequence = 1; sequence <= 3; ++sequence) {
    const MethodReply reply = host->Call(kCamera, "read", kTokenArgs);
    ASSERT_EQ(reply.kind, MethodReply::Kind::kSuccess) << Text(reply);
    const ValueMap& frame = *reply.value.map_if();
    EXPECT_EQ(*frame.Find("sequence"), Value::Integer(sequence));
    const auto jpeg = testing::DecodeJpeg(*frame.Find("bytes")->bytes_if());
    ASSERT_TRUE(jpeg && jpeg->jfif);
    ASSERT_EQ(std::make_pair(jpeg->width, jpeg->height), std::make_pair(1280, 720));
    for (int bar = 0; bar < 8; ++bar) {
      const uint8_t* px = &jpeg->rgb[(360 * 1280 + bar * 160 + 80) * 3];
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(px[c], bars[bar][c], 24) << "bar " << bar;
    }
  }
  Close();
}

TEST(Camera, SecondReadWhileOneWaitsIsBusy) {
  ASSERT_EQ(Open(), "null");
  Control("percentage_of_dropped_buffers=100");
  const uint32_t first = host->Send(kCamera, "read", kTokenArgs);
  EXPECT_EQ(Read(), "error deviceBusy");
  Control("percentage_of_dropped_buffers=0");
  EXPECT_EQ(host->Await(first).kind, MethodReply::Kind::kSuccess);
  Close();
}

TEST(Camera, NoFrameInTimeIsATimeoutThatStays) {
  ASSERT_EQ(Open(16 << 20, 500), "null");
  Control("percentage_of_dropped_buffers=100");
  EXPECT_EQ(Read(), "error timeout");
  EXPECT_EQ(Read(), "error timeout");
  Control("percentage_of_dropped_buffers=0");
  Close();
}

TEST(Camera, FrameOverTheByteLimitIsTooLargeAndStays) {
  ASSERT_EQ(Open(64), "null");
  EXPECT_EQ(Read(), "error tooLarge");
  EXPECT_EQ(Read(), "error tooLarge");
  Close();
}

TEST(Camera, StreamingErrorIsUnavailable) {
  ASSERT_EQ(Open(), "null");
  Control("inject_fatal_streaming_error=1");
  EXPECT_EQ(Read(), "error unavailable");
  Close();
}

TEST(Camera, StartStreamingFailureIsBusy) {
  Control("inject_vidioc_streamon_error=1");
  EXPECT_EQ(Open(), "error deviceBusy");
  Close();
}

TEST(Camera, NoNodeStaysOpenAfterClose) {
  ASSERT_EQ(Open(), "null");
  EXPECT_FALSE(OpenDeviceNodes().empty());
  Close();
  // The node closes once the capture has stopped, which may come just after the reply.
  for (int i = 0; i < 100 && !OpenDeviceNodes().empty(); ++i) std::this_thread::sleep_for(50ms);
  EXPECT_EQ(OpenDeviceNodes(), std::vector<std::string>());
}

TEST(Camera, UnbindDuringAReadIsDeviceMissing) {
  ASSERT_EQ(Open(), "null");
  Control("percentage_of_dropped_buffers=100");
  const uint32_t read = host->Send(kCamera, "read", kTokenArgs);
  ASSERT_EQ(std::system("echo vivid.0 > /sys/bus/platform/drivers/vivid/unbind"), 0);
  EXPECT_EQ(Text(host->Await(read)), "error deviceMissing");
  Close();
}

TEST(Camera, RebindIsListedAgain) {
  ASSERT_EQ(std::system("echo vivid.0 > /sys/bus/platform/drivers/vivid/bind && udevadm settle"),
            0);
  EXPECT_EQ(Text(host->Call(kCamera, "list")),
            R"([{"id":")" + VideoNode().substr(5) + R"(","name":"vivid"}])");
  EXPECT_EQ(Open(), "null");
  Close();
}

// ---- controllers: uhid ----

std::string Controllers() {
  std::system("udevadm settle");
  return Text(host->Call(kGamepad, "controllers"));
}

std::string Entry(const std::string& name, const std::string& category, double level,
                  const std::string& state, bool haptics, bool current,
                  const std::string& vendor = "") {
  ValueMap entry;
  entry.Set("name", Value(name));
  entry.Set("productCategory", Value(category));
  entry.Set("batteryLevel", Value(level));
  entry.Set("batteryState", Value(state));
  entry.Set("haptics", Value(haptics));
  entry.Set("current", Value(current));
  if (!vendor.empty()) entry.Set("vendorName", Value(vendor));
  return json::ToJson(Value(std::move(entry)));
}

// Rumble the driver sent: left (strong) and right (weak) motor bytes of each output report
// that sets them, repeats left out.
std::vector<std::pair<int, int>> Motors(UhidPad& pad) {
  std::vector<std::pair<int, int>> motors;
  for (const Report& r : pad.Outputs()) {
    if (r.size() < 5 || r[0] != 0x02 || !(r[1] & 0x01)) continue;
    const std::pair<int, int> m{r[4], r[3]};
    if (motors.empty() || motors.back() != m) motors.push_back(m);
  }
  return motors;
}

// Waits (at most 20 s) for `settings` motor settings to have arrived.
void AwaitMotors(UhidPad& pad, size_t settings) {
  for (int i = 0; i < 400 && Motors(pad).size() < settings; ++i) std::this_thread::sleep_for(50ms);
}

// Sends `status` until the driver has taken it: reports that come while it still probes are lost.
void Plug(UhidPad& pad, int mac, uint8_t status) {
  const std::string supply =
      "/sys/class/power_supply/ps-controller-battery-c0:00:00:00:00:0" + std::to_string(mac);
  for (int i = 0; i < 400; ++i) {
    pad.Input(DualSenseInput(status));
    std::ifstream in(supply + "/status");
    std::string state;
    if (std::getline(in, state) && state != "Unknown") return;
    std::this_thread::sleep_for(50ms);
  }
}

TEST(Gamepad, DualSenseBatteryComesFromItsPowerSupply) {
  UhidPad pad(DualSense(1));
  ASSERT_TRUE(pad.created());
  Plug(pad, 1, 0x07);
  const struct {
    uint8_t status;
    double level;
    const char* state;
  } cases[] = {{0x07, 0.75, "discharging"}, {0x13, 0.35, "charging"}, {0x20, 1.0, "full"},
               {0x00, 0.05, "discharging"}, {0xA0, 0.0, "unknown"},   {0xF0, 0.0, "unknown"}};
  for (const auto& c : cases) {
    pad.Input(DualSenseInput(c.status));
    EXPECT_EQ(
        Controllers(),
        "[" + Entry("Sony - DualSense", "DualSense", c.level, c.state, true, true, "Sony") + "]")
        << std::hex << int(c.status);
  }
}

TEST(Gamepad, DualSenseRumbleReachesItsMotors) {
  UhidPad pad(DualSense(2));
  Plug(pad, 2, 0x07);
  ASSERT_NE(Controllers(), "[]");  // once udev is done, SDL has seen it
  EXPECT_EQ(Text(host->Call(kGamepad, "haptic",
                            Json(R"({"name":"Sony - DualSense","pulses":[[0,1,0],[150,0.5,1]]})"))),
            "true");
  AwaitMotors(pad, 4);
  EXPECT_EQ(Motors(pad), (std::vector<std::pair<int, int>>{{255, 0}, {0, 0}, {0, 128}, {0, 0}}));
  // A new pattern cuts the running one off at once: the 300 ms pulse never comes.
  for (const char* pulses : {"[[0,1,0],[300,1,0]]", "[[100,0.5,1]]"}) {
    EXPECT_EQ(
        Text(host->Call(kGamepad, "haptic", Json(R"({"pulses":)" + std::string(pulses) + "}"))),
        "true");
  }
  AwaitMotors(pad, 8);
  std::this_thread::sleep_for(1s);
  EXPECT_EQ(Motors(pad),
            (std::vector<std::pair<int, int>>{
                {255, 0}, {0, 0}, {0, 128}, {0, 0}, {255, 0}, {0, 0}, {0, 128}, {0, 0}}));
}

TEST(Gamepad, GenericPadHasNoBatteryAndNoHaptics) {
  UhidPad pad(GenericPad());
  EXPECT_EQ(
      Controllers(),
      "[" + Entry("Corvane Test Pad", "Corvane Test Pad", -1.0, "unknown", false, true) + "]");
  EXPECT_EQ(Text(host->Call(kGamepad, "haptic", Json(R"({"pulses":[[0,1,0]]})"))), "false");
}

TEST(Gamepad, TwoPadsOfOneNameCurrentByUseRumbleTheFirstAndUnplugFallsBack) {
  auto first = std::make_unique<UhidPad>(DualSense(3));
  Plug(*first, 3, 0x07);
  ASSERT_NE(Controllers(), "[]");  // SDL has seen the first before the second comes
  UhidPad second(DualSense(4));
  Plug(second, 4, 0x13);
  const std::string both = Controllers();
  EXPECT_EQ(both,
            "[" + Entry("Sony - DualSense", "DualSense", 0.75, "discharging", true, false, "Sony") +
                "," + Entry("Sony - DualSense", "DualSense", 0.35, "charging", true, true, "Sony") +
                "]");
  Report press = DualSenseInput(0x07);
  press[8] |= 0x20;  // cross: the pad in use becomes the current one
  first->Input(press);
  EXPECT_EQ(
      Controllers(),
      "[" + Entry("Sony - DualSense", "DualSense", 0.75, "discharging", true, true, "Sony") + "," +
          Entry("Sony - DualSense", "DualSense", 0.35, "charging", true, false, "Sony") + "]");
  const Value buzz = Json(R"({"name":"Sony - DualSense","pulses":[[0,1,0]]})");
  EXPECT_EQ(Text(host->Call(kGamepad, "haptic", buzz)), "true");
  AwaitMotors(*first, 2);
  EXPECT_FALSE(Motors(*first).empty());
  EXPECT_TRUE(Motors(second).empty());
  first.reset();  // unplugged
  EXPECT_EQ(
      Controllers(),
      "[" + Entry("Sony - DualSense", "DualSense", 0.35, "charging", true, true, "Sony") + "]");
  EXPECT_EQ(Text(host->Call(kGamepad, "haptic", buzz)), "true");
  AwaitMotors(second, 2);
  EXPECT_FALSE(Motors(second).empty());
}

class HostEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { host = new Host(); }
  void TearDown() override { delete host; }
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new HostEnvironment);

}  // namespace
}  // namespace corvane::device
