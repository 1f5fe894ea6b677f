#include "dispatch/queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

namespace corvane::dispatch {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, RunsTasksInOrderOnItsOwnThreadAndPostsBackToTheMainQueue) {
  SerialQueue queue("test.serial");
  std::vector<int> order;
  std::atomic<bool> all_on_queue{true};
  std::atomic<bool> done{false};
  for (int i = 0; i < 1000; ++i) {
    queue.Async([&, i] {
      if (!queue.IsCurrent() || IsMainThread()) all_on_queue = false;
      order.push_back(i);  // only the queue's thread touches it
      if (i == 999) done = true;
    });
  }
  RunMainUntil([&] { return done.load(); }, 5s);
  ASSERT_TRUE(done);
  EXPECT_TRUE(all_on_queue);
  std::vector<int> expected(1000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  bool ran_on_main = false;
  queue.Async([&] { MainQueue().Async([&] { ran_on_main = IsMainThread(); }); });
  EXPECT_TRUE(RunMainUntil([&] { return ran_on_main; }, 5s));
}

TEST(WorkItem, CancelledItemNeverRuns) {
  SerialQueue queue("test.serial");
  std::atomic<int> ran{0};
  WorkItem cancelled = queue.After(30ms, [&] { ran += 1; });
  WorkItem kept = queue.After(60ms, [&] { ran += 10; });
  EXPECT_TRUE(cancelled.pending());
  cancelled.Cancel();
  EXPECT_EQ(std::pair(cancelled.cancelled(), cancelled.pending()), std::pair(true, false));
  RunMainUntil([&] { return ran.load() != 0; }, 5s);
  RunMainUntil([] { return false; }, 60ms);
  EXPECT_EQ(ran.load(), 10);
  EXPECT_FALSE(kept.pending());
  kept.Cancel();  // after running: harmless
  EXPECT_FALSE(kept.cancelled());
}

TEST(WorkItem, CancelOnTheMainQueueBeforeItFires) {
  bool ran = false;
  WorkItem on_main = MainQueue().After(10ms, [&] { ran = true; });
  MainQueue().Async([&] { on_main.Cancel(); });
  RunMainUntil([] { return false; }, 50ms);
  EXPECT_FALSE(ran);
}

TEST(SerialQueue, DestroyedWithPendingTimersAndTasks) {
  std::atomic<int> ran{0};
  {
    SerialQueue queue("test.serial");
    queue.After(10s, [&] { ++ran; });
    queue.Async([] { std::this_thread::sleep_for(20ms); });
    queue.Async([&] { ++ran; });
  }
  EXPECT_LE(ran.load(), 1);  // the running task finished, the next ran or not, the timer never
}

TEST(ConcurrentQueue, RunsTasksInParallelAndWaitsOnDestruction) {
  std::atomic<int> done{0};
  std::mutex m;
  std::set<std::thread::id> threads;
  {
    ConcurrentQueue queue("test.concurrent", 4);
    for (int i = 0; i < 8; ++i) {
      queue.Async([&] {
        std::this_thread::sleep_for(10ms);
        std::lock_guard lock(m);
        threads.insert(std::this_thread::get_id());
        ++done;
      });
    }
  }
  EXPECT_EQ(std::pair(done.load(), threads.size() > 1), std::pair(8, true));
}

}  // namespace
}  // namespace corvane::dispatch
