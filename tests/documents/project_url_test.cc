// Which URLs count as project documents, and the path each is known by.
#include "documents/project_url.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane::documents {
namespace {

constexpr auto kNotFile = UrlVerdict::kNotFile;
constexpr auto kRefused = UrlVerdict::kRefused;
constexpr auto kAccepted = UrlVerdict::kAccepted;

// A file URL whose decoded path is exactly `bytes` long.
std::string UrlWithPathOf(size_t bytes) {
  const std::string tail = "/x.corvane";
  return "file:///" + std::string(bytes - 1 - tail.size(), 'a') + tail;
}

TEST(DocumentsUrlTest, VerdictsAndPaths) {
  const struct {
    std::string url;
    UrlVerdict verdict;
    std::string path = {};
  } cases[] = {
      // Hosts: empty or exactly "localhost".
      {"file:///a/b.corvane", kAccepted, "/a/b.corvane"},
      {"file://localhost/a/b.corvane", kAccepted, "/a/b.corvane"},
      {"file:/a/b.corvane", kAccepted, "/a/b.corvane"},
      {"file://LOCALHOST/a/b.corvane", kRefused},
      {"file://example.org/a/b.corvane", kRefused},
      // The extension is compared without regard to case; the scheme too.
      {"file:///a/b.CORVANE", kAccepted, "/a/b.CORVANE"},
      {"FILE:///a/b.CorvanePack", kAccepted, "/a/b.CorvanePack"},
      {"file:///a/b.txt", kRefused},
      {"file:///a/b.corvane.txt", kRefused},
      {"file:///a/corvane", kRefused},
      {"file:///a/.corvane", kRefused},
      // Queries and fragments, even empty ones.
      {"file:///a/b.corvane?x=1", kRefused},
      {"file:///a/b.corvane?", kRefused},
      {"file:///a/b.corvane#", kRefused},
      // The path: absolute, decoded, dot segments gone, no NUL, text.
      {"file:a/b.corvane", kRefused},
      {"file://localhost", kRefused},
      {"file:///a/./c/../b.corvane", kAccepted, "/a/b.corvane"},
      {"file:///a/%2E%2E/b.corvane", kAccepted, "/b.corvane"},
      {"file:///my%20layout.corvane", kAccepted, "/my layout.corvane"},
      {"file:///gr%C3%BCn.corvane", kAccepted, "/gr\xC3\xBCn.corvane"},
      {"file:///a/b.corvane/", kAccepted, "/a/b.corvane"},
      {"file:///a%00b.corvane", kRefused},
      {"file:///%FF.corvane", kRefused},
      {"file:///a%zz.corvane", kRefused},
      {"file://[broken/a.corvane", kRefused},
      // Length in bytes of the decoded path.
      {UrlWithPathOf(kMaxPathBytes), kAccepted, UrlWithPathOf(kMaxPathBytes).substr(7)},
      {UrlWithPathOf(kMaxPathBytes + 1), kRefused},
      // Not file URLs at all.
      {"https://example.org/a.corvane", kNotFile},
      {"/a/b.corvane", kNotFile},
      {"", kNotFile},
  };
  for (const auto& c : cases) {
    const CheckedUrl checked = CheckProjectUrl(c.url);
    EXPECT_EQ(checked.verdict, c.verdict) << c.url.substr(0, 80);
    EXPECT_EQ(checked.path, c.path) << c.url.substr(0, 80);
    EXPECT_EQ(IsFileUrl(c.url), c.verdict != kNotFile) << c.url.substr(0, 80);
  }
}

}  // namespace
}  // namespace corvane::documents
