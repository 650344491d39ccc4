#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/error_text.h"
#include "tests/support/forked.h"
#include "tests/support/test_root.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/plugin_run.h"
#include "tools/orba-plugins/signals.h"

namespace orbamira::plugins {
namespace {

namespace fs = std::filesystem;

TEST(PluginRunTest, APluginGoneSinceItWasListedCannotBeStarted) {
  Signals signals;
  const std::string plugin = (test::Root() / "gone").string();
  try {
    RunPlugin(plugin, {}, 60, signals);
    FAIL() << "it ran";
  } catch (const PluginFailure& failure) {
    EXPECT_EQ(failure.what(), plugin + ": cannot be started: " + test::ErrorText(ENOENT));
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
