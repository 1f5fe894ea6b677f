// The document hand-off as the Flutter side sees it, on a loopback engine, with access and the
// window replaced by counters.
#include "documents/mac_project_opening.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"

namespace corvane::documents {
namespace {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;
using Kind = MethodReply::Kind;
using Urls = std::vector<std::string>;

struct WindowLog {
  bool minimized = false;
  std::vector<std::string> calls;
};

class FakeWindow : public DocumentWindow {
 public:
  explicit FakeWindow(WindowLog& log) : log_(log) {}
  bool IsMinimized() const override { return log_.minimized; }
  void Unminimize() override {
    log_.calls.push_back("unminimize");
    log_.minimized = false;
  }
  void Present() override { log_.calls.push_back("present"); }

 private:
  WindowLog& log_;
};

class DocumentsOpeningTest : public ::testing::Test {
 protected:
  DocumentsOpeningTest() { Make(); }

  void Make() {
    MacProjectOpening::Options options;
    options.begin_access = [this](const std::string& url) {
      begun_.push_back(url);
      return grant_;
    };
    options.end_access = [this](const std::string& url) { ended_.push_back(url); };
    options.window = [this]() -> std::unique_ptr<DocumentWindow> {
      if (!has_window_) return nullptr;
      return std::make_unique<FakeWindow>(window_);
    };
    service_ = std::make_unique<MacProjectOpening>(engine_, std::move(options));
  }

  // Starts a call; `replies` fills as answers come.
  std::shared_ptr<std::vector<MethodReply>> CallLater(const std::string& method,
                                                      Value args = Value()) {
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
    auto replies = CallLater(method, std::move(args));
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 5s);
    EXPECT_EQ(replies->size(), 1u) << method;
    return replies->empty() ? MethodReply() : replies->front();
  }

  // Collects what is waiting: the hand-over's paths, checking its "rejected".
  std::vector<std::string> Take(bool rejected = false) {
    MethodReply reply = Call("takePending");
    return HandOverPaths(reply, rejected);
  }

  static std::vector<std::string> HandOverPaths(const MethodReply& reply, bool rejected) {
    std::vector<std::string> paths;
    EXPECT_EQ(reply.kind, Kind::kSuccess);
    const ValueMap* map = reply.value.map_if();
    if (!map) return paths;
    const Value* flag = map->Find("rejected");
    EXPECT_TRUE(flag && flag->bool_if() && *flag->bool_if() == rejected) << "rejected";
    const Value* list = map->Find("paths");
    if (!list || !list->list_if()) {
      ADD_FAILURE() << "no paths list";
      return paths;
    }
    for (const Value& p : *list->list_if()) paths.push_back(p.string_if() ? *p.string_if() : "?");
    return paths;
  }

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
      n += m.channel == kOpenProjectsChannel && call && call.value->method == "changed" &&
           call.value->arguments.is_null();
    }
    return n;
  }

  static void Settle() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  static void ExpectError(const MethodReply& reply, const std::string& code,
                          const std::string& message) {
    EXPECT_EQ(reply.kind, Kind::kError);
    EXPECT_EQ(reply.error.code, code);
    EXPECT_EQ(reply.error.message.value_or("<none>"), message);
  }

  engine::LoopbackEngine engine_;
  std::vector<std::string> begun_;
  std::vector<std::string> ended_;
  bool grant_ = true;
  bool has_window_ = false;
  WindowLog window_;
  std::unique_ptr<MacProjectOpening> service_;
};

TEST_F(DocumentsOpeningTest, SameFileTwiceIsOpenedAndQueuedOnceButAnnouncedTwice) {
  service_->HandleDidFinishLaunching();
  EXPECT_TRUE(service_->HandleOpenUrls({"file:///p/a.corvane"}));
  EXPECT_TRUE(service_->HandleOpenUrls({"file://localhost/p/./a.corvane", "file:///p/a.corvane"}));
  EXPECT_EQ(begun_, Urls{"file:///p/a.corvane"});
  EXPECT_EQ(ChangedCalls(), 2u);
  EXPECT_EQ(Take(), Urls{"/p/a.corvane"});
  EXPECT_EQ(Take(), Urls{});

  // Still pending (delivered, not released): a third open changes nothing either.
  service_->HandleOpenUrls({"file:///p/a.corvane"});
  EXPECT_EQ(Take(), Urls{});
  EXPECT_EQ(begun_.size(), 1u);
}

