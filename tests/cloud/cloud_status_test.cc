// The channel surface: status in every configuration, the identity and its change events,
// the device name, and the deliberately different answers to missing arguments.
#include <regex>
#include <set>

#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

std::string Real(const std::string& path) { return fs::canonical(path).string(); }

struct ClientSetup {
  const char* name;
  // Writes the client's configuration with `root` as its sync root.
  std::function<void(const ClientPaths&, const std::string& root)> configure;
};

const std::vector<ClientSetup>& Clients() {
  static const std::vector<ClientSetup> clients = {
      {"nextcloud",
       [](const ClientPaths& p, const std::string& root) {
         WriteFile(p.config_home + "/Nextcloud/nextcloud.cfg",
                   "[General]\nclientVersion=3.13.0\n\n[Accounts]\n0\\Folders\\1\\localPath=" +
                       root + "/\n0\\dav_user=alice\n0\\url=https://cloud.example.org\n");
       }},
      {"owncloud",
       [](const ClientPaths& p, const std::string& root) {
         WriteFile(p.config_home + "/ownCloud/owncloud.cfg",
                   "[Accounts]\n0\\url=https://oc.example.org\n0\\user=bob\n"
                   "0\\Folders\\2\\localPath=\"" +
                       root + "\"\n");
       }},
      {"syncthing",
       [](const ClientPaths& p, const std::string& root) {
         WriteFile(p.state_home + "/syncthing/config.xml",
                   "<configuration version=\"37\">\n <folder id=\"docs\" label=\"Docs\" path=\"" +
                       root +
                       "\" type=\"sendreceive\">\n  <device id=\"AAAAAAA-B\"></device>\n"
                       " </folder>\n <device id=\"AAAAAAA-B\" name=\"layout\"></device>\n"
                       " <gui enabled=\"true\"><address>127.0.0.1:1</address>"
                       "<apikey>k</apikey></gui>\n</configuration>\n");
       }},
      {"dropbox",
       [](const ClientPaths& p, const std::string& root) {
         WriteFile(p.home + "/.dropbox/info.json",
                   "{\"personal\": {\"path\": \"" + root +
                       "\", \"host\": 4242, "
                       "\"is_team\": false, \"subscription_type\": \"Basic\"}}");
       }},
  };
  return clients;
}

TEST_F(CloudTest, StatusWhenUnavailable) {
  const Value no_container = Map({{"available", Value(false)}, {"reason", Value("noContainer")}});
  const Value with_id = Map({{"available", Value(false)},
                             {"reason", Value("noContainer")},
                             {"container", Value(kContainer)}});
  const Value no_account = Map({{"available", Value(false)},
                                {"reason", Value("noAccount")},
                                {"container", Value(kContainer)}});
  struct Case {
    std::optional<std::string> key;
    std::optional<std::string> folder;  // in the settings file; nothing: not configured
    Value status;
  } cases[] = {
      // An unexpanded build setting ("$(") counts as no container, without "container".
      {std::nullopt, "present", no_container},
      {"", "present", no_container},
      {"iCloud.$(PRODUCT_BUNDLE_IDENTIFIER)", "present", no_container},
      {kContainer, std::nullopt, no_account},
      {kContainer, "unmounted/" + std::string(kContainer), with_id},
  };
  fs::create_directories(root_.path() + "/present");
  for (const auto& c : cases) {
    fs::remove(paths_.SettingsFile());
    if (c.folder) ConfigureFolder(root_.path() + "/" + *c.folder, false);
    auto options = MakeOptions();
    options.container_key = c.key;
    Start(std::move(options));
    EXPECT_EQ(Call("status"), c.status) << c.key.value_or("<no key>");
  }
  EXPECT_FALSE(fs::exists(root_.path() + "/unmounted"));  // nothing created for it
}

TEST_F(CloudTest, StatusOfTheSettingsFileFolderCreatesDocuments) {
  // Through a link: the reply names the real folder.
  const std::string folder = ConfigureFolder(root_.path() + "/real/" + kContainer);
  fs::create_directory_symlink(root_.path() + "/real", root_.path() + "/link");
  ConfigureFolder(root_.path() + "/link/" + kContainer);
  Start();
  const Value status = Call("status");
  EXPECT_EQ(Flag(status, "available"), true);
  EXPECT_EQ(Text(status, "container"), kContainer);
  EXPECT_EQ(Text(status, "documents"), Real(folder) + "/Documents");
  EXPECT_TRUE(fs::is_directory(folder + "/Documents"));
  EXPECT_TRUE(std::regex_match(Text(status, "identity"), std::regex("[0-9a-f]{16}")));
  // The keys in their order, nothing else.
  std::vector<std::string> keys;
  for (const auto& e : *status.map_if()) keys.push_back(*e.key.string_if());
  EXPECT_EQ(keys, (std::vector<std::string>{"available", "container", "identity", "documents"}));
}

