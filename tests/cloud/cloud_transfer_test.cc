// Transfers between the container and local disk: replacement, parent folders, failures that
// leave everything as it was, and readers that never see half a file. Downloads that wait are
// in the Syncthing state test, where a client has files still to come.
#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

Value Args2(const char* k1, const std::string& v1, const char* k2, const std::string& v2) {
  return Map({{k1, Value(v1)}, {k2, Value(v2)}});
}

class TransferTest : public CloudTest {
 protected:
  void SetUp() override {
    docs_ = StartWithContainer();
    local_ = root_.path() + "/local";
    fs::create_directories(local_);
  }
  std::string docs_;
  std::string local_;
};

TEST_F(TransferTest, ReadCopiesOutReplacingAndCreatingFolders) {
  WriteFile(docs_ + "/a.corvane", "cloud content");
  SetModified(docs_ + "/a.corvane", 1718000000, 5000000);
  WriteFile(local_ + "/existing", "old local content that is longer");
  for (const std::string& to : {local_ + "/existing", local_ + "/new/deeper/copy"}) {
    const Value reply = Call("read", Args2("path", docs_ + "/a.corvane", "to", to));
    EXPECT_EQ(reply, Map({{"ok", Value(true)},
                          {"modifiedMs", Value::Integer(1718000000005)},
                          {"size", Value::Integer(13)}}));
    EXPECT_EQ(ReadFile(to), "cloud content");
  }
  // A missing cloud file leaves the local one alone and says why in the system's words.
  const Value missing =
      Call("read", Args2("path", docs_ + "/gone.corvane", "to", local_ + "/existing"));
  EXPECT_EQ(Flag(missing, "ok"), false);
  EXPECT_NE(Text(missing, "message").find("No such file"), std::string::npos);
  EXPECT_EQ(ReadFile(local_ + "/existing"), "cloud content");
}

TEST_F(TransferTest, WriteCopiesInAtomically) {
  WriteFile(local_ + "/mine", "new content");
  WriteFile(docs_ + "/a.corvane", "old");
  for (const std::string& path : {docs_ + "/a.corvane", docs_ + "/x/y/b.corvane"}) {
    const Value reply = Call("write", Args2("from", local_ + "/mine", "path", path));
    EXPECT_EQ(Flag(reply, "ok"), true);
    EXPECT_EQ(Integer(reply, "size"), 11);
    EXPECT_EQ(ReadFile(path), "new content");
  }
  // Failures: a missing local file, and a target whose folder is a file. The cloud file
  // keeps its content and no temporary file is left behind.
  WriteFile(docs_ + "/blocker", "file");
  mkfifo((local_ + "/pipe").c_str(), 0600);  // opening it must not wait for a writer
  struct Failing {
    std::string from, path;
  } failing[] = {{local_ + "/missing", docs_ + "/a.corvane"},
                 {local_ + "/mine", docs_ + "/blocker/c.corvane"},
                 {local_, docs_ + "/a.corvane"},
                 {local_ + "/pipe", docs_ + "/a.corvane"}};
  for (const auto& f : failing) {
    const Value reply = Call("write", Args2("from", f.from, "path", f.path));
    EXPECT_EQ(Flag(reply, "ok"), false) << f.from;
    EXPECT_FALSE(Text(reply, "message").empty());
  }
  EXPECT_EQ(ReadFile(docs_ + "/a.corvane"), "new content");
  EXPECT_EQ(ReadFile(docs_ + "/blocker"), "file");
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
  constexpr int kRounds = 12;
  for (int i = 0; i < kRounds; ++i) {
    calls.push_back(Send(
        "write", Args2("from", local_ + (i % 2 ? "/a" : "/b"), "path", docs_ + "/doc.corvane")));
    calls.push_back(Send(
        "read", Args2("path", docs_ + "/doc.corvane", "to", local_ + "/read" + std::to_string(i))));
  }
  dispatch::RunMainUntil(
      [&] {
        for (auto& c : calls) {
          if (c->empty()) return false;
        }
        return true;
      },
      30s);
  for (int i = 0; i < kRounds; ++i) {
    ASSERT_EQ(calls[2 * i + 1]->size(), 1u);
    EXPECT_EQ(Flag(calls[2 * i + 1]->front().value, "ok"), true);
    const std::string got = ReadFile(local_ + "/read" + std::to_string(i));
    EXPECT_TRUE(got == size_a || got == size_b) << "read " << i << " is torn: " << got.size();
  }
}

