// The information dictionary: the built-in copy, a replacement file, and the ways a file can be
// unusable.
#include "host/info_dictionary.h"

#include <gtest/gtest.h>

#include <fstream>

#include "channel/log.h"
#include "host/command_line.h"
#include "host/glib_log_sink.h"
#include "host/support.h"

namespace corvane::host {
namespace {

// Each option as written, "--" ending them, and one line for what cannot be parsed.
TEST(HostCommandLine, OptionsDocumentsAndErrors) {
  auto parse = [](std::vector<std::string> args, std::string* error) {
    args.insert(args.begin(), "corvane-host");
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    return ParseCommandLine(static_cast<int>(argv.size()), argv.data(), error);
  };
  std::string error;
  auto options = parse({"--headless", "--engine-socket=/s", "--info", "/i", "a", "-",
                        "--print-registrations", "--", "--help", "-h"},
                       &error);
  ASSERT_TRUE(options) << error;
  EXPECT_EQ(std::tuple(options->headless, options->engine_socket, options->info_file,
                       options->print_registrations, options->help, options->documents),
            std::tuple(true, "/s", std::optional<std::string>("/i"), true, false,
                       std::vector<std::string>{"a", "-", "--help", "-h"}));
  for (const auto& [args, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--info"}, "option --info needs a value"},
           {{"--engine-socket="}, "option --engine-socket needs a non-empty value"},
           {{"--engine-socketx"}, "unknown option --engine-socketx"}}) {
    EXPECT_FALSE(parse(args, &error));
    EXPECT_EQ(error, message);
  }
  EXPECT_TRUE(parse({"-h"}, &error)->help);
}

// A line logged through GLib directly, not only through the channel layer, is cut.
TEST(HostLog, EveryLongLineIsCut) {
  RouteChannelLogToGLib();
  ::testing::internal::CaptureStderr();
  g_message("refused %s", std::string(1 << 20, 'p').c_str());
  channel::Log(channel::LogLevel::kWarning, "corvane-test", std::string(1 << 20, 'q'));
  const std::string out = ::testing::internal::GetCapturedStderr();
  EXPECT_LT(out.size(), 2 * (channel::kMaxLogLine + 200)) << out.size();
  EXPECT_NE(out.find("(1048584 bytes)"), std::string::npos);
  EXPECT_NE(out.find("(1048576 bytes)"), std::string::npos);
}

TEST(InfoDictionary, BuiltInCopyOrAReplacementFileWholly) {
  InfoDictionary builtin = InfoDictionary::Default();
  EXPECT_EQ(builtin.Get(kBundleIdentifierKey), "io.corvane.host");
  EXPECT_FALSE(builtin.Get(kICloudContainerKey).value_or("").empty());
  EXPECT_EQ(builtin.Get("NoSuchKey"), std::nullopt);

  testing::TempDir dir;
  std::ofstream(dir / "Info.conf") << "# other build\n[Other]\nBundleIdentifier=wrong.group\n"
                                      "[Info]\nBundleIdentifier=nl.hazelmoor.corvane\n"
                                      "CorvaneICloudContainer=  $(CONTAINER)\\t\n";
  std::ofstream(dir / "sparse.conf") << "[Info]\nBundleIdentifier=a.b\n";
  std::string error;
  auto info = InfoDictionary::Load(dir / "Info.conf", &error);
  ASSERT_TRUE(info) << error;
  EXPECT_EQ(info->Get(kBundleIdentifierKey), "nl.hazelmoor.corvane");
  // Values come back as written (key-file escapes undone); judging them is the reader's job.
  EXPECT_EQ(info->Get(kICloudContainerKey), "$(CONTAINER)\t");
  EXPECT_EQ(info->origin(), dir / "Info.conf");
  // Keys of the built-in copy do not leak into a replacement that lacks them.
  auto sparse = InfoDictionary::Load(dir / "sparse.conf", &error);
  ASSERT_TRUE(sparse) << error;
  EXPECT_EQ(sparse->Get(kICloudContainerKey), std::nullopt);

  // Unusable files are reported by name.
  std::ofstream(dir / "nogroup.conf") << "[Information]\nBundleIdentifier=a.b\n";
  std::ofstream(dir / "garbage.conf") << "not a key file\n";
  for (auto [file, named] : {std::pair{"missing.conf", "missing.conf"},
                             {"nogroup.conf", "[Info]"},
                             {"garbage.conf", "garbage.conf"}}) {
    EXPECT_FALSE(InfoDictionary::Load(dir / file, &error)) << file;
    EXPECT_NE(error.find(named), std::string::npos) << error;
  }
}

}  // namespace
}  // namespace corvane::host
