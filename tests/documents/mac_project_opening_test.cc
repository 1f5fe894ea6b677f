// The document hand-off as the Flutter side sees it, on a loopback engine, with access and the
// window replaced by recorders.
#include "documents/mac_project_opening.h"

#include <glib.h>
#include <gtest/gtest.h>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"
#include "support/loopback_call.h"

namespace corvane::documents {
namespace {

using channel::MethodReply;
using channel::Value;
using channel::ValueMap;
using Kind = MethodReply::Kind;
using Urls = std::vector<std::string>;

struct FakeWindow : DocumentWindow {
  FakeWindow(bool& minimized, Urls& log) : minimized(minimized), log(log) {}
  bool IsMinimized() const override { return minimized; }
  void Unminimize() override { log.push_back("unminimize"), minimized = false; }
  void Present() override { log.push_back("present"); }
  bool& minimized;
  Urls& log;
};

// What a reply says, in one line.
std::string Said(const MethodReply& r) {
  if (r.kind == Kind::kNotImplemented) return "not implemented";
  if (r.kind == Kind::kSuccess) return r.value.is_null() ? "ok" : "value";
  return r.error.code + ": " + r.error.message.value_or("<none>") +
         (r.error.details.is_null() ? "" : " (with details)");
}

class DocumentsOpeningTest : public ::testing::Test {
 protected:
  DocumentsOpeningTest() { Make(); }

  void Make() {
    service_.reset();  // its channel goes with it, so the old one must go first
    MacProjectOpening::Options options;
    options.begin_access = [this](const std::string& url) { return begun_.push_back(url), grant_; };
    options.end_access = [this](const std::string& url) { ended_.push_back(url); };
    options.window = [this]() -> std::unique_ptr<DocumentWindow> {
      return has_window_ ? std::make_unique<FakeWindow>(minimized_, window_log_) : nullptr;
    };
    service_ = std::make_unique<MacProjectOpening>(engine_, std::move(options));
  }
  bool Open(const Urls& urls) { return service_->HandleOpenUrls(urls); }
  static void Settle() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  // Sends a call; the returned list fills with its answers.
  std::shared_ptr<std::vector<MethodReply>> Send(const std::string& method, Value args = Value()) {
    auto replies =
        corvane::testing::StartCall(engine_, kOpenProjectsChannel, method, std::move(args));
    Settle();
    return replies;
  }
  MethodReply Call(const std::string& method, Value args = Value()) {
    auto replies = Send(method, std::move(args));
    EXPECT_EQ(replies->size(), 1u) << method;
    return replies->empty() ? MethodReply() : replies->front();
  }

  static Value HandOver(const Urls& paths, bool rejected) {
    ValueMap map;
    map.Set("paths", Value(channel::ValueList(paths.begin(), paths.end())));
    map.Set("rejected", Value(rejected));
    return Value(std::move(map));
  }
  // Takes the pending paths, expecting `paths` and `rejected`.
  void Take(const Urls& paths, bool rejected = false) {
    EXPECT_EQ(Call("takePending").value, HandOver(paths, rejected));
  }

  void Release(const std::string& path, bool keep) {
    EXPECT_EQ(Said(Call("release", Receipt("path", Value(path), "keepAccess", Value(keep)))), "ok");
  }
  static Value Receipt(const char* key, Value value, const char* key2 = nullptr,
                       Value value2 = Value()) {
    ValueMap m;
    m.Set(key, std::move(value));
    if (key2) m.Set(key2, std::move(value2));
    return Value(std::move(m));
  }

  size_t ChangedCalls() const {
    size_t n = 0;
    for (const auto& m : engine_.received()) {
      auto call = channel::DecodeMethodCall(m.payload);
      n += call && call.value->method == "changed" && call.value->arguments.is_null();
    }
    return n;
  }

