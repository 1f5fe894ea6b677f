#include "engine/socket_engine.h"

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <map>
#include <set>

#include "dispatch/glib_source.h"
#include "dispatch/queue.h"
#include "engine/wire.h"

namespace corvane::engine {

namespace {

constexpr const char* kLogDomain = "corvane-engine";
constexpr size_t kReadChunk = 256 * 1024;

std::string Errno(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

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

}  // namespace

struct SocketEngine::State : std::enable_shared_from_this<SocketEngine::State> {
  struct Client {
    uint64_t serial = 0;
    int fd = -1;
    GSource* watch = nullptr;
    FrameReader reader;
    std::deque<Bytes> output;
    size_t output_offset = 0;  // into output.front()
    size_t output_bytes = 0;
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
  int listen_fd = -1;
  GSource* listen_watch = nullptr;
  uint64_t next_serial = 1;
  uint32_t next_message_id = 1;
  std::map<uint64_t, std::unique_ptr<Client>> clients;
  std::map<uint32_t, PendingCall> pending;

  ~State() {
    dispatch::DestroySource(listen_watch);
    if (listen_fd >= 0) {
      close(listen_fd);
      unlink(path.c_str());
    }
    for (auto& [serial, client] : clients) {
      dispatch::DestroySource(client->watch);
      close(client->fd);
    }
  }

