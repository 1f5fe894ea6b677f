// Two real Syncthing instances sync one folder over 127.0.0.1. Both change the same document
// while the folder is paused; after the resume Syncthing itself leaves a conflict copy. The
// service must find the container from Syncthing's configuration, list that copy as a conflict
// version, save it, and resolve it, and the other side must converge.
#include <sys/wait.h>

#include <map>

#include "cloud_fixture.h"

namespace corvane::cloud::testing {
namespace {

constexpr const char* kDocument = "Documents/doc.corvane";

// Runs `script` in bash with the pair's helper functions (and, once started, the pair's
// variables) loaded. Every wait inside is bounded by the helpers themselves.
class SyncthingPair {
 public:
  explicit SyncthingPair(std::string dir) : dir_(std::move(dir)) {}
  ~SyncthingPair() {
    if (started_) Run("stop_pair");
  }

  bool Start() {
    // Conflict copies are named by the clock time of the Syncthing process: UTC keeps them
    // stable. Started twice at most: a port taken by someone else in between is not our fault.
    for (int attempt = 0; attempt < 2 && !started_; ++attempt) {
      const std::string peers = dir_ + "/peers" + std::to_string(attempt);
      started_ = Run("export TZ=UTC; start_pair '" + peers + "' && export -p | grep ' ST_' > '" +
                         dir_ + "/env'",
                     false);
    }
    if (!started_) return false;
    std::ifstream env(dir_ + "/env");
    std::string line;
    while (std::getline(env, line)) {
      // declare -x ST_A_DIR="/tmp/..."
      const size_t eq = line.find('=');
      const size_t name = line.find("ST_");
      if (eq == std::string::npos || name == std::string::npos) continue;
      std::string value = line.substr(eq + 1);
      if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
      vars_[line.substr(name, eq - name)] = value;
    }
    return !Var("ST_A_DIR").empty() && !Var("ST_B_DIR").empty();
  }

  bool Run(const std::string& script, bool with_env = true) {
    std::string full = "set -u; . '" + std::string(CORVANE_SYNCTHING_PAIR) + "'; ";
    if (with_env) full += ". '" + dir_ + "/env'; ";
    full += script;
    output_.clear();
    const std::string file = dir_ + "/step.sh";
    WriteFile(file, full + "\n");
    FILE* pipe = popen(("bash '" + file + "' 2>&1").c_str(), "r");
    if (!pipe) return false;
    char buffer[4096];
    while (size_t n = fread(buffer, 1, sizeof buffer, pipe)) output_.append(buffer, n);
    const int status = pclose(pipe);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  std::string Var(const std::string& name) const {
    auto it = vars_.find(name);
    return it == vars_.end() ? "" : it->second;
  }
  const std::string& output() const { return output_; }

 private:
  std::string dir_;
  bool started_ = false;
  std::map<std::string, std::string> vars_;
  std::string output_;
};

class SyncthingTest : public CloudTest {
 protected:
  void SetUp() override {
    gchar* syncthing = g_find_program_in_path("syncthing");
    const bool present = syncthing != nullptr;
    g_free(syncthing);
    if (!present) GTEST_SKIP() << "syncthing is not installed (scripts/setup.sh installs it)";
    pair_ = std::make_unique<SyncthingPair>(root_.path());
    ASSERT_TRUE(pair_->Start()) << pair_->output();
    // The service reads side A's own Syncthing home, as the user's desktop would.
    fs::create_directories(paths_.state_home);
    fs::create_directory_symlink(pair_->Var("ST_A_HOME"), paths_.state_home + "/syncthing");
    container_a_ = pair_->Var("ST_A_DIR") + "/" + kContainer;
    rel_ = std::string(kContainer) + "/" + kDocument;
  }
  void TearDown() override { pair_.reset(); }

  std::unique_ptr<SyncthingPair> pair_;
  std::string container_a_;
  std::string rel_;  // the document below the synced folder
};

TEST_F(SyncthingTest, ARealConflictIsListedSavedAndResolved) {
  fs::create_directories(container_a_);
  Start();
  const Value status = Call("status");
  ASSERT_EQ(Text(status, "documents"), fs::canonical(container_a_).string() + "/Documents");
  const std::string doc = container_a_ + "/" + kDocument;

  // The document reaches B, then both sides change it while paused; B's newer edit wins.
  WriteFile(root_.path() + "/orig", "orig");
  ASSERT_EQ(
      Flag(Call("write", Map({{"from", Value(root_.path() + "/orig")}, {"path", Value(doc)}})),
           "ok"),
      true);
  ASSERT_TRUE(
      pair_->Run("st_scan A; st_wait_file B '" + rel_ + "' orig 30 && st_wait 30 st_idle B"))
      << pair_->output();
  ASSERT_TRUE(pair_->Run("make_conflict '" + rel_ + "' mine theirs B && echo \"$ST_CONFLICT_REL\""))
      << pair_->output();
  EXPECT_EQ(ReadFile(doc), "theirs");

  // Syncthing's copy, in A's folder, holding A's losing edit; the winner is B, named "peer"
  // in A's configuration. Syncthing reports the file itself as in sync.
  const Value versions = Call("versions", Map({{"path", Value(doc)}}));
  const Value* conflicts = Field(versions, "conflicts");
  ASSERT_TRUE(conflicts && conflicts->list_if() && conflicts->list_if()->size() == 1u)
      << pair_->output();
  const Value& conflict = conflicts->list_if()->front();
  EXPECT_EQ(Text(conflict, "device"), "peer");
  const std::string id = Text(conflict, "id");
  EXPECT_EQ(id, "0|" + std::to_string(*Integer(conflict, "modifiedMs")));
  EXPECT_EQ(Call("download", Map({{"path", Value(doc)}, {"timeoutMs", Value::Integer(0)}})),
            Value(true));
  Call("startWatching");
  size_t from = 0;
  EXPECT_TRUE(WaitEvent("items", &from, [](const Value& e) {
    const Value* items = Field(e, "items");
    return items && items->list_if()->size() == 1 &&
           Flag(items->list_if()->front(), "conflict") == true;
  }));

  const std::string saved = container_a_ + "/saved.corvane";
  EXPECT_EQ(Call("saveVersion",
                 Map({{"path", Value(doc)}, {"version", Value(id)}, {"to", Value(saved)}})),
            Value(true));
  EXPECT_EQ(ReadFile(saved), "mine");

  // Keeping A's edit: A's file holds it, the copy is gone, and B follows.
  EXPECT_EQ(Call("resolveConflicts", Map({{"path", Value(doc)}, {"keep", Value(id)}})),
            Value(true));
  EXPECT_EQ(ReadFile(doc), "mine");
  EXPECT_EQ(Field(Call("versions", Map({{"path", Value(doc)}})), "conflicts")->list_if()->size(),
            0u);
  EXPECT_TRUE(pair_->Run("st_scan A; st_wait_file B '" + rel_ +
                         "' mine 30 && st_wait 30 eval '[ -z \"$(st_cf B \"" + rel_ + "\")\" ]'"))
      << pair_->output();
  EXPECT_TRUE(WaitEvent("items", &from, [](const Value& e) {
    const Value* items = Field(e, "items");
    return items && items->list_if()->size() == 1 &&
           Flag(items->list_if()->front(), "conflict") == false;
  }));
}

}  // namespace
}  // namespace corvane::cloud::testing
