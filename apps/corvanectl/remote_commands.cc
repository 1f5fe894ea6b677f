// call and listen: method calls to a running host over its engine socket.
#include <signal.h>

#include <algorithm>

#include "commands.h"
#include "connection.h"
#include "json/json_mapping.h"

namespace corvane::ctl {

namespace {

using channel::Bytes;
using channel::MethodReply;
using channel::Value;
using engine::Frame;
using engine::FrameKind;

constexpr uint32_t kCallId = 1;
constexpr uint32_t kCancelId = 2;
// How long a stopping listen waits for the answer to its cancel: long enough for a host that
// is alive, short enough that Ctrl-C still feels immediate.
constexpr std::chrono::milliseconds kCancelWait{2000};

int ExitFor(Connection::Status status) {
  return status == Connection::Status::kTimeout ? kExitTimeout : kExitFailure;
}

// A connected client that has sent one method call and waits for the reply to it.
class Session {
 public:
  explicit Session(const Options& options) : options_(options) {}

  // Connects and sends `method` on `channel` with id `id`. False after reporting a failure.
  bool Start(const std::string& channel, const std::string& method, const Value& args) {
    if (channel.empty() || channel.size() > engine::kMaxChannelName) {
      Complain("a channel name has 1 to " + std::to_string(engine::kMaxChannelName) + " bytes");
      return false;
    }
    channel_ = channel;
    std::string error;
    const std::string path =
        options_.socket_path.empty() ? DefaultSocketPath() : options_.socket_path;
    if (!connection_.Connect(path, &error)) {
      Complain(error);
      return false;
    }
    return Send(kCallId, method, args, After(std::chrono::milliseconds(options_.timeout_ms)));
  }

  bool Send(uint32_t id, const std::string& method, const Value& args, Deadline deadline) {
    const Bytes call = channel::EncodeMethodCall({method, args});
    if (call.size() + 7 + channel_.size() > engine::kMaxFrameBody) {
      Complain("the call is larger than a frame may be");
      return false;
    }
    std::string error;
    status_ = connection_.Write(engine::EncodeMessageFrame(id, channel_, call), deadline, &error);
    if (status_ != Connection::Status::kOk) {
      Complain(error);
      return false;
    }
    return true;
  }

  // Waits for a frame the caller cares about: a reply, or a message on our channel that
  // wants no reply (an event). Host-initiated calls get the empty reply at once, so the
  // host is not kept waiting on a client that has no handlers.
  std::optional<Frame> Wait(Deadline deadline, const StopSignals* stop) {
    for (;;) {
      Frame frame;
      std::string error;
      status_ = connection_.Next(frame, deadline, stop, &error);
      if (status_ != Connection::Status::kOk) {
        if (!error.empty()) Complain(error);
        return std::nullopt;
      }
      if (frame.kind == FrameKind::kReply) return frame;
      if (frame.id != 0) {
        status_ = connection_.Write(engine::EncodeReplyFrame(frame.id, {}), deadline, &error);
        if (status_ != Connection::Status::kOk) {
          Complain(error);
          return std::nullopt;
        }
        continue;
      }
      if (frame.channel == channel_) return frame;
    }
  }

  // Waits for the reply with `id`, ignoring events.
  std::optional<MethodReply> WaitForReply(uint32_t id, Deadline deadline) {
    for (;;) {
      std::optional<Frame> frame = Wait(deadline, nullptr);
      if (!frame) {
        if (status_ == Connection::Status::kTimeout) {
          Complain("no reply within " + std::to_string(options_.timeout_ms) + " ms");
        }
        return std::nullopt;
      }
      if (frame->kind == FrameKind::kReply && frame->id == id) return Decode(frame->payload);
    }
  }

  std::optional<MethodReply> Decode(const Bytes& payload) {
    channel::Decoded<MethodReply> reply = channel::DecodeEnvelope(payload);
    if (!reply) {
      Complain("malformed reply from the host: " + reply.error);
      status_ = Connection::Status::kFailed;
      return std::nullopt;
    }
    return std::move(reply.value);
  }

  Connection::Status status() const { return status_; }

 private:
  const Options& options_;
  std::string channel_;
  Connection connection_;
  Connection::Status status_ = Connection::Status::kOk;
};

// Prints a reply as call and listen do; returns the exit status it stands for.
int PrintReply(const MethodReply& reply) {
  switch (reply.kind) {
    case MethodReply::Kind::kNotImplemented:
      return kExitEmptyReply;
    case MethodReply::Kind::kSuccess:
      if (!PrintLine(json::ToJson(reply.value))) return kExitFailure;
      return kExitOk;
    case MethodReply::Kind::kError:
      if (!PrintLine(json::ToJson(ErrorObject(reply.error)))) return kExitFailure;
      return kExitErrorReply;
  }
  return kExitFailure;
}

}  // namespace

int RunCall(const Options& options) {
  Value args;
  if (options.args.size() > 2) {
    std::optional<Value> parsed = ParseJsonArgument(options.args[2], "the arguments");
    if (!parsed) return kExitFailure;
    args = std::move(*parsed);
  }
  Session session(options);
  const Deadline deadline = After(std::chrono::milliseconds(options.timeout_ms));
  if (!session.Start(options.args[0], options.args[1], args)) return ExitFor(session.status());
  std::optional<MethodReply> reply = session.WaitForReply(kCallId, deadline);
  if (!reply) return ExitFor(session.status());
  return PrintReply(*reply);
}

int RunListen(const Options& options) {
  // Installed before connecting, so an early Ctrl-C still cancels the stream it started.
  StopSignals stop;
  // A reader that goes away (`| head -1`) shows as a failed write; the stream is cancelled.
  signal(SIGPIPE, SIG_IGN);
  Session session(options);
  if (!session.Start(options.args[0], "listen", Value())) return ExitFor(session.status());

  const Deadline reply_deadline = After(std::chrono::milliseconds(options.timeout_ms));
  bool listening = false;
  long events = 0;
  int result = kExitOk;
  for (;;) {
    if (options.count && events >= *options.count) break;
    std::optional<Frame> frame = session.Wait(listening ? kNoDeadline : reply_deadline, &stop);
    if (!frame) {
      if (session.status() == Connection::Status::kStopped) break;
      if (session.status() == Connection::Status::kTimeout) {
        Complain("no reply to listen within " + std::to_string(options.timeout_ms) + " ms");
      }
      return ExitFor(session.status());
    }
    if (frame->kind == FrameKind::kReply) {
      if (frame->id != kCallId || listening) continue;
      std::optional<MethodReply> reply = session.Decode(frame->payload);
      if (!reply) return kExitFailure;
      if (reply->kind != MethodReply::Kind::kSuccess) return PrintReply(*reply);
      listening = true;
      continue;
    }
    // An event: the host may send some before the listen reply, from inside its handler.
    if (frame->payload.empty()) return kExitOk;  // end of stream: nothing to cancel
    std::optional<MethodReply> event = session.Decode(frame->payload);
    if (!event) return kExitFailure;
    ++events;
    if (PrintReply(*event) == kExitFailure) {
      Complain("cannot write to standard output");
      result = kExitFailure;
      break;
    }
  }

  const Deadline cancel_deadline =
      After(std::min(kCancelWait, std::chrono::milliseconds(options.timeout_ms)));
  if (session.Send(kCancelId, "cancel", Value(), cancel_deadline)) {
    // Whatever the answer, the stream is over for this client; only wait for it politely.
    session.WaitForReply(kCancelId, cancel_deadline);
  }
  return result;
}

}  // namespace corvane::ctl
