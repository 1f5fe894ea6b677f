#include "camera/apple_usb_hub.h"

#include <map>
#include <utility>
#include <vector>

#include "camera/apple_usb_session.h"
#include "camera/arguments.h"
#include "channel/args.h"

namespace corvane::camera {

namespace {

using channel::Value;
using channel::ValueList;
using channel::ValueMap;

constexpr const char* kConfiguration = "configuration";
constexpr const char* kUnsupported = "unsupported";
constexpr const char* kPermission = "permission";
constexpr const char* kSuspended = "suspended";
constexpr const char* kDeviceBusy = "deviceBusy";
constexpr const char* kDeviceMissing = "deviceMissing";
constexpr const char* kEnded = "ended";

constexpr size_t kMaxListed = 64;
constexpr size_t kMaxSessions = 4;
constexpr int64_t kMinTimeoutMs = 100;
constexpr int64_t kMaxTimeoutMs = 60000;
constexpr int64_t kMinFrameBytes = 64;
constexpr int64_t kMaxFrameBytes = 16 * 1024 * 1024;

}  // namespace

struct AppleUsbHub::State : std::enable_shared_from_this<State> {
  State(dispatch::SerialQueue& q, dispatch::Clock& c) : queue(q), clock(c) {}

  dispatch::SerialQueue& queue;
  dispatch::Clock& clock;
  std::shared_ptr<CaptureBackend> backend;
  // Declared after the backend: sessions give their streams back to it as they go.
  std::map<std::string, std::shared_ptr<AppleUsbSession>> sessions;

  std::shared_ptr<AppleUsbSession> Find(const std::string& token) const {
    auto it = sessions.find(token);
    return it == sessions.end() ? nullptr : it->second;
  }

