// A private X server for GTK tests, on a display number Xvfb picks itself (-displayfd), so
// parallel tests never collide. Stopped when the object goes.
#pragma once

#include <string>

typedef struct _GSubprocess GSubprocess;

namespace corvane::testing {

class XvfbServer {
 public:
  XvfbServer();  // starts the server; see ok() and error()
  XvfbServer(const XvfbServer&) = delete;
  XvfbServer& operator=(const XvfbServer&) = delete;
  ~XvfbServer();

  bool ok() const { return !display_.empty(); }
  const std::string& display() const { return display_; }  // ":N"
  const std::string& error() const { return error_; }

 private:
  GSubprocess* process_ = nullptr;
  std::string display_;
  std::string error_;
};

}  // namespace corvane::testing
