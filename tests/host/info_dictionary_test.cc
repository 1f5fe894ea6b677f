// The information dictionary: the built-in copy, a replacement file, and the ways a file can be
// unusable.
#include "host/info_dictionary.h"

#include <gtest/gtest.h>

#include <fstream>

#include "host/support.h"

namespace corvane::host {
namespace {

std::string Write(const testing::TempDir& dir, const std::string& name, const std::string& text) {
  std::ofstream(dir / name) << text;
  return dir / name;
}

TEST(InfoDictionary, BuiltInCopyOrAReplacementFileWholly) {
  InfoDictionary builtin = InfoDictionary::Default();
  EXPECT_EQ(builtin.Get(kBundleIdentifierKey), "io.corvane.host");
  EXPECT_FALSE(builtin.Get(kICloudContainerKey).value_or("").empty());
  EXPECT_EQ(builtin.Get("NoSuchKey"), std::nullopt);

  testing::TempDir dir;
  const std::string path = Write(dir, "Info.conf",
                                 "# other build\n"
                                 "[Other]\nBundleIdentifier=wrong.group\n"
                                 "[Info]\nBundleIdentifier=nl.hazelmoor.corvane\n"
                                 "CorvaneICloudContainer=  $(CONTAINER)\\t\n");
  std::string error;
  auto info = InfoDictionary::Load(path, &error);
  ASSERT_TRUE(info) << error;
  EXPECT_EQ(info->Get(kBundleIdentifierKey), "nl.hazelmoor.corvane");
  // Values come back as written (key-file escapes undone); judging them is the reader's job.
  EXPECT_EQ(info->Get(kICloudContainerKey), "$(CONTAINER)\t");
  EXPECT_EQ(info->origin(), path);

  // Keys of the built-in copy do not leak into a replacement that lacks them.
  auto sparse =
      InfoDictionary::Load(Write(dir, "sparse.conf", "[Info]\nBundleIdentifier=a.b\n"), &error);
  ASSERT_TRUE(sparse) << error;
  EXPECT_EQ(sparse->Get(kICloudContainerKey), std::nullopt);
}

TEST(InfoDictionary, UnusableFilesAreReportedByName) {
  testing::TempDir dir;
  const std::pair<std::string, std::string> cases[] = {
      {dir / "missing.conf", "missing.conf"},
      {Write(dir, "nogroup.conf", "[Information]\nBundleIdentifier=a.b\n"), "[Info]"},
      {Write(dir, "garbage.conf", "not a key file\n"), "garbage.conf"},
  };
  for (const auto& [path, named] : cases) {
    std::string error;
    EXPECT_FALSE(InfoDictionary::Load(path, &error)) << path;
    EXPECT_NE(error.find(named), std::string::npos) << error;
  }
}

}  // namespace
}  // namespace corvane::host
