#include "dispatch/queue.h"

#include <glib.h>

#include <algorithm>
#include <deque>
#include <mutex>

namespace corvane::dispatch {

namespace {
// Static initialisation runs on the thread that starts the process.
const std::thread::id g_main_thread = std::this_thread::get_id();
}  // namespace

bool IsMainThread() { return std::this_thread::get_id() == g_main_thread; }

struct WorkItem::State {
  std::mutex mutex;
  GSource* source = nullptr;  // owned reference while scheduled
  bool cancelled = false;
  bool done = false;
  Task task;
};

void WorkItem::Cancel() {
  if (!state_) return;
  GSource* source = nullptr;
  Task dropped;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->cancelled || state_->done) return;
    state_->cancelled = true;
    source = state_->source;
    state_->source = nullptr;
    dropped = std::move(state_->task);
  }
  if (source) {
    g_source_destroy(source);  // thread-safe; the callback will not be dispatched
    g_source_unref(source);
  }
}

bool WorkItem::cancelled() const {
  if (!state_) return false;
  std::lock_guard lock(state_->mutex);
  return state_->cancelled;
}

bool WorkItem::pending() const {
  if (!state_) return false;
  std::lock_guard lock(state_->mutex);
  return !state_->cancelled && !state_->done;
}

// A FIFO of tasks drained by one GSource on a main context. One source for all tasks keeps
// order exact and avoids a source allocation per task.
class ContextQueue {
 public:
  explicit ContextQueue(GMainContext* context) : context_(g_main_context_ref(context)) {
    source_ = g_source_new(const_cast<GSourceFuncs*>(&kFuncs), sizeof(Source));
    reinterpret_cast<Source*>(source_)->owner = this;
    g_source_set_priority(source_, G_PRIORITY_DEFAULT);
    g_source_set_name(source_, "corvane task queue");
    g_source_attach(source_, context_);
  }

  ~ContextQueue() {
    g_source_destroy(source_);
    g_source_unref(source_);
    g_main_context_unref(context_);
  }

  GMainContext* context() const { return context_; }

  void Push(Task task) {
    bool was_empty;
    {
      std::lock_guard lock(mutex_);
      was_empty = tasks_.empty();
      tasks_.push_back(std::move(task));
    }
    // A wake-up is a write to the context's eventfd and, for a sleeping thread, a context
    // switch: only the first task of a batch needs one, and none is needed from the thread
    // running the context, which prepares the source again before it next sleeps.
    if (was_empty) g_main_context_wakeup(context_);
  }

  WorkItem After(std::chrono::milliseconds delay, Task task) {
    auto state = std::make_shared<WorkItem::State>();
    state->task = std::move(task);
    const gint64 ready_at =
        g_get_monotonic_time() + std::max<int64_t>(delay.count(), 0) * G_TIME_SPAN_MILLISECOND;
    // The timer is made and attached on the queue's own thread, so that everything GLib holds
    // for it lives on one thread; the deadline still counts from now. On that thread already
    // (a guarded send starting its time-out), it is armed at once.
    if (g_main_context_is_owner(context_)) {
      Arm(state, ready_at);
    } else {
      Push([this, state, ready_at] { Arm(state, ready_at); });
    }
    return WorkItem(state);
  }

 private:
  static gboolean TimerDispatch(GSource*, GSourceFunc, gpointer data) {
    auto& st = *static_cast<std::shared_ptr<WorkItem::State>*>(data);
    Task run;
    GSource* own = nullptr;
    {
      std::lock_guard lock(st->mutex);
      if (st->cancelled || st->done) return G_SOURCE_REMOVE;
      st->done = true;
      run = std::move(st->task);
      own = st->source;
      st->source = nullptr;
    }
    if (own) g_source_unref(own);
    if (run) run();
    return G_SOURCE_REMOVE;
  }
  static constexpr GSourceFuncs kTimerFuncs = {nullptr, nullptr, TimerDispatch,
                                               nullptr, nullptr, nullptr};

  void Arm(const std::shared_ptr<WorkItem::State>& state, gint64 ready_at) {
    GSource* timer = g_source_new(const_cast<GSourceFuncs*>(&kTimerFuncs), sizeof(GSource));
    g_source_set_ready_time(timer, ready_at);
    g_source_set_name(timer, "corvane work item");
    auto* holder = new std::shared_ptr<WorkItem::State>(state);
    g_source_set_callback(timer, nullptr, holder, [](gpointer data) {
      // Runs when the timer goes away for any reason, including its context being torn down
      // with the timer still pending: drop the item's reference to it then.
      auto* st = static_cast<std::shared_ptr<WorkItem::State>*>(data);
      GSource* own = nullptr;
      {
        std::lock_guard lock((*st)->mutex);
        own = (*st)->source;
        (*st)->source = nullptr;
      }
      if (own) g_source_unref(own);
      delete st;
    });
    bool cancelled;
    {
      std::lock_guard lock(state->mutex);
      cancelled = state->cancelled;
      if (!cancelled) state->source = g_source_ref(timer);
    }
    if (cancelled) {
      g_source_unref(timer);  // cancelled before it was armed; outside the lock, as it frees
      return;
    }
    g_source_attach(timer, context_);
    g_source_unref(timer);
  }

