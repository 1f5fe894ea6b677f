// Conflict copies of the three sync clients as conflict versions: recognised by name, ordered,
// saved and resolved.
#include "cloud/conflict_names.h"
#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

TEST(ConflictNames, EachClientsRule) {
  struct Case {
    const char* name;
    const char* original;  // nullptr: not a conflict copy
    const char* device;
    SyncClientKind client;
  } cases[] = {
      // Syncthing: tag before the last dot, the winner's short device id at its end.
      {"doc.sync-conflict-20261122-232442-4DT4ZUA.corvane", "doc.corvane", "4DT4ZUA",
       SyncClientKind::kSyncthing},
      {"x.tar.sync-conflict-20261122-232442-XIPTYYM.gz", "x.tar.gz", "XIPTYYM",
       SyncClientKind::kSyncthing},
      {"noext.sync-conflict-20261122-232442-I45TAVZ", "noext", "I45TAVZ",
       SyncClientKind::kSyncthing},
      {".sync-conflict-20261122-232442-ABCDEFG.hidden", ".hidden", "ABCDEFG",
       SyncClientKind::kSyncthing},
      // Nextcloud and ownCloud, with and without the user, and the older form.
      {"doc (conflicted copy 2024-06-10 101500).corvane", "doc.corvane", "",
       SyncClientKind::kNextcloud},
      {"my doc (conflicted copy Alice _home_ 2024-06-10 101500).corvane", "my doc.corvane",
       "Alice _home_", SyncClientKind::kNextcloud},
      {"doc_conflict-20240610-101500.corvane", "doc.corvane", "", SyncClientKind::kNextcloud},
      // Dropbox: the owner may hold "'s" itself; a second copy of the day gets a counter. A
      // device name that is not UTF-8 is made so.
      {"doc (Pierre's MacBook Pro's conflicted copy 2024-06-10).corvane", "doc.corvane",
       "Pierre's MacBook Pro", SyncClientKind::kDropbox},
      {"plan (v2) (Ann\xff's conflicted copy 2024-06-10 (1)).corvanepack", "plan (v2).corvanepack",
       "Ann\xef\xbf\xbd", SyncClientKind::kDropbox},
      // Look-alikes that are not conflict copies.
      {"doc (copy).corvane", nullptr, "", SyncClientKind::kFolder},
      {"doc (case clash from 2024-06-10 101500).corvane", nullptr, "", SyncClientKind::kFolder},
      {"doc.sync-conflict-2024-ABCDEFG.corvane", nullptr, "", SyncClientKind::kFolder},
      {"doc.sync-conflict-20261122-232442-abcdefg.corvane", nullptr, "", SyncClientKind::kFolder},
      {"doc (conflicted copy 2024-06-10).corvane", nullptr, "", SyncClientKind::kFolder},
      {"doc (Ann's conflicted copy 10-06-2024).corvane", nullptr, "", SyncClientKind::kFolder},
  };
  for (const auto& c : cases) {
    auto parsed = ParseConflictCopyName(c.name);
    EXPECT_EQ(parsed.has_value(), c.original != nullptr) << c.name;
    if (!parsed || !c.original) continue;
    EXPECT_EQ(parsed->original + "|" + parsed->device, std::string(c.original) + "|" + c.device);
    EXPECT_EQ(parsed->client, c.client) << c.name;
  }
}

class ConflictTest : public CloudTest {
 protected:
  void SetUp() override {
    docs_ = StartWithContainer();
    doc_ = docs_ + "/doc.corvane";
    WriteFile(doc_, "current");
    SetModified(doc_, 1718000009);
    // Two copies saved in the same millisecond: the position still tells them apart; the
    // names' byte order breaks the tie ("doc (B" before "doc (c").
    Copy("doc (conflicted copy Alice 2024-06-10 101500).corvane", "from alice", 1718000002);
    Copy("doc.sync-conflict-20240610-101500-ABCDEFG.corvane", "from syncthing", 1718000001);
    Copy("doc (Bob's conflicted copy 2024-06-10).corvane", "from bob", 1718000002);
    Copy("other.sync-conflict-20240610-101500-ABCDEFG.corvane", "not ours", 1718000000);
  }
  void Copy(const std::string& name, const std::string& content, int64_t seconds) {
    WriteFile(docs_ + "/" + name, content);
    SetModified(docs_ + "/" + name, seconds);
  }
  Value Versions() { return Call("versions", Map({{"path", Value(doc_)}})); }
  std::vector<std::string> Ids() {
    std::vector<std::string> ids;
    const Value versions = Versions();
    for (const Value& v : *Field(versions, "conflicts")->list_if()) ids.push_back(Text(v, "id"));
    return ids;
  }
  bool Save(const std::string& id, const std::string& to) {
    return Call("saveVersion",
                Map({{"path", Value(doc_)}, {"version", Value(id)}, {"to", Value(to)}})) ==
           Value(true);
  }
  Value Resolve(std::optional<std::string> keep) {
    ValueMap args = *Map({{"path", Value(doc_)}}).map_if();
    if (keep) args.Append(Value("keep"), Value(*keep));
    return Call("resolveConflicts", Value(std::move(args)));
  }
  std::string docs_, doc_;
};

