// Where work runs. The main queue is GLib's default main context (run by GTK, or by a plain
// loop when headless); a serial queue is a thread running a main context of its own, so GIO
// sources and async calls made on it complete on it; a concurrent queue is a small pool.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "dispatch/task.h"

typedef struct _GMainContext GMainContext;
typedef struct _GMainLoop GMainLoop;

namespace corvane::dispatch {

// True on the thread that started the process: the only thread that may answer the engine.
bool IsMainThread();

// A delayed task that can be cancelled. Cancelling is a normal path: after Cancel() returns
// the task will not start (it may already be running on its own queue if called from elsewhere).
// Copies share the same item; dropping every copy does not cancel it.
class WorkItem {
 public:
  WorkItem() = default;
  void Cancel();
  bool cancelled() const;
  bool pending() const;  // scheduled, not yet run, not cancelled

  struct State;
  explicit WorkItem(std::shared_ptr<State> state) : state_(std::move(state)) {}

 private:
  std::shared_ptr<State> state_;
};

class Queue {
 public:
  virtual ~Queue() = default;
  // Runs `task` on this queue, after everything posted before it.
  virtual void Async(Task task) = 0;
  virtual WorkItem After(std::chrono::milliseconds delay, Task task) = 0;
  // True when called from this queue's own thread.
  virtual bool IsCurrent() const = 0;
};

class ContextQueue;

// The process's main queue. Tasks run when the default main context is iterated.
Queue& MainQueue();

class SerialQueue : public Queue {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue() override;  // finishes the running task, drops the rest, joins the thread

  void Async(Task task) override;
  WorkItem After(std::chrono::milliseconds delay, Task task) override;
  bool IsCurrent() const override;

  const std::string& label() const { return label_; }
  // The queue's main context: attach sockets and timers here to have them run on this queue.
  GMainContext* context() const;

 private:
  std::string label_;
  std::unique_ptr<ContextQueue> queue_;
  GMainLoop* loop_ = nullptr;
  std::thread thread_;
  std::atomic<std::thread::id> thread_id_{};
};

// Overlapping work that may block (file I/O). No ordering between tasks. Threads are started
// as work arrives, up to `max_threads`, and wait without cost when idle.
class ConcurrentQueue {
 public:
  ConcurrentQueue(std::string label, int max_threads);
  ~ConcurrentQueue();  // runs what is queued, then joins the threads

  void Async(Task task);
  const std::string& label() const { return label_; }

 private:
  void Work();

  std::string label_;
  size_t max_threads_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;
  std::vector<std::thread> threads_;
  size_t idle_ = 0;
  bool stopping_ = false;
};

// Runs the default main context until `done` returns true or `timeout` passes; for tests and
// command-line tools that wait for a reply on the main thread. Returns done().
bool RunMainUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

}  // namespace corvane::dispatch
