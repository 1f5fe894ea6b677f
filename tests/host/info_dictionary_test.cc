// The information dictionary: the built-in copy, a replacement file, and the ways a file can be
// unusable.
#include "host/info_dictionary.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace corvane::host {
namespace {

class InfoFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gchar* dir = g_dir_make_tmp("corvane-info-XXXXXX", nullptr);
    ASSERT_NE(dir, nullptr);
    dir_ = dir;
    g_free(dir);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  std::string dir_;
};

TEST_F(InfoFileTest, BuiltInCopyHasBothKeys) {
  InfoDictionary info = InfoDictionary::Default();
  EXPECT_EQ(info.Get(kBundleIdentifierKey), "io.corvane.host");
  auto container = info.Get(kICloudContainerKey);
  ASSERT_TRUE(container.has_value());
  EXPECT_FALSE(container->empty());
  EXPECT_EQ(info.Get("NoSuchKey"), std::nullopt);
}

TEST_F(InfoFileTest, ReplacementFileWinsAsAWhole) {
  const std::string path = Write("Info.conf",
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
      InfoDictionary::Load(Write("sparse.conf", "[Info]\nBundleIdentifier=a.b\n"), &error);
  ASSERT_TRUE(sparse) << error;
  EXPECT_EQ(sparse->Get(kICloudContainerKey), std::nullopt);
}

TEST_F(InfoFileTest, UnusableFilesAreReportedByName) {
  std::string error;
  EXPECT_FALSE(InfoDictionary::Load(dir_ + "/missing.conf", &error));
  EXPECT_NE(error.find("missing.conf"), std::string::npos) << error;

  const std::string no_group = Write("nogroup.conf", "[Information]\nBundleIdentifier=a.b\n");
  EXPECT_FALSE(InfoDictionary::Load(no_group, &error));
  EXPECT_NE(error.find("[Info]"), std::string::npos) << error;

  EXPECT_FALSE(InfoDictionary::Load(Write("garbage.conf", "not a key file\n"), &error));
  EXPECT_NE(error.find("garbage.conf"), std::string::npos) << error;
}

}  // namespace
}  // namespace corvane::host
