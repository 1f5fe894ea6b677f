// Cloud documents against plain tools, in the same run:
//   snapshot of 10,000 documents in 200 folders  vs  an nftw walk that stats every entry
//   (the listing alone, and the whole "items" event through the channel)
//   a new file's "items" event after it appears  vs  the 1.0 s batching interval
//   "write" of 100 MB (temporary file, fsync, rename)  vs  cp (and cp followed by sync FILE)
// A small main rather than Google Benchmark: each sample waits on files and a main loop, so it
// prints medians and the ratios itself.
#include <ftw.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "cloud/document_scan.h"
#include "cloud/icloud_bridge.h"
#include "engine/loopback_engine.h"

extern char** environ;

namespace {

using namespace corvane;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int kFolders = 200;
constexpr int kFilesPerFolder = 50;
constexpr const char* kContainer = "iCloud.io.corvane.bench";

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double Time(const std::function<void()>& fn) {
  const auto start = Clock::now();
  fn();
  return Seconds(Clock::now() - start);
}

size_t walked = 0;
int CountEntry(const char*, const struct stat*, int, struct FTW*) {
  ++walked;
  return 0;
}

bool Run(std::vector<const char*> argv) {
  argv.push_back(nullptr);
  pid_t pid;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv.data()), environ)) {
    return false;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The Flutter side of one bridge: calls and the latest events.
struct Client {
  engine::LoopbackEngine engine;
  std::shared_ptr<cloud::ICloudBridge> bridge;
  double last_decode = 0;  // seconds the client spent decoding the last event it read

  channel::Value Call(const std::string& method, channel::Value args = channel::Value()) {
    channel::Value value;
    bool done = false;
    engine.SendFromEngine(cloud::kMethodChannel,
                          channel::EncodeMethodCall({method, std::move(args)}),
                          [&](channel::Bytes b) {
                            auto decoded = channel::DecodeEnvelope(b);
                            if (decoded) value = decoded.value->value;
                            done = true;
                          });
    dispatch::RunMainUntil([&] { return done; }, 120s);
    return value;
  }
  // Waits for an items event with `count` items; the time it arrived. Each event is decoded
  // once, as the Flutter side would.
  std::optional<Clock::time_point> WaitItems(size_t count, std::chrono::seconds timeout = 30s) {
    std::optional<Clock::time_point> at;
    size_t seen = 0;
    dispatch::RunMainUntil(
        [&] {
          for (; seen < engine.received().size(); ++seen) {
            const auto& m = engine.received()[seen];
            const auto decode_start = Clock::now();
            auto e = channel::DecodeEnvelope(m.payload);
            last_decode = Seconds(Clock::now() - decode_start);
            const channel::ValueMap* map = e ? e.value->value.map_if() : nullptr;
            const channel::Value* items = map ? map->Find("items") : nullptr;
            if (items && items->list_if() && items->list_if()->size() == count) {
              at = Clock::now();
              return true;
            }
          }
          return false;
        },
        timeout);
    engine.ClearReceived();
    return at;
  }
};

}  // namespace