TEST_F(DocumentsOpeningTest, ThirtyThirdFileIsRefusedUntilOneIsReleased) {
  service_->HandleDidFinishLaunching();
  Urls urls;
  for (int i = 0; i < 33; ++i) urls.push_back("file:///p/" + std::to_string(i) + ".corvane");
  EXPECT_TRUE(service_->HandleOpenUrls(urls));
  EXPECT_EQ(begun_.size(), 32u);
  const Urls paths = Take(/*rejected=*/true);
  ASSERT_EQ(paths.size(), 32u);
  EXPECT_EQ(paths.front(), "/p/0.corvane");
  EXPECT_EQ(paths.back(), "/p/31.corvane");
  Take(/*rejected=*/false);  // the flag goes with the hand-over that reported it

  service_->HandleOpenUrls({"file:///p/32.corvane"});
  EXPECT_EQ(Take(/*rejected=*/true), Urls{});
  Release("/p/0.corvane", false);
  service_->HandleOpenUrls({"file:///p/32.corvane"});
  EXPECT_EQ(Take(), Urls{"/p/32.corvane"});
}

TEST_F(DocumentsOpeningTest, MixedListsQueueFilesSkipOthersAndReportRefusals) {
  has_window_ = true;
  window_.minimized = true;
  service_->HandleDidFinishLaunching();

  // Nothing to do with files: no answer to the Flutter side, no window activity.
  EXPECT_FALSE(service_->HandleOpenUrls({}));
  EXPECT_FALSE(service_->HandleOpenUrls({"https://example.org/a.corvane", "mailto:x@y"}));
  EXPECT_EQ(ChangedCalls(), 0u);
  EXPECT_TRUE(window_.calls.empty());

  // A web URL beside a project file: the file is queued, the web URL is not a refusal.
  EXPECT_FALSE(service_->HandleOpenUrls({"https://example.org/x", "file:///p/a.corvane"}));
  EXPECT_EQ(Take(/*rejected=*/false), Urls{"/p/a.corvane"});
  EXPECT_EQ(window_.calls, (std::vector<std::string>{"unminimize", "present"}));

  // Refused files are only counted; the accepted ones keep their order.
  EXPECT_TRUE(service_->HandleOpenUrls({"file:///p/b.corvanepack", "file:///p/notes.txt",
                                        "file://LOCALHOST/p/c.corvane", "file:///p/d.CORVANE",
                                        "file:///p/e.corvane?v=2"}));
  EXPECT_EQ(Take(/*rejected=*/true), (Urls{"/p/b.corvanepack", "/p/d.CORVANE"}));
  EXPECT_EQ(ChangedCalls(), 2u);
  EXPECT_EQ(window_.calls.size(), 3u) << "a window that is not minimised is only presented";
}

TEST_F(DocumentsOpeningTest, TakePendingBeforeLaunchIsParkedAndAnsweredAtLaunch) {
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/x.txt"});
  auto parked = CallLater("takePending");
  EXPECT_TRUE(parked->empty());
  ExpectError(Call("takePending"), "busy", "Initial document handoff pending");
  EXPECT_TRUE(parked->empty()) << "a busy call must not disturb the parked one";

  service_->HandleOpenUrls({"file:///p/b.corvane"});
  service_->HandleDidFinishLaunching();
  Settle();
  ASSERT_EQ(parked->size(), 1u);
  EXPECT_EQ(HandOverPaths(parked->front(), true), (Urls{"/p/a.corvane", "/p/b.corvane"}));

  service_->HandleDidFinishLaunching();
  Settle();
  EXPECT_EQ(parked->size(), 1u);
  EXPECT_EQ(Take(), Urls{});
}

TEST_F(DocumentsOpeningTest, KeptAccessFollowsTheCurrentProject) {
  service_->HandleDidFinishLaunching();
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/b.corvane", "file:///p/c.corvane"});
  Take();

  // Kept access is only for the current project; anything else is given back at once.
  Release("/p/a.corvane", true);
  EXPECT_EQ(ended_, Urls{"file:///p/a.corvane"});

  EXPECT_EQ(Call("activeProject", Value("/p/b.corvane")).kind, Kind::kSuccess);
  Release("/p/b.corvane", true);
  EXPECT_EQ(ended_.size(), 1u) << "the current project's file stays open";

  // A new current project that is released with keepAccess replaces the kept one.
  Call("activeProject", Value("/p/c.corvane"));
  EXPECT_EQ(ended_.back(), "file:///p/b.corvane");
  Release("/p/c.corvane", true);
  EXPECT_EQ(ended_.size(), 2u);

  // The same path again keeps it; another path, a non-string or nothing gives it back.
  Call("activeProject", Value("/p/c.corvane"));
  EXPECT_EQ(ended_.size(), 2u);
  Call("activeProject", Value(int32_t{7}));
  EXPECT_EQ(ended_, (Urls{"file:///p/a.corvane", "file:///p/b.corvane", "file:///p/c.corvane"}));

  // Released twice, or never known: success, nothing given back twice.
  Release("/p/c.corvane", false);
  Release("/p/none.corvane", true);
  EXPECT_EQ(ended_.size(), 3u);
}

