#include "documents/mac_project_opening.h"

#include <algorithm>

#include "channel/args.h"
#include "documents/project_url.h"

namespace corvane::documents {

namespace {

using channel::MethodResult;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

constexpr const char* kClosedCode = "closed";
constexpr const char* kClosedMessage = "Document receiver closed";
constexpr const char* kBusyCode = "busy";
constexpr const char* kBusyMessage = "Initial document handoff pending";
constexpr const char* kArgumentsCode = "arguments";
constexpr const char* kArgumentsMessage = "Invalid document receipt";

}  // namespace

void MacProjectOpening::Access::GiveBack() const {
  if (scoped && stop) stop(url);
}

MacProjectOpening::MacProjectOpening(channel::BinaryMessenger& messenger, Options options)
    : begin_access_(options.begin_access ? std::move(options.begin_access)
                                         : [](const std::string&) { return true; }),
      end_access_(options.end_access ? std::move(options.end_access) : [](const std::string&) {}),
      window_(std::move(options.window)),
      channel_(std::make_unique<channel::MethodChannel>(messenger, kOpenProjectsChannel)) {
  channel_->SetMethodCallHandler(
      [this](const channel::MethodCall& call, std::unique_ptr<MethodResult> result) {
        HandleCall(call, std::move(result));
      });
}

MacProjectOpening::~MacProjectOpening() {
  channel_.reset();
  ReleaseAll();
  // A parked call still gets its one answer.
  if (initial_reply_) initial_reply_->Error(kClosedCode, kClosedMessage);
}

bool MacProjectOpening::HandleOpenUrls(const std::vector<std::string>& urls) {
  if (closed_ || std::none_of(urls.begin(), urls.end(), IsFileUrl)) return false;
  bool all_files = true;
  for (const std::string& url : urls) {
    if (!IsFileUrl(url)) {
      all_files = false;
      continue;
    }
    Accept(url);
  }
  // Sent even when nothing new was queued: the Flutter side decides what to show.
  channel_->InvokeMethod("changed", Value());
  BringWindowForward();
  return all_files;
}

void MacProjectOpening::Accept(const std::string& url) {
  CheckedUrl checked = CheckProjectUrl(url);
  if (checked.verdict != UrlVerdict::kAccepted) {
    rejected_ = true;
    return;
  }
  if (pending_.count(checked.path)) return;
  if (pending_.size() >= kMaxPending) {
    rejected_ = true;
    return;
  }
  const bool scoped = begin_access_(url);
  pending_.emplace(checked.path, Access{url, scoped, end_access_});
  undelivered_.push_back(std::move(checked.path));
}

void MacProjectOpening::BringWindowForward() {
  if (!window_) return;
  std::unique_ptr<DocumentWindow> window = window_();
  if (!window) return;
  if (window->IsMinimized()) window->Unminimize();
  window->Present();
}

void MacProjectOpening::HandleDidFinishLaunching() {
  if (closed_) return;
  launched_ = true;
  if (auto reply = std::move(initial_reply_)) reply->Success(HandOver());
}

void MacProjectOpening::HandleWillTerminate() {
  closed_ = true;
  if (auto reply = std::move(initial_reply_)) reply->Error(kClosedCode, kClosedMessage);
  ReleaseAll();
}

void MacProjectOpening::HandleCall(const channel::MethodCall& call,
                                   std::unique_ptr<MethodResult> result) {
  if (closed_) return result->Error(kClosedCode, kClosedMessage);
  const std::string& method = call.method;
  if (method == "takePending") return TakePending(std::move(result));
  if (method == "release") return Release(call.arguments, std::move(result));
  if (method == "activeProject") return ActiveProject(call.arguments, std::move(result));
  if (method == "releaseAll") {
    ReleaseAll();
    return result->Success();
  }
  result->NotImplemented();
}

void MacProjectOpening::TakePending(std::unique_ptr<MethodResult> result) {
  if (launched_) return result->Success(HandOver());
  if (initial_reply_) return result->Error(kBusyCode, kBusyMessage);
  initial_reply_ = std::move(result);
}

Value MacProjectOpening::HandOver() {
  ValueList paths;
  paths.reserve(undelivered_.size());
  for (std::string& path : undelivered_) paths.emplace_back(std::move(path));
  undelivered_.clear();
  ValueMap map;
  map.Set("paths", Value(std::move(paths)));
  map.Set("rejected", Value(rejected_));
  rejected_ = false;
  return Value(std::move(map));
}

void MacProjectOpening::Release(const Value& args, std::unique_ptr<MethodResult> result) {
  channel::Args reader(args);
  const std::string* path = reader.string("path");
  const std::optional<bool> keep_access = reader.boolean("keepAccess");
  // Only absolute paths are ever queued; a relative one names nothing of ours.
  if (!path || !path->starts_with('/') || !keep_access) {
    return result->Error(kArgumentsCode, kArgumentsMessage, args);
  }

  std::erase(undelivered_, *path);
  auto it = pending_.find(*path);
  if (it == pending_.end()) return result->Success();
  Access access = std::move(it->second);
  pending_.erase(it);
  if (*keep_access && current_project_path_ == *path) {
    // The current project keeps its file open; the one kept before is given back.
    if (active_) active_->second.GiveBack();
    active_.emplace(*path, std::move(access));
  } else {
    access.GiveBack();
  }
  result->Success();
}

void MacProjectOpening::ActiveProject(const Value& args, std::unique_ptr<MethodResult> result) {
  const std::string* path = args.string_if();
  current_project_path_ = path ? std::optional<std::string>(*path) : std::nullopt;
  if (active_ && current_project_path_ != active_->first) {
    active_->second.GiveBack();
    active_.reset();
  }
  result->Success();
}

void MacProjectOpening::ReleaseAll() {
  auto pending = std::exchange(pending_, {});
  for (const auto& [path, access] : pending) access.GiveBack();
  undelivered_.clear();
  if (auto active = std::exchange(active_, std::nullopt)) active->second.GiveBack();
  current_project_path_.reset();
}

}  // namespace corvane::documents