  void Accept() {
    for (;;) {
      const int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
          g_log(kLogDomain, G_LOG_LEVEL_WARNING, "accept failed: %s", std::strerror(errno));
        }
        return;
      }
      struct ucred cred {};
      socklen_t len = sizeof cred;
      if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != geteuid()) {
        g_log(kLogDomain, G_LOG_LEVEL_WARNING, "refused a client of another user (uid %u)",
              static_cast<unsigned>(cred.uid));
        close(fd);
        continue;
      }
      if (clients.size() >= options.max_clients) {
        g_log(kLogDomain, G_LOG_LEVEL_WARNING, "refused a client: already %zu connected",
              clients.size());
        close(fd);
        continue;
      }
      auto client = std::make_unique<Client>();
      client->serial = next_serial++;
      client->fd = fd;
      const uint64_t serial = client->serial;
      std::weak_ptr<State> weak = weak_from_this();
      client->watch = WatchFd(fd, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR),
                              [weak, serial](GIOCondition revents) {
                                if (auto self = weak.lock()) self->OnClientIo(serial, revents);
                              });
      g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "client %llu connected (pid %d)",
            static_cast<unsigned long long>(serial), static_cast<int>(cred.pid));
      clients.emplace(serial, std::move(client));
    }
  }

  Client* Find(uint64_t serial) {
    auto it = clients.find(serial);
    return it == clients.end() ? nullptr : it->second.get();
  }

  void OnClientIo(uint64_t serial, GIOCondition revents) {
    if (revents & G_IO_OUT) {
      if (Client* c = Find(serial)) Flush(*c);
    }
    if (revents & (G_IO_IN | G_IO_HUP | G_IO_ERR)) Read(serial);
  }

  void Read(uint64_t serial) {
    Client* client = Find(serial);
    if (!client) return;
    uint8_t buffer[kReadChunk];
    for (;;) {
      const ssize_t n = recv(client->fd, buffer, sizeof buffer, 0);
      if (n > 0) {
        client->reader.Append(std::span<const uint8_t>(buffer, static_cast<size_t>(n)));
        // Handle frames as they complete; a handler may send to this client or close it.
        while (auto frame = client->reader.Next()) {
          HandleFrame(serial, std::move(*frame));
          client = Find(serial);
          if (!client) return;
        }
        if (client->reader.failed()) {
          g_log(kLogDomain, G_LOG_LEVEL_WARNING, "closing client %llu: %s",
                static_cast<unsigned long long>(serial), client->reader.error().c_str());
          Drop(serial);
          return;
        }
        if (static_cast<size_t>(n) < sizeof buffer) return;
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

  void HandleFrame(uint64_t serial, Frame frame) {
    if (frame.kind == FrameKind::kReply) {
      OnReply(serial, frame.id, std::move(frame.payload));
      return;
    }
    const uint32_t id = frame.id;
    std::weak_ptr<State> weak = weak_from_this();
    engine->Dispatch(frame.channel, std::move(frame.payload), [weak, serial, id](Bytes reply) {
      if (id == 0) return;  // the client wanted no reply
      auto self = weak.lock();
      if (!self) return;
      // The client may have gone while the call ran: the reply is simply dropped.
      if (Client* c = self->Find(serial)) self->Queue(*c, EncodeReplyFrame(id, reply));
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

  void Queue(Client& client, Bytes frame) {
    if (client.closing) return;
    if (client.output_bytes + frame.size() > options.max_pending_output) {
      g_log(kLogDomain, G_LOG_LEVEL_WARNING,
            "closing client %llu: it is not reading (%zu bytes waiting)",
            static_cast<unsigned long long>(client.serial), client.output_bytes);
      DropLater(client);
      return;
    }
    client.output_bytes += frame.size();
    client.output.push_back(std::move(frame));
    if (client.output.size() == 1) Flush(client);
  }

  void Flush(Client& client) {
    while (!client.output.empty()) {
      Bytes& front = client.output.front();
      const ssize_t n = send(client.fd, front.data() + client.output_offset,
                             front.size() - client.output_offset, MSG_NOSIGNAL);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        // A broken pipe is noticed by the read side as well; stop writing here.
        DropLater(client);
        return;
      }
      client.output_offset += static_cast<size_t>(n);
      client.output_bytes -= static_cast<size_t>(n);
      if (client.output_offset == front.size()) {
        client.output.pop_front();
        client.output_offset = 0;
      }
    }
    auto* s = reinterpret_cast<FdSource*>(client.watch);
    const GIOCondition base = GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR);
    const GIOCondition want = client.output.empty() ? base : GIOCondition(base | G_IO_OUT);
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
    dispatch::DestroySource(client->watch);
    close(client->fd);
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
    Bytes frame = EncodeMessageFrame(id, channel, message);
    std::vector<uint64_t> serials;
    for (auto& [serial, client] : clients) serials.push_back(serial);
    for (size_t i = 0; i < serials.size(); ++i) {
      Client* c = Find(serials[i]);
      if (!c) continue;
      // Each client needs its own copy, except the last, which takes the frame itself.
      Queue(*c, i + 1 == serials.size() ? std::move(frame) : frame);
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

  // The folder is private to this user; one we create gets 0700, one that exists is left as is
  // (the user chose it), but must be a folder.
  const std::string dir = path.substr(0, path.find_last_of('/'));
  if (!dir.empty()) {
    if (g_mkdir_with_parents(dir.c_str(), 0700) != 0) {
      *error = Errno(("cannot create " + dir).c_str());
      return false;
    }
  }

  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = Errno("socket");
    return false;
  }
  int rc = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  if (rc != 0 && errno == EADDRINUSE) {
    // A socket file is there: another host, or a stale file from one that crashed.
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool alive = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(probe);
    if (alive) {
      close(fd);
      *error = "another host is already serving " + path;
      return false;
    }
    unlink(path.c_str());
    rc = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  }
  if (rc != 0) {
    *error = Errno(("bind " + path).c_str());
    close(fd);
    return false;
  }
  chmod(path.c_str(), 0600);
  if (listen(fd, 16) != 0) {
    *error = Errno("listen");
    close(fd);
    unlink(path.c_str());
    return false;
  }
  state_->listen_fd = fd;
  std::weak_ptr<State> weak = state_;
  state_->listen_watch = WatchFd(fd, G_IO_IN, [weak](GIOCondition) {
    if (auto self = weak.lock()) self->Accept();
  });
  return true;
}

void SocketEngine::Transmit(const std::string& channel, Bytes message, ReplyHandler on_reply) {
  state_->Transmit(channel, std::move(message), std::move(on_reply));
}

}  // namespace corvane::engine
