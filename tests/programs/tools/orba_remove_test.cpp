#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/error_text.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;
using testing::UnorderedElementsAre;

std::vector<std::string> Names(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

// The calls that rename a file. Not every processor has the oldest.
const std::vector<int> kRenames = {
#ifdef SYS_rename
    SYS_rename,
#endif
    SYS_renameat, SYS_renameat2};

/// A folder with one of everything, in a folder of its own, and the program.
class OrbaRemoveTest : public testing::Test {
 protected:
  OrbaRemoveTest() {
    fs::create_directory(parent_);
    fs::remove_all(packs_);  // another test of this process may have left it
    Fill();
  }

  void Fill() const {
    WriteFile(target_ / "INFO", "version=\"2.0\"\n");
    WriteFile(target_ / "lib/plugins/table", "table");
    fs::create_symlink(kept_, target_ / "lib/link");
    fs::create_symlink("/nowhere", target_ / "dangling");
    WriteFile(kept_ / "file", "kept");
    WriteFile(target_ / "lib/closed/file", "file");
    fs::permissions(target_ / "lib/closed", fs::perms::none);
  }

  static ProcessResult Remove(const fs::path& path, const ProcessOptions& options = {}) {
    return RunProgram({ORBA_REMOVE, "-rf", path}, options);
  }

  static ProcessOptions Failing(const std::vector<int>& calls, int error) {
    ProcessOptions options;
    options.before_exec = [=] {
      for (const int call : calls) {
        FailSystemCall(call, error);
      }
    };
    return options;
  }

  static void ExpectDone(const ProcessResult& result) {
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_EQ(result.out + result.err, "");
  }

  static void ExpectFailed(const ProcessResult& result, const std::string& error) {
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_EQ(result.err, "orba-remove: " + error + "\n");
  }

  TempDir folder_;
  fs::path kept_ = folder_.path() / "kept";
  fs::path parent_ = folder_.path() / "place";
  fs::path target_ = parent_ / "pack";
  fs::path packs_ = Root().string() + ORBAMIRA_PACKS_FOLDER;
};

TEST_F(OrbaRemoveTest, TheBackupOfAPackBecomesThePreviousPack) {
  const fs::path backup = packs_ / "." ORBAMIRA_PACK_FOLDER_NAME ".backup";
  const fs::path previous = packs_ / "." ORBAMIRA_PACK_FOLDER_NAME ".previous";
  for (const char* version : {"1.0", "2.0"}) {
    WriteFile(backup / "INFO", version);
    ExpectDone(Remove(backup));
    EXPECT_EQ(ReadFile(previous / "INFO"), version);
    EXPECT_THAT(Names(packs_), ElementsAre(previous.filename()));
  }
  WriteFile(backup / "lib", "the rest of one");
  ExpectDone(Remove(backup));
  EXPECT_EQ(ReadFile(previous / "INFO"), "2.0");
}

TEST_F(OrbaRemoveTest, TheBackupOfAPackThatIsInstalledOnceMoreGoes) {
  const std::string name = ORBAMIRA_PACK_FOLDER_NAME;
  WriteFile(packs_ / name / "INFO", "2.0");
  WriteFile(packs_ / ("." + name + ".backup") / "INFO", "2.0");
  WriteFile(packs_ / ("." + name + ".previous") / "INFO", "1.0");
  ExpectDone(Remove(packs_ / ("." + name + ".backup")));
  EXPECT_EQ(ReadFile(packs_ / ("." + name + ".previous") / "INFO"), "1.0");
  EXPECT_THAT(Names(packs_), UnorderedElementsAre(name, "." + name + ".previous"));
}

TEST_F(OrbaRemoveTest, ABackupThatCannotBeMovedStays) {
  const fs::path backup = Root().string() + ORBAMIRA_PACKS_FOLDER + "/." ORBAMIRA_PACK_FOLDER_NAME ".backup";
  WriteFile(backup / "INFO", "3.0");
  const ProcessResult failed = Remove(backup, Failing(kRenames, EIO));
  EXPECT_TRUE(failed.Exited(1)) << failed;
  EXPECT_EQ(ReadFile(backup / "INFO"), "3.0");
}

TEST_F(OrbaRemoveTest, WithThePackThePreviousOneGoes) {
  WriteFile(packs_ / ORBAMIRA_PACK_FOLDER_NAME "/INFO", "2.0");
  WriteFile(packs_ / "." ORBAMIRA_PACK_FOLDER_NAME ".previous/INFO", "1.0");
  ExpectDone(Remove(packs_ / ORBAMIRA_PACK_FOLDER_NAME));
  EXPECT_THAT(Names(packs_), IsEmpty());
}

TEST_F(OrbaRemoveTest, RemovesAFolderWithAllThatItHoldsAndFollowsNoLink) {
  ExpectDone(Remove(target_));
  EXPECT_THAT(Names(parent_), IsEmpty());
  EXPECT_EQ(ReadFile(kept_ / "file"), "kept");
}

TEST_F(OrbaRemoveTest, TakesAPathBelowTheWorkingFolderAndSlashesAtItsEnd) {
  ProcessOptions options;
  options.folder = parent_;
  ExpectDone(Remove("pack//", options));
  EXPECT_THAT(Names(parent_), IsEmpty());
}

TEST_F(OrbaRemoveTest, RemovesAFileAndALinkButNotWhatItLeadsTo) {
  WriteFile(parent_ / "file", "text");
  fs::create_directory_symlink(kept_, parent_ / "link");
  ExpectDone(Remove(parent_ / "file"));
  ExpectDone(Remove(parent_ / "link"));
  EXPECT_THAT(Names(parent_), ElementsAre("pack"));
  EXPECT_EQ(ReadFile(kept_ / "file"), "kept");
}

TEST_F(OrbaRemoveTest, NothingThereIsNoError) {
  for (const char* missing : {"missing", "missing/deeper", "pack/INFO/deeper"}) {
    ExpectDone(Remove(parent_ / missing));
  }
  EXPECT_THAT(Names(parent_), ElementsAre("pack"));
}

TEST_F(OrbaRemoveTest, AFolderIsMovedAsideBeforeAnyOfItIsRemoved) {
  const ProcessResult result = Remove(target_, Failing({SYS_unlinkat}, EIO));
  EXPECT_TRUE(result.Exited(1)) << result;
  ASSERT_THAT(Names(parent_), ElementsAre(MatchesRegex("\\.removed\\.[A-Za-z0-9]{6}")));
  const fs::path aside = parent_ / Names(parent_)[0];
  EXPECT_EQ(ReadFile(aside / "INFO"), "version=\"2.0\"\n");
  EXPECT_EQ(ReadFile(aside / "lib/plugins/table"), "table");
}

TEST_F(OrbaRemoveTest, AFolderIsMovedAsideOnAKernelWithoutTheFlagToo) {
  for (const int error : {EINVAL, ENOSYS}) {
    EXPECT_TRUE(Remove(target_, Failing({SYS_renameat2, SYS_unlinkat}, error)).Exited(1));
    ASSERT_THAT(Names(parent_), ElementsAre(StartsWith(".removed.")));
    ExpectDone(Remove(parent_ / Names(parent_)[0]));
    Fill();
  }
}

TEST_F(OrbaRemoveTest, AFolderThatCannotBeMovedIsRemovedWhereItIs) {
  for (const int error : {ENOSPC, EBUSY}) {
    ExpectDone(Remove(target_, Failing(kRenames, error)));
    EXPECT_THAT(Names(parent_), IsEmpty());
    Fill();
  }
}

TEST_F(OrbaRemoveTest, AnOrdinaryUserCanRemoveWhatTheyMayNotWriteTo) {
  fs::permissions(target_ / "lib/plugins", fs::perms::owner_read | fs::perms::owner_exec);
  fs::permissions(target_, fs::perms::owner_read | fs::perms::owner_exec);
  ProcessOptions options;
  if (geteuid() == 0) {
    fs::permissions(Root(), fs::perms::others_exec, fs::perm_options::add);
    ASSERT_TRUE(RunProgram({"chown", "-hR", "nobody", folder_.path()}).Exited(0));
    options.before_exec = BecomeOrdinaryUser;
  }
  ExpectDone(Remove(target_, options));
  EXPECT_THAT(Names(parent_), IsEmpty());
}

TEST_F(OrbaRemoveTest, AReaderOfItsMessagesThatWentAwayDecidesNothing) {
  ProcessOptions options;
  options.before_exec = [] {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) == 0) {
      close(ends[0]);
      dup2(ends[1], STDERR_FILENO);
    }
  };
  const ProcessResult result = Remove("/", options);
  EXPECT_TRUE(result.Exited(1)) << result;
}

