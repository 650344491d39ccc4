#include "updater/health.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/paths.h"
#include "tests/support/disk_calls.h"
#include "tests/support/error_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "updater/health_record.h"
#include "updater/json_text.h"
#include "updater/pack_status_helper.h"
#include "updater/previous_pack.h"
#include "updater/recovery.h"
#include "updater/update_lock.h"

namespace {

constexpr unsigned kBlock = 3;
constexpr fsblkcnt_t kPlenty = 1U << 30U;

// What the disk says that it has left, in blocks; it says nothing when that is not known.
std::optional<fsblkcnt_t> free_blocks = kPlenty;

}  // namespace

// In place of the C library's.
extern "C" [[gnu::visibility("default")]] int statvfs(const char* /*path*/, struct statvfs* disk) noexcept {
  if (!free_blocks) {
    errno = EIO;
    return -1;
  }
  *disk = {};
  disk->f_frsize = kBlock;
  disk->f_bavail = *free_blocks;
  return 0;
}

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

using test::ErrorLine;
using test::ErrorText;
using test::InfoLine;
using test::LogCapture;
using test::ReadFile;
using test::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// Runs nothing: notes what was to be run, and gives a result for check-health.
class NotingCore : public wrapper::OrbaCoreWrapper {
 public:
  explicit NotingCore(
      int verdict = 0, std::function<void()> when_told = [] {})
      : verdict_(verdict), when_told_(std::move(when_told)) {}

  int RunCommand(const std::vector<std::string>& args) override {
    if (args[0] == path::kHealthProgramPath) {
      checked_.push_back(args[1]);
      return verdict_;
    }
    told_.push_back(args[2] + " " + args[6] + " " + args[8] + " " + args[10]);
    when_told_();
    return 0;
  }

  [[nodiscard]] const std::vector<std::string>& checked() const { return checked_; }
  [[nodiscard]] const std::vector<std::string>& told() const { return told_; }

 private:
  int verdict_;
  std::function<void()> when_told_;
  std::vector<std::string> checked_;
  std::vector<std::string> told_;
};

class HealthTest : public testing::Test {
 protected:
  HealthTest() {
    for (const auto& entry : fs::directory_iterator(test::Root())) {
      fs::remove_all(entry.path());
    }
    fs::create_directories(kTargetFolder);
    status_->SetAsUpToDate();
    LogCapture::Clear();
  }

  static void MakePack(const fs::path& folder, const std::string& version) {
    WriteFile(folder / "INFO", "package=" ORBAMIRA_HEVC_PACK "\nversion=" + version + "\n");
    WriteFile(folder / "has_hevc", "");
    WriteFile(folder / "codec", version);
  }

  static void MakeLibrary() { WriteFile(fs::path(path::kPackFolderPath) / "lib/codec.so", "\177ELF"); }

  static std::string Installed() { return ReadFile(fs::path(path::kPackFolderPath) / "codec"); }

  bool Confirmed() { return ConfirmHealth(UpdateLock(), *status_, core_); }

  PackStatus Recorded() { return PackStatusHelper::Create()->GetPackStatus(); }

  std::shared_ptr<NotingCore> core_ = std::make_shared<NotingCore>();
  std::unique_ptr<IPackStatusHelper> status_ = PackStatusHelper::Create();
};

TEST_F(HealthTest, ConfirmHealthStartsNothingForAPackWithoutLibraries) {
  MakePack(path::kPackFolderPath, "2");
  WriteFile(fs::path(path::kPackFolderPath) / "lib/codec.so", "no library");
  EXPECT_TRUE(Confirmed());
  EXPECT_THAT(core_->checked(), IsEmpty());
  EXPECT_FALSE(IsUnchecked());
}

TEST_F(HealthTest, ConfirmHealthHasLibrariesAndProgramsChecked) {
  MakePack(path::kPackFolderPath, "2");
  MakeLibrary();
  EXPECT_TRUE(Confirmed());
  EXPECT_THAT(core_->checked(), ElementsAre(path::kPackFolderPath));
  fs::remove_all(fs::path(path::kPackFolderPath) / "lib");
  WriteFile(fs::path(path::kHealthFolder) / "10-plays", "");
  EXPECT_TRUE(Confirmed());
  EXPECT_THAT(core_->checked(), SizeIs(2));
}

