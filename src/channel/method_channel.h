// Method channels: one handler per channel, one reply per call.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "channel/binary_messenger.h"
#include "channel/standard_codec.h"

namespace corvane::channel {

// The duty to answer one method call, exactly once. It may be moved to another thread and
// answered there; the reply still leaves from the main thread. A second answer is dropped and
// logged; a result destroyed unanswered answers kUnansweredCode so the caller never hangs.
class MethodResult {
 public:
  static constexpr const char* kUnansweredCode = "unanswered";

  MethodResult(BinaryMessenger& messenger, BinaryReply reply, std::string channel,
               std::string method);
  MethodResult(const MethodResult&) = delete;
  MethodResult& operator=(const MethodResult&) = delete;
  ~MethodResult();

  void Success(Value result = Value());
  void Error(std::string code, std::optional<std::string> message = std::nullopt,
             Value details = Value());
  void NotImplemented();

  bool answered() const { return answered_.load(); }
  const std::string& method() const { return method_; }

 private:
  void Answer(Bytes envelope, const char* kind);

  BinaryMessenger& messenger_;
  BinaryReply reply_;
  std::string channel_;
  std::string method_;
  std::atomic<bool> answered_{false};
};

class MethodChannel {
 public:
  using Handler = std::function<void(const MethodCall& call, std::unique_ptr<MethodResult>)>;
  using ReplyCallback = std::function<void(const MethodReply& reply)>;

  MethodChannel(BinaryMessenger& messenger, std::string name);
  MethodChannel(const MethodChannel&) = delete;
  MethodChannel& operator=(const MethodChannel&) = delete;
  ~MethodChannel();

  // An empty handler unregisters the channel.
  void SetMethodCallHandler(Handler handler);

  // Host to engine. A reply that does not decode reaches `on_reply` as an error
  // with code kMalformedReplyCode.
  void InvokeMethod(std::string method, Value arguments, ReplyCallback on_reply = {});

  const std::string& name() const { return name_; }
  BinaryMessenger& messenger() const { return messenger_; }

  static constexpr const char* kMalformedReplyCode = "malformed_reply";

 private:
  BinaryMessenger& messenger_;
  std::string name_;
};

// A handler that forwards each call to `handle` on the object `owner` points to; once that
// object is gone, calls get the not-implemented reply, as for a channel nobody serves.
template <typename T>
MethodChannel::Handler WeakHandler(std::weak_ptr<T> owner,
                                   void (T::*handle)(const MethodCall&,
                                                     std::unique_ptr<MethodResult>)) {
  return [owner = std::move(owner), handle](const MethodCall& call,
                                            std::unique_ptr<MethodResult> result) {
    if (auto self = owner.lock()) {
      (self.get()->*handle)(call, std::move(result));
    } else {
      result->NotImplemented();
    }
  };
}

}  // namespace corvane::channel
