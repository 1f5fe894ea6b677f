// The live listing of Documents: what counts as a document, the item maps, and changes on
// disk arriving as "items" events.
#include <atomic>
#include <future>
#include <set>

#include "channel/log.h"
#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

std::set<std::string> Relatives(const Value& event) {
  std::set<std::string> names;
  for (const Value& item : Items(event)) names.insert(Text(item, "relative"));
  return names;
}
const Value& ItemNamed(const Value& event, const std::string& relative) {
  for (const Value& item : Items(event)) {
    if (Text(item, "relative") == relative) return item;
  }
  return event;
}

// The synced-folder store, except that its first report on a folder's files waits until the
// test lets it go, so that a later listing can finish first.
class HeldStore final : public CloudStore {
 public:
  explicit HeldStore(std::shared_ptr<CloudStore> inner) : inner_(std::move(inner)) {}
  ContainerLocation Locate(const std::string& id) override { return inner_->Locate(id); }
  std::vector<std::string> ConfigurationFiles() override { return inner_->ConfigurationFiles(); }
  std::optional<ItemState> ClientState(const std::string& path) override {
    return inner_->ClientState(path);
  }
  std::map<std::string, ItemState> ClientStates(const std::string& folder,
                                                const std::vector<std::string>& paths) override {
    if (holding.exchange(true)) return inner_->ClientStates(folder, paths);
    released_.wait_for(10s);
    auto states = inner_->ClientStates(folder, paths);
    held_done = true;
    return states;
  }
  bool StartDownloading(const std::string& path, std::string* error) override {
    return inner_->StartDownloading(path, error);
  }
  std::vector<ConflictVersion> ConflictVersions(int folder, const std::string& name) override {
    return inner_->ConflictVersions(folder, name);
  }
  void Release() { release_.set_value(); }
  std::atomic<bool> holding{false};
  std::atomic<bool> held_done{false};

 private:
  std::shared_ptr<CloudStore> inner_;
  std::promise<void> release_;
  std::shared_future<void> released_ = release_.get_future().share();
};

class WatchTest : public CloudTest {
 protected:
  // Waits for an "items" event listing exactly `expected`.
  std::optional<Value> WaitItems(const std::set<std::string>& expected) {
    return WaitEvent("items", &from_, [&](const Value& e) { return Relatives(e) == expected; });
  }
  size_t from_ = 0;
};

TEST_F(WatchTest, NameRulesAndTheDocumentsBoundary) {
  const std::string docs = StartWithContainer();
  for (const char* name :
       {"a.corvane", "B.CorvanePack", "corvane-backup-2024.zip", "sub/deep/c.corvane",
        "Corvane-backup-x", "notes.txt", "a.corvane.txt", ".hidden.corvane",
        ".stversions/old.corvane", "corvane", "not utf-8 \xff.corvane"}) {
    WriteFile(docs + "/" + name, "x");
  }
  WriteFile(docs + "/../outside.corvane", "x");
  // A name that is not UTF-8 cannot cross the channel: left out, and logged once.
  std::atomic<int> logged{0};
  channel::SetLogSink([&](channel::LogLevel, std::string_view, std::string_view line) {
    logged += line.find("utf-8 \\377.corvane") != std::string_view::npos;
  });
  Call("startWatching");
  const std::set<std::string> names = {"a.corvane", "B.CorvanePack", "corvane-backup-2024.zip",
                                       "sub/deep/c.corvane"};
  ASSERT_TRUE(WaitItems(names));
  Call("startWatching");
  ASSERT_TRUE(WaitItems(names));
  channel::SetLogSink(nullptr);
  EXPECT_EQ(logged, 1);
}

TEST_F(WatchTest, ItemMapsCarryTheFilesAttributes) {
  const std::string docs = StartWithContainer();
  WriteFile(docs + "/doc.corvane", "12345");
  SetModified(docs + "/doc.corvane", 1718000000, 123999999);
  WriteFile(docs + "/old.corvane", "");
  SetModified(docs + "/old.corvane", -2, 500000000);  // 1.5 s before the epoch
  WriteFile(docs + "/doc.sync-conflict-20240610-101500-ABCDEFG.corvane", "theirs");
  Call("startWatching");
  auto event = WaitItems({"doc.corvane", "old.corvane"});
  ASSERT_TRUE(event);
  const Value expected = Map({{"path", Value(docs + "/doc.corvane")},
                              {"relative", Value("doc.corvane")},
                              {"size", Value::Integer(5)},
                              {"modifiedMs", Value::Integer(1718000000123)},
                              {"downloaded", Value(true)},
                              {"downloading", Value(false)},
                              {"uploaded", Value(true)},
                              {"uploading", Value(false)},
                              {"conflict", Value(true)}});
  EXPECT_EQ(ItemNamed(*event, "doc.corvane"), expected);
  EXPECT_EQ(Integer(ItemNamed(*event, "old.corvane"), "modifiedMs"), -1500);
  EXPECT_EQ(Flag(ItemNamed(*event, "old.corvane"), "conflict"), false);
}