TEST_F(HealthTest, ConfirmHealthPutsThePreviousPackBack) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  MakeLibrary();
  core_ = std::make_shared<NotingCore>(3);
  status_->SetAsDownloadInstallFailed();
  EXPECT_FALSE(Confirmed());
  EXPECT_EQ(Installed(), "1");
  EXPECT_THAT(core_->told(), ElementsAre("uninstall pre 2 UPGRADE", "uninstall post 2 UPGRADE", "install pre 1 UPGRADE",
                                         "install post 1 UPGRADE"));
  EXPECT_EQ(Recorded(), kStatusUpToDate);
  EXPECT_TRUE(IsRejected("2"));
  EXPECT_FALSE(IsRejected("1"));
  EXPECT_FALSE(IsUnchecked());
  EXPECT_EQ(PreviousVersion(), std::nullopt);
}

TEST_F(HealthTest, ThePluginsAreToldWhileThePackIsWhatTheyAreToldOf) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  MakeLibrary();
  std::vector<std::string> installed;
  core_ = std::make_shared<NotingCore>(3, [&] { installed.push_back(Installed()); });
  EXPECT_FALSE(Confirmed());
  EXPECT_THAT(installed, ElementsAre("2", "", "", "1"));
}

TEST_F(HealthTest, ThePackThatCameBackIsOnTheDiskBeforeItIsTold) {
  const std::string pack = fs::path(path::kPackFolderPath).filename();
  const std::string backup = fs::path(path::kBackupPackFolderPath).filename();
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  MakeLibrary();
  test::DiskCalls calls;
  core_ = std::make_shared<NotingCore>(3, [&] { calls.Note("told"); });
  EXPECT_FALSE(Confirmed());
  const auto back = std::find(calls.all().begin(), calls.all().end(), "rename " + backup + " to " + pack);
  ASSERT_LT(back, calls.all().end() - 2);
  EXPECT_THAT(std::vector(back + 1, back + 3),
              ElementsAre("sync " + fs::path(kTargetFolder).filename().string(), "told"));
}

// What could not be removed before may go now, and the disk has room again.
TEST_F(HealthTest, TheWayBackEndsRemovals) {
  const fs::path rest = fs::path(kTargetFolder) / ".removed.aZ09xy";
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  MakeLibrary();
  core_ = std::make_shared<NotingCore>(3, [&] { MakePack(rest, "0"); });
  EXPECT_FALSE(Confirmed());
  EXPECT_FALSE(fs::exists(rest));
}

TEST_F(HealthTest, ConfirmHealthRemovesAFirstPackThatIsBad) {
  MakePack(path::kPackFolderPath, "2");
  MakeLibrary();
  core_ = std::make_shared<NotingCore>(3);
  EXPECT_FALSE(Confirmed());
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));
  EXPECT_THAT(core_->told(), ElementsAre("uninstall pre 2 UNINSTALL", "uninstall post 2 UNINSTALL"));
  EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
}

TEST_F(HealthTest, ConfirmHealthRejectsAPackWhoseFilesDoNotFit) {
  for (const char* missing : {"INFO", "has_hevc"}) {
    MakePack(path::kPreviousPackFolderPath, "1");
    MakePack(path::kPackFolderPath, "2");
    fs::remove(fs::path(path::kPackFolderPath) / missing);
    EXPECT_FALSE(Confirmed()) << missing;
    EXPECT_EQ(Installed(), "1");
  }
  EXPECT_THAT(core_->checked(), IsEmpty());
}

TEST_F(HealthTest, TheLogTellsWhatIsWrongWithThePack) {
  MakePack(path::kPackFolderPath, "2");
  MakeLibrary();
  const auto expect_line = [&](int verdict, const std::string& text) {
    core_ = std::make_shared<NotingCore>(verdict);
    LogCapture::Clear();
    static_cast<void>(Confirmed());
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(ErrorLine("health.cpp", text)));
  };
  expect_line(-1, "The pack could not be checked, and stays");
  expect_line(3, "The pack is not healthy: it failed its health check");
  expect_line(0, "The pack is not healthy: its INFO names no pack");
  for (const char* info : {"package=" ORBAMIRA_HEVC_PACK "\n", "version=2\n"}) {
    MakePack(path::kPackFolderPath, "2");
    WriteFile(path::kPackInfoPath, info);
    expect_line(0, "The pack is not healthy: its INFO names no pack");
  }
  MakePack(path::kPackFolderPath, "2");
  fs::remove(fs::path(path::kPackFolderPath) / "has_hevc");
  expect_line(0, "The pack is not healthy: the marker of a codec is missing");
}

