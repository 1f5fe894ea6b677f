// Game controllers on SDL virtual pads, beside the bare SDL calls measured in the same run.
//
// - gamepad/haptic_to_rumble: a "haptic" call through the loopback engine until the pad's
//   rumble callback runs (the pattern's first pulse starts inside the call). Baseline
//   raw/sdl_rumble: SDL_GameControllerRumble on the same pad. Pulse strengths alternate so
//   SDL never skips a repeat.
// - gamepad/controllers_4: "controllers" with four pads attached, reply decoded. Baseline
//   raw/sdl_list_4: pumping SDL and reading the same facts for the four pads directly.
//
// - raw/channel_not_implemented and raw/sdl_update_4: the two costs every call carries, the
//   channel's own round trip and SDL reading the pads.
//
// --idle-seconds=N (instead of benchmarks): attaches four pads, plays a pattern to its end,
// then idles the main loop for N seconds and prints the CPU ticks spent meanwhile; run it under
// `strace -f` to count wake-ups.
#include <SDL.h>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "channel/standard_codec.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"
#include "gamepad/apple_game_controller_bridge.h"
#include "virtual_pad.h"

namespace {

using namespace corvane;
using Clock = std::chrono::steady_clock;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

Clock::time_point g_rumbled;
int g_rumbles = 0;

int SDLCALL OnRumble(void*, Uint16, Uint16) {
  g_rumbled = Clock::now();
  ++g_rumbles;
  return 0;
}

void AttachFourPads() {
  using gamepad::testing::AttachVirtualPad;
  AttachVirtualPad("Xbox 360 Controller", 0x045E, 0x028E, OnRumble);
  AttachVirtualPad("DualSense Wireless Controller", 0x054C, 0x0CE6, OnRumble);
  AttachVirtualPad("Pro Controller", 0x057E, 0x2009, OnRumble);
  AttachVirtualPad("Corvane Test Pad", 0, 0, OnRumble);
}

channel::Bytes HapticCall(double intensity) {
  ValueMap args;
  args.Set("name", Value("Microsoft - Xbox 360"));
  args.Set("pulses",
           Value(ValueList{Value(ValueList{Value::Integer(0), Value(intensity), Value(0.0)})}));
  return channel::EncodeMethodCall({"haptic", Value(std::move(args))});
}

struct Fixture {
  engine::LoopbackEngine engine;
  std::shared_ptr<gamepad::AppleGameControllerBridge> bridge =
      gamepad::AppleGameControllerBridge::Create(engine);
};

void HapticToRumble(benchmark::State& state) {
  Fixture f;
  const channel::Bytes calls[2] = {HapticCall(0.5), HapticCall(1.0)};
  size_t i = 0;
  bool answered_true = true;
  for (auto _ : state) {
    const int before = g_rumbles;
    const auto start = Clock::now();
    f.engine.SendFromEngine(gamepad::kMethodChannel, calls[i++ & 1], [&](channel::Bytes reply) {
      auto decoded = channel::DecodeEnvelope(reply);
      answered_true &= decoded && decoded.value->value == Value(true);
    });
    if (g_rumbles == before) {
      state.SkipWithError("no rumble inside the call");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(g_rumbled - start).count());
  }
  if (!answered_true) state.SkipWithError("haptic did not answer true");
}

void RawSdlRumble(benchmark::State& state) {
  SDL_GameController* pad = SDL_GameControllerOpen(0);
  size_t i = 0;
  for (auto _ : state) {
    const int before = g_rumbles;
    const auto start = Clock::now();
    SDL_GameControllerRumble(pad, (i++ & 1) ? 0xFFFF : 0x8000, 0, 340);
    if (g_rumbles == before) {
      state.SkipWithError("no rumble");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(g_rumbled - start).count());
  }
  SDL_GameControllerRumble(pad, 0, 0, 0);
  SDL_GameControllerClose(pad);
}

// The channel's own floor: an unknown method on the same channel, answered not-implemented.
void ChannelFloor(benchmark::State& state) {
  Fixture f;
  const channel::Bytes call = channel::EncodeMethodCall({"ping", Value()});
  for (auto _ : state) {
    f.engine.SendFromEngine(gamepad::kMethodChannel, call,
                            [](channel::Bytes reply) { benchmark::DoNotOptimize(reply.data()); });
  }
}

// What every call pays to learn about plug-ins, unplugs and input: SDL reading four pads.
void SdlUpdate4(benchmark::State& state) {
  for (auto _ : state) {
    SDL_JoystickUpdate();
    SDL_FlushEvents(SDL_FIRSTEVENT, SDL_LASTEVENT);
  }
}

void Controllers4(benchmark::State& state) {
  Fixture f;
  const channel::Bytes call = channel::EncodeMethodCall({"controllers", Value()});
  channel::Bytes last;
  for (auto _ : state) {
    f.engine.SendFromEngine(gamepad::kMethodChannel, call,
                            [&](channel::Bytes reply) { last = std::move(reply); });
  }
  auto decoded = channel::DecodeEnvelope(last);
  const ValueList* list = decoded ? decoded.value->value.list_if() : nullptr;
  if (!list || list->size() != 4) state.SkipWithError("controllers did not list four pads");
}

void RawSdlList4(benchmark::State& state) {
  SDL_GameController* pads[4];
  for (int i = 0; i < 4; ++i) pads[i] = SDL_GameControllerOpen(i);
  for (auto _ : state) {
    SDL_PumpEvents();
    SDL_FlushEvents(SDL_FIRSTEVENT, SDL_LASTEVENT);
    for (SDL_GameController* pad : pads) {
      SDL_Joystick* joystick = SDL_GameControllerGetJoystick(pad);
      benchmark::DoNotOptimize(SDL_GameControllerName(pad));
      benchmark::DoNotOptimize(SDL_GameControllerGetType(pad));
      benchmark::DoNotOptimize(SDL_JoystickGetVendor(joystick));
      benchmark::DoNotOptimize(SDL_JoystickCurrentPowerLevel(joystick));
      benchmark::DoNotOptimize(SDL_GameControllerHasRumble(pad));
      benchmark::DoNotOptimize(SDL_JoystickPath(joystick));
    }
  }
  for (SDL_GameController* pad : pads) SDL_GameControllerClose(pad);
}

BENCHMARK(HapticToRumble)->Name("gamepad/haptic_to_rumble")->UseManualTime();
BENCHMARK(RawSdlRumble)->Name("raw/sdl_rumble")->UseManualTime();
BENCHMARK(ChannelFloor)->Name("raw/channel_not_implemented");
BENCHMARK(SdlUpdate4)->Name("raw/sdl_update_4");
BENCHMARK(Controllers4)->Name("gamepad/controllers_4");
BENCHMARK(RawSdlList4)->Name("raw/sdl_list_4");

long CpuTicks() {
  std::ifstream stat("/proc/self/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  unsigned long utime = 0, stime = 0;
  std::sscanf(text.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
              &utime, &stime);
  return static_cast<long>(utime + stime);
}

int Idle(int seconds) {
  Fixture f;
  bool done = false;
  f.engine.SendFromEngine(gamepad::kMethodChannel, HapticCall(1.0),
                          [&](channel::Bytes) { done = true; });
  // Let the pattern's stop step run, then nothing should be left to wake the loop.
  dispatch::RunMainUntil([] { return false; }, std::chrono::milliseconds(500));
  std::printf("pid %d: %d rumble callbacks; idling %d s\n", getpid(), g_rumbles, seconds);
  std::fflush(stdout);
  const long before = CpuTicks();
  bool over = false;
  g_timeout_add(
      static_cast<guint>(seconds) * 1000,
      [](gpointer over) -> gboolean {
        *static_cast<bool*>(over) = true;
        return G_SOURCE_REMOVE;
      },
      &over);
  // Counts every time the loop woke up; the window's own end is one of them.
  unsigned wakeups = 0;
  while (!over) {
    g_main_context_iteration(nullptr, TRUE);
    ++wakeups;
  }
  std::printf("idle: cpu_ticks=%ld over %d s (clk_tck=%ld), main-loop wake-ups=%u\n",
              CpuTicks() - before, seconds, sysconf(_SC_CLK_TCK), wakeups);
  return done ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  if (SDL_InitSubSystem(SDL_INIT_GAMECONTROLLER) != 0) {
    std::fprintf(stderr, "SDL: %s\n", SDL_GetError());
    return 1;
  }
  AttachFourPads();
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--idle-seconds=", 15) == 0) return Idle(std::atoi(argv[i] + 15));
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  SDL_QuitSubSystem(SDL_INIT_GAMECONTROLLER);
  return 0;
}