TEST_F(WatchTest, ChangesOnDiskArriveAsItems) {
  const std::string docs = StartWithContainer();
  WriteFile(docs + "/a.corvane", "1");
  Call("startWatching");
  ASSERT_TRUE(WaitItems({"a.corvane"}));

  WriteFile(docs + "/b.corvane", "2");
  ASSERT_TRUE(WaitItems({"a.corvane", "b.corvane"}));
  // A new folder tree, and a file in a folder that appeared after the first listing.
  WriteFile(docs + "/p/q/c.corvane", "3");
  ASSERT_TRUE(WaitItems({"a.corvane", "b.corvane", "p/q/c.corvane"}));
  WriteFile(docs + "/p/q/d.corvane", "4");
  ASSERT_TRUE(WaitItems({"a.corvane", "b.corvane", "p/q/c.corvane", "p/q/d.corvane"}));
  fs::rename(docs + "/a.corvane", docs + "/p/renamed.corvane");
  ASSERT_TRUE(WaitItems({"b.corvane", "p/renamed.corvane", "p/q/c.corvane", "p/q/d.corvane"}));
  fs::rename(docs + "/p", docs + "/r");
  ASSERT_TRUE(WaitItems({"b.corvane", "r/renamed.corvane", "r/q/c.corvane", "r/q/d.corvane"}));
  // A file written inside a renamed folder: its watch moved with it.
  WriteFile(docs + "/r/q/e.corvane", "5");
  ASSERT_TRUE(WaitItems(
      {"b.corvane", "r/renamed.corvane", "r/q/c.corvane", "r/q/d.corvane", "r/q/e.corvane"}));
  fs::remove_all(docs + "/r");
  fs::remove(docs + "/b.corvane");
  ASSERT_TRUE(WaitItems({}));
}

TEST_F(WatchTest, StatusListenersAndStopWatching) {
  const std::string folder = ConfigureFolder(root_.path() + "/c/" + kContainer);
  WriteFile(folder + "/Documents/a.corvane", "1");
  Start();
  // Watching before "status" waits for the container.
  Call("startWatching");
  Settle(400ms);
  EXPECT_FALSE(WaitEvent("items", &from_, {}, 10ms));
  const std::string docs = Text(Call("status"), "documents");
  ASSERT_TRUE(WaitItems({"a.corvane"}));
  // A new listener gets the current list at once; the old sink stays quiet.
  engine_.SendFromEngine(kEventChannel, channel::EncodeMethodCall({"cancel", Value()}));
  WriteFile(docs + "/b.corvane", "2");
  Settle(600ms);
  EXPECT_FALSE(WaitEvent("items", &from_, {}, 10ms));
  engine_.SendFromEngine(kEventChannel, channel::EncodeMethodCall({"listen", Value()}));
  ASSERT_TRUE(WaitItems({"a.corvane", "b.corvane"}));
  // "status" while watching shows the list again; after stopWatching nothing more comes.
  Call("status");
  ASSERT_TRUE(WaitItems({"a.corvane", "b.corvane"}));
  Call("stopWatching");
  WriteFile(docs + "/c.corvane", "3");
  Call("status");
  Settle(600ms);
  EXPECT_FALSE(WaitEvent("items", &from_, {}, 10ms));
}

TEST_F(WatchTest, AListingOvertakenByANewerOneIsNotShown) {
  ConfigureFolder(root_.path() + "/sync/" + kContainer);
  auto options = MakeOptions();
  auto held = std::make_shared<HeldStore>(std::move(options.store));
  options.store = held;
  Start(std::move(options));
  const std::string docs = Text(Call("status"), "documents");
  WriteFile(docs + "/a.corvane", "1");
  Call("startWatching");
  dispatch::RunMainUntil([&] { return held->holding.load(); }, 5s);  // first listing: just "a"
  WriteFile(docs + "/b.corvane", "2");
  ASSERT_TRUE(WaitItems({"a.corvane", "b.corvane"}));
  held->Release();
  dispatch::RunMainUntil([&] { return held->held_done.load(); }, 5s);
  Settle(300ms);
  EXPECT_EQ(Relatives(Events().back()), (std::set<std::string>{"a.corvane", "b.corvane"}));
}

}  // namespace
}  // namespace corvane::cloud::testing
