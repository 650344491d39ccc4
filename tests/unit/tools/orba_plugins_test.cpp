#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"
#include "platform/posix/trust.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/forked.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_root.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/plugin_run.h"
#include "tools/orba-plugins/signals.h"
#include "tools/orba-plugins/time_limit.h"

namespace orbamira::plugins {
namespace {

namespace fs = std::filesystem;

using test::LogCapture;
using test::LogLine;

constexpr Identity kSelf{4242, 4244};

std::string WhyDistrustedFile(uid_t user, gid_t group, mode_t mode) {
  struct stat status {};
  status.st_uid = user;
  status.st_gid = group;
  status.st_mode = S_IFREG | mode;
  return WhyDistrusted(status, kSelf, "it");
}

TEST(PluginTrustTest, FilesOfRootAndOfOurselvesAreTrusted) {
  EXPECT_EQ(WhyDistrustedFile(0, 4343, 0755), "");
  EXPECT_EQ(WhyDistrustedFile(4242, 4343, 0755), "");
}

TEST(PluginTrustTest, FilesOfOthersAreNot) { EXPECT_EQ(WhyDistrustedFile(4243, 0, 0755), "it belongs to user 4243"); }

TEST(PluginTrustTest, FilesThatOthersMayWriteAreNot) {
  EXPECT_EQ(WhyDistrustedFile(0, 0, 0757), "everyone may write it");
  EXPECT_EQ(WhyDistrustedFile(0, 4343, 0775), "group 4343 may write it");
}

TEST(PluginTrustTest, FilesThatOurGroupOrThatOfRootMayWriteAre) {
  EXPECT_EQ(WhyDistrustedFile(0, 0, 0775), "");
  EXPECT_EQ(WhyDistrustedFile(4242, 4244, 0775), "");
}

TEST(PluginFailureTest, IsLoggedAtLocal1InOneLine) {
  LogCapture::Clear();
  testing::internal::CaptureStderr();
  Report("a\nb: gone");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(program_invocation_short_name) + ": a\\012b: gone\n");
  EXPECT_EQ(LogCapture::Lines(), std::vector({LogLine{LOG_LOCAL1 | LOG_ERR, "", "a\\012b: gone"}}));
}

TEST(PluginRunTest, APluginGoneSinceItWasListedCannotBeStarted) {
  Signals signals;
  const std::string plugin = (test::Root() / "gone").string();
  try {
    RunPlugin(plugin, {}, 60, signals);
    FAIL() << "it ran";
  } catch (const PluginFailure& failure) {
    EXPECT_EQ(failure.what(), plugin + ": cannot be started: No such file or directory");
  }
}

class PluginTimeLimitTest : public testing::Test {
 protected:
  PluginTimeLimitTest() {
    LogCapture::Clear();
    fs::remove(path::kPkgSetting);
    fs::remove(path::kDefaultPkgSetting);
  }

  static void Set(const char* file, const std::string& value) {
    test::WriteFile(file, "other=1\nplugin_time_limit=" + value + "\n");
  }
};

TEST_F(PluginTimeLimitTest, IsAMinuteByDefault) {
  EXPECT_EQ(TimeLimit(), 60);
  test::WriteFile(path::kPkgSetting, "other=1\n");
  EXPECT_EQ(TimeLimit(), 60);
  EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(PluginTimeLimitTest, OfTheMachineWinsOverThatOfTheMaker) {
  Set(path::kDefaultPkgSetting, "7");
  EXPECT_EQ(TimeLimit(), 7);
  Set(path::kPkgSetting, "");
  EXPECT_EQ(TimeLimit(), 7);
  Set(path::kPkgSetting, "\" 0.5\"");
  EXPECT_EQ(TimeLimit(), 0.5);
}

TEST_F(PluginTimeLimitTest, ThatIsNoneIsLoggedAndTheDefaultTaken) {
  Set(path::kDefaultPkgSetting, "7");
  for (const char* text : {"soon", "0", "-1", "nan", "inf", "86401", "\"", "5 s"}) {
    LogCapture::Clear();
    Set(path::kPkgSetting, text);
    EXPECT_EQ(TimeLimit(), 60) << text;
    EXPECT_EQ(LogCapture::Lines(),
              std::vector({LogLine{
                  LOG_LOCAL1 | LOG_ERR, "",
                  std::string(path::kPkgSetting) + ": plugin_time_limit is not a number of seconds up to a day"}}))
        << text;
  }
}

TEST(PluginsOfAKilledHostTest, EndWithAllThatTheyStarted) {
  const test::TempDir folder;
  const std::string alive = folder.File("alive");  // open for writing in all that the plugin starts
  const std::string hold = folder.File("hold");    // what these read from, until the test has ended
  const std::string ready = folder.File("ready");
  for (const std::string& fifo : {alive, hold, ready}) {
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  }
  const UniqueFd writers = OpenFile(alive, O_RDONLY);
  const UniqueFd holder = OpenFile(hold, O_RDWR);
  const fs::path plugin = fs::path(path::kPluginFolder) / "a";
  test::WriteFile(plugin, "#!/bin/sh\nexec 9> " + alive + "\n(setsid sh -c 'cat " + hold + " & wait' &)\necho > " +
                              ready + "\nexec cat " + hold + "\n");
  fs::permissions(plugin, fs::perms(0755));
  fs::create_directories(fs::path(path::kNotifyPluginPyPath).parent_path());
  fs::create_symlink(ORBA_PLUGINS, path::kNotifyPluginPyPath);

  test::Forked host([] {
    return wrapper::OrbaCoreWrapper().RunCommand({path::kNotifyPluginPyPath, "--event", "install", "--package", "p",
                                                  "--timing", "pre", "--version", "1", "--status", "INSTALL"});
  });
  test::ReadFile(ready);
  kill(host.pid(), SIGKILL);
  EXPECT_EQ(host.Wait(), -SIGKILL);
  pollfd ended{writers.get(), 0, 0};
  EXPECT_EQ(poll(&ended, 1, 60'000), 1);
}

}  // namespace
}  // namespace orbamira::plugins
