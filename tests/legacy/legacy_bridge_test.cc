// LegacySwiftUIBridge through its channel: where it looks, what each method answers, and the
// backup's promise never to overwrite.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <sys/stat.h>

#include <cstdio>
#include <thread>

#include "legacy/image_converter.h"
#include "legacy/legacy_backup.h"
#include "legacy_fixture.h"

namespace corvane::legacy::testing {
namespace {

using Kind = MethodReply::Kind;

TEST_F(BridgeTest, UnknownAndMiscasedMethodsAreNotImplemented) {
  for (const char* method : {"Probe", "readdefaults", "listfiles", "convert", ""}) {
    EXPECT_EQ(Call(method).kind, Kind::kNotImplemented) << method;
  }
  EXPECT_EQ(engine_.off_main_thread_deliveries(), 0);
}

TEST_F(BridgeTest, WithoutLegacyDataEverythingIsEmpty) {
  for (bool container_is_a_file : {false, true}) {
    if (container_is_a_file) WriteFile(Container(), std::string("where the folder should be"));
    const Value probe = Success("probe");
    EXPECT_EQ(probe, Map({{"hasLegacyData", Value(false)},
                          {"keyCount", Value::Integer(0)},
                          {"byteCount", Value::Integer(0)},
                          {"storeDemo", Value(false)},
                          {"icloudKeyValue", Value(false)}}));
    EXPECT_EQ(Success("readDefaults"), Value(ValueMap()));
    EXPECT_EQ(Success("listFiles"), Value(channel::ValueList()));
  }
}

// Under another bundle identifier the store is in the earlier edition's container; running as
// the earlier edition, in its own home.
TEST_F(BridgeTest, ReadsTheStoreWhereTheEarlierEditionKeptIt) {
  WriteStore(Dict({{"z21.host", Str("10.0.0.2")},
                   {"flutter.z21.host", Str("ignored")},
                   {"z21.appLanguageOverride", Str("nl")},
                   {"corvane.thumbnail", Data("12345")}}));
  EXPECT_EQ(Success("probe"), Map({{"hasLegacyData", Value(true)},
                                   {"keyCount", Value::Integer(3)},
                                   {"byteCount", Value::Integer(5)},
                                   {"storeDemo", Value(false)},
                                   {"icloudKeyValue", Value(false)},
                                   {"language", Value("nl")}}));
  EXPECT_EQ(Success("readDefaults"),
            Map({{"z21.host", Value("10.0.0.2")},
                 {"z21.appLanguageOverride", Value("nl")},
                 {"corvane.thumbnail", Value(channel::Bytes{'1', '2', '3', '4', '5'})}}));
  bridge_.reset();
  environment_.bundle_identifier = "nl.hazelmoor.corvane";
  WriteFile(
      fs::path(environment_.application_home) / "Library/Preferences/nl.hazelmoor.corvane.plist",
      Serialize(Dict({{"z21.own", Bool(true)}}), Format::kXml));
  EXPECT_EQ(Success("readDefaults"), Map({{"z21.own", Value(true)}}));
}

TEST_F(BridgeTest, BackupCreatesFoldersAndWritesWhatPlistlibReads) {
  WriteStore(Dict({{"z21.host", Str("h")},
                   {"flutter.x", Int(1)},
                   {"corvane.when", Date(0)},
                   {"z21.blob", Data("ab")}}),
             Format::kXml);
  const fs::path backup = dir_ / "new/nested/folders/prefs.plist";
  EXPECT_EQ(Success("backupDefaults", Map({{"path", Value(backup.string())}})), Value(true));
  struct stat st {};
  ASSERT_EQ(stat(backup.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u) << "the user's preferences stay private";

  const std::string check =
      "python3 -c \"import plistlib, datetime, sys; d = plistlib.load(open(sys.argv[1], 'rb')); "
      "sys.exit(0 if d == {'z21.host': 'h', 'corvane.when': datetime.datetime(2001, 1, 1), "
      "'z21.blob': b'ab'} else 1)\" " +
      backup.string();
  EXPECT_EQ(std::system(check.c_str()), 0) << "plistlib reads back exactly the legacy keys";
}

TEST_F(BridgeTest, BackupErrorsNeverReplaceWhatIsThere) {
  WriteStore(Dict({{"z21.host", Str("h")}}));
  const fs::path file = dir_ / "existing.plist";
  WriteFile(file, std::string("the user's own file"));
  const fs::path folder = dir_ / "a-folder";
  fs::create_directories(folder);
  const fs::path link = dir_ / "dangling";
  fs::create_symlink(dir_ / "nowhere", link);

  const auto at = [](const fs::path& path) { return Map({{"path", Value(path.string())}}); };
  const struct {
    Value args;
    const char* message;
  } cases[] = {
      {Value(), "Missing path"},
      {Value("/tmp/x"), "Missing path"},
      {Map({{"path", Value("")}}), "Missing path"},
      {Map({{"path", Value::Integer(3)}}), "Missing path"},
      {Map({{"Path", Value("/tmp/x")}}), "Missing path"},
      {Map({{"path", Value("relative.plist")}}), "Missing path"},  // not the working folder
      {at(file), "Backup already exists"},
      {at(folder), "Backup already exists"},
      {at(link), "Backup already exists"},
  };
  for (const auto& c : cases) {
    const MethodReply reply = Call("backupDefaults", c.args);
    // A missing path carries the arguments as received.
    EXPECT_EQ(std::tuple(reply.kind, reply.error.code, reply.error.message,
                         *c.message == 'M' ? reply.error.details : c.args),
              std::tuple(Kind::kError, "legacy_backup", c.message, c.args));
  }
  EXPECT_EQ(ReadFile(file), "the user's own file");
  EXPECT_FALSE(fs::exists(dir_ / "nowhere")) << "the link was not followed";
  // A path below a plain file can never be created: false, no error.
  EXPECT_EQ(Success("backupDefaults", at(file / "b.plist")), Value(false));
}

// Rounds of writers released together, so that some reach the exclusive create between
// another's existence check and its write.
TEST_F(BridgeTest, RacingBackupsToOnePathHaveExactlyOneWinner) {
  for (int round = 0; round < 20; ++round) {
    const fs::path contested = dir_ / ("threads/" + std::to_string(round) + ".plist");
    std::atomic<int> outcomes[3] = {}, waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&, i] {
        const std::vector<uint8_t> bytes(1000, static_cast<uint8_t>('a' + i));
        ++waiting;
        while (waiting < 8) std::this_thread::yield();
        ++outcomes[static_cast<int>(WriteBackup(contested.string(), bytes))];
      });
    }
    for (auto& t : threads) t.join();
    ASSERT_EQ(outcomes[static_cast<int>(BackupOutcome::kWritten)], 1) << "round " << round;
    ASSERT_EQ(outcomes[static_cast<int>(BackupOutcome::kExists)], 7) << "round " << round;
    const std::string content = ReadFile(contested);
    EXPECT_EQ(content, std::string(1000, content[0])) << "one writer's bytes";
  }
}

