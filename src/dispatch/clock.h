// Time as services see it: a wall clock (milliseconds since the Unix epoch, which callers send
// as absolute deadlines), a monotonic clock (seconds of uptime, which a clock change cannot
// move), and delayed tasks timed by the monotonic one. The system clock is the real thing; the
// manual clock lets a test move time and fire due tasks without sleeping.
#pragma once

#include <glib.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "dispatch/queue.h"

namespace corvane::dispatch {

// A cancellable handle on a delayed task made by a Clock. Cancel() after the task ran does
// nothing; dropping the handle does not cancel.
class Timer {
 public:
  Timer() = default;
  explicit Timer(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  void Cancel() {
    if (!cancel_) return;
    auto cancel = std::move(cancel_);
    cancel_ = nullptr;
    cancel();
  }

 private:
  std::function<void()> cancel_;
};

class Clock {
 public:
  virtual ~Clock() = default;
  virtual double NowWallMs() = 0;
  virtual double NowMonotonic() = 0;  // seconds
  // Runs `task` on `queue` once `delay` of monotonic time has passed.
  virtual Timer After(Queue& queue, std::chrono::milliseconds delay, Task task) = 0;
};

class SystemClock final : public Clock {
 public:
  static SystemClock& Get() {
    static SystemClock clock;
    return clock;
  }
  double NowWallMs() override { return static_cast<double>(g_get_real_time()) / 1000.0; }
  double NowMonotonic() override { return static_cast<double>(g_get_monotonic_time()) / 1e6; }
  Timer After(Queue& queue, std::chrono::milliseconds delay, Task task) override {
    WorkItem item = queue.After(delay, std::move(task));
    return Timer([item]() mutable { item.Cancel(); });
  }
};

// Time moves only when the test says so. Due tasks are posted to their queues in due order, so
// they run where the system clock would have run them.
class ManualClock final : public Clock {
 public:
  ManualClock() : wall_ms_(static_cast<double>(g_get_real_time()) / 1000.0) {}

  double NowWallMs() override {
    std::lock_guard lock(mutex_);
    return wall_ms_;
  }
  double NowMonotonic() override {
    std::lock_guard lock(mutex_);
    return monotonic_ms_ / 1000.0;
  }

  Timer After(Queue& queue, std::chrono::milliseconds delay, Task task) override {
    std::lock_guard lock(mutex_);
    const uint64_t id = ++next_id_;
    const double due = monotonic_ms_ + static_cast<double>(std::max<int64_t>(delay.count(), 0));
    timers_.emplace(std::make_pair(due, id), Entry{&queue, std::move(task)});
    return Timer([this, due, id] {
      std::lock_guard inner(mutex_);
      timers_.erase(std::make_pair(due, id));
    });
  }

  // Moves both clocks forward and fires every timer that became due.
  void Advance(std::chrono::milliseconds by) {
    std::vector<Entry> due;
    {
      std::lock_guard lock(mutex_);
      monotonic_ms_ += static_cast<double>(by.count());
      wall_ms_ += static_cast<double>(by.count());
      while (!timers_.empty() && timers_.begin()->first.first <= monotonic_ms_) {
        due.push_back(std::move(timers_.begin()->second));
        timers_.erase(timers_.begin());
      }
    }
    for (auto& entry : due) entry.queue->Async(std::move(entry.task));
  }

  // A change of the wall clock alone (the user set the time): timers do not notice.
  void JumpWall(std::chrono::milliseconds by) {
    std::lock_guard lock(mutex_);
    wall_ms_ += static_cast<double>(by.count());
  }

  size_t pending_timers() {
    std::lock_guard lock(mutex_);
    return timers_.size();
  }

 private:
  struct Entry {
    Queue* queue;
    Task task;
  };
  std::mutex mutex_;
  double wall_ms_;
  double monotonic_ms_ = 1'000'000.0;
  uint64_t next_id_ = 0;
  std::map<std::pair<double, uint64_t>, Entry> timers_;
};

}  // namespace corvane::dispatch
