#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/constants.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/process.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
#include "updater/update_lock.h"

namespace orbamira::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

class OrbaRecoverTest : public testing::Test {
 protected:
  OrbaRecoverTest() {
    test::RemoveWrittenFolders();
    fs::create_directories(kTargetFolder);
  }

  static ProcessResult Recover(const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command = {ORBA_RECOVER};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command);
  }
};

// At boot, on an appliance with the library's package and without packctl.
TEST_F(OrbaRecoverTest, BringsTheOldPackBackAndSaysSo) {
  const fs::path backup = path::kBackupPackFolderPath;
  WriteFile(backup / "INFO", "version=1\n");
  const ProcessResult first = Recover();
  EXPECT_TRUE(first.Exited(0)) << first;
  EXPECT_THAT(first.out, StartsWith(std::string("restored the previous pack to ") + path::kPackFolderPath + "\n"));
  EXPECT_TRUE(fs::exists(path::kPackInfoPath));
  const ProcessResult second = Recover();
  EXPECT_TRUE(second.Exited(0));
  EXPECT_EQ(second.out + second.err, "");
}

TEST_F(OrbaRecoverTest, DoesItsWorkWhereNobodyListens) {
  WriteFile(fs::path(path::kBackupPackFolderPath) / "INFO", "version=1\n");
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  close(ends[0]);
  const UniqueFd write_end(ends[1]);
  ProcessOptions options;
  options.before_exec = [&write_end] {
    static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
    dup2(write_end.get(), STDOUT_FILENO);
  };
  const ProcessResult result = RunProgram({ORBA_RECOVER}, options);
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_TRUE(fs::exists(path::kPackInfoPath));
}

TEST_F(OrbaRecoverTest, LeavesTheWorkOfAnotherProgramAlone) {
  WriteFile(fs::path(path::kTempPackFolderPath) / "half", "");
  std::optional<updater::UpdateLock> lock(std::in_place);
  const ProcessResult refused = Recover();
  EXPECT_TRUE(refused.Exited(3)) << refused;
  EXPECT_THAT(refused.err, StartsWith("orba-recover: another program is at work: "));
  EXPECT_TRUE(fs::exists(path::kTempPackFolderPath));
  lock.reset();
  EXPECT_TRUE(Recover().Exited(0));
  EXPECT_FALSE(fs::exists(path::kTempPackFolderPath));
}

TEST_F(OrbaRecoverTest, SaysWhatCouldNotBePutInOrder) {
  fs::remove_all(kTargetFolder);
  WriteFile(kTargetFolder, "a file in the way");
  const ProcessResult result = Recover();
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, HasSubstr(std::string("orba-recover: cannot make the folders: ") + kTargetFolder));
}

TEST_F(OrbaRecoverTest, SaysWhyNobodyCanWork) {
  const fs::path lock = path::kPackctlLock;
  fs::remove_all(lock);
  fs::create_directories(lock);
  const ProcessResult result = Recover();
  fs::remove(lock);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, StartsWith("orba-recover: "));
  EXPECT_THAT(result.err, HasSubstr(lock.string()));
}

TEST_F(OrbaRecoverTest, TakesNoArgumentsButThoseThatTellOfIt) {
  EXPECT_THAT(Recover({"--help"}).out, StartsWith("Usage: orba-recover\n"));
  EXPECT_THAT(Recover({"--version"}).out, StartsWith("orba-recover "));
  const ProcessResult wrong = Recover({"now"});
  EXPECT_TRUE(wrong.Exited(1)) << wrong;
  EXPECT_THAT(wrong.err, StartsWith("Usage: orba-recover\n"));
}

}  // namespace
}  // namespace orbamira::test