TEST_F(HealthTest, TheWayBackEndsWithAnErrorWhereTheBadPackStays) {
  MakePack(path::kPackFolderPath, "2");
  test::WithFailingCall(SYS_renameat2, EBUSY, [] {
    test::WithFailingCall(SYS_unlinkat, EIO, [] { EXPECT_THROW(PutPreviousBack(nullptr), std::system_error); });
  });
}

TEST_F(HealthTest, TheWayBackGoesOnWhenPluginsCannotBeTold) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  const auto core = std::make_shared<testing::NiceMock<test::MockCore>>();
  ON_CALL(*core, RunCommand).WillByDefault(testing::Return(1));
  RollBack(UpdateLock(), *status_, "bad", core);
  EXPECT_EQ(Installed(), "1");
  std::vector<test::LogLine> lines = LogCapture::Lines();
  std::erase_if(lines, [](const test::LogLine& line) { return line.file == "plugin_notifier.cpp"; });
  const auto not_told = [](const std::string& timing, const std::string& event) {
    return ErrorLine("previous_pack.cpp", "Failed to notify: [timing]: " + timing + ", [event]: " + event);
  };
  EXPECT_THAT(lines, ElementsAre(not_told("pre", "uninstall"), not_told("post", "uninstall"),
                                 not_told("pre", "install"), not_told("post", "install")));
}

TEST_F(HealthTest, ThePackThatCameBackCountsAsHealthy) {
  MakePack(path::kPackFolderPath, "2");
  EXPECT_TRUE(Confirmed());
  MakePack(path::kPreviousPackFolderPath, "1");
  RollBack(UpdateLock(), *status_, "bad", core_);
  EXPECT_EQ(Installed(), "1");
  EXPECT_FALSE(IsUnchecked());
}

TEST_F(HealthTest, TheWayBackIsTheBackupThatCouldNotBeKept) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "0");
  MakePack(path::kBackupPackFolderPath, "1");
  RollBack(UpdateLock(), *status_, "bad", core_);
  EXPECT_EQ(Installed(), "1");
  EXPECT_FALSE(fs::exists(path::kBackupPackFolderPath));
}

TEST_F(HealthTest, TheWayBackTakesTheRestOfABackupOutOfItsWay) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  WriteFile(fs::path(path::kBackupPackFolderPath) / "rest", "of a backup");
  RollBack(UpdateLock(), *status_, "bad", core_);
  EXPECT_EQ(Installed(), "1");
  EXPECT_FALSE(fs::exists(path::kBackupPackFolderPath));
}

TEST_F(HealthTest, ConfirmHealthKeepsAPackThatCannotBeChecked) {
  PrepareUpdate(UpdateLock());
  for (const int result : {-1, -9, 1, 127}) {
    MakePack(path::kPackFolderPath, "2");
    MakeLibrary();
    core_ = std::make_shared<NotingCore>(result);
    EXPECT_TRUE(Confirmed());
    EXPECT_EQ(Installed(), "2");
    EXPECT_TRUE(IsUnchecked()) << result;
  }
}

TEST_F(HealthTest, APackThatWasThereBeforeCountsAsHealthy) {
  MakePack(path::kPackFolderPath, "1");
  EXPECT_FALSE(IsUnchecked());
  PrepareUpdate(UpdateLock());
  EXPECT_FALSE(IsUnchecked());
  MakePack(path::kPackFolderPath, "2");
  EXPECT_TRUE(IsUnchecked());
}

TEST_F(HealthTest, ADamagedRecordCountsAsNone) {
  WriteFile(path::kHealthFile, "{");
  MakePack(path::kPackFolderPath, "1");
  EXPECT_FALSE(IsUnchecked());
  EXPECT_THAT(RejectedVersions(), IsEmpty());
}