Value Entry(const std::string& id, const std::string& device, int64_t ms) {
  return Map({{"id", Value(id)}, {"device", Value(device)}, {"modifiedMs", Value::Integer(ms)}});
}

TEST_F(ConflictTest, VersionsListsTheCopiesOldestFirst) {
  EXPECT_EQ(
      Versions(),
      Map({{"current", Entry("current", "", 1718000009000)},
           {"conflicts", Value(ValueList{Entry("0|1718000001000", "ABCDEFG", 1718000001000),
                                         Entry("1|1718000002000", "Bob", 1718000002000),
                                         Entry("2|1718000002000", "Alice", 1718000002000)})}}));
  // Without conflicts, and without the file at all.
  EXPECT_EQ(
      Call("versions", Map({{"path", Value(docs_ + "/other.corvane")}})),
      Map({{"conflicts", Value(ValueList{Entry("0|1718000000000", "ABCDEFG", 1718000000000)})}}));
  WriteFile(docs_ + "/alone.corvane", "x");
  SetModified(docs_ + "/alone.corvane", 1);
  EXPECT_EQ(Call("versions", Map({{"path", Value(docs_ + "/alone.corvane")}})),
            Map({{"current", Entry("current", "", 1000)}, {"conflicts", Value(ValueList())}}));
}

TEST_F(ConflictTest, SaveVersionWritesTheChosenCopy) {
  const std::string to = docs_ + "/saved/nested/copy.corvane", never = docs_ + "/never";
  EXPECT_TRUE(Save("1|1718000002000", to));
  EXPECT_EQ(ReadFile(to), "from bob");
  EXPECT_TRUE(Save("2|1718000002000", to));
  EXPECT_EQ(ReadFile(to), "from alice");
  // "current" and ids that no longer match save nothing.
  for (const char* id : {"current", "3|1718000002000", "0|1718000002000", "1|171800000200"}) {
    EXPECT_FALSE(Save(id, never)) << id;
  }
  // Another device's copy arrives and the positions shift: the old id is stale.
  Copy("doc (Carl's conflicted copy 2024-06-09).corvane", "from carl", 1718000000);
  EXPECT_FALSE(Save("0|1718000001000", never));
  EXPECT_FALSE(fs::exists(never));
  EXPECT_TRUE(Save("1|1718000001000", to));
  EXPECT_EQ(ReadFile(to), "from syncthing");
}

TEST_F(ConflictTest, ResolveKeepsOneVersionAndRemovesTheRest) {
  struct Case {
    std::optional<std::string> keep;
    const char* content;
  } cases[] = {{"2|1718000002000", "from alice"},
               {std::nullopt, "current"},
               {"current", "current"},
               {"0|1", "current"}};  // stale: keeps the current content, still resolves
  for (const auto& c : cases) {
    SetUp();
    EXPECT_EQ(Resolve(c.keep), Value(true)) << c.keep.value_or("<none>");
    EXPECT_EQ(ReadFile(doc_), c.content);
    EXPECT_TRUE(Ids().empty());
    EXPECT_EQ(ReadFile(docs_ + "/other.sync-conflict-20240610-101500-ABCDEFG.corvane"), "not ours");
  }
}

TEST_F(ConflictTest, ResolvingAMissingFileKeepsItsCopies) {
  fs::remove(doc_);
  EXPECT_EQ(Resolve(std::nullopt), Value(false));
  EXPECT_EQ(Ids().size(), 3u);
  EXPECT_EQ(Resolve("0|1718000001000"), Value(true));
  EXPECT_EQ(ReadFile(doc_), "from syncthing");
  EXPECT_TRUE(Ids().empty());
}

}  // namespace
}  // namespace corvane::cloud::testing
