#include "discovery/bonjour_bridge.h"

#include <glib.h>

#include <future>
#include <set>

#include "channel/args.h"
#include "discovery/service_table.h"
#include "dispatch/queue.h"

namespace corvane::discovery {

namespace {

constexpr const char* kLogDomain = "corvane-bonjour";

using channel::Value;
using channel::ValueMap;

// The given types when "types" is a list of strings, the defaults otherwise.
std::vector<std::string> RequestedTypes(const Value& arguments) {
  const channel::ValueList* list = channel::Args(arguments).list("types");
  if (list == nullptr) return BonjourBridge::DefaultTypes();
  std::vector<std::string> types;
  types.reserve(list->size());
  for (const Value& v : *list) {
    const std::string* s = v.string_if();
    if (s == nullptr) return BonjourBridge::DefaultTypes();
    types.push_back(*s);
  }
  return types;
}

}  // namespace

// The main thread's side of the event stream.
struct BonjourBridge::Events {
  std::unique_ptr<channel::EventSink> sink;
  // Which listen the queue last heard of; events tagged with an older one were already covered
  // by that listen's replay, or belong to no listener.
  uint64_t generation = 0;
  uint64_t last_generation = 0;
};

// Everything below runs on the bridge's queue.
class BonjourBridge::Core : public DnsSdBackend::Listener {
 public:
  explicit Core(std::weak_ptr<Events> events) : events_(std::move(events)) {}

  void Open(BackendFactory factory, dispatch::SerialQueue& queue) {
    if (factory) backend_ = factory(queue.context(), queue, *this);
    if (!backend_) g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "no DNS-SD backend: nothing is found");
  }
  void Close() { backend_.reset(); }

  // Browsers are keyed by the type string as given: two spellings of one type are two
  // browsers, each reporting its services under its own spelling.
  void Start(const std::vector<std::string>& types) {
    for (const std::string& type : types) {
      if (browsers_.count(type) != 0) continue;
      if (type.empty() || type.size() > kMaxTypeLength || type.find('\0') != std::string::npos) {
        continue;
      }
      if (browsers_.size() >= kMaxBrowsers) {
        g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "already %zu browse types; not adding more",
              browsers_.size());
        return;
      }
      // A type no DNS-SD implementation can browse is dropped quietly, so that a later "start"
      // with it tries again, harmlessly.
      if (backend_ && !backend_->Browse(type)) {
        g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "not a service type: %s", type.c_str());
        continue;
      }
      browsers_.insert(type);
    }
  }

  void Stop() {
    if (backend_) {
      for (const std::string& type : browsers_) backend_->StopBrowse(type);
    }
    browsers_.clear();
    table_.Clear();
  }

  Value List() const {
    channel::ValueList list;
    for (const ResolvedService& s : table_.List()) list.push_back(s.ToValue());
    return Value(std::move(list));
  }

  // A new listen (generation > 0) gets every present service as "found"; 0 is no listener.
  void SetListener(uint64_t generation) {
    generation_ = generation;
    if (generation == 0) return;
    for (const ResolvedService& s : table_.List()) Emit("found", s);
  }

  void OnResolved(const Sighting& sighting, const Endpoint& endpoint) override {
    if (browsers_.count(sighting.type) == 0) return;  // stopped meanwhile
    ServiceTable::Outcome outcome = table_.Resolve(sighting, endpoint, sighting.type);
    if (outcome.change == ServiceTable::Change::kNone) return;
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "%s %s (%s) at %s port %lld",
          outcome.change == ServiceTable::Change::kFound ? "found" : "updated",
          outcome.service.name.c_str(), outcome.service.type.c_str(), outcome.service.host.c_str(),
          static_cast<long long>(outcome.service.port));
    Emit("found", outcome.service);
  }

  void OnRemoved(const Sighting& sighting) override {
    if (browsers_.count(sighting.type) == 0) return;
    ServiceTable::Outcome outcome = table_.Remove(sighting);
    if (outcome.change == ServiceTable::Change::kLost) {
      g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "lost %s (%s)", outcome.service.name.c_str(),
            outcome.service.type.c_str());
      Emit("lost", outcome.service);
    } else if (outcome.change == ServiceTable::Change::kUpdated) {
      Emit("found", outcome.service);
    }
  }

 private:
  void Emit(const char* kind, const ResolvedService& service) {
    if (generation_ == 0) return;  // nobody listens: dropped
    ValueMap event;
    event.Set("type", Value(kind));
    event.Set("service", service.ToValue());
    dispatch::MainQueue().Async(
        [events = events_, generation = generation_, event = Value(std::move(event))]() mutable {
          std::shared_ptr<Events> e = events.lock();
          if (e && e->sink && e->generation == generation) e->sink->Success(std::move(event));
        });
  }

  std::weak_ptr<Events> events_;
  std::unique_ptr<DnsSdBackend> backend_;
  std::set<std::string> browsers_;  // types as the caller gave them
  ServiceTable table_;
  uint64_t generation_ = 0;
};

