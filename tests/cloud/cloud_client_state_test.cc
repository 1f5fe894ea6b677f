// Per-file state from the sync clients: Syncthing's REST API and the Nextcloud desktop client's
// socket. Neither can be held in the middle of a transfer on a build machine, so a small
// listener answers as the client does, until the test lets the file arrive.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <map>
#include <thread>

#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

constexpr const char* kApiKey = "s3cret-key";

// Answers every request (text up to and with `end`) on the listening socket `fd` with `answer`;
// sends `greeting` first, and with `once` closes after one answer, as HTTP/1.0 does.
class FakeClient {
 public:
  FakeClient(int fd, std::string end, bool once, std::string greeting,
             std::function<std::string(const std::string&)> answer)
      : fd_(fd),
        end_(std::move(end)),
        once_(once),
        greeting_(std::move(greeting)),
        answer_(std::move(answer)) {
    listen(fd_, 16);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeClient() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }

 private:
  void Serve() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      const int client = poll(&p, 1, 50) == 1 ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (client < 0) continue;
      send(client, greeting_.data(), greeting_.size(), MSG_NOSIGNAL);
      std::string input;
      char buffer[4096];
      bool done = false;
      for (ssize_t n; !done && (n = recv(client, buffer, sizeof buffer, 0)) > 0;) {
        input.append(buffer, static_cast<size_t>(n));
        for (size_t at; !done && (at = input.find(end_)) != std::string::npos;) {
          const std::string reply = answer_(input.substr(0, at + end_.size()));
          input.erase(0, at + end_.size());
          send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
          done = once_;
        }
      }
      close(client);
    }
  }
  int fd_;
  std::string end_;
  bool once_;
  std::string greeting_;
  std::function<std::string(const std::string&)> answer_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class SyncthingStateTest : public CloudTest {
 protected:
  void SetUp() override {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
    rest_ = std::make_unique<FakeClient>(fd, "\r\n\r\n", true, "",
                                         [this](const std::string& r) { return Answer(r); });
    const std::string root = root_.path() + "/synced";
    WriteFile(paths_.state_home + "/syncthing/config.xml",
              "<configuration version=\"37\">\n <folder id=\"docs\" path=\"" + root +
                  "\"></folder>\n <gui enabled=\"true\" tls=\"false\"><address>0.0.0.0:" +
                  std::to_string(ntohs(a.sin_port)) + "</address><apikey>" + kApiKey +
                  "</apikey></gui>\n</configuration>\n");
    docs_ = root + "/" + kContainer + "/Documents";
    WriteFile(docs_ + "/pending.corvane", "old version");
    WriteFile(docs_ + "/here.corvane", "current");
    Start();
    ASSERT_EQ(Text(Call("status"), "documents"), fs::canonical(docs_).string());
  }
  void TearDown() override {
    bridge_.reset();
    EXPECT_EQ(without_key_, 0);
  }
  // As Syncthing answers for "pending.corvane", a file still to come until it has arrived.
  std::string Answer(const std::string& request) {
    ++requests_;
    if (request.find(std::string("X-API-Key: ") + kApiKey + "\r\n") == std::string::npos) {
      return ++without_key_, "HTTP/1.0 403 Forbidden\r\n\r\n";
    }
    const std::string file = std::string(kContainer) + "%2FDocuments%2Fpending.corvane";
    std::string body;
    if (request.find("GET /rest/db/file?folder=docs&file=" + file + " ") == 0) {
      body =
          arrived_
              ? R"({"availability":[],"global":{"version":["P:2"]},"local":{"version":["P:2"]}})"
              : R"({"availability":[{"id":"P"}],"global":{"version":["P:2"]},"local":{"version":["P:1"]}})";
    } else if (request.find("GET /rest/db/need?folder=docs") == 0) {
      body = arrived_ ? R"({"progress":[],"queued":[],"rest":[]})"
                      : R"({"progress":[{"name":")" + std::string(kContainer) +
                            R"(/Documents/pending.corvane"}],"queued":[],"rest":[]})";
    } else {
      return "HTTP/1.0 404 Not Found\r\n\r\nNo such object in the index";
    }
    return "HTTP/1.0 200 OK\r\nContent-Type: application/json\r\n\r\n" + body;
  }
  Value Download(const std::string& name, Value timeout) {
    return Call("download", Map({{"path", Value(docs_ + "/" + name)}, {"timeoutMs", timeout}}));
  }
  Replies DownloadLater(Value timeout) {
    Replies waiting = Send(
        "download", Map({{"path", Value(docs_ + "/pending.corvane")}, {"timeoutMs", timeout}}));
    const int before = requests_;  // asked twice: the call is in its waiting loop
    dispatch::RunMainUntil([&] { return requests_ >= before + 2; }, 5s);
    return waiting;
  }
  std::unique_ptr<FakeClient> rest_;
  std::atomic<bool> arrived_{false};
  std::atomic<int> requests_{0}, without_key_{0};
  std::string docs_;
};

