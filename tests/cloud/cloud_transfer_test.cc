// Transfers between the container and local disk, and the container's edge: replacement,
// parent folders, failures that leave everything as it was, readers that never see half a file,
// paths that are relative or lead out, and a folder swapped with a link while calls run.
#include <linux/fs.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>

#include "channel/log.h"
#include "cloud/container_dir.h"
#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

Value Args2(const char* k1, const std::string& v1, const char* k2, const std::string& v2) {
  return Map({{k1, Value(v1)}, {k2, Value(v2)}});
}
bool Refused(const Value& reply) {
  return reply == Value(false) || reply == Value() || Flag(reply, "ok") == false;
}

class TransferTest : public CloudTest {
 protected:
  void SetUp() override {
    docs_ = StartWithContainer();
    local_ = root_.path() + "/local";
    WriteFile(local_ + "/mine", "new content");
  }
  std::string docs_, local_;
};

TEST_F(TransferTest, ReadAndWriteReplaceAndCreateFolders) {
  WriteFile(docs_ + "/a.corvane", "cloud content");
  SetModified(docs_ + "/a.corvane", 1718000000, 5000000);
  const Value read_reply = Map({{"ok", Value(true)},
                                {"modifiedMs", Value::Integer(1718000000005)},
                                {"size", Value::Integer(13)}});
  for (const std::string& to : {local_ + "/mine", local_ + "/new/deeper/copy"}) {
    EXPECT_EQ(Call("read", Args2("path", docs_ + "/a.corvane", "to", to)), read_reply);
    EXPECT_EQ(ReadFile(to), "cloud content");
  }
  WriteFile(local_ + "/mine", "new content");
  for (const std::string& path : {docs_ + "/a.corvane", docs_ + "/x/y/b.corvane"}) {
    const Value reply = Call("write", Args2("from", local_ + "/mine", "path", path));
    EXPECT_EQ(Integer(reply, "size"), 11);
    EXPECT_EQ(ReadFile(path), "new content");
  }
  // Failures say why and leave the cloud file, and no temporary file, behind.
  WriteFile(docs_ + "/blocker", "file");
  mkfifo((local_ + "/pipe").c_str(), 0600);  // opening it must not wait for a writer
  for (const auto& [from, path] : std::vector<std::pair<std::string, std::string>>{
           {local_ + "/missing", docs_ + "/a.corvane"},
           {local_ + "/mine", docs_ + "/blocker/c.corvane"},
           {local_, docs_ + "/a.corvane"},
           {local_ + "/pipe", docs_ + "/a.corvane"}}) {
    EXPECT_NE(Text(Call("write", Args2("from", from, "path", path)), "message"), "<none>") << from;
  }
  const Value missing = Call("read", Args2("path", docs_ + "/gone", "to", local_ + "/mine"));
  EXPECT_NE(Text(missing, "message").find("No such file"), std::string::npos);
  EXPECT_EQ(ReadFile(local_ + "/mine"), "new content");
  EXPECT_EQ(ReadFile(docs_ + "/a.corvane"), "new content");
  size_t entries = 0;
  for (const auto& e : fs::directory_iterator(docs_)) entries += e.path().filename() != "x";
  EXPECT_EQ(entries, 2u);  // a.corvane and blocker
}

TEST_F(TransferTest, ReadersNeverSeeAHalfWrittenFile) {
  const std::string size_a(1 << 20, 'a'), size_b(1 << 20, 'b');
  WriteFile(local_ + "/a", size_a);
  WriteFile(local_ + "/b", size_b);
  WriteFile(docs_ + "/doc.corvane", size_a);
  std::vector<Replies> calls;
  const std::string doc = docs_ + "/doc.corvane";
  for (int i = 0; i < 12; ++i) {
    calls.push_back(Send("write", Args2("from", local_ + (i % 2 ? "/a" : "/b"), "path", doc)));
    calls.push_back(Send("read", Args2("path", doc, "to", local_ + "/read" + std::to_string(i))));
  }
  dispatch::RunMainUntil(
      [&] { return std::all_of(calls.begin(), calls.end(), [](auto& c) { return !c->empty(); }); },
      30s);
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(Flag(calls[2 * i + 1]->front().value, "ok"), true);
    const std::string got = ReadFile(local_ + "/read" + std::to_string(i));
    EXPECT_TRUE(got == size_a || got == size_b) << "read " << i << " is torn: " << got.size();
  }
}