TEST_F(TransferTest, DeleteAndMove) {
  WriteFile(docs_ + "/a.corvane", "a");
  WriteFile(docs_ + "/b.corvane", "b");
  WriteFile(docs_ + "/folder/inner/c.corvane", "c");
  // A move never replaces what is already there.
  EXPECT_EQ(Call("move", Args2("from", docs_ + "/a.corvane", "to", docs_ + "/b.corvane")),
            Value(false));
  EXPECT_EQ(ReadFile(docs_ + "/b.corvane"), "b");
  EXPECT_EQ(Call("move", Args2("from", docs_ + "/a.corvane", "to", docs_ + "/moved.corvane")),
            Value(true));
  EXPECT_EQ(ReadFile(docs_ + "/moved.corvane"), "a");
  EXPECT_EQ(Call("move", Args2("from", docs_ + "/a.corvane", "to", docs_ + "/again.corvane")),
            Value(false));

  EXPECT_EQ(Call("delete", Map({{"path", Value(docs_ + "/moved.corvane")}})), Value(true));
  EXPECT_FALSE(fs::exists(docs_ + "/moved.corvane"));
  EXPECT_EQ(Call("delete", Map({{"path", Value(docs_ + "/moved.corvane")}})), Value(false));
  EXPECT_EQ(Call("delete", Map({{"path", Value(docs_ + "/folder")}})), Value(true));
  EXPECT_FALSE(fs::exists(docs_ + "/folder"));
}

TEST_F(TransferTest, SetUbiquitousMovesAcrossFileSystems) {
  // /dev/shm is a separate file system here, so the move copies, syncs and removes.
  TempDir other("/dev/shm");
  const std::string outside = other.path() + "/project.corvane";
  WriteFile(outside, "project");
  const std::string inside = docs_ + "/sub/project.corvane";
  EXPECT_EQ(Call("setUbiquitous", Args2("from", outside, "to", inside)), Value(true));
  EXPECT_EQ(ReadFile(inside), "project");
  EXPECT_FALSE(fs::exists(outside));

  // Back out, "toCloud" false; then a destination that exists keeps both files.
  Value back = Map({{"from", Value(inside)},
                    {"to", Value(other.path() + "/back/p.corvane")},
                    {"toCloud", Value(false)}});
  EXPECT_EQ(Call("setUbiquitous", back), Value(true));
  EXPECT_EQ(ReadFile(other.path() + "/back/p.corvane"), "project");
  WriteFile(inside, "newer");
  EXPECT_EQ(Call("setUbiquitous", Args2("from", other.path() + "/back/p.corvane", "to", inside)),
            Value(false));
  EXPECT_EQ(ReadFile(inside), "newer");
  EXPECT_EQ(ReadFile(other.path() + "/back/p.corvane"), "project");
  EXPECT_EQ(Call("setUbiquitous", Args2("from", other.path() + "/none", "to", inside + "2")),
            Value(false));
}

TEST_F(TransferTest, NothingOutsideTheContainerIsRemovedMovedOrWritten) {
  // Local files, a link inside the container that leads out, and relative or climbing paths.
  WriteFile(local_ + "/keep", "keep");
  fs::create_directory_symlink(local_, docs_ + "/out");
  WriteFile(docs_ + "/in.corvane", "in");
  const std::string via_link = docs_ + "/out/keep";
  const std::string climbing = docs_ + "/../../local/keep";
  for (const std::string& victim : {local_ + "/keep", via_link, climbing, std::string("keep"),
                                    docs_ + "/missing/../../../local/keep"}) {
    SCOPED_TRACE(victim);
    EXPECT_EQ(Call("delete", Map({{"path", Value(victim)}})), Value(false));
    EXPECT_EQ(Call("move", Args2("from", victim, "to", docs_ + "/taken.corvane")), Value(false));
    EXPECT_EQ(Call("move", Args2("from", docs_ + "/in.corvane", "to", victim + "2")), Value(false));
    EXPECT_EQ(Call("resolveConflicts", Map({{"path", Value(victim)}})), Value(false));
    EXPECT_EQ(Flag(Call("write", Args2("from", docs_ + "/in.corvane", "path", victim)), "ok"),
              false);
    EXPECT_EQ(Flag(Call("read", Args2("path", victim, "to", local_ + "/copy")), "ok"), false);
    EXPECT_EQ(Call("setUbiquitous", Args2("from", docs_ + "/in.corvane", "to", victim)),
              Value(false));
  }
  fs::create_symlink(local_ + "/keep", docs_ + "/linked.corvane");
  EXPECT_EQ(
      Flag(Call("read", Args2("path", docs_ + "/linked.corvane", "to", local_ + "/copy")), "ok"),
      false);
  EXPECT_EQ(ReadFile(local_ + "/keep"), "keep");
  EXPECT_EQ(ReadFile(docs_ + "/in.corvane"), "in");
  EXPECT_FALSE(fs::exists(local_ + "/copy"));
  EXPECT_FALSE(fs::exists(docs_ + "/taken.corvane"));
  // A folder never travels with setUbiquitous, and the link itself may go.
  fs::create_directories(local_ + "/folder");
  EXPECT_EQ(Call("setUbiquitous", Args2("from", local_ + "/folder", "to", docs_ + "/f")),
            Value(false));
  EXPECT_EQ(Call("delete", Map({{"path", Value(docs_ + "/out")}})), Value(true));
  EXPECT_EQ(ReadFile(local_ + "/keep"), "keep");
}

}  // namespace
}  // namespace corvane::cloud::testing
