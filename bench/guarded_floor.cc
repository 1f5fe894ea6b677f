// The floor of the guarded send's design, without the host: a main loop reading request frames
// from a Unix socket, a hop to a serial queue that sends a raw UDP datagram to the echo and
// receives its answer there, and a hop back to the main loop, which writes a reply frame. The
// queues are the host's own (dispatch::MainQueue, dispatch::SerialQueue: the same wake-up of a
// GLib context); no codec, no session, no channel.
//
//   guarded_floor SOCKET ECHO_PORT     (started by `roundtrip udp`)
#include <arpa/inet.h>
#include <glib-unix.h>
#include <glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dispatch/queue.h"
#include "engine/wire.h"

namespace {

using namespace corvane;

constexpr size_t kDatagram = 20;

struct Floor {
  int client = -1;
  int udp = -1;
  std::vector<uint8_t> in;
  dispatch::SerialQueue* queue = nullptr;
};

Floor g_floor;

// Main loop: every whole request frame goes to the queue as a datagram carrying its id.
gboolean OnClient(gint fd, GIOCondition, gpointer) {
  uint8_t buffer[65536];
  const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
  if (n <= 0) {
    std::exit(0);
  }
  auto& in = g_floor.in;
  in.insert(in.end(), buffer, buffer + n);
  size_t used = 0;
  while (in.size() - used >= engine::kFrameHeaderSize) {
    uint32_t length;
    std::memcpy(&length, in.data() + used, 4);
    if (in.size() - used - engine::kFrameHeaderSize < length) break;
    uint32_t id = 0;
    std::memcpy(&id, in.data() + used + engine::kFrameHeaderSize + 1, 4);
    used += engine::kFrameHeaderSize + length;
    g_floor.queue->Async([id] {
      uint8_t datagram[kDatagram] = {};
      std::memcpy(datagram, &id, 4);
      send(g_floor.udp, datagram, sizeof datagram, MSG_DONTWAIT);
    });
  }
  in.erase(in.begin(), in.begin() + static_cast<long>(used));
  return G_SOURCE_CONTINUE;
}

// Serial queue: the echo's answer goes back to the main loop, which replies to the client.
gboolean OnEcho(gint fd, GIOCondition, gpointer) {
  uint8_t datagram[2048];
  while (recv(fd, datagram, sizeof datagram, MSG_DONTWAIT) > 0) {
    uint32_t id;
    std::memcpy(&id, datagram, 4);
    dispatch::MainQueue().Async([id] {
      uint8_t frame[engine::kFrameHeaderSize + 5];
      const uint32_t length = 5;
      std::memcpy(frame, &length, 4);
      frame[4] = static_cast<uint8_t>(engine::FrameKind::kReply);
      std::memcpy(frame + 5, &id, 4);
      send(g_floor.client, frame, sizeof frame, MSG_NOSIGNAL);
    });
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s SOCKET ECHO_PORT\n", argv[0]);
    return 2;
  }
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", argv[1]);
  if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listener, 1) != 0) {
    return 1;
  }
  g_floor.udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in echo{};
  echo.sin_family = AF_INET;
  echo.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  echo.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[2])));
  if (connect(g_floor.udp, reinterpret_cast<sockaddr*>(&echo), sizeof echo) != 0) return 1;

  dispatch::SerialQueue queue("corvane.udp.bridge");
  g_floor.queue = &queue;
  // The echo's socket is watched on the queue's own context, as the host's flows are.
  GSource* echo_source = g_unix_fd_source_new(g_floor.udp, G_IO_IN);
  g_source_set_callback(echo_source, G_SOURCE_FUNC(&OnEcho), nullptr, nullptr);
  g_source_attach(echo_source, queue.context());

  g_floor.client = accept(listener, nullptr, nullptr);
  GSource* client_source = g_unix_fd_source_new(g_floor.client, G_IO_IN);
  g_source_set_callback(client_source, G_SOURCE_FUNC(&OnClient), nullptr, nullptr);
  g_source_attach(client_source, nullptr);
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  g_main_loop_run(loop);
  return 0;
}