const std::vector<std::string>& BonjourBridge::DefaultTypes() {
  static const std::vector<std::string> types = {
      "_z21._udp.",     "_z21._tcp.",     "_ecos._tcp.", "_dccex._tcp.",
      "_corvane._tcp.", "_corvane._udp.", "_http._tcp.",
  };
  return types;
}

BonjourBridge::BonjourBridge(channel::BinaryMessenger& messenger, BackendFactory factory)
    : events_(std::make_shared<Events>()),
      queue_(std::make_unique<dispatch::SerialQueue>(kQueueLabel)),
      core_(std::make_shared<Core>(events_)),
      methods_(messenger, kMethodChannel),
      events_channel_(messenger, kEventChannel) {
  queue_->Async([core = core_.get(), queue = queue_.get(), factory = std::move(factory)] {
    core->Open(factory, *queue);
  });
  methods_.SetMethodCallHandler(
      [this](const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result) {
        HandleCall(call, std::move(result));
      });
  events_channel_.SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
      [this](const Value&, std::unique_ptr<channel::EventSink> sink) {
        return Listen(std::move(sink));
      },
      [this](const Value&) { return Cancel(); }));
}

BonjourBridge::~BonjourBridge() {
  methods_.SetMethodCallHandler({});
  events_channel_.SetStreamHandler(nullptr);
  // The backend's sources live on the queue's context: close it there, before the queue goes.
  std::promise<void> closed;
  queue_->Async([core = core_.get(), &closed] {
    core->Close();
    closed.set_value();
  });
  closed.get_future().wait();
  queue_.reset();
}

void BonjourBridge::HandleCall(const channel::MethodCall& call,
                               std::unique_ptr<channel::MethodResult> result) {
  Core* core = core_.get();
  if (call.method == "start") {
    queue_->Async([core, types = RequestedTypes(call.arguments), result = std::move(result)] {
      core->Start(types);
      result->Success(Value(true));
    });
  } else if (call.method == "stop") {
    queue_->Async([core, result = std::move(result)] {
      core->Stop();
      result->Success(Value(true));
    });
  } else if (call.method == "list") {
    queue_->Async([core, result = std::move(result)] { result->Success(core->List()); });
  } else {
    result->NotImplemented();
  }
}

std::optional<channel::MethodError> BonjourBridge::Listen(
    std::unique_ptr<channel::EventSink> sink) {
  events_->sink = std::move(sink);
  events_->generation = ++events_->last_generation;
  queue_->Async(
      [core = core_.get(), generation = events_->generation] { core->SetListener(generation); });
  return std::nullopt;
}

std::optional<channel::MethodError> BonjourBridge::Cancel() {
  events_->sink.reset();
  events_->generation = 0;
  queue_->Async([core = core_.get()] { core->SetListener(0); });
  return std::nullopt;
}

}  // namespace corvane::discovery