  struct Source {
    GSource base;
    ContextQueue* owner;
  };

  static gboolean Prepare(GSource* source, gint* timeout) {
    *timeout = -1;
    return reinterpret_cast<Source*>(source)->owner->HasTasks();
  }
  static gboolean Check(GSource* source) {
    return reinterpret_cast<Source*>(source)->owner->HasTasks();
  }
  static gboolean Dispatch(GSource* source, GSourceFunc, gpointer) {
    reinterpret_cast<Source*>(source)->owner->Drain();
    return G_SOURCE_CONTINUE;
  }
  static constexpr GSourceFuncs kFuncs = {Prepare, Check, Dispatch, nullptr, nullptr, nullptr};

  bool HasTasks() {
    std::lock_guard lock(mutex_);
    return !tasks_.empty();
  }

  // Runs the tasks that were queued when draining began; tasks they post run on the next
  // iteration, so one busy queue cannot starve the context's other sources.
  // The batch's storage is kept for the next drain, so a steady stream of tasks allocates
  // nothing here (a nested drain, from a task that iterates the context, starts a new one).
  void Drain() {
    std::vector<Task> batch = std::move(spare_);
    {
      std::lock_guard lock(mutex_);
      batch.swap(tasks_);
    }
    for (auto& task : batch) task();
    batch.clear();
    if (spare_.capacity() < batch.capacity()) spare_ = std::move(batch);
  }

  GMainContext* context_;
  GSource* source_;
  std::mutex mutex_;
  std::vector<Task> tasks_;
  std::vector<Task> spare_;  // the context's thread only
};

namespace {

class MainQueueImpl : public Queue {
 public:
  MainQueueImpl() : queue_(g_main_context_default()) {}
  void Async(Task task) override { queue_.Push(std::move(task)); }
  WorkItem After(std::chrono::milliseconds delay, Task task) override {
    return queue_.After(delay, std::move(task));
  }
  bool IsCurrent() const override { return IsMainThread(); }

 private:
  ContextQueue queue_;
};

}  // namespace

Queue& MainQueue() {
  // Never destroyed: tasks may be posted from other threads during process exit.
  static auto* queue = new MainQueueImpl();
  return *queue;
}

namespace {
// Created during static initialisation, on the main thread, before any queue thread can ask
// for it: its source then belongs to the default context from the start.
[[maybe_unused]] const bool g_main_queue_created = (MainQueue(), true);
}  // namespace

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {
  GMainContext* context = g_main_context_new();
  queue_ = std::make_unique<ContextQueue>(context);
  loop_ = g_main_loop_new(context, FALSE);
  g_main_context_unref(context);
  std::atomic<bool> started{false};
  thread_ = std::thread([this, &started] {
    thread_id_.store(std::this_thread::get_id());
    GMainContext* ctx = queue_->context();
    // GIO async calls made on this thread complete on this context.
    g_main_context_push_thread_default(ctx);
    started.store(true);
    started.notify_one();
    g_main_loop_run(loop_);
    g_main_context_pop_thread_default(ctx);
  });
  started.wait(false);
}

SerialQueue::~SerialQueue() {
  GMainLoop* loop = loop_;
  queue_->Push([loop] { g_main_loop_quit(loop); });
  thread_.join();
  queue_.reset();
  g_main_loop_unref(loop_);
}

void SerialQueue::Async(Task task) { queue_->Push(std::move(task)); }

WorkItem SerialQueue::After(std::chrono::milliseconds delay, Task task) {
  return queue_->After(delay, std::move(task));
}

bool SerialQueue::IsCurrent() const { return std::this_thread::get_id() == thread_id_.load(); }

GMainContext* SerialQueue::context() const { return queue_->context(); }

ConcurrentQueue::ConcurrentQueue(std::string label, int max_threads)
    : label_(std::move(label)),
      max_threads_(max_threads < 1 ? 1 : static_cast<size_t>(max_threads)) {}

ConcurrentQueue::~ConcurrentQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& thread : threads_) thread.join();
}

void ConcurrentQueue::Async(Task task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    if (idle_ == 0 && threads_.size() < max_threads_) {
      threads_.emplace_back([this] { Work(); });
      return;
    }
  }
  wake_.notify_one();
}

void ConcurrentQueue::Work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    --idle_;
    if (tasks_.empty()) return;  // stopping, and nothing left to run
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = Task();
    lock.lock();
  }
}

bool RunMainUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  GMainContext* context = g_main_context_default();
  // `done` may turn true on another thread, which does not wake the context; a short tick
  // bounds how late that is noticed.
  GSource* tick = g_timeout_source_new(2);
  g_source_set_callback(
      tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(tick, context);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    g_main_context_iteration(context, TRUE);
  }
  g_source_destroy(tick);
  g_source_unref(tick);
  return done();
}

}  // namespace corvane::dispatch
