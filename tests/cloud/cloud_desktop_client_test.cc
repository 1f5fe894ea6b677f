// Per-file state from the Nextcloud desktop client's socket. No desktop client runs on a
// build machine, so a listener on the client's socket path answers as the client does: it
// announces its folder, then one STATUS line per request.
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

class FakeDesktopClient {
 public:
  FakeDesktopClient(const std::string& socket_path, std::string root,
                    std::map<std::string, std::string> statuses)
      : root_(std::move(root)), statuses_(std::move(statuses)) {
    fs::create_directories(fs::path(socket_path).parent_path());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, socket_path.c_str(), sizeof a.sun_path - 1);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd_, 8);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeDesktopClient() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  std::atomic<int> asked{0};

 private:
  void Serve() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) != 1) continue;
      const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      Reply(client, "REGISTER_PATH:" + root_ + "\n");
      std::string input;
      char buffer[4096];
      ssize_t n;
      while ((n = recv(client, buffer, sizeof buffer, 0)) > 0) {
        input.append(buffer, static_cast<size_t>(n));
        size_t newline;
        while ((newline = input.find('\n')) != std::string::npos) {
          const std::string path = input.substr(21, newline - 21);  // after RETRIEVE_FILE_STATUS:
          input.erase(0, newline + 1);
          ++asked;
          auto it = statuses_.find(fs::path(path).filename());
          Reply(client,
                "STATUS:" + (it == statuses_.end() ? "NOP" : it->second) + ":" + path + "\n");
        }
      }
      close(client);
    }
  }
  static void Reply(int fd, const std::string& line) {
    send(fd, line.data(), line.size(), MSG_NOSIGNAL);
  }

  std::string root_;
  std::map<std::string, std::string> statuses_;
  int fd_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST_F(CloudTest, NextcloudDesktopClientStatesShowInItems) {
  const std::string root = root_.path() + "/Nextcloud";
  WriteFile(paths_.config_home + "/Nextcloud/nextcloud.cfg",
            "[Accounts]\n0\\Folders\\1\\localPath=" + root + "/\n0\\dav_user=ann\n");
  const std::string docs = root + "/" + kContainer + "/Documents";
  FakeDesktopClient client(paths_.runtime_dir + "/Nextcloud/socket", root,
                           {{"syncing.corvane", "SYNC"},
                            {"failed.corvane", "ERROR"},
                            {"shared.corvane", "OK+SWM"},
                            {"new.corvane", "NEW"}});
  for (const char* name : {"syncing.corvane", "failed.corvane", "shared.corvane", "new.corvane",
                           "untracked.corvane"}) {
    WriteFile(docs + "/" + name, "x");
  }
  Start();
  ASSERT_EQ(Flag(Call("status"), "available"), true);
  Call("startWatching");
  size_t from = 0;
  auto event = WaitEvent("items", &from);
  ASSERT_TRUE(event);
  struct Expected {
    bool uploaded, uploading, has_error;
  };
  const std::map<std::string, Expected> expected = {{"syncing.corvane", {false, true, false}},
                                                    {"failed.corvane", {false, false, true}},
                                                    {"shared.corvane", {true, false, false}},
                                                    {"new.corvane", {false, false, false}},
                                                    {"untracked.corvane", {true, false, false}}};
  ASSERT_EQ(Field(*event, "items")->list_if()->size(), expected.size());
  for (const Value& item : *Field(*event, "items")->list_if()) {
    const std::string name = Text(item, "relative");
    const Expected& e = expected.at(name);
    EXPECT_EQ(Flag(item, "uploaded"), e.uploaded) << name;
    EXPECT_EQ(Flag(item, "uploading"), e.uploading) << name;
    EXPECT_EQ(Flag(item, "downloaded"), true) << name;
    EXPECT_EQ(Field(item, "error") != nullptr, e.has_error) << name;
  }
  EXPECT_EQ(client.asked, 5);
}

}  // namespace
}  // namespace corvane::cloud::testing