  engine::LoopbackEngine engine_;
  Urls begun_, ended_, window_log_;
  bool grant_ = true, has_window_ = false, minimized_ = false;
  std::unique_ptr<MacProjectOpening> service_;
};

TEST_F(DocumentsOpeningTest, EachFileIsOpenedOnceAndAtMost32Wait) {
  service_->HandleDidFinishLaunching();
  EXPECT_TRUE(Open({"file:///p/a.corvane"}));
  EXPECT_TRUE(Open({"file://localhost/p/./a.corvane", "file:///p/a.corvane"}));
  EXPECT_EQ(begun_, Urls{"file:///p/a.corvane"});
  EXPECT_EQ(ChangedCalls(), 2u);
  Take({"/p/a.corvane"});
  // Delivered but not released: still pending, so opening it again queues nothing.
  Open({"file:///p/a.corvane"});
  Take({});

  // With a.corvane still pending, 31 more fit.
  Urls urls, paths;
  for (int i = 0; i < 32; ++i) urls.push_back("file:///p/" + std::to_string(i) + ".corvane");
  Open(urls);
  EXPECT_EQ(begun_.size(), 32u);
  for (int i = 0; i < 31; ++i) paths.push_back("/p/" + std::to_string(i) + ".corvane");
  Take(paths, /*rejected=*/true);
  Take({}, false);  // the flag goes with the hand-over that reported it
  Release("/p/a.corvane", false);
  Open({"file:///p/31.corvane"});
  Take({"/p/31.corvane"});
}

TEST_F(DocumentsOpeningTest, MixedListsQueueFilesSkipOthersAndCountRefusals) {
  has_window_ = minimized_ = true;
  service_->HandleDidFinishLaunching();
  // Nothing for us: no call to the Flutter side, no window activity.
  EXPECT_FALSE(Open({}));
  EXPECT_FALSE(Open({"https://example.org/a.corvane", "mailto:x@y"}));
  EXPECT_EQ(ChangedCalls(), 0u);
  EXPECT_EQ(window_log_, Urls{});

  // A web URL beside a project file: the file is queued, the web URL is no refusal.
  EXPECT_FALSE(Open({"https://example.org/x", "file:///p/a.corvane"}));
  Take({"/p/a.corvane"});
  EXPECT_EQ(window_log_, (Urls{"unminimize", "present"}));

  EXPECT_TRUE(
      Open({"file:///p/b.corvanepack", "file://LOCALHOST/p/c.corvane", "file:///p/d.CORVANE"}));
  Take({"/p/b.corvanepack", "/p/d.CORVANE"}, /*rejected=*/true);
  EXPECT_EQ(window_log_.size(), 3u) << "a window that is not minimised is only presented";
}

TEST_F(DocumentsOpeningTest, TakePendingBeforeLaunchIsParkedAndAnsweredAtLaunch) {
  Open({"file:///p/a.corvane", "file:///p/x.txt"});
  auto parked = Send("takePending");
  EXPECT_TRUE(parked->empty());
  EXPECT_EQ(Said(Call("takePending")), "busy: Initial document handoff pending");
  Open({"file:///p/b.corvane"});
  service_->HandleDidFinishLaunching();
  service_->HandleDidFinishLaunching();
  Settle();
  ASSERT_EQ(parked->size(), 1u);
  EXPECT_EQ(parked->front().value, HandOver({"/p/a.corvane", "/p/b.corvane"}, true));
  Take({});
}

TEST_F(DocumentsOpeningTest, KeptAccessFollowsTheCurrentProject) {
  service_->HandleDidFinishLaunching();
  Open(
      {"file:///p/a.corvane", "file:///p/b.corvane", "file:///p/c.corvane", "file:///p/d.corvane"});
  Release("/p/d.corvane", false);  // released before delivery: it leaves the queue
  Take({"/p/a.corvane", "/p/b.corvane", "/p/c.corvane"});

  Release("/p/a.corvane", true);  // not the current project: given back at once
  Call("activeProject", Value("/p/b.corvane"));
  Release("/p/b.corvane", true);
  EXPECT_EQ(ended_, (Urls{"file:///p/d.corvane", "file:///p/a.corvane"}));
  // Another current project gives the kept file back at once; the same one keeps it.
  Call("activeProject", Value("/p/c.corvane"));
  EXPECT_EQ(ended_.back(), "file:///p/b.corvane");
  Release("/p/c.corvane", true);
  Call("activeProject", Value("/p/c.corvane"));
  EXPECT_EQ(ended_.size(), 3u);
  Call("activeProject", Value(int32_t{7}));  // not a string: no current project
  EXPECT_EQ(ended_.back(), "file:///p/c.corvane");
  // Released again, or never known: success, nothing given back twice.
  Release("/p/c.corvane", false);
  Release("/p/none.corvane", true);
  EXPECT_EQ(ended_.size(), 4u);
}

TEST_F(DocumentsOpeningTest, ReleaseAllGivesGrantedAccessBackAndKeepsTheRejectedFlag) {
  service_->HandleDidFinishLaunching();
  grant_ = false;
  Open({"file:///p/denied.corvane"});
  grant_ = true;
  Open({"file:///p/a.corvane", "file:///p/b.corvane", "file:///p/x.txt"});
  Call("activeProject", Value("/p/a.corvane"));
  Release("/p/a.corvane", true);
  EXPECT_EQ(Said(Call("releaseAll")), "ok");
  // Access that was denied is queued all the same and never ended.
  EXPECT_EQ(ended_, (Urls{"file:///p/b.corvane", "file:///p/a.corvane"}));
  Take({}, /*rejected=*/true);
  // The current project was forgotten too.
  Open({"file:///p/a.corvane"});
  Release("/p/a.corvane", true);
  EXPECT_EQ(ended_.size(), 3u);
}

TEST_F(DocumentsOpeningTest, BadReceiptsAndUnknownMethods) {
  service_->HandleDidFinishLaunching();
  for (const Value& args : {Value(), Value("/p/a.corvane"), Receipt("path", Value("/p/a.corvane")),
                            Receipt("keepAccess", Value(true)),
                            Receipt("path", Value(int32_t{1}), "keepAccess", Value(true)),
                            Receipt("path", Value("/p/a.corvane"), "keepAccess", Value("true")),
                            Receipt("path", Value("p/a.corvane"), "keepAccess", Value(true))}) {
    MethodReply reply = Call("release", args);
    EXPECT_EQ(reply.error.code + ": " + reply.error.message.value_or(""),
              "arguments: Invalid document receipt");
    EXPECT_EQ(reply.error.details, args);
  }
  for (const char* method : {"TakePending", "changed", ""}) {
    EXPECT_EQ(Said(Call(method)), "not implemented") << method;
  }
}

TEST_F(DocumentsOpeningTest, TerminationAndDestructionCloseEverything) {
  Open({"file:///p/a.corvane", "file:///p/b.corvane"});
  auto parked = Send("takePending");
  service_->HandleWillTerminate();
  Settle();
  ASSERT_EQ(parked->size(), 1u);
  EXPECT_EQ(Said(parked->front()), "closed: Document receiver closed");
  EXPECT_EQ(ended_, (Urls{"file:///p/a.corvane", "file:///p/b.corvane"}));
  // Closed for good: launch does not reopen it, files are refused silently, every call fails.
  service_->HandleDidFinishLaunching();
  EXPECT_FALSE(Open({"file:///p/c.corvane"}));
  EXPECT_EQ(ChangedCalls(), 1u);
  for (const char* method : {"takePending", "releaseAll", "release", "nope"}) {
    EXPECT_EQ(Said(Call(method)), "closed: Document receiver closed") << method;
  }

  // Going away without termination gives access back and answers a parked call too.
  Make();
  ended_.clear();
  Open({"file:///p/a.corvane"});
  parked = Send("takePending");
  service_.reset();
  Settle();
  EXPECT_EQ(ended_, Urls{"file:///p/a.corvane"});
  ASSERT_EQ(parked->size(), 1u);
  EXPECT_EQ(parked->front().error.code, "closed");
}

}  // namespace
}  // namespace corvane::documents
