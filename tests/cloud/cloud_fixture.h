// The test plays the Flutter side of an ICloudBridge through the loopback engine. Every test
// gets its own home, configuration and sync folders below a fresh temporary folder.
#pragma once

#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "cloud/icloud_bridge.h"
#include "engine/loopback_engine.h"
#include "json/json_mapping.h"
#include "support/loopback_call.h"

namespace corvane::channel {
inline void PrintTo(const Value& value, std::ostream* os) { *os << json::ToJson(value); }
}  // namespace corvane::channel

namespace corvane::cloud::testing {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;
namespace fs = std::filesystem;

inline constexpr const char* kContainer = "iCloud.io.corvane.test";

inline void WriteFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Sets a file's modification time, in seconds since the epoch.
inline void SetModified(const std::string& path, int64_t seconds, long nanoseconds = 0) {
  timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

struct TempDir {
  explicit TempDir(const char* base = "/tmp")
      : path_((std::string(base) + "/corvane-cloud-XXXXXX")) {
    mkdtemp(path_.data());
  }
  ~TempDir() { fs::remove_all(path_); }
  const std::string& path() const { return path_; }
  std::string path_;
};

inline const Value* Field(const Value& map, const char* key) {
  return map.map_if() ? map.map_if()->Find(key) : nullptr;
}
inline std::string Text(const Value& map, const char* key) {
  const Value* v = Field(map, key);
  return v && v->string_if() ? *v->string_if() : std::string("<none>");
}
inline std::optional<bool> Flag(const Value& map, const char* key) {
  const Value* v = Field(map, key);
  return v && v->bool_if() ? std::optional<bool>(*v->bool_if()) : std::nullopt;
}
inline std::optional<int64_t> Integer(const Value& map, const char* key) {
  const Value* v = Field(map, key);
  return v ? v->integer() : std::nullopt;
}
inline const ValueList& Items(const Value& event) {
  static const ValueList none;
  const Value* items = Field(event, "items");
  return items && items->list_if() ? *items->list_if() : none;
}

inline Value Map(std::initializer_list<std::pair<const char*, Value>> entries) {
  ValueMap m;
  for (const auto& [k, v] : entries) m.Append(Value(k), v);
  return Value(std::move(m));
}

class CloudTest : public ::testing::Test {
 protected:
  CloudTest() {
    paths_.home = root_.path() + "/home";
    paths_.config_home = paths_.home + "/.config";
    paths_.state_home = paths_.home + "/.local/state";
    paths_.runtime_dir = root_.path() + "/run";
    fs::create_directories(paths_.config_home + "/corvane");
  }
  ~CloudTest() override { bridge_.reset(); }

  // The folder the settings file names for the container; created unless `create` is false.
  std::string ConfigureFolder(const std::string& folder, bool create = true) {
    if (create) fs::create_directories(folder);
    WriteFile(paths_.SettingsFile(),
              std::string("[containers]\n") + kContainer + "=" + folder + "\n");
    return folder;
  }
  // A container configured and the bridge started, its Documents folder known to it.
  std::string StartWithContainer() {
    const std::string folder = ConfigureFolder(root_.path() + "/sync/" + kContainer);
    Start();
    const Value status = Call("status");
    EXPECT_EQ(Flag(status, "available"), true);
    return Text(status, "documents");
  }

  virtual ICloudBridge::Options MakeOptions() {
    ICloudBridge::Options options;
    options.container_key = kContainer;
    options.store = MakeSyncedFolderStore(paths_);
    options.machine_info = root_.path() + "/machine-info";
    options.batch_interval = 300ms;
    options.download_poll = 20ms;
    return options;
  }

  void Start() { Start(MakeOptions()); }
  void Start(ICloudBridge::Options options) {
    bridge_.reset();  // the old service lets go of the channels before the new one takes them
    bridge_ = ICloudBridge::Create(engine_, std::move(options));
    engine_.SendFromEngine(kEventChannel, channel::EncodeMethodCall({"listen", Value()}));
  }

  using Replies = std::shared_ptr<std::vector<MethodReply>>;
  // Starts a call; the list fills with its replies as the main loop runs.
  Replies Send(const std::string& method, Value args = Value()) {
    return corvane::testing::StartCall(engine_, kMethodChannel, method, std::move(args));
  }
  MethodReply CallReply(const std::string& method, Value args = Value()) {
    Replies replies = Send(method, std::move(args));
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 10s);
    EXPECT_EQ(replies->size(), 1u) << "replies to " << method;
    return replies->empty() ? MethodReply() : replies->front();
  }
  Value Call(const std::string& method, Value args = Value()) {
    MethodReply reply = CallReply(method, std::move(args));
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess) << method;
    return reply.value;
  }
  std::vector<Value> Events() {
    std::vector<Value> events;
    for (const auto& m : engine_.received()) {
      auto e = channel::DecodeEnvelope(m.payload);
      if (m.channel == kEventChannel && e && e.value->kind == MethodReply::Kind::kSuccess)
        events.push_back(e.value->value);
    }
    return events;
  }
  // The first event of `type` at or after `*from` that satisfies `accept`; moves `*from` past.
  std::optional<Value> WaitEvent(const std::string& type, size_t* from,
                                 const std::function<bool(const Value&)>& accept = {},
                                 std::chrono::milliseconds timeout = 10s) {
    std::optional<Value> found;
    dispatch::RunMainUntil(
        [&] {
          auto events = Events();
          for (size_t i = *from; i < events.size(); ++i) {
            *from = i + 1;
            if (Text(events[i], "type") == type && (!accept || accept(events[i]))) {
              found = events[i];
              return true;
            }
          }
          return false;
        },
        timeout);
    return found;
  }
  void Settle(std::chrono::milliseconds t) {
    dispatch::RunMainUntil([] { return false; }, t);
  }

  TempDir root_;
  ClientPaths paths_;
  engine::LoopbackEngine engine_;
  std::shared_ptr<ICloudBridge> bridge_;
};

}  // namespace corvane::cloud::testing
