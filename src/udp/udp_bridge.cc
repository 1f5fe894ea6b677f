#include "udp/udp_bridge.h"

#include <cmath>
#include <map>

#include "channel/args.h"
#include "udp/session.h"

namespace corvane::udp {

namespace {

using channel::Args;
using channel::MethodResult;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

constexpr const char* kBadArgs = "BAD_ARGS";
constexpr const char* kOpenUsage = "open needs sessionId+port 0-65535";
constexpr const char* kListenerUsage = "openListener needs sessionId+port 0-65535";
constexpr const char* kSendUsage = "send needs sessionId+data";
constexpr const char* kSendPortUsage = "send needs a port 0-65535";

constexpr size_t kMaxRequestIdLength = 200;  // characters
// Every event repeats its session id: an id longer than this counts as missing.
constexpr size_t kMaxSessionIdLength = 200;  // characters
// Sessions one bridge keeps; an "open" past it fails with an event.
constexpr size_t kMaxSessions = 1024;
constexpr size_t kMaxDatagram = 65507;  // the largest IPv4 UDP payload
constexpr int64_t kMaxTimeoutMs = 30000;

// Characters as code points: continuation bytes of UTF-8 do not count.
size_t CharacterCount(const std::string& text) {
  size_t count = 0;
  for (unsigned char c : text) count += (c & 0xC0) != 0x80;
  return count;
}

// The "sessionId" argument, or null when missing, mistyped or too long to be one.
const std::string* SessionId(const Args& args) {
  const std::string* id = args.string("sessionId");
  return id && CharacterCount(*id) <= kMaxSessionIdLength ? id : nullptr;
}

}  // namespace

struct UdpBridge::State {
  State(dispatch::SerialQueue& q, dispatch::Clock& c, PermissionBrowserFactory browsers)
      : queue(q), clock(c), browser_factory(std::move(browsers)) {}

  dispatch::SerialQueue& queue;
  dispatch::Clock& clock;
  PermissionBrowserFactory browser_factory;
  Session::SendEvent send_event;
  std::shared_ptr<UdpNetwork> network;  // declared before the sessions that use it
  std::unique_ptr<PermissionBrowser> permission_browser;
  std::map<std::string, std::shared_ptr<Session>> sessions;

  Session* Find(const std::string& id) {
    auto it = sessions.find(id);
    return it == sessions.end() ? nullptr : it->second.get();
  }

  void CloseSession(const std::string& id) {
    auto it = sessions.find(id);
    if (it == sessions.end()) return;
    auto session = std::move(it->second);
    sessions.erase(it);
    session->Close();
  }

  // Re-opening an id closes the old session first, so its "cancelled" events come before
  // anything the new one reports. Null, after a "failed" event, when the table is full.
  Session* NewSession(const std::string& id) {
    CloseSession(id);
    if (sessions.size() >= kMaxSessions) {
      ValueMap event;
      event.Append(Value("sessionId"), Value(id));
      event.Append(Value("type"), Value("failed"));
      event.Append(Value("error"),
                   Value("too many sessions (" + std::to_string(kMaxSessions) + ")"));
      send_event(std::move(event));
      return nullptr;
    }
    auto session =
        std::make_shared<Session>(id, Session::Environment{*network, queue, clock}, send_event);
    return (sessions[id] = std::move(session)).get();
  }

  void StartPermissionBrowser() {
    if (!permission_browser && browser_factory) permission_browser = browser_factory();
  }

