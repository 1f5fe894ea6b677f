#include "engine/socket_engine.h"

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "channel/event_channel.h"
#include "channel/standard_codec.h"
#include "dispatch/glib_source.h"
#include "dispatch/queue.h"
#include "engine/listener_table.h"
#include "engine/output_queue.h"
#include "engine/socket_path.h"
#include "engine/wire.h"

namespace corvane::engine {

namespace {

using namespace std::chrono_literals;

constexpr const char* kLogDomain = "corvane-engine";
constexpr size_t kReadChunk = 256 * 1024;
// Descriptors held back so that a client can be accepted even when the process has run out:
// one is given up to accept, and the client is served.
constexpr size_t kSpareDescriptors = 4;
// With no spare left, accepting pauses this long instead of spinning on EMFILE.
constexpr auto kAcceptPause = 1000ms;
// A warning that repeats (a flood of refused clients, a descriptor shortage) is written at
// most once per interval, with the count of those held back.
constexpr gint64 kWarningIntervalUs = 10 * G_USEC_PER_SEC;

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

// A GSource watching one file descriptor, whose events can change (output interest comes and
// goes with the write queue).
struct FdSource {
  GSource base;
  gpointer tag;
  GIOCondition events;  // what the tag watches now; GLib wakes its context on every change
  std::function<void(GIOCondition)>* handler;
};

gboolean FdDispatch(GSource* source, GSourceFunc, gpointer) {
  auto* s = reinterpret_cast<FdSource*>(source);
  const GIOCondition revents = g_source_query_unix_fd(source, s->tag);
  if (revents) (*s->handler)(revents);
  return G_SOURCE_CONTINUE;
}

void FdFinalize(GSource* source) { delete reinterpret_cast<FdSource*>(source)->handler; }

GSourceFuncs kFdFuncs = {nullptr, nullptr, FdDispatch, FdFinalize, nullptr, nullptr};

GSource* WatchFd(int fd, GIOCondition events, std::function<void(GIOCondition)> handler) {
  GSource* source = g_source_new(&kFdFuncs, sizeof(FdSource));
  auto* s = reinterpret_cast<FdSource*>(source);
  s->handler = new std::function<void(GIOCondition)>(std::move(handler));
  s->tag = g_source_add_unix_fd(source, fd, events);
  s->events = events;
  // Otherwise GLib takes the fd out of its poll set around every dispatch and puts it back,
  // each time waking its own context: a second poll iteration for every message.
  g_source_set_can_recurse(source, TRUE);
  g_source_attach(source, g_main_context_default());
  return source;
}

// One warning of a kind per interval; the rest are counted and mentioned with the next.
class ThrottledWarning {
 public:
  template <typename... Args>
  void Log(const char* format, Args... args) {
    const gint64 now = g_get_monotonic_time();
    if (last_ != 0 && now - last_ < kWarningIntervalUs) {
      ++held_back_;
      return;
    }
    gchar* text = g_strdup_printf(format, args...);
    if (held_back_ > 0) {
      g_log(kLogDomain, G_LOG_LEVEL_WARNING, "%s (and %zu more like it)", text, held_back_);
    } else {
      g_log(kLogDomain, G_LOG_LEVEL_WARNING, "%s", text);
    }
    g_free(text);
    last_ = now;
    held_back_ = 0;
  }

 private:
  gint64 last_ = 0;
  size_t held_back_ = 0;
};

Bytes CancelCall() { return channel::EncodeMethodCall({"cancel", channel::Value()}); }

}  // namespace

struct SocketEngine::State : std::enable_shared_from_this<SocketEngine::State> {
  struct Client {
    Client(uint64_t s, int f, size_t output_limit) : serial(s), fd(f), output(output_limit) {}
    uint64_t serial;
    int fd;
    GSource* watch = nullptr;
    FrameReader reader;
    OutputQueue output;
    uint64_t frames_read = 0;
    uint64_t bytes_taken = 0;           // output the client has read
    uint64_t bytes_sent = 0;            // input it has sent
    dispatch::WorkItem frame_deadline;  // pending while a frame is partly read
    dispatch::WorkItem stall_deadline;  // pending while its requests are held back
    bool held_back = false;             // its requests are left unread until its output drains
    bool closing = false;
  };

