// MacProjectOpening: project documents that the desktop asks us to open, on
// "io.corvane/open_projects".
//
// Accepted files get scoped access and wait, in arrival order, until the Flutter side collects
// them with "takePending"; it acknowledges each with "release", keeping access only for the
// file it opens as its current project ("activeProject"). A "takePending" that arrives before
// launching has finished is parked and answered at launch. After termination every call gets
// "closed". Everything here runs on the main thread.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "channel/method_channel.h"
#include "documents/document_window.h"

namespace corvane::documents {

inline constexpr const char* kOpenProjectsChannel = "io.corvane/open_projects";
// Files with open access not yet released; past it a new file is refused.
inline constexpr size_t kMaxPending = 32;

class MacProjectOpening {
 public:
  // Starts scoped access to the file at `url`; whether it was granted.
  using BeginAccess = std::function<bool(const std::string& url)>;
  using EndAccess = std::function<void(const std::string& url)>;

  struct Options {
    // Linux has no scoped access: by default access is granted and giving it back does nothing.
    BeginAccess begin_access;
    EndAccess end_access;
    WindowLookup window;  // none: nothing to bring forward
  };

  // One file's open access. Giving it back calls `stop` only when access was granted.
  struct Access {
    std::string url;  // as received
    bool scoped = false;
    EndAccess stop;
    void GiveBack() const;
  };

  // Opens the channel on `messenger` (main thread).
  MacProjectOpening(channel::BinaryMessenger& messenger, Options options);
  MacProjectOpening(const MacProjectOpening&) = delete;
  MacProjectOpening& operator=(const MacProjectOpening&) = delete;
  ~MacProjectOpening();  // gives every access back

  // Application hooks. HandleOpenUrls returns true when every URL was a file URL.
  bool HandleOpenUrls(const std::vector<std::string>& urls);
  void HandleDidFinishLaunching();
  void HandleWillTerminate();

 private:
  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void TakePending(std::unique_ptr<channel::MethodResult> result);
  void Release(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void ActiveProject(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);

  channel::Value HandOver();
  void Accept(const std::string& url);
  void BringWindowForward();
  void ReleaseAll();

  BeginAccess begin_access_;
  EndAccess end_access_;
  WindowLookup window_;
  std::unique_ptr<channel::MethodChannel> channel_;

  std::map<std::string, Access> pending_;  // path -> access
  std::vector<std::string> undelivered_;
  std::optional<std::pair<std::string, Access>> active_;
  std::optional<std::string> current_project_path_;
  bool rejected_ = false;
  bool closed_ = false;
  bool launched_ = false;
  std::unique_ptr<channel::MethodResult> initial_reply_;
};

}  // namespace corvane::documents
