// The container's edge under attack: a folder swapped with a link while calls run, paths that
// are relative or lead out, names that are not UTF-8, and paths too long to log.
#include <linux/fs.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>

#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

constexpr int kRounds = 200;

// Swaps a folder and a link to a folder outside, over and over, until told to stop.
class Flipper {
 public:
  Flipper(std::string a, std::string b) : a_(std::move(a)), b_(std::move(b)) {
    thread_ = std::thread([this] {
      while (!stop_) {
        syscall(SYS_renameat2, AT_FDCWD, a_.c_str(), AT_FDCWD, b_.c_str(), RENAME_EXCHANGE);
      }
    });
  }
  ~Flipper() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::string a_, b_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class ConfinementTest : public CloudTest {
 protected:
  void SetUp() override {
    docs_ = StartWithContainer();
    outside_ = root_.path() + "/outside";
    local_ = root_.path() + "/local";
    fs::create_directories(local_);
    WriteFile(local_ + "/mine", "mine");
  }
  // Every file below `folder` with its content.
  static std::map<std::string, std::string> Tree(const std::string& folder) {
    std::map<std::string, std::string> tree;
    for (const auto& e : fs::recursive_directory_iterator(folder)) {
      if (e.is_regular_file()) tree[e.path().string()] = ReadFile(e.path());
    }
    return tree;
  }
  std::string docs_, outside_, local_;
};

TEST_F(ConfinementTest, AFolderSwappedWithALinkNeverLeadsOut) {
  const std::string copy = "doc.sync-conflict-20240610-101500-ABCDEFG.corvane";
  for (const std::string& folder : {docs_ + "/sub", outside_}) {
    const std::string who = folder == outside_ ? "outside" : "inside";
    WriteFile(folder + "/doc.corvane", who);
    for (int i = 0; i < kRounds; ++i) WriteFile(folder + "/victim" + std::to_string(i), who);
  }
  fs::create_directory_symlink(outside_, docs_ + "/link");
  // The test itself reaches the folder through a descriptor, whatever its name at the moment.
  const int sub = open((docs_ + "/sub").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::string in = "/proc/self/fd/" + std::to_string(sub);
  std::map<std::string, int> escapes;
  {
    Flipper flipper(docs_ + "/sub", docs_ + "/link");
    for (int i = 0; i < kRounds; ++i) {
      const std::string n = std::to_string(i);
      const std::string doc = docs_ + "/sub/doc.corvane";
      Call("read", Map({{"path", Value(doc)}, {"to", Value(local_ + "/read")}}));
      escapes["read"] += ReadFile(local_ + "/read") == "outside";
      Call("write", Map({{"from", Value(local_ + "/mine")},
                         {"path", Value(docs_ + "/sub/new" + n + ".corvane")}}));
      escapes["write"] += fs::exists(outside_ + "/new" + n + ".corvane");
      Call("delete", Map({{"path", Value(docs_ + "/sub/victim" + n)}}));
      escapes["delete"] += !fs::exists(outside_ + "/victim" + n);
      for (const std::string& folder : {outside_, in}) {
        WriteFile(folder + "/" + copy, folder == outside_ ? "outside" : "copy");
        SetModified(folder + "/" + copy, 1718000000);
      }
      Call("resolveConflicts", Map({{"path", Value(doc)}, {"keep", Value("0|1718000000000")}}));
      escapes["resolve"] += !fs::exists(outside_ + "/" + copy);
      escapes["resolve"] += ReadFile(in + "/doc.corvane") == "outside";
      WriteFile(in + "/doc.corvane", "inside");
    }
  }
  close(sub);
  EXPECT_EQ(ReadFile(outside_ + "/doc.corvane"), "outside");
  EXPECT_EQ(escapes, (std::map<std::string, int>{{"read", 0}, {"write", 0}, {"delete", 0}, {"resolve", 0}}));
}

}  // namespace
}  // namespace corvane::cloud::testing
