// A DNS-SD backend the test drives: it records what the bridge asks for and delivers the
// sightings the test makes up, on the bridge's own queue as a real backend would.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "discovery/dns_sd_backend.h"
#include "dispatch/queue.h"

namespace corvane::discovery::testing {

class TestBackend {
 public:
  // What the bridge asked for, readable from the test's thread.
  std::vector<std::string> browsed() const {
    std::lock_guard lock(mutex_);
    return browsed_;
  }
  std::vector<std::string> stopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
  }
  void Forget() {
    std::lock_guard lock(mutex_);
    browsed_.clear();
    stopped_.clear();
  }
  // Types Browse() refuses, as a backend refuses what is not a service type.
  void Refuse(std::string type) {
    std::lock_guard lock(mutex_);
    refused_.insert(std::move(type));
  }

  // Runs `fn` with the bridge's listener on the bridge's queue.
  void Deliver(std::function<void(DnsSdBackend::Listener&)> fn) {
    std::lock_guard lock(mutex_);
    queue_->Async([this, fn = std::move(fn)] { fn(*listener_); });
  }
  void Resolve(Sighting s, Endpoint e) {
    Deliver([s, e](DnsSdBackend::Listener& l) { l.OnResolved(s, e); });
  }
  void Remove(Sighting s) {
    Deliver([s](DnsSdBackend::Listener& l) { l.OnRemoved(s); });
  }

  // The factory to give the bridge; the TestBackend must outlive the bridge.
  BackendFactory Factory() {
    return [this](GMainContext*, dispatch::Queue& queue, DnsSdBackend::Listener& listener) {
      std::lock_guard lock(mutex_);
      queue_ = &queue;
      listener_ = &listener;
      return std::unique_ptr<DnsSdBackend>(new Backend(*this));
    };
  }

 private:
  class Backend : public DnsSdBackend {
   public:
    explicit Backend(TestBackend& owner) : owner_(owner) {}
    bool Browse(const std::string& type) override {
      std::lock_guard lock(owner_.mutex_);
      if (owner_.refused_.count(type) != 0) return false;
      owner_.browsed_.push_back(type);
      return true;
    }
    void StopBrowse(const std::string& type) override {
      std::lock_guard lock(owner_.mutex_);
      owner_.stopped_.push_back(type);
    }

   private:
    TestBackend& owner_;
  };

  mutable std::mutex mutex_;
  dispatch::Queue* queue_ = nullptr;
  DnsSdBackend::Listener* listener_ = nullptr;
  std::vector<std::string> browsed_;
  std::vector<std::string> stopped_;
  std::set<std::string> refused_;
};

}  // namespace corvane::discovery::testing
