// Per-file state from Syncthing's REST API. A real Syncthing cannot be held reliably in the
// middle of a transfer, so a small HTTP listener on 127.0.0.1 answers as Syncthing does for a
// file that is still to come, until the test lets it arrive.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

constexpr const char* kApiKey = "s3cret-key";

class FakeSyncthingRest {
 public:
  explicit FakeSyncthingRest(std::string pending) : pending_(std::move(pending)) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd_, 16);
    socklen_t n = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeSyncthingRest() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  uint16_t port() const { return port_; }
  std::atomic<bool> arrived{false};
  std::atomic<int> requests{0};
  std::atomic<int> without_key{0};

 private:
  void Serve() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) != 1) continue;
      const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t r = recv(client, buffer, sizeof buffer, 0);
        if (r <= 0) break;
        request.append(buffer, static_cast<size_t>(r));
      }
      const std::string answer = Answer(request);
      send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      close(client);
    }
  }
  std::string Answer(const std::string& request) {
    ++requests;
    if (request.find(std::string("X-API-Key: ") + kApiKey + "\r\n") == std::string::npos) {
      ++without_key;
      return "HTTP/1.0 403 Forbidden\r\n\r\n";
    }
    std::string body;
    const std::string escaped = Escape(pending_);
    if (request.find("GET /rest/db/file?folder=docs&file=" + escaped + " ") == 0) {
      body =
          arrived
              ? R"({"availability":[],"global":{"version":["PEER:2"]},"local":{"version":["PEER:2"]}})"
              : R"({"availability":[{"id":"PEER","fromTemporary":false}],"global":{"version":["PEER:2"]},"local":{"version":["PEER:1"]}})";
    } else if (request.find("GET /rest/db/need?folder=docs") == 0) {
      body = arrived ? R"({"progress":[],"queued":[],"rest":[]})"
                     : R"({"progress":[{"name":")" + pending_ + R"("}],"queued":[],"rest":[]})";
    } else {
      return "HTTP/1.0 404 Not Found\r\n\r\nNo such object in the index";
    }
    return "HTTP/1.0 200 OK\r\nContent-Type: application/json\r\n\r\n" + body;
  }
  static std::string Escape(const std::string& s) {
    gchar* e = g_uri_escape_string(s.c_str(), nullptr, false);
    std::string r(e);
    g_free(e);
    return r;
  }

  std::string pending_;
  int fd_;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class SyncthingStateTest : public CloudTest {
 protected:
  void SetUp() override {
    const std::string root = root_.path() + "/synced";
    rest_ =
        std::make_unique<FakeSyncthingRest>(std::string(kContainer) + "/Documents/pending.corvane");
    WriteFile(paths_.state_home + "/syncthing/config.xml",
              "<configuration version=\"37\">\n <folder id=\"docs\" path=\"" + root +
                  "\"></folder>\n <gui enabled=\"true\" tls=\"false\"><address>0.0.0.0:" +
                  std::to_string(rest_->port()) + "</address><apikey>" + kApiKey +
                  "</apikey></gui>\n</configuration>\n");
    docs_ = root + "/" + kContainer + "/Documents";
    WriteFile(docs_ + "/pending.corvane", "old version");
    WriteFile(docs_ + "/here.corvane", "current");
    Start();
    ASSERT_EQ(Text(Call("status"), "documents"), fs::canonical(docs_).string());
  }
  void TearDown() override {
    bridge_.reset();
    EXPECT_EQ(rest_->without_key, 0);
  }
  Value Download(const std::string& name, Value timeout) {
    return Call("download", Map({{"path", Value(docs_ + "/" + name)}, {"timeoutMs", timeout}}));
  }
  Replies DownloadLater(Value timeout) {
    Replies waiting = Send(
        "download", Map({{"path", Value(docs_ + "/pending.corvane")}, {"timeoutMs", timeout}}));
    // Asked at least twice: the call is in its waiting loop.
    const int before = rest_->requests;
    dispatch::RunMainUntil([&] { return rest_->requests >= before + 2; }, 5s);
    return waiting;
  }
  std::unique_ptr<FakeSyncthingRest> rest_;
  std::string docs_;
};

TEST_F(SyncthingStateTest, ItemsAndDownloadsFollowWhatSyncthingSays) {
  Call("startWatching");
  size_t from = 0;
  auto event = WaitEvent("items", &from);
  ASSERT_TRUE(event);
  for (const Value& item : *Field(*event, "items")->list_if()) {
    const bool pending = Text(item, "relative") == "pending.corvane";
    EXPECT_EQ(Flag(item, "downloaded"), !pending) << Text(item, "relative");
    EXPECT_EQ(Flag(item, "downloading"), pending) << Text(item, "relative");
  }
  EXPECT_EQ(Download("here.corvane", Value::Integer(0)), Value(true));
  EXPECT_EQ(Download("missing.corvane", Value::Integer(5000)), Value(false));  // nothing to fetch
  EXPECT_EQ(Download("pending.corvane", Value::Integer(0)), Value(false));
  EXPECT_EQ(Download("pending.corvane", Value::Integer(100)), Value(false));
  // A timeout far below zero answers at once, like zero.
  EXPECT_EQ(Download("pending.corvane", Value::Integer(-10000000000000)), Value(false));
  // A link whose target is not on this machine holds nothing to open: not downloaded.
  fs::create_symlink(docs_ + "/nowhere.corvane", docs_ + "/dangling.corvane");
  EXPECT_EQ(Download("dangling.corvane", Value::Integer(5000)), Value(false));

  // "timeoutMs" as a string means the default minute, not zero: still waiting when the file
  // arrives, and other calls are served meanwhile, however many downloads wait.
  std::vector<Replies> waiting;
  for (int i = 0; i < 8; ++i) waiting.push_back(DownloadLater(Value("5")));
  for (const Replies& w : waiting) EXPECT_TRUE(w->empty());
  EXPECT_EQ(Flag(Call("status"), "available"), true);
  rest_->arrived = true;
  dispatch::RunMainUntil(
      [&] {
        return std::none_of(waiting.begin(), waiting.end(), [](auto& w) { return w->empty(); });
      },
      10s);
  for (const Replies& w : waiting) {
    ASSERT_EQ(w->size(), 1u);
    EXPECT_EQ(w->front().value, Value(true));
  }
}

TEST_F(SyncthingStateTest, ShutDownAnswersAWaitingDownload) {
  // Ten minutes to wait: the service going away ends the wait, and the call still gets its
  // one answer (the file has not arrived).
  Replies waiting = DownloadLater(Value::Integer(600000));
  bridge_.reset();
  dispatch::RunMainUntil([&] { return !waiting->empty(); }, 5s);
  ASSERT_EQ(waiting->size(), 1u);
  EXPECT_EQ(waiting->front().value, Value(false));
}

}  // namespace
}  // namespace corvane::cloud::testing