TEST_F(TransferTest, DeleteAndMove) {
  WriteFile(docs_ + "/a.corvane", "a");
  WriteFile(docs_ + "/b.corvane", "b");
  WriteFile(docs_ + "/folder/inner/c.corvane", "c");
  fs::create_symlink(local_, docs_ + "/folder/inner/out");
  struct Case {
    const char* method;
    Value args;
    bool ok;
  } cases[] = {
      // A move never replaces what is already there.
      {"move", Args2("from", docs_ + "/a.corvane", "to", docs_ + "/b.corvane"), false},
      {"move", Args2("from", docs_ + "/a.corvane", "to", docs_ + "/moved.corvane"), true},
      {"move", Args2("from", docs_ + "/a.corvane", "to", docs_ + "/again.corvane"), false},
      {"delete", Map({{"path", Value(docs_ + "/moved.corvane")}}), true},
      {"delete", Map({{"path", Value(docs_ + "/moved.corvane")}}), false},
      {"delete", Map({{"path", Value(docs_ + "/folder")}}),
       true},  // links in it go, not where they lead
  };
  for (auto& c : cases) EXPECT_EQ(Call(c.method, c.args), Value(c.ok)) << c.method;
  EXPECT_EQ(ReadFile(docs_ + "/b.corvane"), "b");
  EXPECT_FALSE(fs::exists(docs_ + "/folder"));
  EXPECT_EQ(ReadFile(local_ + "/mine"), "new content");
}

TEST_F(TransferTest, SetUbiquitousMovesAcrossFileSystems) {
  // /dev/shm is a separate file system here, so the move copies, syncs and removes.
  TempDir other("/dev/shm");
  const std::string outside = other.path() + "/p.corvane", inside = docs_ + "/sub/p.corvane";
  WriteFile(outside, "project");
  EXPECT_EQ(Call("setUbiquitous", Args2("from", outside, "to", inside)), Value(true));
  EXPECT_EQ(ReadFile(inside), "project");
  EXPECT_FALSE(fs::exists(outside));
  // Back out; then a destination that exists keeps both files, and a folder never travels.
  const std::string back = other.path() + "/back/p.corvane";
  EXPECT_EQ(Call("setUbiquitous",
                 Map({{"from", Value(inside)}, {"to", Value(back)}, {"toCloud", Value(false)}})),
            Value(true));
  WriteFile(inside, "newer");
  EXPECT_EQ(Call("setUbiquitous", Args2("from", back, "to", inside)), Value(false));
  EXPECT_EQ(Call("setUbiquitous", Args2("from", other.path() + "/back", "to", inside + "2")),
            Value(false));
  EXPECT_EQ(ReadFile(inside) + ReadFile(back), "newerproject");
}

TEST_F(TransferTest, NothingOutsideTheContainerIsTouchedAndRelativePathsAreRefused) {
  // Local files, a link inside that leads out, climbing paths, and a relative path that the
  // working folder would resolve.
  WriteFile(local_ + "/keep", "keep");
  fs::create_directory_symlink(local_, docs_ + "/out");
  WriteFile(docs_ + "/in.corvane", "in");
  const std::string copy = docs_ + "/in.sync-conflict-20240610-101500-ABCDEFG.corvane";
  WriteFile(copy, "copy");
  SetModified(copy, 1718000000);
  const fs::path cwd = fs::current_path();
  fs::current_path(local_);
  const std::string in = docs_ + "/in.corvane", id = "0|1718000000000";
  for (const std::string& v : {local_ + "/keep", docs_ + "/out/keep", docs_ + "/../../local/keep",
                               std::string("keep"), docs_ + "/missing/../../../local/keep"}) {
    std::vector<std::pair<const char*, Value>> calls = {
        {"delete", Map({{"path", Value(v)}})},
        {"move", Args2("from", v, "to", docs_ + "/taken.corvane")},
        {"move", Args2("from", in, "to", v + "2")},
        {"resolveConflicts", Map({{"path", Value(v)}})},
        {"write", Args2("from", in, "path", v)},
        {"read", Args2("path", v, "to", local_ + "/copy")},
        {"setUbiquitous", Args2("from", in, "to", v)},
        {"saveVersion", Map({{"path", Value(in)}, {"version", Value(id)}, {"to", Value(v)}})}};
    if (v[0] != '/') {  // the local end of a transfer may be anywhere, but never relative
      calls.insert(calls.end(),
                   {{"read", Args2("path", in, "to", v)},
                    {"write", Args2("from", v, "path", docs_ + "/taken.corvane")},
                    {"setUbiquitous", Args2("from", v, "to", docs_ + "/taken.corvane")},
                    {"setUbiquitous",
                     Map({{"from", Value(in)}, {"to", Value(v)}, {"toCloud", Value(false)}})},
                    {"download", Map({{"path", Value(v)}})},
                    {"versions", Map({{"path", Value(v)}})}});
    }
    for (auto& [method, args] : calls) EXPECT_TRUE(Refused(Call(method, args))) << method << v;
  }
  fs::current_path(cwd);
  EXPECT_EQ(ReadFile(local_ + "/keep") + ReadFile(in) + ReadFile(copy), "keepincopy");
  EXPECT_FALSE(fs::exists(local_ + "/copy") || fs::exists(docs_ + "/taken.corvane"));
  EXPECT_FALSE(fs::exists(local_ + "/keep2"));
}