  void Shutdown() {
    auto all = std::move(sessions);
    sessions.clear();
    for (auto& [id, session] : all) session->Close();
    permission_browser.reset();
  }
};

std::shared_ptr<UdpBridge> UdpBridge::Create(channel::BinaryMessenger& messenger, Options options) {
  std::shared_ptr<UdpBridge> bridge(new UdpBridge(messenger, std::move(options)));
  bridge->state_->send_event = [weak = std::weak_ptr(bridge)](ValueMap event) {
    // Handed to the sink on the main thread; with no sink the event is dropped there.
    dispatch::MainQueue().Async([weak, event = std::move(event)]() mutable {
      if (auto self = weak.lock()) self->Emit(std::move(event));
    });
  };
  bridge->Open(messenger);
  bridge->OnQueue([](State& state) { state.StartPermissionBrowser(); });
  return bridge;
}

UdpBridge::UdpBridge(channel::BinaryMessenger&, Options options)
    : queue_(std::make_unique<dispatch::SerialQueue>(kQueueLabel)) {
  dispatch::Clock& clock = options.clock ? *options.clock : dispatch::SystemClock::Get();
  state_ = std::make_shared<State>(
      *queue_, clock,
      options.permission_browser ? options.permission_browser : StartPermissionBrowse);
  state_->network = options.network ? options.network(*queue_) : MakeSystemUdpNetwork(*queue_);
}

UdpBridge::~UdpBridge() {
  methods_.reset();
  events_.reset();
  // The state goes on its own queue: sockets and timers are torn down on the thread they run
  // on, and pending guarded sends are answered ("disconnected" or "uncertain") on the way.
  queue_->Async([state = std::move(state_)]() mutable {
    state->Shutdown();
    state.reset();
  });
  queue_.reset();
}

void UdpBridge::Open(channel::BinaryMessenger& messenger) {
  methods_ = std::make_unique<channel::MethodChannel>(messenger, kMethodChannel);
  methods_->SetMethodCallHandler(
      [this](const channel::MethodCall& call, std::unique_ptr<MethodResult> result) {
        HandleCall(call, std::move(result));
      });
  events_ = std::make_unique<channel::EventChannel>(messenger, kEventChannel);
  events_->SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
      [this](const Value&, std::unique_ptr<channel::EventSink> sink) {
        sink_ = std::move(sink);
        return std::optional<channel::MethodError>();
      },
      [this](const Value&) {
        sink_.reset();
        return std::optional<channel::MethodError>();
      }));
}

template <typename F>
void UdpBridge::OnQueue(F fn) {
  queue_->Async([weak = std::weak_ptr<State>(state_), fn = std::move(fn)]() mutable {
    if (auto state = weak.lock()) fn(*state);
  });
}

void UdpBridge::Emit(ValueMap event) {
  if (sink_) sink_->Success(Value(std::move(event)));
}

void UdpBridge::HandleCall(const channel::MethodCall& call, std::unique_ptr<MethodResult> result) {
  const std::string& method = call.method;
  if (method == "capabilities") return Capabilities(std::move(result));
  if (method == "open") return OpenSession(call.arguments, std::move(result));
  if (method == "openListener") return OpenListener(call.arguments, std::move(result));
  if (method == "send") return Send(call.arguments, std::move(result));
  if (method == "sendGuarded") return SendGuarded(call.arguments, std::move(result));
  if (method == "cancelSend") return CancelSend(call.arguments, std::move(result));
  if (method == "close") return Close(call.arguments, std::move(result));
  if (method == "interfaces") return Interfaces(std::move(result));
  if (method == "triggerPermission") return TriggerPermission(std::move(result));
  result->NotImplemented();
}

void UdpBridge::Capabilities(std::unique_ptr<MethodResult> result) {
  ValueMap capabilities;
  capabilities.Append(Value("guardedSendVersion"), Value::Integer(1));
  capabilities.Append(Value("adHocReceiveVersion"), Value::Integer(1));
  result->Success(Value(std::move(capabilities)));
}

void UdpBridge::OpenSession(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* id = SessionId(args);
  const auto port = args.int_in("port", 0, 65535);
  if (!id || !port) return result->Error(kBadArgs, kOpenUsage);
  std::optional<std::string> host;
  if (const std::string* h = args.string("host")) host = *h;
  // Read for compatibility only: whether a datagram is broadcast is decided per datagram by
  // its destination.
  (void)args.boolean("broadcast");
  result->Success(Value(true));
  OnQueue([id = *id, port = static_cast<uint16_t>(*port), host = std::move(host)](State& state) {
    Session* session = state.NewSession(id);
    if (!session) return;
    if (host) {
      session->OpenConnection(*host, port);
    } else {
      session->OpenListener(port);
    }
  });
}

void UdpBridge::OpenListener(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* id = SessionId(args);
  const auto port = args.int_in("port", 0, 65535);
  if (!id || !port) return result->Error(kBadArgs, kListenerUsage);
  result->Success(Value(true));
  OnQueue([id = *id, port = static_cast<uint16_t>(*port)](State& state) {
    if (Session* session = state.NewSession(id)) session->OpenListener(port);
  });
}