TEST_F(DocumentsOpeningTest, ReleaseBeforeDeliveryDropsThePathFromTheQueue) {
  service_->HandleDidFinishLaunching();
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/b.corvane"});
  Release("/p/a.corvane", false);
  EXPECT_EQ(ended_, Urls{"file:///p/a.corvane"});
  EXPECT_EQ(Take(), Urls{"/p/b.corvane"});
}

TEST_F(DocumentsOpeningTest, DeniedAccessStillQueuesAndIsNeverEnded) {
  grant_ = false;
  service_->HandleDidFinishLaunching();
  service_->HandleOpenUrls({"file:///p/a.corvane"});
  EXPECT_EQ(Take(), Urls{"/p/a.corvane"});
  Release("/p/a.corvane", false);
  EXPECT_EQ(Call("releaseAll").kind, Kind::kSuccess);
  EXPECT_TRUE(ended_.empty());
}

TEST_F(DocumentsOpeningTest, ReleaseAllGivesEverythingBackButKeepsTheRejectedFlag) {
  service_->HandleDidFinishLaunching();
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/b.corvane", "file:///p/x.txt"});
  Call("activeProject", Value("/p/a.corvane"));
  Release("/p/a.corvane", true);
  EXPECT_TRUE(ended_.empty());

  EXPECT_EQ(Call("releaseAll").kind, Kind::kSuccess);
  EXPECT_EQ(ended_, (Urls{"file:///p/b.corvane", "file:///p/a.corvane"}));
  EXPECT_EQ(Take(/*rejected=*/true), Urls{});

  // The current project was forgotten too: keeping access for it now gives it back.
  service_->HandleOpenUrls({"file:///p/a.corvane"});
  Release("/p/a.corvane", true);
  EXPECT_EQ(ended_.size(), 3u);
}

TEST_F(DocumentsOpeningTest, BadReceiptsAndUnknownMethods) {
  service_->HandleDidFinishLaunching();
  auto map = [](std::vector<std::pair<const char*, Value>> fields) {
    ValueMap m;
    for (auto& [k, v] : fields) m.Set(k, std::move(v));
    return Value(std::move(m));
  };
  const Value bad[] = {
      Value(),
      Value("/p/a.corvane"),
      map({{"path", Value("/p/a.corvane")}}),
      map({{"keepAccess", Value(true)}}),
      map({{"path", Value(int32_t{1})}, {"keepAccess", Value(true)}}),
      map({{"path", Value("/p/a.corvane")}, {"keepAccess", Value("true")}}),
      map({{"path", Value("/p/a.corvane")}, {"keepAccess", Value(int32_t{1})}}),
  };
  for (const Value& args : bad) {
    MethodReply reply = Call("release", args);
    ExpectError(reply, "arguments", "Invalid document receipt");
    EXPECT_EQ(reply.error.details, args);
  }
  for (const char* method : {"TakePending", "takepending", "changed", ""}) {
    EXPECT_EQ(Call(method).kind, Kind::kNotImplemented) << method;
  }
}

TEST_F(DocumentsOpeningTest, TerminationClosesEverythingAndAnswersTheParkedCall) {
  service_->HandleOpenUrls({"file:///p/a.corvane", "file:///p/b.corvane"});
  auto parked = CallLater("takePending");
  service_->HandleWillTerminate();
  Settle();
  ASSERT_EQ(parked->size(), 1u);
  ExpectError(parked->front(), "closed", "Document receiver closed");
  EXPECT_TRUE(parked->front().error.details.is_null());
  EXPECT_EQ(ended_, (Urls{"file:///p/a.corvane", "file:///p/b.corvane"}));

  // Closed for good: launch does not reopen it, files are refused silently, every call fails.
  service_->HandleDidFinishLaunching();
  const size_t changed = ChangedCalls();
  EXPECT_FALSE(service_->HandleOpenUrls({"file:///p/c.corvane"}));
  EXPECT_EQ(ChangedCalls(), changed);
  EXPECT_EQ(begun_.size(), 2u);
  for (const char* method : {"takePending", "releaseAll", "activeProject", "release", "nope"}) {
    ExpectError(Call(method), "closed", "Document receiver closed");
  }
}

TEST_F(DocumentsOpeningTest, DestructionGivesAccessBackAndAnswersTheParkedCall) {
  service_->HandleOpenUrls({"file:///p/a.corvane"});
  auto parked = CallLater("takePending");
  service_.reset();
  Settle();
  EXPECT_EQ(ended_, Urls{"file:///p/a.corvane"});
  ASSERT_EQ(parked->size(), 1u);
  EXPECT_EQ(parked->front().error.code, "closed");
}

}  // namespace
}  // namespace corvane::documents