TEST_F(TransferTest, LogLinesStayShort) {
  size_t longest = 0, lines = 0;
  channel::SetLogSink([&](channel::LogLevel, std::string_view, std::string_view line) {
    longest = std::max(longest, line.size()), ++lines;
  });
  const std::string huge = "/" + std::string(16 << 20, 'a');
  EXPECT_EQ(Call("delete", Map({{"path", Value(huge)}})), Value(false));
  channel::SetLogSink(nullptr);
  EXPECT_GE(lines, 1u);
  EXPECT_LE(longest, channel::kMaxLogLine);
}

TEST_F(TransferTest, AFolderSwappedWithALinkNeverLeadsOut) {
  constexpr int kRounds = 200;
  const std::string copy = "doc.sync-conflict-20240610-101500-ABCDEFG.corvane";
  for (bool walk : {false, true}) {  // with openat2, and folder by folder as without it
    UseComponentWalk(walk);
    const std::string sub = docs_ + "/sub" + std::to_string(walk), link = sub + "-link";
    const std::string outside = root_.path() + "/outside" + std::to_string(walk);
    for (const std::string& folder : {sub, outside}) {
      for (int i = 0; i < kRounds; ++i) WriteFile(folder + "/victim" + std::to_string(i), "");
    }
    WriteFile(outside + "/doc.corvane", "outside");
    fs::create_directory_symlink(outside, link);
    // The test itself reaches the folder through a descriptor, whatever its name just now.
    const int fd = open(sub.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::string real = "/proc/self/fd/" + std::to_string(fd);
    std::map<std::string, int> escapes;
    std::atomic<bool> stop{false};
    std::thread flipper([&] {  // swaps the folder and the link, over and over
      while (!stop)
        syscall(SYS_renameat2, AT_FDCWD, sub.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
    });
    for (int i = 0; i < kRounds; ++i) {
      const std::string n = std::to_string(i), doc = sub + "/doc.corvane";
      WriteFile(real + "/doc.corvane", "inside");
      for (const std::string& folder : {outside, real}) {
        WriteFile(folder + "/" + copy, folder == outside ? "outside" : "copy");
        SetModified(folder + "/" + copy, 1718000000);
      }
      Call("read", Args2("path", doc, "to", local_ + "/read"));
      escapes["read"] += ReadFile(local_ + "/read") == "outside";
      Call("write", Args2("from", local_ + "/mine", "path", sub + "/new" + n));
      escapes["write"] += fs::exists(outside + "/new" + n);
      Call("saveVersion", Map({{"path", Value(doc)},
                               {"version", Value("0|1718000000000")},
                               {"to", Value(sub + "/saved" + n)}}));
      escapes["saveVersion"] += fs::exists(outside + "/saved" + n);
      Call("delete", Map({{"path", Value(sub + "/victim" + n)}}));
      escapes["delete"] += !fs::exists(outside + "/victim" + n);
      Call("resolveConflicts", Map({{"path", Value(doc)}, {"keep", Value("0|1718000000000")}}));
      escapes["resolveConflicts"] += !fs::exists(outside + "/" + copy);
      escapes["resolveConflicts"] += ReadFile(real + "/doc.corvane") == "outside";
    }
    stop = true;
    flipper.join();
    close(fd);
    EXPECT_EQ(ReadFile(outside + "/doc.corvane"), "outside");
    EXPECT_EQ(
        escapes,
        (std::map<std::string, int>{
            {"read", 0}, {"write", 0}, {"saveVersion", 0}, {"delete", 0}, {"resolveConflicts", 0}}))
        << "walking folder by folder: " << walk;
  }
  UseComponentWalk(false);
}

}  // namespace
}  // namespace corvane::cloud::testing