TEST_F(HealthTest, ARecordLongerThanTheLimitCountsAsDamaged) {
  const std::string record = R"({"rejected": [{"version": "2"}]})";
  WriteFile(path::kHealthFile, std::string(kJsonTextLimit - record.size(), ' ') + record);
  EXPECT_TRUE(IsRejected("2"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
  WriteFile(path::kHealthFile, std::string(kJsonTextLimit - record.size() + 1, ' ') + record);
  EXPECT_FALSE(IsRejected("2"));
  EXPECT_THAT(
      LogCapture::Lines(),
      ElementsAre(ErrorLine("health_record.cpp", path::kHealthFile + std::string(" is damaged and counts as empty"))));
}

TEST_F(HealthTest, EntriesThatAreNoRejectionsAreSkipped) {
  WriteFile(path::kHealthFile, R"({"rejected": [5, "1", ["1"], {"version": 5}, {"reason": "bad"}, {"version": "2"}]})");
  EXPECT_THAT(RejectedVersions(), ElementsAre(RejectedVersion{"2", "", 0}));
}

TEST_F(HealthTest, ANewerHealthyPackEndsRejections) {
  Rejections rejections;
  rejections.Add({"2", "bad", 1});
  rejections.Add({"2.0", "bad again", 2});
  rejections.Add({"4", "bad", 3});
  EXPECT_THAT(rejections.all(), ElementsAre(RejectedVersion{"2.0", "bad again", 2}, RejectedVersion{"4", "bad", 3}));
  rejections.Write();
  MakePack(path::kPackFolderPath, "3");
  EXPECT_TRUE(Confirmed());
  EXPECT_THAT(RejectedVersions(), ElementsAre(RejectedVersion{"4", "bad", 3}));
  MakePack(path::kPackFolderPath, "4");
  EXPECT_TRUE(Confirmed());
  EXPECT_THAT(RejectedVersions(), IsEmpty());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty()) << "an empty record is no damaged one";
}

TEST_F(HealthTest, AHealthyPackWithoutRejectionsWritesNoRecord) {
  MakePack(path::kPackFolderPath, "2");
  EXPECT_TRUE(Confirmed());
  EXPECT_FALSE(fs::exists(path::kHealthFile));
}

TEST_F(HealthTest, EveryUserMayReadTheRecordAndTheNote) {
  umask(0022);
  const auto mode_of = [](const char* file) {
    struct stat about {};
    EXPECT_EQ(stat(file, &about), 0) << file;
    return about.st_mode & 07777U;
  };
  MakePack(path::kPackFolderPath, "2");
  PrepareUpdate(UpdateLock());
  EXPECT_EQ(mode_of(path::kHealthyPackFile), 0644U);
  fs::remove(path::kHealthyPackFile);
  NoteHealthyPack({ORBAMIRA_HEVC_PACK, "2"});
  EXPECT_EQ(mode_of(path::kHealthyPackFile), 0644U);
  Rejections().Write();
  EXPECT_EQ(mode_of(path::kHealthFile), 0644U);
}

TEST_F(HealthTest, TheRejectedVersionsHaveABound) {
  Rejections rejections;
  for (int i = 0; i < 100; ++i) {
    rejections.Add({std::to_string(i), "bad", i});
  }
  EXPECT_THAT(rejections.all(), SizeIs(16));
  EXPECT_TRUE(rejections.Has("99"));
}

TEST_F(HealthTest, ANoteThatAPowerCutTookCostsAnotherCheck) {
  MakePack(path::kPackFolderPath, "1");
  EXPECT_TRUE(Confirmed());
  EXPECT_FALSE(IsUnchecked());
  WriteFile(path::kHealthyPackFile, "");
  EXPECT_TRUE(IsUnchecked());
}

TEST_F(HealthTest, AShorterNoteReplacesALongerOne) {
  MakePack(path::kPackFolderPath, "1.2.3.4.5");
  EXPECT_TRUE(Confirmed());
  MakePack(path::kPackFolderPath, "2");
  EXPECT_TRUE(Confirmed());
  EXPECT_EQ(ReadFile(path::kHealthyPackFile), "package=\"" ORBAMIRA_HEVC_PACK "\"\nversion=\"2\"\n");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(HealthTest, TheLogTellsThatTheNoteCannotBeOpened) {
  fs::create_directories(path::kHealthyPackFile);
  NoteHealthyPack({ORBAMIRA_HEVC_PACK, "2"});
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("health_record.cpp", std::string("Failed to note the healthy pack: ") +
                                                             path::kHealthyPackFile + ": " + ErrorText(EISDIR))));
}

TEST_F(HealthTest, TheLogTellsThatTheNoteCannotBeCut) {
#ifdef SYS_ftruncate64
  constexpr int kCut = SYS_ftruncate64;
#else
  constexpr int kCut = SYS_ftruncate;
#endif
  test::WithFailingCall(kCut, EIO, [] { NoteHealthyPack({ORBAMIRA_HEVC_PACK, "2"}); });
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("health_record.cpp", std::string("Failed to note the healthy pack: ") +
                                                             path::kHealthyPackFile + ": " + ErrorText(EIO))));
}