TEST_F(SyncthingStateTest, ItemsAndDownloadsFollowWhatSyncthingSays) {
  Call("startWatching");
  size_t from = 0;
  auto event = WaitEvent("items", &from);
  ASSERT_TRUE(event);
  for (const Value& item : Items(*event)) {
    const bool pending = Text(item, "relative") == "pending.corvane";
    EXPECT_EQ(Flag(item, "downloaded"), !pending) << Text(item, "relative");
    EXPECT_EQ(Flag(item, "downloading"), pending) << Text(item, "relative");
  }
  // A timeout far below zero answers at once, like zero; a link whose target is not on this
  // machine holds nothing to open.
  fs::create_symlink(docs_ + "/nowhere.corvane", docs_ + "/dangling.corvane");
  const std::vector<std::tuple<const char*, int64_t, bool>> cases = {
      {"here.corvane", 0, true},
      {"missing.corvane", 5000, false},
      {"pending.corvane", 0, false},
      {"pending.corvane", 100, false},
      {"pending.corvane", -10000000000000, false},
      {"dangling.corvane", 5000, false}};
  for (const auto& [name, timeout, downloaded] : cases) {
    EXPECT_EQ(Download(name, Value::Integer(timeout)), Value(downloaded)) << name << timeout;
  }
  // "timeoutMs" as a string means the default minute, not zero: still waiting when the file
  // arrives, and other calls are served meanwhile, however many downloads wait.
  std::vector<Replies> waiting;
  for (int i = 0; i < 8; ++i) waiting.push_back(DownloadLater(Value("5")));
  for (const Replies& w : waiting) EXPECT_TRUE(w->empty());
  EXPECT_EQ(Flag(Call("status"), "available"), true);
  arrived_ = true;
  dispatch::RunMainUntil(
      [&] {
        return std::none_of(waiting.begin(), waiting.end(), [](auto& w) { return w->empty(); });
      },
      10s);
  for (const Replies& w : waiting) EXPECT_EQ(w->at(0).value, Value(true));
}

TEST_F(SyncthingStateTest, ShutDownAnswersAWaitingDownload) {
  // Ten minutes to wait: the service going away ends the wait with its one answer.
  Replies waiting = DownloadLater(Value::Integer(600000));
  bridge_.reset();
  dispatch::RunMainUntil([&] { return !waiting->empty(); }, 5s);
  ASSERT_EQ(waiting->size(), 1u);
  EXPECT_EQ(waiting->front().value, Value(false));
}

TEST_F(CloudTest, NextcloudDesktopClientStatesShowInItems) {
  const std::string root = root_.path() + "/Nextcloud",
                    socket_path = paths_.runtime_dir + "/Nextcloud/socket";
  WriteFile(paths_.config_home + "/Nextcloud/nextcloud.cfg",
            "[Accounts]\n0\\Folders\\1\\localPath=" + root + "/\n0\\dav_user=ann\n");
  // uploaded, uploading, has an error; what the client answers for each.
  const std::map<std::string, std::tuple<bool, bool, bool, const char*>> expected = {
      {"syncing.corvane", {false, true, false, "SYNC"}},
      {"failed.corvane", {false, false, true, "ERROR"}},
      {"shared.corvane", {true, false, false, "OK+SWM"}},
      {"new.corvane", {false, false, false, "NEW"}},
      {"untracked.corvane", {true, false, false, "NOP"}}};
  for (const auto& [name, e] : expected)
    WriteFile(root + "/" + kContainer + "/Documents/" + name, "x");
  fs::create_directories(fs::path(socket_path).parent_path());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, socket_path.c_str(), sizeof a.sun_path - 1);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  std::atomic<int> asked{0};
  FakeClient client(fd, "\n", false, "REGISTER_PATH:" + root + "\n", [&](const std::string& line) {
    const std::string path = line.substr(21, line.size() - 22);  // RETRIEVE_FILE_STATUS:<path>\n
    ++asked;
    return "STATUS:" + std::string(std::get<3>(expected.at(fs::path(path).filename().string()))) +
           ":" + path + "\n";
  });
  Start();
  ASSERT_EQ(Flag(Call("status"), "available"), true);
  Call("startWatching");
  size_t from = 0;
  auto event = WaitEvent("items", &from);
  ASSERT_TRUE(event);
  ASSERT_EQ(Items(*event).size(), expected.size());
  for (const Value& item : Items(*event)) {
    const auto& [uploaded, uploading, error, status] = expected.at(Text(item, "relative"));
    EXPECT_EQ(std::make_tuple(Flag(item, "uploaded"), Flag(item, "uploading"),
                              Flag(item, "downloaded"), Field(item, "error") != nullptr),
              std::make_tuple(std::optional(uploaded), std::optional(uploading),
                              std::optional(true), error))
        << status;
  }
  EXPECT_EQ(asked, 5);
}

}  // namespace
}  // namespace corvane::cloud::testing