TEST_F(OrbaRemoveTest, NobodyCanMoveAFolderThatIsPartlyRemoved) {
  constexpr int kFiles = 1000;
  const fs::path moved = folder_.path() / "moved";
  for (int file = 0; file < kFiles; ++file) {
    WriteFile(target_ / std::to_string(file), "");
  }
  const auto whole = fs::last_write_time(target_);
  std::atomic<bool> ended = false;
  std::thread other([&] {
    std::error_code ignored;
    while (!ended && fs::last_write_time(target_, ignored) == whole) {
    }
    fs::rename(target_, moved, ignored);
  });
  ExpectDone(Remove(target_));
  ended = true;
  other.join();
  EXPECT_FALSE(fs::exists(moved));
  EXPECT_THAT(Names(parent_), IsEmpty());
}

TEST_F(OrbaRemoveTest, TwoAtOnceAreBothDone) {
  for (int i = 0; i < 20; ++i) {
    std::thread other([this] { ExpectDone(Remove(target_)); });
    ExpectDone(Remove(target_));
    other.join();
    EXPECT_THAT(Names(parent_), IsEmpty());
    Fill();
  }
}

TEST_F(OrbaRemoveTest, AnErrorDoesNotKeepItFromRemovingTheRest) {
  WriteFile(target_ / "first/file", "text");
  WriteFile(target_ / "later", "text");
  ProcessOptions options;
  options.before_exec = [] { FailRemovalOfFolders(EIO); };
  ExpectFailed(Remove(target_, options), (target_ / "first").string() + ": " + test::ErrorText(EIO));
  ASSERT_THAT(Names(parent_), ElementsAre(StartsWith(".removed.")));
  const fs::path aside = parent_ / Names(parent_)[0];
  EXPECT_THAT(Names(aside), testing::UnorderedElementsAre("first", "lib"));
  EXPECT_THAT(Names(aside / "first"), IsEmpty());
}

