// Shared by the legacy tests: a private folder tree, property lists built with libplist, and a
// LegacySwiftUIBridge on a loopback engine with the test playing the Flutter side.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"
#include "host/support.h"
#include "legacy/legacy_swiftui_bridge.h"
#include "legacy/property_list.h"
#include "support/loopback_call.h"

namespace corvane::legacy::testing {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueMap;
namespace fs = std::filesystem;

template <typename Bytes>
void WriteFile(const fs::path& path, const Bytes& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}
inline std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Property lists as a test writes them.
inline plist_t Str(const char* s) { return plist_new_string(s); }
inline plist_t Int(int64_t v) { return plist_new_uint(static_cast<uint64_t>(v)); }
inline plist_t Real(double v) { return plist_new_real(v); }
inline plist_t Bool(bool v) { return plist_new_bool(v); }
inline plist_t Data(const std::string& bytes) { return plist_new_data(bytes.data(), bytes.size()); }
// Seconds since 2001-01-01, the property-list epoch.
inline plist_t Date(int32_t sec, int32_t usec = 0) { return plist_new_date(sec, usec); }
inline plist_t Array(std::initializer_list<plist_t> items) {
  plist_t a = plist_new_array();
  for (plist_t item : items) plist_array_append_item(a, item);
  return a;
}
inline plist_t Dict(std::initializer_list<std::pair<const char*, plist_t>> items) {
  plist_t d = plist_new_dict();
  for (const auto& [key, value] : items) plist_dict_set_item(d, key, value);
  return d;
}

enum class Format { kBinary, kXml };

// Writes `root` in `format` and frees it.
inline std::vector<uint8_t> Serialize(plist_t root, Format format) {
  Plist owned(root);
  char* bytes = nullptr;
  uint32_t n = 0;
  (format == Format::kBinary ? plist_to_bin : plist_to_xml)(root, &bytes, &n);
  std::vector<uint8_t> out(bytes, bytes + n);
  free(bytes);
  return out;
}

inline Value Map(std::initializer_list<std::pair<const char*, Value>> entries) {
  ValueMap m;
  for (const auto& [k, v] : entries) m.Append(Value(k), v);
  return Value(std::move(m));
}

// A home folder laid out as the earlier edition's users bring it along, and a bridge that
// looks there. By default the bridge runs under another bundle identifier, so the data is
// found in the earlier edition's container inside the account's home.
class BridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    environment_.bundle_identifier = "io.corvane.host";
    environment_.account_home = (dir_ / "account").string();
    environment_.application_home = (dir_ / "app-home").string();
    environment_.data_home = (dir_ / "data-home").string();
    fs::create_directories(environment_.account_home);
  }
  void TearDown() override { bridge_.reset(); }

  fs::path Container() const {
    return fs::path(environment_.account_home) / "Library/Containers/nl.hazelmoor.corvane/Data";
  }
  fs::path StorePath() const {
    return Container() / "Library/Preferences/nl.hazelmoor.corvane.plist";
  }
  void WriteStore(plist_t root, Format format = Format::kBinary) {
    WriteFile(StorePath(), Serialize(root, format));
  }

  LegacySwiftUIBridge& Bridge() {
    if (!bridge_) bridge_ = LegacySwiftUIBridge::Create(engine_, environment_);
    return *bridge_;
  }

  MethodReply Call(const std::string& method, Value args = Value()) {
    Bridge();
    auto replies = corvane::testing::StartCall(engine_, kMethodChannel, method, std::move(args));
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 30s);
    EXPECT_EQ(replies->size(), 1u) << method;
    return replies->empty() ? MethodReply() : replies->front();
  }
  Value Success(const std::string& method, Value args = Value()) {
    MethodReply reply = Call(method, std::move(args));
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess) << method << ": " << reply.error.code;
    return reply.value;
  }

  corvane::testing::TempDir temp_;
  const fs::path dir_ = temp_.path();
  LegacyEnvironment environment_;
  engine::LoopbackEngine engine_;
  std::shared_ptr<LegacySwiftUIBridge> bridge_;
};

}  // namespace corvane::legacy::testing
