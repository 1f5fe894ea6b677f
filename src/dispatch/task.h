// A move-only `void()` callable: tasks may own a method result or a buffer, which a
// std::function (copyable) could not hold.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace corvane::dispatch {

class Task {
 public:
  Task() = default;
  template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, Task>>>
  Task(F&& f) : impl_(std::make_unique<Impl<std::decay_t<F>>>(std::forward<F>(f))) {}  // NOLINT

  Task(Task&&) noexcept = default;
  Task& operator=(Task&&) noexcept = default;

  explicit operator bool() const { return impl_ != nullptr; }
  void operator()() { impl_->Run(); }

 private:
  struct Base {
    virtual ~Base() = default;
    virtual void Run() = 0;
  };
  template <typename F>
  struct Impl : Base {
    explicit Impl(F f) : fn(std::move(f)) {}
    void Run() override { fn(); }
    F fn;
  };
  std::unique_ptr<Base> impl_;
};

}  // namespace corvane::dispatch