int main() {
  char pattern[] = "/tmp/corvane-cloud-bench-XXXXXX";
  const std::string root = mkdtemp(pattern);
  const std::string container = root + "/sync/" + kContainer;
  const std::string docs = container + "/Documents";
  fs::create_directories(root + "/config/corvane");
  std::ofstream(root + "/config/corvane/cloud.conf") << "[containers]\n"
                                                     << kContainer << "=" << container << "\n";
  for (int f = 0; f < kFolders; ++f) {
    const std::string folder = docs + "/layout-" + std::to_string(f);
    fs::create_directories(folder);
    for (int i = 0; i < kFilesPerFolder; ++i) {
      std::ofstream(folder + "/plan-" + std::to_string(i) + ".corvane") << "plan " << i;
    }
  }
  const size_t total = kFolders * kFilesPerFolder;

  // 1. The listing alone against nftw, alternating so both see the same cache.
  std::vector<double> scan, walk;
  for (int round = 0; round < 15; ++round) {
    scan.push_back(Time([&] {
      if (cloud::ScanDocuments(docs).items.size() != total) std::abort();
    }));
    walk.push_back(Time([&] {
      walked = 0;
      nftw(docs.c_str(), CountEntry, 32, FTW_PHYS);
    }));
  }
  std::printf("listing %zu documents: %.2f ms, nftw walk: %.2f ms, ratio %.2f\n", total,
              Median(scan) * 1e3, Median(walk) * 1e3, Median(scan) / Median(walk));

  cloud::ClientPaths paths;
  paths.home = root + "/home";
  paths.config_home = root + "/config";
  paths.state_home = root + "/state";
  Client client;
  cloud::ICloudBridge::Options options;
  options.container_key = kContainer;
  options.store = cloud::MakeSyncedFolderStore(paths);
  client.bridge = cloud::ICloudBridge::Create(client.engine, std::move(options));
  client.engine.SendFromEngine(cloud::kEventChannel,
                               channel::EncodeMethodCall({"listen", channel::Value()}));
  client.Call("status");

  // 2. The whole snapshot, until its "items" event has arrived and been decoded: the first one
  // after "startWatching" (which also sets up a watch per folder), and one while watching
  // (a "status" call shows the list again).
  std::vector<double> first, again, decode;
  for (int round = 0; round < 7; ++round) {
    client.Call("stopWatching");
    client.engine.ClearReceived();
    auto start = Clock::now();
    client.Call("startWatching");
    auto at = client.WaitItems(total);
    if (!at) return std::puts("no snapshot arrived"), 1;
    first.push_back(Seconds(*at - start));
    client.WaitItems(0, 0s);
    start = Clock::now();
    client.Call("status");
    at = client.WaitItems(total);
    if (!at) return std::puts("no snapshot arrived"), 1;
    again.push_back(Seconds(*at - start));
    decode.push_back(client.last_decode);
  }
  std::printf(
      "items event of %zu documents while watching: %.2f ms, nftw walk: %.2f ms, "
      "ratio %.2f\n",
      total, Median(again) * 1e3, Median(walk) * 1e3, Median(again) / Median(walk));
  std::printf(
      "  of which the client decoding the event: %.2f ms; the rest against the walk: "
      "ratio %.2f\n",
      Median(decode) * 1e3, (Median(again) - Median(decode)) / Median(walk));
  std::printf(
      "first items event after startWatching (with 201 folder watches): %.2f ms, "
      "ratio %.2f\n",
      Median(first) * 1e3, Median(first) / Median(walk));

  // 3. From a file's creation to the event that lists it (batched at 1.0 s).
  std::vector<double> latency;
  for (int round = 0; round < 5; ++round) {
    client.WaitItems(0, 0s);  // drop what came before
    const auto start = Clock::now();
    std::ofstream(docs + "/new-" + std::to_string(round) + ".corvane") << "new";
    auto at = client.WaitItems(total + round + 1, 10s);
    if (!at) return std::puts("no event for a new file"), 1;
    latency.push_back(Seconds(*at - start));
  }
  std::printf("new file to its items event: %.3f s (batching interval 1.000 s), ratio %.2f\n",
              Median(latency), Median(latency) / 1.0);
  client.Call("stopWatching");

  // 4. 100 MB into the container: "write" against cp, and against cp followed by sync FILE
  // (the write syncs its data before the rename).
  const std::string source = root + "/big.bin";
  {
    std::ofstream out(source, std::ios::binary);
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131);
    for (int i = 0; i < 100; ++i)
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  std::vector<double> write, cp, cp_sync;
  for (int round = 0; round < 5; ++round) {
    const std::string target = docs + "/big-" + std::to_string(round) + ".corvane";
    channel::ValueMap args;
    args.Append(channel::Value("from"), channel::Value(source));
    args.Append(channel::Value("path"), channel::Value(target));
    write.push_back(Time([&] { client.Call("write", channel::Value(args)); }));
    const std::string copy = root + "/copy-" + std::to_string(round);
    cp.push_back(Time([&] { Run({"cp", source.c_str(), copy.c_str()}); }));
    const std::string synced = root + "/synced-" + std::to_string(round);
    cp_sync.push_back(Time([&] {
      Run({"cp", source.c_str(), synced.c_str()});
      Run({"sync", synced.c_str()});
    }));
    fs::remove(target);
    fs::remove(copy);
    fs::remove(synced);
  }
  std::printf("write 100 MB: %.1f ms, cp: %.1f ms (ratio %.2f), cp + sync: %.1f ms (ratio %.2f)\n",
              Median(write) * 1e3, Median(cp) * 1e3, Median(write) / Median(cp),
              Median(cp_sync) * 1e3, Median(write) / Median(cp_sync));

  client.bridge.reset();
  fs::remove_all(root);
  return 0;
}
