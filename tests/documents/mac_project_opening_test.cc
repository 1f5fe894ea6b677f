// The document hand-off as the Flutter side sees it, on a loopback engine, with access and the
// window replaced by recorders.
#include "documents/mac_project_opening.h"

#include <glib.h>
#include <gtest/gtest.h>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"

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

void Settle() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
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

  // Sends a call; the returned list fills with its answers.
  std::shared_ptr<std::vector<MethodReply>> Send(const std::string& method, Value args = Value()) {
    auto replies = std::make_shared<std::vector<MethodReply>>();
    engine_.SendFromEngine(
        kOpenProjectsChannel, channel::EncodeMethodCall({method, std::move(args)}),
        [replies](channel::Bytes b) {
          replies->push_back(channel::DecodeEnvelope(b).value.value_or(MethodReply()));
        });
    Settle();
    return replies;
  }
  MethodReply Call(const std::string& method, Value args = Value()) {
    auto replies = Send(method, std::move(args));
    EXPECT_EQ(replies->size(), 1u) << method;
    return replies->empty() ? MethodReply() : replies->front();
  }

  // The paths of a hand-over, checking its "rejected".
  static Urls Paths(const MethodReply& reply, bool rejected) {
    Urls paths;
    const ValueMap* map = reply.value.map_if();
    const Value* flag = map ? map->Find("rejected") : nullptr;
    const Value* list = map ? map->Find("paths") : nullptr;
    EXPECT_TRUE(flag && flag->bool_if() && *flag->bool_if() == rejected) << "rejected";
    if (!list || !list->list_if()) return {"<no paths>"};
    for (const Value& p : *list->list_if()) paths.push_back(p.string_if() ? *p.string_if() : "?");
    return paths;
  }
  Urls Take(bool rejected = false) { return Paths(Call("takePending"), rejected); }

  void Release(const std::string& path, bool keep) {
    ValueMap args;
    args.Set("path", Value(path));
    args.Set("keepAccess", Value(keep));
    EXPECT_EQ(Call("release", Value(std::move(args))).kind, Kind::kSuccess);
  }

  size_t ChangedCalls() const {
    size_t n = 0;
    for (const auto& m : engine_.received()) {
      auto call = channel::DecodeMethodCall(m.payload);
      n += call && call.value->method == "changed" && call.value->arguments.is_null();
    }
    return n;
  }

  static void ExpectError(const MethodReply& reply, const std::string& code,
                          const std::string& message) {
    EXPECT_EQ(reply.kind, Kind::kError);
    EXPECT_EQ(reply.error.code, code);
    EXPECT_EQ(reply.error.message.value_or("<none>"), message);
    EXPECT_TRUE(reply.error.details.is_null());
  }

  engine::LoopbackEngine engine_;
  Urls begun_, ended_, window_log_;
  bool grant_ = true, has_window_ = false, minimized_ = false;
  std::unique_ptr<MacProjectOpening> service_;
};

TEST_F(DocumentsOpeningTest, SameFileTwiceIsOpenedAndQueuedOnceButAnnouncedTwice) {
  service_->HandleDidFinishLaunching();
  EXPECT_TRUE(service_->HandleOpenUrls({"file:///p/a.corvane"}));
  EXPECT_TRUE(service_->HandleOpenUrls({"file://localhost/p/./a.corvane", "file:///p/a.corvane"}));
  EXPECT_EQ(begun_, Urls{"file:///p/a.corvane"});
  EXPECT_EQ(ChangedCalls(), 2u);
  EXPECT_EQ(Take(), Urls{"/p/a.corvane"});
  // Delivered but not released: still pending, so opening it again queues nothing.
  service_->HandleOpenUrls({"file:///p/a.corvane"});
  EXPECT_EQ(Take(), Urls{});
  EXPECT_EQ(begun_.size(), 1u);
}

TEST_F(DocumentsOpeningTest, ThirtyThirdFileIsRefusedUntilOneIsReleased) {
  service_->HandleDidFinishLaunching();
  Urls urls;
  for (int i = 0; i < 33; ++i) urls.push_back("file:///p/" + std::to_string(i) + ".corvane");
  service_->HandleOpenUrls(urls);
  EXPECT_EQ(begun_.size(), 32u);
  const Urls paths = Take(/*rejected=*/true);
  ASSERT_EQ(paths.size(), 32u);
  EXPECT_EQ(paths.back(), "/p/31.corvane");
  EXPECT_EQ(Take(/*rejected=*/false), Urls{}) << "the flag goes with the hand-over reporting it";

  Release("/p/0.corvane", false);
  service_->HandleOpenUrls({"file:///p/32.corvane"});
  EXPECT_EQ(Take(), Urls{"/p/32.corvane"});
}

TEST_F(DocumentsOpeningTest, MixedListsQueueFilesSkipOthersAndCountRefusals) {
  has_window_ = minimized_ = true;
  service_->HandleDidFinishLaunching();
  // Nothing for us: no call to the Flutter side, no window activity.
  EXPECT_FALSE(service_->HandleOpenUrls({}));
  EXPECT_FALSE(service_->HandleOpenUrls({"https://example.org/a.corvane", "mailto:x@y"}));
  EXPECT_EQ(ChangedCalls(), 0u);
  EXPECT_EQ(window_log_, Urls{});

  // A web URL beside a project file: the file is queued, the web URL is no refusal.
  EXPECT_FALSE(service_->HandleOpenUrls({"https://example.org/x", "file:///p/a.corvane"}));
  EXPECT_EQ(Take(/*rejected=*/false), Urls{"/p/a.corvane"});
  EXPECT_EQ(window_log_, (Urls{"unminimize", "present"}));

  EXPECT_TRUE(service_->HandleOpenUrls({"file:///p/b.corvanepack", "file:///p/notes.txt",
                                        "file://LOCALHOST/p/c.corvane", "file:///p/d.CORVANE",
                                        "file:///p/e.corvane?v=2", "file:///p/f%00.corvane"}));
  EXPECT_EQ(Take(/*rejected=*/true), (Urls{"/p/b.corvanepack", "/p/d.CORVANE"}));
  EXPECT_EQ(window_log_.size(), 3u) << "a window that is not minimised is only presented";
}