TEST_F(OrbaRemoveTest, AnErrorIsOneLineWhateverTheName) {
  const fs::path odd = parent_ / "odd\nname";
  fs::create_directory(odd);
  ExpectFailed(Remove(odd, Failing({SYS_unlinkat}, EACCES)),
               parent_.string() + "/odd\\012name: " + test::ErrorText(EACCES));
}

TEST_F(OrbaRemoveTest, APathThatNamesNothingOfItsOwnIsRefused) {
  for (const std::string& path : {std::string("/"), std::string("."), (parent_ / "..").string()}) {
    ProcessOptions options;
    options.folder = target_;
    ExpectFailed(Remove(path, options), path + ": not a name for a file or folder");
  }
  EXPECT_TRUE(fs::exists(target_ / "INFO"));
}

TEST_F(OrbaRemoveTest, WrongUsageFailsAndRemovesNothing) {
  const std::vector<std::vector<std::string>> wrong = {{ORBA_REMOVE},
                                                       {ORBA_REMOVE, "-rf"},
                                                       {ORBA_REMOVE, target_},
                                                       {ORBA_REMOVE, "-r", target_},
                                                       {ORBA_REMOVE, "-rf", ""},
                                                       {ORBA_REMOVE, "-rf", target_, target_}};
  for (const auto& argv : wrong) {
    const ProcessResult result = RunProgram(argv);
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_THAT(result.err, StartsWith("Usage: orba-remove -rf PATH\n"));
  }
  EXPECT_TRUE(fs::exists(target_ / "INFO"));
}

TEST_F(OrbaRemoveTest, HelpAndVersionSucceed) {
  const ProcessResult help = RunProgram({ORBA_REMOVE, "--help"});
  EXPECT_TRUE(help.Exited(0)) << help;
  EXPECT_THAT(help.out, StartsWith("Usage: orba-remove -rf PATH\n"));
  const ProcessResult version = RunProgram({ORBA_REMOVE, "--version"});
  EXPECT_TRUE(version.Exited(0)) << version;
  EXPECT_THAT(version.out, MatchesRegex("orba-remove [0-9.]+\n"));
}

}  // namespace
}  // namespace orbamira::test
