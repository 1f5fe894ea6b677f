// DNS-SD discovery timing: BonjourBridge (Avahi backend) beside avahi-browse on the same
// private avahi-daemon, in the same run.
//
//   found: "start" to the first "found" of a station published before the start, against
//          `avahi-browse -rpt` from launch to its first resolved line; once on a bridge already
//          connected to the daemon, once on a bridge made at that instant (as avahi-browse is);
//   lost:  un-publishing (SIGTERM to avahi-publish) to "lost", against `avahi-browse -rp`
//          watching the same station, timed from the same un-publish.
//
// Starts its own daemon pair with scripts/avahi-test-daemon.sh and stops it at the end.
// Usage: bench_bonjour [iterations]   (default 15)
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "avahi_daemon.h"
#include "discovery/bonjour_bridge.h"
#include "discovery/bridge_client.h"

namespace {

using namespace corvane::discovery;
using namespace corvane::discovery::testing;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// avahi-browse -p prints "=;lo;IPv4;NAME;TYPE;..." for a resolved instance, "-;..." for a
// removed one; NAME has spaces escaped, so the benchmark's names have none.
bool IsLine(const std::string& line, char kind, const std::string& name) {
  return !line.empty() && line[0] == kind && line.find(";" + name + ";") != std::string::npos;
}

Value Z21Only() {
  ValueMap args;
  args.Set("types", Value(ValueList{Value("_z21._udp.")}));
  return Value(std::move(args));
}

}  // namespace

int main(int argc, char** argv) {
  const int iterations = argc > 1 ? std::max(1, std::atoi(argv[1])) : 15;
  const std::string dir = "/tmp/corvane-avahi-bench-" + std::to_string(getpid());
  if (!RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir, "start")) {
    std::fprintf(stderr, "cannot start avahi-daemon (run as root, after scripts/setup.sh)\n");
    return 1;
  }
  setenv("DBUS_SYSTEM_BUS_ADDRESS", BusAddress(dir).c_str(), 1);
  const std::string name = "BenchZ21-" + std::to_string(getpid());
  int failures = 0;
  std::vector<double> found_bridge, found_fresh, found_browse, lost_bridge, lost_browse;
  {
    BridgeClient client;
    BonjourBridge bridge(client.engine());
    client.Listen();
    auto publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
    // Warm-up: the client is connected and the daemon knows the station.
    client.Call("start", Z21Only());
    if (!client.WaitFor("found", name)) {
      std::fprintf(stderr, "the station was never found\n");
      return 1;
    }
    client.Call("stop");

    for (int i = 0; i < iterations; ++i) {
      client.engine().ClearReceived();
      Clock::time_point t0 = Clock::now();
      client.Call("start", Z21Only());
      if (client.WaitFor("found", name, 1, 10s)) {
        found_bridge.push_back(Ms(Clock::now() - t0));
      } else {
        ++failures;
      }
      client.Call("stop");

      // Like avahi-browse, a fresh bridge has to reach the daemon first.
      {
        BridgeClient fresh_client;
        t0 = Clock::now();
        BonjourBridge fresh(fresh_client.engine());
        fresh_client.Listen();
        fresh_client.Call("start", Z21Only());
        if (fresh_client.WaitFor("found", name, 1, 10s)) {
          found_fresh.push_back(Ms(Clock::now() - t0));
        } else {
          ++failures;
        }
      }

      t0 = Clock::now();
      Child browse({"avahi-browse", "-rpt", "_z21._udp"}, /*capture_stdout=*/true);
      for (std::string line; browse.ReadLine(line, 10000);) {
        if (IsLine(line, '=', name)) {
          found_browse.push_back(Ms(Clock::now() - t0));
          break;
        }
      }
    }

    client.Call("start", Z21Only());
    for (int i = 0; i < iterations; ++i) {
      client.engine().ClearReceived();
      if (!publisher) publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
      Child browse({"avahi-browse", "-rp", "_z21._udp"}, /*capture_stdout=*/true);
      bool seen = false;
      for (std::string line; !seen && browse.ReadLine(line, 10000);) seen = IsLine(line, '=', name);
      if (!seen || !client.WaitFor("found", name, 1, 10s)) {
        ++failures;
        continue;
      }
      // The browse output is read on its own thread, so both sides are timed from one instant.
      std::atomic<bool> started{false};
      Clock::time_point t0;
      double browse_ms = -1;
      std::thread reader([&] {
        started.wait(false);
        for (std::string line; browse.ReadLine(line, 10000);) {
          if (IsLine(line, '-', name)) {
            browse_ms = Ms(Clock::now() - t0);
            break;
          }
        }
      });
      t0 = Clock::now();
      started.store(true);
      started.notify_one();
      publisher->Stop();
      const bool lost = client.WaitFor("lost", name, 1, 10s);
      const double bridge_ms = Ms(Clock::now() - t0);
      reader.join();
      publisher.reset();
      if (!lost || browse_ms < 0) {
        ++failures;
        continue;
      }
      lost_bridge.push_back(bridge_ms);
      lost_browse.push_back(browse_ms);
    }
  }
  RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir, "stop");
  std::filesystem::remove_all(dir);

  const double fb = Median(found_bridge), fa = Median(found_browse);
  const double lb = Median(lost_bridge), la = Median(lost_browse);
  std::printf("%-34s %10s %10s %8s\n", "median over runs (ms)", "bridge", "avahi", "ratio");
  std::printf("%-34s %10.2f %10.2f %8.2f  (%zu/%zu runs)\n", "start -> first found (-rpt)", fb, fa,
              fa > 0 ? fb / fa : 0.0, found_bridge.size(), found_browse.size());
  const double ff = Median(found_fresh);
  std::printf("%-34s %10.2f %10.2f %8.2f  (%zu/%zu runs)\n", "new bridge + start -> found (-rpt)",
              ff, fa, fa > 0 ? ff / fa : 0.0, found_fresh.size(), found_browse.size());
  std::printf("%-34s %10.2f %10.2f %8.2f  (%zu runs)\n", "un-publish -> lost (-rp)", lb, la,
              la > 0 ? lb / la : 0.0, lost_bridge.size());
  if (failures > 0) std::printf("%d runs saw no event within 10 s\n", failures);
  return failures > 0 ? 1 : 0;
}
