// Event channels: the engine listens and cancels; the service holds at most one sink.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "channel/binary_messenger.h"
#include "channel/standard_codec.h"

namespace corvane::channel {

class EventChannel;

// The error a "cancel" gets when the caller has no stream to cancel.
inline constexpr const char* kNoStreamErrorCode = "error";
inline constexpr const char* kNoStreamErrorMessage = "No active stream to cancel";

// Where a service sends its events. A sink belongs to one listen: once the stream is
// cancelled or listened to again, this sink goes quiet, so a late event can never reach the
// next listener. Usable from any thread; events leave from the main thread, in order.
class EventSink {
 public:
  void Success(Value event);
  void Error(std::string code, std::optional<std::string> message = std::nullopt,
             Value details = Value());
  void EndOfStream();

  // True while this sink's listen is the current one.
  bool active() const;

 private:
  friend class EventChannel;
  struct Shared;
  EventSink(std::shared_ptr<Shared> shared, uint64_t generation)
      : shared_(std::move(shared)), generation_(generation) {}
  void Emit(Bytes envelope);

  std::shared_ptr<Shared> shared_;
  uint64_t generation_;
};

class StreamHandler {
 public:
  virtual ~StreamHandler() = default;
  // Returning an error refuses the listen; the engine sees it as the reply to "listen".
  virtual std::optional<MethodError> OnListen(const Value& arguments,
                                              std::unique_ptr<EventSink> sink) = 0;
  virtual std::optional<MethodError> OnCancel(const Value& arguments) = 0;
};

// A handler made of two functions, for services that keep the sink in a member.
class FunctionStreamHandler : public StreamHandler {
 public:
  using OnListenFn =
      std::function<std::optional<MethodError>(const Value&, std::unique_ptr<EventSink>)>;
  using OnCancelFn = std::function<std::optional<MethodError>(const Value&)>;
  FunctionStreamHandler(OnListenFn on_listen, OnCancelFn on_cancel)
      : on_listen_(std::move(on_listen)), on_cancel_(std::move(on_cancel)) {}
  std::optional<MethodError> OnListen(const Value& a, std::unique_ptr<EventSink> s) override {
    return on_listen_(a, std::move(s));
  }
  std::optional<MethodError> OnCancel(const Value& a) override { return on_cancel_(a); }

 private:
  OnListenFn on_listen_;
  OnCancelFn on_cancel_;
};

class EventChannel {
 public:
  EventChannel(BinaryMessenger& messenger, std::string name);
  EventChannel(const EventChannel&) = delete;
  EventChannel& operator=(const EventChannel&) = delete;
  ~EventChannel();

  // An empty handler unregisters the channel.
  void SetStreamHandler(std::unique_ptr<StreamHandler> handler);

  const std::string& name() const { return name_; }
  bool listening() const;

 private:
  void HandleMessage(Bytes message, BinaryReply reply);

  BinaryMessenger& messenger_;
  std::string name_;
  std::shared_ptr<EventSink::Shared> shared_;
  std::unique_ptr<StreamHandler> handler_;
};

}  // namespace corvane::channel