  // A host-initiated message waiting for replies. The first non-empty reply wins; if every
  // client answers empty (or goes away), the caller gets the empty reply.
  struct PendingCall {
    ReplyHandler on_reply;
    std::set<uint64_t> waiting_for;
  };

  SocketEngine* engine = nullptr;
  SocketEngineOptions options;
  std::string path;
  SocketFileId socket_file;
  int listen_fd = -1;
  GSource* listen_watch = nullptr;
  dispatch::WorkItem accept_pause;
  std::vector<int> spares;
  uint64_t next_serial = 1;
  uint32_t next_message_id = 1;
  std::map<uint64_t, std::unique_ptr<Client>> clients;
  std::map<uint32_t, PendingCall> pending;
  size_t output_memory = 0;  // what every client's output queue holds
  ListenerTable listeners;
  ThrottledWarning refused_warning;
  ThrottledWarning descriptor_warning;
  ThrottledWarning client_warning;

  ~State() {
    accept_pause.Cancel();
    dispatch::DestroySource(listen_watch);
    if (listen_fd >= 0) {
      close(listen_fd);
      RemoveSocketFileIfOurs(path, socket_file);
    }
    for (int fd : spares) close(fd);
    for (auto& [serial, client] : clients) {
      client->frame_deadline.Cancel();
      client->stall_deadline.Cancel();
      dispatch::DestroySource(client->watch);
      close(client->fd);
    }
  }

  // --- accepting ---------------------------------------------------------------------------

  void WatchListener() {
    std::weak_ptr<State> weak = weak_from_this();
    listen_watch = WatchFd(listen_fd, G_IO_IN, [weak](GIOCondition) {
      if (auto self = weak.lock()) self->Accept();
    });
  }

  void RefillSpares() {
    while (spares.size() < kSpareDescriptors) {
      const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (fd < 0) return;
      spares.push_back(fd);
    }
  }

  // Out of descriptors and nothing in reserve: the listening socket stays readable, so it is
  // left unwatched for a moment rather than polled in a tight loop.
  void PauseAccepting() {
    dispatch::DestroySource(listen_watch);
    std::weak_ptr<State> weak = weak_from_this();
    accept_pause = dispatch::MainQueue().After(kAcceptPause, [weak] {
      auto self = weak.lock();
      if (!self) return;
      self->RefillSpares();
      self->WatchListener();
      self->Accept();
    });
  }