  void Handle(Call& call);
  void List(Call& call);
  void Open(Call& call, const std::string& token);
  void Begin(const std::weak_ptr<AppleUsbSession>& weak, const std::string& token, bool granted);
  void Finish(const std::string& token, const std::string& reason);
  void EndOwner(const std::string& owner, const std::string& reason);
};

std::shared_ptr<AppleUsbHub> AppleUsbHub::Create(Options options) {
  return std::shared_ptr<AppleUsbHub>(new AppleUsbHub(std::move(options)));
}

AppleUsbHub::AppleUsbHub(Options options)
    : queue_(std::make_unique<dispatch::SerialQueue>(kSessionsQueueLabel)) {
  dispatch::Clock& clock = options.clock ? *options.clock : dispatch::SystemClock::Get();
  state_ = std::make_shared<State>(*queue_, clock);
  state_->backend = options.backend(*queue_);
}

AppleUsbHub::~AppleUsbHub() {
  // Sessions and the backend are taken down on the queue they live on.
  queue_->Async([state = std::move(state_)]() mutable {
    state->sessions.clear();
    state.reset();
  });
  queue_.reset();
}

void AppleUsbHub::Handle(Call call) {
  queue_->Async([weak = std::weak_ptr<State>(state_), call = std::move(call)]() mutable {
    if (auto state = weak.lock()) state->Handle(call);
  });
}

void AppleUsbHub::EndOwner(std::string owner, std::string reason) {
  queue_->Async(
      [weak = std::weak_ptr<State>(state_), owner = std::move(owner), reason = std::move(reason)] {
        if (auto state = weak.lock()) state->EndOwner(owner, reason);
      });
}

void AppleUsbHub::State::Handle(Call& call) {
  auto& result = call.result;
  if (call.method == "list") return List(call);
  if (call.method != "open" && call.method != "read" && call.method != "close") {
    return result->NotImplemented();
  }
  channel::Args args(call.arguments);
  const std::string* token = args.string("token");
  // The token is the key exactly as given: two spellings of one UUID are two tokens.
  if (!token || !IsUuid(*token)) return result->Error(kConfiguration);

  if (call.method == "close") {
    auto session = Find(*token);
    if (session && session->owner() == call.owner) Finish(*token, kEnded);
    return result->Success();
  }
  if (call.method == "read") {
    auto session = Find(*token);
    // Another window's token reads as an unknown one.
    if (!session || session->owner() != call.owner) return result->Error(kEnded);
    return session->Read(std::move(result));
  }
  Open(call, *token);
}

void AppleUsbHub::State::List(Call& call) {
  if (!call.supported) return call.result->Error(kUnsupported);
  // Not yet asked counts as allowed: listing never prompts.
  const Authorization access = backend->authorization();
  if (access == Authorization::kDenied || access == Authorization::kRestricted) {
    return call.result->Error(kPermission);
  }
  ValueList list;
  for (CameraDevice& device : backend->Enumerate()) {
    if (list.size() == kMaxListed) break;
    ValueMap entry;
    entry.Append(Value("id"), Value(std::move(device.id)));
    entry.Append(Value("name"), Value(std::move(device.name)));
    list.emplace_back(std::move(entry));
  }
  call.result->Success(Value(std::move(list)));
}

void AppleUsbHub::State::Open(Call& call, const std::string& token) {
  auto& result = call.result;
  channel::Args args(call.arguments);
  if (!call.supported) return result->Error(kUnsupported);
  if (!call.visible) return result->Error(kSuspended);
  const std::string* device_id = args.string("deviceId");
  if (!device_id || !IsAcceptableDeviceId(*device_id)) return result->Error(kConfiguration);
  const auto timeout = args.int_in("timeoutMs", kMinTimeoutMs, kMaxTimeoutMs);
  if (!timeout) return result->Error(kConfiguration);
  const auto limit = args.int_in("maxFrameBytes", kMinFrameBytes, kMaxFrameBytes);
  if (!limit) return result->Error(kConfiguration);
  // Ended sessions count too: their tokens and devices stay taken until closed.
  if (sessions.count(token) != 0) return result->Error(kDeviceBusy);
  if (sessions.size() >= kMaxSessions) return result->Error(kDeviceBusy);
  for (const auto& [other, session] : sessions) {
    if (session->device_id() == *device_id) return result->Error(kDeviceBusy);
  }

  auto session = std::make_shared<AppleUsbSession>(
      AppleUsbSession::Settings{call.owner, *device_id, *timeout, *limit}, queue, clock,
      std::move(result));
  sessions[token] = session;
  session->failed = [weak_state = weak_from_this(),
                     weak_session = std::weak_ptr<AppleUsbSession>(session),
                     token](const std::string& code) {
    auto state = weak_state.lock();
    auto self = weak_session.lock();
    // Only the session still registered under its token may be ended by its callbacks.
    if (state && self && state->Find(token) == self) self->Stop(code);
  };

  auto begin = [weak_state = weak_from_this(), weak_session = std::weak_ptr(session),
                token](bool granted) {
    if (auto state = weak_state.lock()) state->Begin(weak_session, token, granted);
  };
  switch (backend->authorization()) {
    case Authorization::kNotDetermined:
      dispatch::MainQueue().Async(
          [backend = backend, &hub_queue = queue, weak_state = weak_from_this(), begin]() {
            backend->RequestAccess([&hub_queue, weak_state, begin](bool granted) {
              // The hub queue lives as long as the state; without the state nothing is posted.
              if (!weak_state.lock()) return;
              hub_queue.Async([begin, granted] { begin(granted); });
            });
          });
      break;
    case Authorization::kAuthorized:
      queue.Async([begin] { begin(true); });
      break;
    case Authorization::kDenied:
    case Authorization::kRestricted:
      queue.Async([begin] { begin(false); });
      break;
  }
}

void AppleUsbHub::State::Begin(const std::weak_ptr<AppleUsbSession>& weak, const std::string& token,
                               bool granted) {
  auto session = weak.lock();
  if (!session || Find(token) != session || session->terminal()) return;
  if (!granted) return session->Stop(kPermission);

  std::vector<CameraDevice> devices = backend->Enumerate();
  const CameraDevice* device = nullptr;
  for (const CameraDevice& d : devices) {
    if (d.id == session->device_id()) {
      device = &d;
      break;
    }
  }
  if (!device) return session->Stop(kDeviceMissing);

  const char* error = nullptr;
  std::unique_ptr<CaptureStream> stream = backend->Open(*device, &error);
  if (!stream) return session->Stop(error ? error : kDeviceBusy);
  if (const char* configure_error = stream->Configure()) return session->Stop(configure_error);
  session->Run(std::move(stream));
}

void AppleUsbHub::State::Finish(const std::string& token, const std::string& reason) {
  auto it = sessions.find(token);
  if (it == sessions.end()) return;
  auto session = std::move(it->second);
  sessions.erase(it);
  session->Stop(reason);
}

void AppleUsbHub::State::EndOwner(const std::string& owner, const std::string& reason) {
  std::vector<std::string> tokens;
  for (const auto& [token, session] : sessions) {
    if (session->owner() == owner) tokens.push_back(token);
  }
  for (const std::string& token : tokens) {
    if (reason == kSuspended) {
      sessions[token]->Stop(reason);
    } else {
      Finish(token, reason);
    }
  }
}

}  // namespace corvane::camera