TEST_F(CloudTest, EachClientIsDetectedWithItsOwnIdentity) {
  std::set<std::string> identities;
  for (const auto& client : Clients()) {
    SCOPED_TRACE(client.name);
    fs::remove_all(paths_.home);
    const std::string root = root_.path() + "/" + client.name;
    client.configure(paths_, root);
    Start();
    EXPECT_EQ(Text(Call("status"), "reason"), "noContainer");  // configured, not there yet
    fs::create_directories(root + "/" + kContainer);
    const Value status = Call("status");
    EXPECT_EQ(Text(status, "documents"), Real(root) + "/" + kContainer + "/Documents");
    identities.insert(Text(status, "identity"));
  }
  EXPECT_EQ(identities.size(), Clients().size());
}

TEST_F(CloudTest, DetectionOrderAndTheSettingsFileFirst) {
  // Dropbox is asked last; Nextcloud's root wins although both hold the container. A root
  // without the container gives way to a later one that has it.
  for (const auto& client : Clients()) {
    client.configure(paths_, root_.path() + "/" + client.name);
  }
  for (const char* name : {"nextcloud", "dropbox"}) {
    fs::create_directories(root_.path() + "/" + name + "/" + kContainer);
  }
  Start();
  EXPECT_EQ(Text(Call("status"), "documents"),
            Real(root_.path() + "/nextcloud") + "/" + kContainer + "/Documents");
  const std::string own = ConfigureFolder(root_.path() + "/own");
  EXPECT_EQ(Text(Call("status"), "documents"), Real(own) + "/Documents");
}

TEST_F(CloudTest, IdentityChangesRaiseAnEvent) {
  const std::string first = ConfigureFolder(root_.path() + "/a/" + kContainer);
  Start();
  const std::string identity = Text(Call("status"), "identity");
  Settle(300ms);  // the first look at the configuration is the baseline, not a change
  size_t from = 0;

  // The settings file points elsewhere.
  ConfigureFolder(root_.path() + "/b/" + kContainer);
  ASSERT_TRUE(WaitEvent("identity", &from));
  const std::string second = Text(Call("status"), "identity");
  EXPECT_NE(second, identity);

  // The folder is moved away, then back.
  fs::rename(root_.path() + "/b", root_.path() + "/c");
  ASSERT_TRUE(WaitEvent("identity", &from));
  EXPECT_EQ(Text(Call("status"), "reason"), "noContainer");
  fs::rename(root_.path() + "/c", root_.path() + "/b");
  ASSERT_TRUE(WaitEvent("identity", &from));
  EXPECT_EQ(Text(Call("status"), "identity"), second);

  // An edit that changes nothing raises nothing.
  ConfigureFolder(root_.path() + "/b/" + kContainer);
  Settle(800ms);
  EXPECT_FALSE(WaitEvent("identity", &from, {}, 10ms));
}

TEST_F(CloudTest, DeviceName) {
  Start();
  EXPECT_EQ(*Call("deviceName").string_if(), g_get_host_name());
  // Quoted and escaped as a shell would; bytes that are not UTF-8 are replaced.
  WriteFile(root_.path() + "/machine-info", "CHASSIS=x\nPRETTY_HOSTNAME=\"\\\"West\\\" \xff\"\n");
  EXPECT_EQ(*Call("deviceName").string_if(), "\"West\" \xef\xbf\xbd");
  fs::remove(root_.path() + "/machine-info");
  auto options = MakeOptions();
  options.host_name = [] { return std::string(); };
  Start(std::move(options));
  EXPECT_EQ(*Call("deviceName").string_if(), "Mac");
}

TEST_F(CloudTest, MissingArgumentsGetTheirOwnReplies) {
  Start();
  const Value bad = Map({{"ok", Value(false)}, {"message", Value("Ongeldige argumenten.")}});
  const Value wrong_type = Value::Integer(7);
  struct Case {
    const char* method;
    Value args;
    Value reply;
  } cases[] = {
      {"read", Map({{"path", Value("/x")}}), bad},
      {"write", Value("not a map"), bad},
      {"write", Map({{"from", Value("/x")}}), bad},
      {"versions", Map({{"path", wrong_type}}), Value()},
      {"download", Map({{"timeoutMs", Value::Integer(5)}}), Value(false)},
      {"delete", Value(), Value(false)},
      {"move", Map({{"from", Value("/x")}}), Value(false)},
      {"setUbiquitous", Map({{"from", Value("/x")}, {"toCloud", Value(true)}}), Value(false)},
      {"saveVersion", Map({{"path", Value("/x")}, {"version", Value("0|1")}}), Value(false)},
      {"resolveConflicts", Map({{"keep", Value("current")}}), Value(false)},
  };
  for (auto& c : cases) {
    EXPECT_EQ(Call(c.method, c.args), c.reply) << c.method;
  }
  for (const char* name : {"Status", "STATUS", "list", ""}) {
    EXPECT_EQ(CallReply(name).kind, MethodReply::Kind::kNotImplemented) << name;
  }
}

}  // namespace
}  // namespace corvane::cloud::testing