  void Accept() {
    for (;;) {
      const int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR) continue;
        if (errno == EMFILE || errno == ENFILE) {
          descriptor_warning.Log("accepting a client: %s", std::strerror(errno));
          if (!spares.empty()) {
            close(spares.back());
            spares.pop_back();
            continue;
          }
          PauseAccepting();
          return;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
          descriptor_warning.Log("accept failed: %s", std::strerror(errno));
        }
        return;
      }
      Admit(fd);
    }
  }

  void Admit(int fd) {
    struct ucred cred {};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != geteuid()) {
      refused_warning.Log("refused a client of another user (uid %u)",
                          static_cast<unsigned>(cred.uid));
      close(fd);
      return;
    }
    if (clients.size() >= options.max_clients) {
      client_warning.Log("refused a client: already %zu connected", clients.size());
      close(fd);
      return;
    }
    const uint64_t serial = next_serial++;
    auto client = std::make_unique<Client>(serial, fd, options.max_pending_output);
    std::weak_ptr<State> weak = weak_from_this();
    client->watch = WatchFd(fd, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR),
                            [weak, serial](GIOCondition revents) {
                              if (auto self = weak.lock()) self->OnClientIo(serial, revents);
                            });
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "client %llu connected (pid %d)",
          static_cast<unsigned long long>(serial), static_cast<int>(cred.pid));
    clients.emplace(serial, std::move(client));
  }

  Client* Find(uint64_t serial) {
    auto it = clients.find(serial);
    return it == clients.end() ? nullptr : it->second.get();
  }

  // --- reading -----------------------------------------------------------------------------

  void OnClientIo(uint64_t serial, GIOCondition revents) {
    Client* c = Find(serial);
    if (!c) return;
    if (revents & G_IO_OUT) {
      Flush(*c);
      if (c->held_back && !OverReadBound(*c)) {
        // Its replies have drained: its requests are read again, those already buffered first.
        c->held_back = false;
        c->stall_deadline.Cancel();
        UpdateWatch(*c);
        revents = GIOCondition(revents | G_IO_IN);
      }
    }
    if (c->held_back && (revents & (G_IO_HUP | G_IO_ERR))) {
      // Gone entirely: it cannot take its replies either.
      Drop(serial);
      return;
    }
    if (revents & (G_IO_IN | G_IO_HUP | G_IO_ERR)) {
      Read(serial);
      if (Client* still = Find(serial)) WatchPartialFrame(*still);
    }
  }

  bool OverReadBound(const Client& client) const {
    return client.output.memory() >= options.max_pending_output / 2;
  }

  // Handles the frames complete in the client's buffer until it is held back; a handler may
  // send to this client or close it.
  void HandleBuffered(uint64_t serial) {
    for (Client* client = Find(serial); client && !client->held_back; client = Find(serial)) {
      // Checked before each frame: replies to earlier calls may have come in meanwhile.
      if (!client->closing && OverReadBound(*client)) return HoldBack(*client);
      std::optional<Frame> frame = client->reader.Next();
      if (!frame) {
        if (!client->reader.failed()) return;
        g_log(kLogDomain, G_LOG_LEVEL_WARNING, "closing client %llu: %s",
              static_cast<unsigned long long>(serial), client->reader.error().c_str());
        return Drop(serial);
      }
      ++client->frames_read;
      HandleFrame(serial, std::move(*frame));
    }
  }

  // A client that sends faster than it reads its replies: its requests wait, first in its
  // buffer here (up to the held-input bound, so a client that writes all its calls before it
  // reads is served) and then in its socket, until it takes what waits for it.
  void HoldBack(Client& client) {
    client.held_back = true;
    UpdateWatch(client);
    WatchStall(client);
  }

  void WatchStall(Client& client) {
    std::weak_ptr<State> weak = weak_from_this();
    const uint64_t serial = client.serial;
    const uint64_t moved_before = client.bytes_taken + client.bytes_sent;
    client.stall_deadline =
        dispatch::MainQueue().After(options.stall_timeout, [weak, serial, moved_before] {
          auto self = weak.lock();
          if (!self) return;
          Client* c = self->Find(serial);
          if (!c || !c->held_back) return;
          if (c->bytes_taken + c->bytes_sent != moved_before) return self->WatchStall(*c);
          self->client_warning.Log(
              "closing client %llu: for %lld ms it read none of its %zu waiting bytes and sent "
              "nothing",
              static_cast<unsigned long long>(serial),
              static_cast<long long>(self->options.stall_timeout.count()), c->output.pending());
          self->Drop(serial);
        });
  }

  // What a held-back client may still add to its input buffer.
  size_t HeldInputRoom(const Client& client) const {
    const size_t bound = options.max_pending_output;
    return client.reader.buffered() < bound ? bound - client.reader.buffered() : 0;
  }

  void Read(uint64_t serial) {
    uint8_t buffer[kReadChunk];
    for (;;) {
      HandleBuffered(serial);
      Client* client = Find(serial);
      if (!client) return;
      size_t want = sizeof buffer;
      if (client->held_back) {
        want = std::min(want, HeldInputRoom(*client));
        if (want == 0) return UpdateWatch(*client);  // its own writes wait now
      }
      const ssize_t n = recv(client->fd, buffer, want, 0);
      if (n > 0) {
        client->reader.Append(std::span<const uint8_t>(buffer, static_cast<size_t>(n)));
        client->bytes_sent += static_cast<uint64_t>(n);
        if (static_cast<size_t>(n) < want) {
          HandleBuffered(serial);
          if (Client* c = Find(serial)) UpdateWatch(*c);
          return;
        }
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (n < 0 && errno == EINTR) continue;
      if (client->reader.buffered() > 0) {
        g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "client %llu left with a partial frame",
              static_cast<unsigned long long>(serial));
      }
      Drop(serial);
      return;
    }
  }

  // A frame that has begun must be complete within the frame time-out. The deadline runs from
  // the start of the frame; completing frames counts as progress and starts it again.
  void WatchPartialFrame(Client& client) {
    if (client.reader.buffered() == 0) {
      client.frame_deadline.Cancel();
      return;
    }
    if (client.frame_deadline.pending()) return;
    std::weak_ptr<State> weak = weak_from_this();
    const uint64_t serial = client.serial;
    const uint64_t frames_before = client.frames_read;
    client.frame_deadline =
        dispatch::MainQueue().After(options.frame_timeout, [weak, serial, frames_before] {
          auto self = weak.lock();
          if (!self) return;
          Client* c = self->Find(serial);
          if (!c || c->reader.buffered() == 0) return;
          // Frames held back by the engine are not the client's delay.
          if (c->frames_read != frames_before || c->held_back) {
            self->WatchPartialFrame(*c);
            return;
          }
          self->client_warning.Log("closing client %llu: a frame stayed incomplete for %lld ms",
                                   static_cast<unsigned long long>(serial),
                                   static_cast<long long>(self->options.frame_timeout.count()));
          self->Drop(serial);
        });
  }

  void HandleFrame(uint64_t serial, Frame frame) {
    if (frame.kind == FrameKind::kReply) {
      OnReply(serial, frame.id, std::move(frame.payload));
      return;
    }
    switch (ListenerTable::Classify(frame.payload)) {
      case ListenerTable::StreamCall::kListen:
        return Answer(serial, frame, listeners.OnListen(frame.channel, serial), true);
      case ListenerTable::StreamCall::kCancel:
        return Answer(serial, frame, listeners.OnCancel(frame.channel, serial), false);
      case ListenerTable::StreamCall::kNone:
        return Forward(serial, std::move(frame), nullptr);
    }
  }

  // A listen or cancel: the service hears it only when the table says so.
  void Answer(uint64_t serial, Frame& frame, ListenerTable::Action action, bool listen) {
    switch (action) {
      case ListenerTable::Action::kForward: {
        if (!listen) return Forward(serial, std::move(frame), nullptr);
        std::weak_ptr<State> weak = weak_from_this();
        std::string channel = frame.channel;
        return Forward(serial, std::move(frame),
                       [weak, serial, channel = std::move(channel)](const Bytes& reply) {
                         auto self = weak.lock();
                         if (!self) return;
                         auto decoded = channel::DecodeEnvelope(reply);
                         const bool accepted =
                             decoded && decoded.value->kind == channel::MethodReply::Kind::kSuccess;
                         self->listeners.ListenAnswered(channel, serial, accepted);
                       });
      }
      case ListenerTable::Action::kAnswerSuccess:
        return Reply(serial, frame.id, channel::EncodeSuccessEnvelope(channel::Value()));
      case ListenerTable::Action::kAnswerNoStream:
        return Reply(serial, frame.id,
                     channel::EncodeErrorEnvelope({channel::kNoStreamErrorCode,
                                                   channel::kNoStreamErrorMessage, channel::Value(),
                                                   std::nullopt}));
    }
  }

  void Reply(uint64_t serial, uint32_t id, const Bytes& payload) {
    if (id == 0) return;  // the client wanted no reply
    if (Client* c = Find(serial)) Queue(*c, EncodeReplyFrame(id, payload), /*reply=*/true);
  }

  // Hands a client's message to the channel's handler; `inspect` sees the reply first.
  void Forward(uint64_t serial, Frame frame, std::function<void(const Bytes&)> inspect) {
    const uint32_t id = frame.id;
    std::weak_ptr<State> weak = weak_from_this();
    engine->Dispatch(frame.channel, std::move(frame.payload),
                     [weak, serial, id, inspect = std::move(inspect)](Bytes reply) {
                       if (inspect) inspect(reply);
                       auto self = weak.lock();
                       // The client may have gone while the call ran: the reply is dropped.
                       if (self) self->Reply(serial, id, reply);
                     });
  }

  void OnReply(uint64_t serial, uint32_t id, Bytes payload) {
    auto it = pending.find(id);
    if (it == pending.end() || !it->second.waiting_for.erase(serial)) return;
    if (!payload.empty() && it->second.on_reply) {
      ReplyHandler on_reply = std::move(it->second.on_reply);
      it->second.on_reply = nullptr;
      on_reply(std::move(payload));
      it = pending.find(id);
      if (it == pending.end()) return;
    }
    Settle(it);
  }

  void Settle(std::map<uint32_t, PendingCall>::iterator it) {
    if (!it->second.waiting_for.empty()) return;
    ReplyHandler on_reply = std::move(it->second.on_reply);
    pending.erase(it);
    if (on_reply) on_reply(Bytes());
  }

  // --- writing -----------------------------------------------------------------------------

  // A reply is always taken: the client asked for it, and its requests stop being read while
  // its output is over the read bound, so only calls already in flight can add more.
  template <typename FrameBytes>
  void Queue(Client& client, FrameBytes&& frame, bool reply = false) {
    if (client.closing) return;
    const bool was_empty = client.output.empty();
    const size_t before = client.output.memory();
    if (!client.output.Push(std::forward<FrameBytes>(frame), reply)) {
      client_warning.Log("closing client %llu: it is not reading (%zu bytes waiting)",
                         static_cast<unsigned long long>(client.serial), client.output.pending());
      DropLater(client);
      return;
    }
    output_memory += client.output.memory() - before;
    // Many slow clients together must not add up to what one may not hold: past the total,
    // a client holding more than its share is closed.
    if (output_memory > options.max_total_output &&
        client.output.memory() > options.max_total_output / clients.size()) {
      client_warning.Log("closing client %llu: clients hold %zu bytes of output, it %zu",
                         static_cast<unsigned long long>(client.serial), output_memory,
                         client.output.memory());
      DropLater(client);
      return;
    }
    if (was_empty) Flush(client);
  }

  void Flush(Client& client) {
    const size_t before = client.output.memory();
    const size_t pending_before = client.output.pending();
    const OutputQueue::FlushResult result = client.output.Flush(client.fd);
    output_memory -= before - client.output.memory();
    client.bytes_taken += pending_before - client.output.pending();
    if (result == OutputQueue::FlushResult::kError) {
      // A broken pipe is noticed by the read side as well; stop writing here.
      DropLater(client);
      return;
    }
    UpdateWatch(client);
  }

  // Input while its requests are read, output while something waits.
  void UpdateWatch(Client& client) {
    auto* s = reinterpret_cast<FdSource*>(client.watch);
    GIOCondition want = GIOCondition(G_IO_HUP | G_IO_ERR);
    if (!client.held_back || HeldInputRoom(client) > 0) want = GIOCondition(want | G_IO_IN);
    if (!client.output.empty()) want = GIOCondition(want | G_IO_OUT);
    if (want != s->events) g_source_modify_unix_fd(client.watch, s->tag, s->events = want);
  }

  // Closing from inside a send path would pull the client out from under its caller; the
  // drop happens on the next main-loop turn instead.
  void DropLater(Client& client) {
    if (client.closing) return;
    client.closing = true;
    std::weak_ptr<State> weak = weak_from_this();
    const uint64_t serial = client.serial;
    dispatch::MainQueue().Async([weak, serial] {
      if (auto self = weak.lock()) self->Drop(serial);
    });
  }

  void Drop(uint64_t serial) {
    auto it = clients.find(serial);
    if (it == clients.end()) return;
    std::unique_ptr<Client> client = std::move(it->second);
    clients.erase(it);
    output_memory -= client->output.memory();
    client->frame_deadline.Cancel();
    client->stall_deadline.Cancel();
    dispatch::DestroySource(client->watch);
    close(client->fd);
    RefillSpares();
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "client %llu disconnected",
          static_cast<unsigned long long>(serial));
    // Calls to the engine that waited on this client no longer do.
    std::vector<uint32_t> ids;
    for (auto& [id, call] : pending) {
      if (call.waiting_for.count(serial)) ids.push_back(id);
    }
    for (uint32_t id : ids) {
      auto p = pending.find(id);
      if (p == pending.end()) continue;
      p->second.waiting_for.erase(serial);
      Settle(p);
    }
    // A stream whose last listener left is cancelled, as if that client had cancelled it.
    for (const std::string& channel : listeners.RemoveClient(serial)) {
      engine->Dispatch(channel, CancelCall(), [](Bytes) {});
    }
  }

  void Transmit(const std::string& channel, Bytes message, ReplyHandler on_reply) {
    uint32_t id = 0;
    if (on_reply) {
      if (clients.empty()) {
        // Nobody to answer: the empty reply, later, as any reply would come.
        dispatch::MainQueue().Async([on_reply = std::move(on_reply)] { on_reply(Bytes()); });
        return;
      }
      do {
        id = next_message_id++;
      } while (id == 0 || pending.count(id));
      PendingCall call;
      call.on_reply = std::move(on_reply);
      for (auto& [serial, client] : clients) call.waiting_for.insert(serial);
      pending.emplace(id, std::move(call));
    }
    // Events go to the listeners of their channel; everything else to every client.
    std::vector<uint64_t> serials;
    const std::set<uint64_t>* listening = id == 0 ? listeners.Listeners(channel) : nullptr;
    if (listening) {
      serials.assign(listening->begin(), listening->end());
    } else {
      for (auto& [serial, client] : clients) serials.push_back(serial);
    }
    // An empty event is the end of the stream.
    if (listening && message.empty()) listeners.EndOfStream(channel);
    if (serials.empty()) return;
    Bytes frame = EncodeMessageFrame(id, channel, message);
    for (size_t i = 0; i < serials.size(); ++i) {
      Client* c = Find(serials[i]);
      if (!c) continue;
      // Each client gets its own copy, except the last, which takes the frame itself.
      if (i + 1 == serials.size()) {
        Queue(*c, std::move(frame));
      } else {
        Queue(*c, std::span<const uint8_t>(frame));
      }
    }
  }
};