TEST_F(DocumentsOpeningTest, TakePendingBeforeLaunchIsParkedAndAnsweredAtLaunch) {
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/x.txt"});
  auto parked = Send("takePending");
  EXPECT_TRUE(parked->empty());
  ExpectError(Call("takePending"), "busy", "Initial document handoff pending");

  service_->HandleOpenUrls({"file:///p/b.corvane"});
  service_->HandleDidFinishLaunching();
  service_->HandleDidFinishLaunching();
  Settle();
  ASSERT_EQ(parked->size(), 1u);
  EXPECT_EQ(Paths(parked->front(), true), (Urls{"/p/a.corvane", "/p/b.corvane"}));
  EXPECT_EQ(Take(), Urls{});
}

TEST_F(DocumentsOpeningTest, KeptAccessFollowsTheCurrentProject) {
  service_->HandleDidFinishLaunching();
  service_->HandleOpenUrls(
      {"file:///p/a.corvane", "file:///p/b.corvane", "file:///p/c.corvane", "file:///p/d.corvane"});
  // Released before delivery: it leaves the queue.
  Release("/p/d.corvane", false);
  EXPECT_EQ(Take(), (Urls{"/p/a.corvane", "/p/b.corvane", "/p/c.corvane"}));

  Release("/p/a.corvane", true);  // not the current project: given back at once
  Call("activeProject", Value("/p/b.corvane"));
  Release("/p/b.corvane", true);
  EXPECT_EQ(ended_, (Urls{"file:///p/d.corvane", "file:///p/a.corvane"}));

  // Another current project gives the kept file back at once.
  Call("activeProject", Value("/p/c.corvane"));
  EXPECT_EQ(ended_.back(), "file:///p/b.corvane");
  Release("/p/c.corvane", true);
  Call("activeProject", Value("/p/c.corvane"));
  EXPECT_EQ(ended_.size(), 3u) << "the same project again keeps its file";
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
  service_->HandleOpenUrls({"file:///p/denied.corvane"});
  grant_ = true;
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/b.corvane", "file:///p/x.txt"});
  Call("activeProject", Value("/p/a.corvane"));
  Release("/p/a.corvane", true);

  EXPECT_EQ(Call("releaseAll").kind, Kind::kSuccess);
  // Access that was denied is queued all the same and never ended.
  EXPECT_EQ(ended_, (Urls{"file:///p/b.corvane", "file:///p/a.corvane"}));
  EXPECT_EQ(Take(/*rejected=*/true), Urls{});
  // The current project was forgotten too.
  service_->HandleOpenUrls({"file:///p/a.corvane"});
  Release("/p/a.corvane", true);
  EXPECT_EQ(ended_.size(), 3u);
}

TEST_F(DocumentsOpeningTest, BadReceiptsAndUnknownMethods) {
  service_->HandleDidFinishLaunching();
  auto map = [](const char* key, Value value, const char* key2 = nullptr, Value value2 = Value()) {
    ValueMap m;
    m.Set(key, std::move(value));
    if (key2) m.Set(key2, std::move(value2));
    return Value(std::move(m));
  };
  for (const Value& args :
       {Value(), Value("/p/a.corvane"), map("path", Value("/p/a.corvane")),
        map("keepAccess", Value(true)), map("path", Value(int32_t{1}), "keepAccess", Value(true)),
        map("path", Value("/p/a.corvane"), "keepAccess", Value("true")),
        map("path", Value("p/a.corvane"), "keepAccess", Value(true))}) {
    MethodReply reply = Call("release", args);
    EXPECT_EQ(reply.error.code, "arguments");
    EXPECT_EQ(reply.error.message.value_or(""), "Invalid document receipt");
    EXPECT_EQ(reply.error.details, args);
  }
  for (const char* method : {"TakePending", "changed", ""}) {
    EXPECT_EQ(Call(method).kind, Kind::kNotImplemented) << method;
  }
}

TEST_F(DocumentsOpeningTest, TerminationAndDestructionCloseEverything) {
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/b.corvane"});
  auto parked = Send("takePending");
  service_->HandleWillTerminate();
  Settle();
  ASSERT_EQ(parked->size(), 1u);
  ExpectError(parked->front(), "closed", "Document receiver closed");
  EXPECT_EQ(ended_, (Urls{"file:///p/a.corvane", "file:///p/b.corvane"}));

  // Closed for good: launch does not reopen it, files are refused silently, every call fails.
  service_->HandleDidFinishLaunching();
  EXPECT_FALSE(service_->HandleOpenUrls({"file:///p/c.corvane"}));
  EXPECT_EQ(ChangedCalls(), 1u);
  for (const char* method : {"takePending", "releaseAll", "release", "nope"}) {
    ExpectError(Call(method), "closed", "Document receiver closed");
  }

  // Going away without termination gives access back and answers a parked call too.
  Make();
  ended_.clear();
  service_->HandleOpenUrls({"file:///p/a.corvane"});
  parked = Send("takePending");
  service_.reset();
  Settle();
  EXPECT_EQ(ended_, Urls{"file:///p/a.corvane"});
  ASSERT_EQ(parked->size(), 1u);
  EXPECT_EQ(parked->front().error.code, "closed");
}

}  // namespace
}  // namespace corvane::documents