TEST_F(BridgeTest, ListsTheFourFoldersWithPlaceholdersAndSkipsNearMisses) {
  const fs::path app = Container() / "Library/Application Support/Corvane";
  const fs::path cloud = fs::path(environment_.account_home) /
                         "Library/Mobile Documents/iCloud~nl~hazelmoor~corvane/Documents";
  fs::create_directories(Container());
  WriteFile(app / "LocalProjects/Yard.corvane", std::string("12345"));
  WriteFile(app / "LocalProjects/.DS_Store", std::string("x"));  // hidden, not a placeholder
  fs::create_directories(app / "LocalProjects/subfolder");       // not a file
  WriteFile(app / "Backups/corvane-backup-1.corvanepack", std::string("1"));
  WriteFile(cloud / "Projects/.Main.corvane.icloud", std::string("stub"));
  WriteFile(cloud / "Projects/Shed.corvane.icloud", std::string("no leading dot"));
  WriteFile(cloud / "Projects/.icloud", std::string("nothing it stands for"));
  WriteFile(cloud / "Projects/.x.icloud.bak", std::string("wrong ending"));
  WriteFile(cloud / "Backups/b.corvanepack", std::string("bb"));
  const auto mtime = fs::file_time_type::clock::now() - std::chrono::hours(24);
  fs::last_write_time(app / "LocalProjects/Yard.corvane", mtime);

  struct stat st {};
  ASSERT_EQ(stat((app / "LocalProjects/Yard.corvane").c_str(), &st), 0);
  const auto entry = [](const char* kind, const fs::path& path, const char* name, int64_t bytes,
                        bool downloaded, int64_t modified_ms) {
    return Map({{"kind", Value(kind)},
                {"name", Value(name)},
                {"path", Value(path.string())},
                {"bytes", Value::Integer(bytes)},
                {"modifiedMs", Value(modified_ms)},
                {"downloaded", Value(downloaded)}});
  };
  Value list = Success("listFiles");
  ASSERT_TRUE(list.list_if() && list.list_if()->size() == 5u);
  // Only the first entry's time is checked: the others were written just now.
  for (size_t i = 1; i < 5; ++i) {
    (*list.mutable_list_if())[i].mutable_map_if()->Set("modifiedMs", Value(int64_t{0}));
  }
  EXPECT_EQ(list, Value(channel::ValueList{
                      entry("localProject", app / "LocalProjects/Yard.corvane", "Yard.corvane", 5,
                            true, int64_t{st.st_mtim.tv_sec} * 1000 + st.st_mtim.tv_nsec / 1000000),
                      entry("backup", app / "Backups/corvane-backup-1.corvanepack",
                            "corvane-backup-1.corvanepack", 1, true, 0),
                      entry("cloudProject", cloud / "Projects/.Main.corvane.icloud", "Main.corvane",
                            4, false, 0),
                      entry("cloudProject", cloud / "Projects/Shed.corvane.icloud",
                            "Shed.corvane.icloud", 14, true, 0),
                      entry("backup", cloud / "Backups/b.corvanepack", "b.corvanepack", 2, true, 0),
                  }));
}