void UdpBridge::Send(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* id = SessionId(args);
  const channel::Bytes* data = args.bytes("data");
  if (!id || !data) return result->Error(kBadArgs, kSendUsage);
  std::optional<uint16_t> port;
  if (auto p = args.integer("port")) {
    if (*p < 0 || *p > 65535) return result->Error(kBadArgs, kSendPortUsage);
    port = static_cast<uint16_t>(*p);
  }
  std::optional<std::string> host;
  if (const std::string* h = args.string("host")) host = *h;
  result->Success(Value(true));
  OnQueue([id = *id, data = *data, host = std::move(host), port](State& state) mutable {
    // An unknown session drops the datagram without a word.
    if (Session* session = state.Find(id)) session->Send(std::move(data), std::move(host), port);
  });
}

void UdpBridge::SendGuarded(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  GuardedRequest request;
  if (const std::string* r = args.string("requestId")) request.request_id = *r;
  auto reply = std::make_shared<GuardedReply>(std::move(result), request.request_id);
  auto reject = [&reply] { reply->Answer(status::kRejected, false); };

  const std::string* session_id = SessionId(args);
  if (!session_id) return reject();
  request.session_id = *session_id;
  if (request.request_id.empty() || CharacterCount(request.request_id) > kMaxRequestIdLength) {
    return reject();
  }
  const channel::Bytes* data = args.bytes("data");
  if (!data || data->empty() || data->size() > kMaxDatagram) return reject();
  const auto timeout = args.int_in("timeoutMs", 1, kMaxTimeoutMs);
  if (!timeout) return reject();
  const auto expires = args.number("expiresAtMs");
  if (!expires || !std::isfinite(*expires)) return reject();
  if (const std::string* h = args.string("host")) request.host = *h;
  if (auto p = args.integer("port")) {
    if (*p < 1 || *p > 65535) return reject();
    request.port = static_cast<uint16_t>(*p);
  }
  request.data = *data;
  request.timeout_ms = *timeout;
  request.expires_at_ms = *expires;

  // The call stays unanswered until the datagram finishes. If the bridge is gone before this
  // runs, dropping `reply` answers "disconnected".
  OnQueue([request = std::move(request), reply = std::move(reply)](State& state) mutable {
    Session* session = state.Find(request.session_id);
    if (!session) return reply->Answer(status::kDisconnected, false);
    session->SendGuarded(std::move(request), std::move(reply));
  });
}

void UdpBridge::CancelSend(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* id = args.string("sessionId");
  const std::string* request_id = args.string("requestId");
  if (!id || !request_id) return result->Success(Value(false));
  result->Success(Value(true));
  // An id that "sendGuarded" would reject can never be matched: no tombstone is kept for it.
  const size_t length = CharacterCount(*request_id);
  if (length == 0 || length > kMaxRequestIdLength) return;
  if (CharacterCount(*id) > kMaxSessionIdLength) return;
  OnQueue([id = *id, request_id = *request_id](State& state) {
    if (Session* session = state.Find(id)) session->CancelGuarded(request_id);
  });
}

void UdpBridge::Close(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* id = args.string("sessionId");
  result->Success(Value(true));
  if (!id) return;
  OnQueue([id = *id](State& state) { state.CloseSession(id); });
}

void UdpBridge::Interfaces(std::unique_ptr<MethodResult> result) {
  ValueList list;
  for (auto& interface : ListInterfaces()) {
    ValueList addresses;
    for (auto& address : interface.addresses) addresses.emplace_back(std::move(address));
    ValueMap entry;
    entry.Append(Value("name"), Value(std::move(interface.name)));
    entry.Append(Value("addresses"), Value(std::move(addresses)));
    list.emplace_back(std::move(entry));
  }
  result->Success(Value(std::move(list)));
}

void UdpBridge::TriggerPermission(std::unique_ptr<MethodResult> result) {
  result->Success(Value(true));
  OnQueue([](State& state) { state.StartPermissionBrowser(); });
}

}  // namespace corvane::udp