TEST_F(HealthTest, APreviousPackThatNobodyWantsGoesWhenTheNewOneIsHealthy) {
  WriteFile(path::kPkgSetting, "keep_previous_pack=no\n");
  MakePack(path::kPackFolderPath, "1");
  PrepareUpdate(UpdateLock());
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  Recover(UpdateLock());
  EXPECT_EQ(PreviousVersion(), "1") << "the new pack is not checked yet";
  EXPECT_TRUE(Confirmed());
  EXPECT_EQ(PreviousVersion(), std::nullopt);
}

class PreviousPackTest : public HealthTest {
 protected:
  PreviousPackTest() {
    MakePack(path::kPackFolderPath, "2");
    MakePack(path::kPreviousPackFolderPath, "1");
    MakeLibrary();
  }
  ~PreviousPackTest() override { free_blocks = kPlenty; }

  static fsblkcnt_t SizeOfPack() {
    fsblkcnt_t size = 0;
    for (const char* file : {"INFO", "has_hevc", "codec", "lib/codec.so"}) {
      size += fs::file_size(fs::path(path::kPackFolderPath) / file);
    }
    return size;
  }
};

TEST_F(PreviousPackTest, GoesWhenTheDiskHasNoRoomForThreeMorePacks) {
  static_assert(kBlock == 3);
  free_blocks = SizeOfPack();
  PrepareUpdate(UpdateLock());
  EXPECT_EQ(PreviousVersion(), "1");
  free_blocks = SizeOfPack() - 1;
  PrepareUpdate(UpdateLock());
  EXPECT_EQ(PreviousVersion(), std::nullopt);
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(InfoLine("health.cpp", "Removed the previous pack")));
}

TEST_F(PreviousPackTest, StaysWhenTheRoomIsNotKnown) {
  free_blocks = std::nullopt;
  PrepareUpdate(UpdateLock());
  EXPECT_EQ(PreviousVersion(), "1");
}

TEST_F(PreviousPackTest, TheLogTellsThatItCannotBeRemoved) {
  free_blocks = 0;
  test::WithFailingCall(SYS_unlinkat, EIO, [] { PrepareUpdate(UpdateLock()); });
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("health.cpp", std::string("Failed to prepare an update: ") +
                                                      path::kPreviousPackFolderPath + ": " + ErrorText(EIO))));
}

class InterruptedWayBackTest : public HealthTest {
 protected:
  // As it is once the rejection is on the disk.
  InterruptedWayBackTest() {
    NoteHealthyPack({ORBAMIRA_HEVC_PACK, "1"});
    Rejections rejections;
    rejections.Add({"2", "it failed its health check", 1});
    rejections.Write();
  }

  static void ExpectBack() {
    const RecoveryReport report = Recover(UpdateLock());
    EXPECT_THAT(report.failed, IsEmpty());
    EXPECT_EQ(Installed(), "1");
    EXPECT_EQ(PreviousVersion(), std::nullopt);
    EXPECT_FALSE(fs::exists(path::kBackupPackFolderPath));
    EXPECT_FALSE(IsUnchecked());
    EXPECT_THAT(Recover(UpdateLock()).done, IsEmpty());
  }
};

TEST_F(InterruptedWayBackTest, RecoverGoesBackFromTheRejection) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  ExpectBack();
}

TEST_F(InterruptedWayBackTest, RecoverGoesBackFromTheBackup) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kBackupPackFolderPath, "1");
  ExpectBack();
}

TEST_F(InterruptedWayBackTest, RecoverGoesBackWithoutAPack) {
  MakePack(path::kBackupPackFolderPath, "1");
  ExpectBack();
}

TEST_F(InterruptedWayBackTest, RecoverRemovesARejectedFirstPack) {
  MakePack(path::kPackFolderPath, "2");
  Recover(UpdateLock());
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));
  EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
}

TEST_F(InterruptedWayBackTest, RecoverKeepsAPackOfAnotherVersion) {
  MakePack(path::kPackFolderPath, "1");
  Recover(UpdateLock());
  EXPECT_EQ(Installed(), "1");
}

}  // namespace
}  // namespace orbamira::updater