TEST_F(BridgeTest, WithoutARootTheApplicationFolderIsInTheDataHome) {
  WriteFile(fs::path(environment_.data_home) / "Corvane/LocalProjects/Here.corvane",
            std::string("x"));
  const Value list = Success("listFiles");
  ASSERT_TRUE(list.list_if() && list.list_if()->size() == 1u);
  EXPECT_EQ(*list.list_if()->front().map_if()->Find("name"), Value("Here.corvane"));
}

TEST_F(BridgeTest, ConvertImageAnswersJpegOrNull) {
  for (const Value& args : {Value(), Value("png"), Map({{"bytes", Value(channel::Bytes{1})}}),
                            Value(channel::Bytes()), Value(channel::Bytes{'n', 'o', 'p', 'e'})}) {
    EXPECT_EQ(Success("convertImage", args), Value());
  }
  GdkPixbuf* pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, true, 8, 20, 10);
  gdk_pixbuf_fill(pb, 0);
  gchar* png = nullptr;
  gsize size = 0;
  ASSERT_TRUE(gdk_pixbuf_save_to_buffer(pb, &png, &size, "png", nullptr, nullptr));
  g_object_unref(pb);
  const channel::Bytes bytes(png, png + size);
  g_free(png);
  EXPECT_EQ(Success("convertImage", Value(bytes)),
            Value(ConvertToJpeg(bytes.data(), bytes.size()).jpeg));
}

TEST(LegacyEnvironmentTest, HomeComesFromTheAccountDatabaseNotTheEnvironment) {
  const char* saved = std::getenv("HOME");
  const std::string old = saved ? saved : "";
  setenv("HOME", "/nonexistent-home-for-test", 1);
  const LegacyEnvironment env = LegacyEnvironment::Current("io.corvane.host");
  if (saved)
    setenv("HOME", old.c_str(), 1);
  else
    unsetenv("HOME");
  EXPECT_EQ(env.bundle_identifier, "io.corvane.host");
  EXPECT_NE(env.account_home, "/nonexistent-home-for-test");
  EXPECT_FALSE(env.account_home.empty());
  EXPECT_EQ(env.application_home, "/nonexistent-home-for-test");
}

}  // namespace
}  // namespace corvane::legacy::testing