SocketEngine::SocketEngine(SocketEngineOptions options) : state_(std::make_shared<State>()) {
  state_->engine = this;
  state_->options = std::move(options);
  state_->path = state_->options.path.empty() ? DefaultSocketPath() : state_->options.path;
}

SocketEngine::~SocketEngine() = default;

std::string SocketEngine::DefaultSocketPath() {
  const char* runtime = g_getenv("XDG_RUNTIME_DIR");
  if (runtime && *runtime) return std::string(runtime) + "/corvane/engine.sock";
  return "/tmp/corvane-" + std::to_string(geteuid()) + "/engine.sock";
}

const std::string& SocketEngine::path() const { return state_->path; }

size_t SocketEngine::client_count() const { return state_->clients.size(); }

bool SocketEngine::Start(std::string* error) {
  const std::string& path = state_->path;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    *error = "socket path too long: " + path;
    return false;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

  const size_t slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "."
                          : slash == 0               ? "/"
                                                     : path.substr(0, slash);
  const FolderRule rule =
      state_->options.path.empty() ? FolderRule::kPrivate : FolderRule::kNotWritableByOthers;
  if (!PrepareSocketFolder(dir, rule, error)) return false;

  switch (InspectSocketPath(path)) {
    case SocketPathState::kFree:
      break;
    case SocketPathState::kServed:
      *error = "another host is already serving " + path;
      return false;
    case SocketPathState::kNotASocket:
      *error = path + " exists and is not a socket; not replacing it";
      return false;
    case SocketPathState::kStale:
      unlink(path.c_str());  // left by a host that crashed
      break;
  }

  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = Errno("socket");
    return false;
  }
  // The socket file takes its mode from the socket at bind time: 0600 from its first moment,
  // and nothing is chmod-ed by name afterwards.
  fchmod(fd, 0600);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    *error =
        errno == EADDRINUSE ? "another host is already serving " + path : Errno("bind " + path);
    close(fd);
    return false;
  }
  state_->socket_file = IdentifySocketFile(path);
  if (listen(fd, 16) != 0) {
    *error = Errno("listen");
    close(fd);
    RemoveSocketFileIfOurs(path, state_->socket_file);
    return false;
  }
  state_->listen_fd = fd;
  state_->RefillSpares();
  state_->WatchListener();
  return true;
}

void SocketEngine::Transmit(const std::string& channel, Bytes message, ReplyHandler on_reply) {
  state_->Transmit(channel, std::move(message), std::move(on_reply));
}

}  // namespace corvane::engine
