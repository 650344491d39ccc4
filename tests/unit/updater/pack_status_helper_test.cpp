#include "updater/pack_status_helper.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/as_long.h"
#include "platform/constants.h"
#include "platform/file_lock.h"
#include "tests/support/await.h"
#include "tests/support/error_text.h"
#include "tests/support/fake_key_value_store.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/test_root.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
namespace keys = webapi::param;
using test::ErrorLine;
using test::LogCapture;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::InvokeWithoutArgs;
using testing::IsEmpty;
using testing::Pair;
using testing::Return;
using testing::StrictMock;
using testing::Throw;

// Whether anyone holds the lock of the status store.
bool IsLocked() {
  const int fd = open(path::kPackStatusLock, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const bool taken = flock(fd, LOCK_EX | LOCK_NB) != 0;
  close(fd);
  return taken;
}

// The text of the exception of the expected kind; "no exception" when the operation ends well.
template <typename Exception>
std::string ErrorOf(const std::function<void()>& operation) {
  try {
    operation();
    return "no exception";
  } catch (const Exception& error) {
    return error.what();
  }
}

// A record as the store holds it, in the order of the keys.
using Record = std::vector<std::string>;

class PackStatusHelperTest : public testing::Test {
 protected:
  PackStatusHelperTest() { LogCapture::Clear(); }

  // Nothing is ever logged by what the helper does once it is made.
  ~PackStatusHelperTest() override { EXPECT_THAT(LogCapture::Lines(), IsEmpty()); }

  [[nodiscard]] Record Stored() const {
    Record record;
    for (const char* key : {keys::kStatus, keys::kNewPackName, keys::kNewVersion, keys::kDownloadSizeNow,
                            keys::kDownloadSizeTotal, keys::kInstallStep}) {
      record.push_back(store_->Has(key) ? store_->Get(key) : "(missing)");
    }
    return record;
  }

  static std::shared_ptr<store::IKeyValueStore> MakeStore() {
    fs::create_directories(fs::path(path::kPackStatusFile).parent_path());
    fs::remove(path::kPackStatusFile);
    return store::FileKeyValueStore::Create(path::kPackStatusFile);
  }

  std::shared_ptr<store::IKeyValueStore> store_ = MakeStore();
  PackStatusHelper helper_{store::FileKeyValueStore::Create(path::kPackStatusFile)};
};

// Every transition writes a whole record, whatever stood there before.
struct Transition {
  std::string name;
  std::function<void(const IPackStatusHelper&)> set;
  Record record;
};

void PrintTo(const Transition& transition, std::ostream* out) { *out << transition.name; }

class PackStatusHelperTransitionTest : public PackStatusHelperTest, public testing::WithParamInterface<Transition> {};

TEST_P(PackStatusHelperTransitionTest, WritesItsRecordAndResetsTheRest) {
  helper_.SaveStatusData({.status = kStatusInstallFailed,
                          .new_pack_name = "old name",
                          .new_version = "old version",
                          .download_size_now = 11,
                          .download_size_total = 22,
                          .install_step = kStepPreUninstall});
  GetParam().set(helper_);
  EXPECT_EQ(Stored(), GetParam().record);
}

INSTANTIATE_TEST_SUITE_P(
    All, PackStatusHelperTransitionTest,
    testing::Values(Transition{"NeedDownload",
                               [](const IPackStatusHelper& helper) { helper.SetAsNeedDownload("v"); },
                               {"need_download", "", "v", "0", "0", ""}},
                    Transition{"Downloading",
                               [](const IPackStatusHelper& helper) { helper.SetAsDownloading(); },
                               {"downloading", "", "", "0", "0", ""}},
                    Transition{"DownloadingWithSizes",
                               [](const IPackStatusHelper& helper) { helper.SetAsDownloading(1048576, 5242880); },
                               {"downloading", "", "", "1048576", "5242880", ""}},
                    Transition{"DownloadFailed",
                               [](const IPackStatusHelper& helper) { helper.SetAsDownloadFailed(); },
                               {"download_failed", "", "", "0", "0", ""}},
                    Transition{"NeedInstall",
                               [](const IPackStatusHelper& helper) { helper.SetAsNeedInstall("v", "n"); },
                               {"need_install", "n", "v", "0", "0", ""}},
                    Transition{"Installing",
                               [](const IPackStatusHelper& helper) { helper.SetAsInstalling(); },
                               {"installing", "", "", "0", "0", ""}},
                    Transition{"InstallingWithStep",
                               [](const IPackStatusHelper& helper) { helper.SetAsInstalling(kStepPostUninstall); },
                               {"installing", "", "", "0", "0", "post_uninstall"}},
                    Transition{"InstallFailed",
                               [](const IPackStatusHelper& helper) { helper.SetAsInstallFailed("v", "n"); },
                               {"install_failed", "n", "v", "0", "0", ""}},
                    Transition{"DownloadInstalling",
                               [](const IPackStatusHelper& helper) { helper.SetAsDownloadInstalling(); },
                               {"downloading_installing", "", "", "0", "0", ""}},
                    Transition{"DownloadInstallingWithSizes",
                               [](const IPackStatusHelper& helper) { helper.SetAsDownloadInstalling(7L, 9L); },
                               {"downloading_installing", "", "", "7", "9", ""}},
                    Transition{"DownloadInstallingWithStep",
                               [](const IPackStatusHelper& helper) { helper.SetAsDownloadInstalling(kStepInstall); },
                               {"downloading_installing", "", "", "0", "0", "install"}},
                    Transition{"DownloadInstallFailed",
                               [](const IPackStatusHelper& helper) { helper.SetAsDownloadInstallFailed(); },
                               {"download_install_failed", "", "", "0", "0", ""}},
                    Transition{"UpToDate",
                               [](const IPackStatusHelper& helper) { helper.SetAsUpToDate(); },
                               {"up_to_date", "", "", "0", "0", ""}}),
    [](const auto& test) { return test.param.name; });

TEST_F(PackStatusHelperTest, ARecordWithEveryStepIsWrittenWithItsText) {
  for (std::size_t step = 0; step < kInstallStepTexts.size(); ++step) {
    helper_.SetAsInstalling(static_cast<InstallStep>(step));
    EXPECT_EQ(store_->Get(keys::kInstallStep), kInstallStepTexts[step]);
  }
}

TEST_F(PackStatusHelperTest, ARecordWithEveryStatusIsWrittenWithItsText) {
  for (std::size_t status = 0; status < kPackStatusTexts.size(); ++status) {
    helper_.SaveStatusData({.status = static_cast<PackStatus>(status)});
    EXPECT_EQ(store_->Get(keys::kStatus), kPackStatusTexts[status]);
    EXPECT_EQ(helper_.GetPackStatus(), static_cast<PackStatus>(status));
  }
}

TEST_F(PackStatusHelperTest, AnEmptyStoreReadsAsTheDefaults) {
  EXPECT_EQ(helper_.GetInstallProgress(), kStepNone);
  EXPECT_EQ(helper_.GetPackNewName(), "");
  EXPECT_EQ(helper_.GetPackNewVersion(), "");
  EXPECT_THAT(helper_.GetPackDownloadProgress(), Pair(0, 0));
  EXPECT_EQ(helper_.GetPackStatus(), kStatusLost);
  EXPECT_EQ(Stored(), Record(6, "(missing)"));
}

TEST_F(PackStatusHelperTest, AMissingKeyReadsAsItsDefault) {
  store_->Set(keys::kNewVersion, "1.2");
  EXPECT_EQ(helper_.GetPackStatus(), kStatusLost);
  EXPECT_EQ(helper_.GetPackNewVersion(), "1.2");
  EXPECT_EQ(helper_.GetPackNewName(), "");
}

TEST_F(PackStatusHelperTest, AWholeRecordReadsBack) {
  helper_.SaveStatusData({.status = kStatusInstallFailed,
                          .new_pack_name = "a name = \"quoted\"\n",
                          .new_version = "1.2-3",
                          .download_size_now = 4,
                          .download_size_total = 5,
                          .install_step = kStepUninstall});
  EXPECT_EQ(helper_.GetPackStatus(), kStatusInstallFailed);
  EXPECT_EQ(helper_.GetPackNewName(), "a name = \"quoted\"\n");
  EXPECT_EQ(helper_.GetPackNewVersion(), "1.2-3");
  EXPECT_THAT(helper_.GetPackDownloadProgress(), Pair(4, 5));
  EXPECT_EQ(helper_.GetInstallProgress(), kStepUninstall);
}

TEST_F(PackStatusHelperTest, NeedInstallKeepsVersionAndNameApart) {
  helper_.SetAsNeedInstall("the version", "the name");
  EXPECT_EQ(helper_.GetPackStatus(), kStatusNeedInstall);
  EXPECT_EQ(helper_.GetPackNewVersion(), "the version");
  EXPECT_EQ(helper_.GetPackNewName(), "the name");
  helper_.SetAsInstalling(kStepInstall);
  EXPECT_EQ(Stored(), Record({"installing", "", "", "0", "0", "install"}));
}

// A server may give any text for a version.
TEST_F(PackStatusHelperTest, ARecordThatCannotFitIsRefusedBeforeTheOldOneIsCleared) {
  helper_.SetAsNeedDownload("1.0");
  for (const std::string& version : {std::string(200'000, '\x1b'), std::string(200'000, '"'),
                                     std::string(200'000, '\\'), std::string(1 << 20U, 'x')}) {
    EXPECT_THROW(helper_.SetAsNeedDownload(version), std::length_error);
    EXPECT_EQ(helper_.GetPackStatus(), kStatusNeedDownload);
    EXPECT_EQ(helper_.GetPackNewVersion(), "1.0");
  }
}

TEST_F(PackStatusHelperTest, ARecordThatJustFitsIsKeptWhole) {
  const std::size_t room = store::kMaxStoreSize - 1024;
  for (const std::string& version :
       {std::string(room, 'x'), std::string(room / 6, '\x1b'), std::string(room / 6, '"')}) {
    helper_.SetAsNeedDownload(version);
    EXPECT_EQ(helper_.GetPackStatus(), kStatusNeedDownload);
    EXPECT_TRUE(helper_.GetPackNewVersion() == version);
  }
}

TEST_F(PackStatusHelperTest, ARecordIsRefusedFromTheFirstByteThatMayNotFit) {
  const auto store = std::make_shared<test::FakeKeyValueStore>();
  const PackStatusHelper helper(store);
  const std::size_t room = store::kMaxStoreSize - 1024;
  helper.SetAsNeedInstall(std::string(room - 1, ' '), "n");
  for (const char escaped : {'\x1b', '"', '\\'}) {
    helper.SetAsNeedInstall("", std::string(room / 6, escaped));
    const std::size_t writes = store->writes().size();
    EXPECT_THROW(helper.SetAsNeedInstall("", std::string(room / 6 + 1, escaped)), std::length_error);
    EXPECT_THROW(helper.SetAsNeedInstall(std::string(room, 'x'), "n"), std::length_error);
    EXPECT_EQ(store->writes().size(), writes);
  }
}

TEST_F(PackStatusHelperTest, NegativeSizesAreWrittenAndReadBack) {
  helper_.SetAsDownloading(-1, -1048576);
  EXPECT_EQ(Stored(), Record({"downloading", "", "", "-1", "-1048576", ""}));
  EXPECT_EQ(helper_.GetPackStatus(), kStatusDownloading);
  EXPECT_THAT(helper_.GetPackDownloadProgress(), Pair(-1, -1048576));
}

// On armhf it has 32, and so do the sizes in the interface.
constexpr bool kLongHas64Bits = sizeof(long) > 4;

TEST_F(PackStatusHelperTest, SizesOfSixtyFourBitsAreWrittenWhole) {
  using Limits = std::numeric_limits<long>;
  helper_.SetAsDownloading(Limits::min(), Limits::max());
  EXPECT_EQ(Stored(),
            Record({"downloading", "", "", std::to_string(Limits::min()), std::to_string(Limits::max()), ""}));
  EXPECT_EQ(helper_.GetPackStatus(), kStatusDownloading);
  EXPECT_THAT(helper_.GetPackDownloadProgress(),
              kLongHas64Bits ? Pair(0, -1) : Pair(std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

TEST_F(PackStatusHelperTest, ProgressIsCutToItsLowThirtyTwoBits) {
  helper_.SetAsDownloading(AsLong(3000000000), AsLong(4000000000));
  EXPECT_EQ(helper_.GetPackStatus(), kStatusDownloading);
  EXPECT_THAT(helper_.GetPackDownloadProgress(),
              kLongHas64Bits ? Pair(-1294967296, -294967296) : Pair(2147483647, 2147483647));
}

TEST_F(PackStatusHelperTest, AStoredPostUninstallReadsAsPostInstall) {
  helper_.SetAsInstalling(kStepPostUninstall);
  EXPECT_EQ(helper_.GetPackStatus(), kStatusInstalling);
  EXPECT_EQ(helper_.GetInstallProgress(), kStepPostInstall);
}

// What a query answers is that of the last read; a transition does not change it.
TEST_F(PackStatusHelperTest, QueriesAnswerFromTheLastReadUntilTheStatusIsAskedFor) {
  helper_.SetAsNeedInstall("first", "name");
  EXPECT_EQ(helper_.GetPackNewVersion(), "first");
  helper_.SaveStatusData({.status = kStatusDownloading,
                          .new_pack_name = "other",
                          .new_version = "second",
                          .download_size_now = 3,
                          .download_size_total = 4,
                          .install_step = kStepInstall});
  EXPECT_EQ(helper_.GetPackNewVersion(), "first");
  EXPECT_EQ(helper_.GetPackNewName(), "name");
  EXPECT_THAT(helper_.GetPackDownloadProgress(), Pair(0, 0));
  EXPECT_EQ(helper_.GetInstallProgress(), kStepNone);

  EXPECT_EQ(helper_.GetPackStatus(), kStatusDownloading);
  EXPECT_EQ(helper_.GetPackNewVersion(), "second");
  EXPECT_EQ(helper_.GetPackNewName(), "other");
  EXPECT_THAT(helper_.GetPackDownloadProgress(), Pair(3, 4));
  EXPECT_EQ(helper_.GetInstallProgress(), kStepInstall);
}

TEST_F(PackStatusHelperTest, GetPackStatusSeesWhatAnotherHelperWrote) {
  EXPECT_EQ(helper_.GetPackStatus(), kStatusLost);
  PackStatusHelper::Create()->SetAsNeedDownload("2.0");
  EXPECT_EQ(helper_.GetPackNewVersion(), "");
  EXPECT_EQ(helper_.GetPackStatus(), kStatusNeedDownload);
  EXPECT_EQ(helper_.GetPackNewVersion(), "2.0");
}

// Each of the other queries reads by itself when nothing was read yet.
TEST_F(PackStatusHelperTest, TheFirstQueryReadsWhicheverItIs) {
  helper_.SaveStatusData({.status = kStatusDownloading,
                          .new_pack_name = "n",
                          .new_version = "v",
                          .download_size_now = 3,
                          .download_size_total = 4,
                          .install_step = kStepInstall});
  EXPECT_EQ(PackStatusHelper::Create()->GetPackNewName(), "n");
  EXPECT_EQ(PackStatusHelper::Create()->GetPackNewVersion(), "v");
  EXPECT_THAT(PackStatusHelper::Create()->GetPackDownloadProgress(), Pair(3, 4));
  EXPECT_EQ(PackStatusHelper::Create()->GetInstallProgress(), kStepInstall);
  EXPECT_EQ(PackStatusHelper::Create()->GetPackStatus(), kStatusDownloading);
}

TEST_F(PackStatusHelperTest, AStatusInAnotherCaseThrows) {
  store_->Set(keys::kStatus, "Lost");
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { helper_.GetPackStatus(); }), "_Map_base::at");
}

TEST_F(PackStatusHelperTest, AnUnknownStatusThrows) {
  store_->Set(keys::kStatus, "");
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { helper_.GetPackNewName(); }), "_Map_base::at");
}

TEST_F(PackStatusHelperTest, AnUnknownStepThrows) {
  store_->Set(keys::kInstallStep, "post-install");
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { helper_.GetInstallProgress(); }), "_Map_base::at");
}

TEST_F(PackStatusHelperTest, ASizeIsReadAsFarAsItIsANumber) {
  store_->Set(keys::kDownloadSizeNow, "12abc");
  store_->Set(keys::kDownloadSizeTotal, " \t+34 bytes");
  EXPECT_THAT(helper_.GetPackDownloadProgress(), Pair(12, 34));
}

TEST_F(PackStatusHelperTest, ASizeIsReadInBaseTen) {
  store_->Set(keys::kDownloadSizeNow, "0x10");
  store_->Set(keys::kDownloadSizeTotal, "010");
  EXPECT_THAT(helper_.GetPackDownloadProgress(), Pair(0, 10));
}

TEST_F(PackStatusHelperTest, ASizeThatIsNoNumberThrows) {
  for (const char* key : {keys::kDownloadSizeNow, keys::kDownloadSizeTotal}) {
    for (const char* text : {"abc", "", "-"}) {
      store_->Clear();
      store_->Set(key, text);
      EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { helper_.GetPackStatus(); }), "stoll") << key << " " << text;
    }
  }
}

TEST_F(PackStatusHelperTest, ASizeBeyondSixtyFourBitsThrows) {
  store_->Set(keys::kDownloadSizeTotal, "9223372036854775808");
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { helper_.GetPackDownloadProgress(); }), "stoll");
}

TEST_F(PackStatusHelperTest, AFailedReadKeepsTheRecordOfTheReadBefore) {
  helper_.SetAsNeedInstall("v", "n");
  EXPECT_EQ(helper_.GetPackStatus(), kStatusNeedInstall);
  store_->Set(keys::kNewVersion, "w");
  store_->Set(keys::kInstallStep, "broken");
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { helper_.GetPackStatus(); }), "_Map_base::at");
  EXPECT_EQ(helper_.GetPackNewVersion(), "v");
  EXPECT_EQ(helper_.GetPackNewName(), "n");
}

TEST_F(PackStatusHelperTest, AFailedFirstReadIsTriedAgain) {
  store_->Set(keys::kStatus, "broken");
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { helper_.GetPackNewName(); }), "_Map_base::at");
  store_->Set(keys::kStatus, "need_install");
  store_->Set(keys::kNewPackName, "n");
  EXPECT_EQ(helper_.GetPackNewName(), "n");
}

TEST_F(PackStatusHelperTest, AFailedReadGivesTheLockBack) {
  store_->Set(keys::kStatus, "broken");
  EXPECT_THROW(helper_.GetPackStatus(), std::out_of_range);
  EXPECT_TRUE(fs::exists(path::kPackStatusLock));
  EXPECT_FALSE(IsLocked());
}

// Rows of the three rules; every number that is no status is refused by all.
struct Rule {
  int status;
  bool download;
  bool install;
  bool download_install;
};

class PackStatusHelperRuleTest : public testing::TestWithParam<Rule> {};

TEST_P(PackStatusHelperRuleTest, PermitsExactlyItsOperations) {
  auto store = std::make_shared<StrictMock<test::MockStore>>();  // asked for nothing
  const PackStatusHelper helper(store);
  const auto status = static_cast<PackStatus>(GetParam().status);
  EXPECT_EQ(helper.CanDoDownload(status), GetParam().download);
  EXPECT_EQ(helper.CanDoInstall(status), GetParam().install);
  EXPECT_EQ(helper.CanDoDownloadInstall(status), GetParam().download_install);
}

INSTANTIATE_TEST_SUITE_P(All, PackStatusHelperRuleTest,
                         testing::Values(Rule{0, false, false, true}, Rule{1, true, false, true},
                                         Rule{2, false, false, false}, Rule{3, true, false, false},
                                         Rule{4, false, true, true}, Rule{5, false, false, false},
                                         Rule{6, false, true, false}, Rule{7, false, false, false},
                                         Rule{8, false, false, true}, Rule{9, false, false, true},
                                         Rule{10, false, false, false}, Rule{12, false, false, false},
                                         Rule{-1, false, false, false}, Rule{-2147483647, false, false, false},
                                         Rule{2147483647, false, false, false}),
                         [](const auto& test) {
                           const int status = test.param.status;
                           return status < 0 ? "Minus" + std::to_string(-status) : "Status" + std::to_string(status);
                         });

// Which calls reach the store, and in which order.
class PackStatusHelperStoreTest : public testing::Test {
 protected:
  std::shared_ptr<StrictMock<test::MockStore>> store_ = std::make_shared<StrictMock<test::MockStore>>();
  PackStatusHelper helper_{store_};
};

TEST_F(PackStatusHelperStoreTest, ConstructionReadsNothing) {
  EXPECT_EQ(store_.use_count(), 2);
  EXPECT_FALSE(IsLocked());
}

TEST_F(PackStatusHelperStoreTest, SavesClearThenSetEveryKeyInOrderUnderTheLock) {
  const auto expect_lock = [] { EXPECT_TRUE(IsLocked()); };
  const InSequence in_order;
  EXPECT_CALL(*store_, Clear()).WillOnce(expect_lock);
  EXPECT_CALL(*store_, Set(keys::kStatus, "downloading")).WillOnce(InvokeWithoutArgs(expect_lock));
  EXPECT_CALL(*store_, Set(keys::kNewPackName, "")).WillOnce(InvokeWithoutArgs(expect_lock));
  EXPECT_CALL(*store_, Set(keys::kNewVersion, "")).WillOnce(InvokeWithoutArgs(expect_lock));
  EXPECT_CALL(*store_, Set(keys::kDownloadSizeNow, "1048576")).WillOnce(InvokeWithoutArgs(expect_lock));
  EXPECT_CALL(*store_, Set(keys::kDownloadSizeTotal, "5242880")).WillOnce(InvokeWithoutArgs(expect_lock));
  EXPECT_CALL(*store_, Set(keys::kInstallStep, "")).WillOnce(InvokeWithoutArgs(expect_lock));
  helper_.SetAsDownloading(1048576, 5242880);
  EXPECT_FALSE(IsLocked());
}

TEST_F(PackStatusHelperStoreTest, ReadsEveryKeyInOrderUnderTheLock) {
  const InSequence in_order;
  for (const auto& [key, text] : std::vector<std::pair<std::string, std::string>>{{keys::kStatus, "installing"},
                                                                                  {keys::kNewPackName, "n"},
                                                                                  {keys::kNewVersion, "v"},
                                                                                  {keys::kDownloadSizeNow, "1"},
                                                                                  {keys::kDownloadSizeTotal, "2"},
                                                                                  {keys::kInstallStep, "install"}}) {
    EXPECT_CALL(*store_, Has(key)).WillOnce([](const std::string&) { return IsLocked(); });
    EXPECT_CALL(*store_, Get(key)).WillOnce([value = text](const std::string&) {
      EXPECT_TRUE(IsLocked());
      return value;
    });
  }
  helper_.RetrieveStatusData();
  EXPECT_FALSE(IsLocked());
  EXPECT_EQ(helper_.GetInstallProgress(), kStepInstall);  // without another call to the store
}

TEST_F(PackStatusHelperStoreTest, AMissingKeyIsNotGotten) {
  EXPECT_CALL(*store_, Has(_)).Times(6).WillRepeatedly(Return(false));
  EXPECT_EQ(helper_.GetPackStatus(), kStatusLost);
}

TEST_F(PackStatusHelperStoreTest, GetPackStatusReadsAtEveryCallTheOthersOnce) {
  EXPECT_CALL(*store_, Has(_)).Times(6).WillRepeatedly(Return(false));
  helper_.GetPackNewName();
  helper_.GetPackNewVersion();
  helper_.GetPackDownloadProgress();
  helper_.GetInstallProgress();
  testing::Mock::VerifyAndClearExpectations(store_.get());

  EXPECT_CALL(*store_, Has(_)).Times(12).WillRepeatedly(Return(false));
  helper_.GetPackStatus();
  helper_.GetPackStatus();
}

TEST_F(PackStatusHelperStoreTest, AnUnknownStatusEndsTheReadAtOnce) {
  EXPECT_CALL(*store_, Has(keys::kStatus)).WillOnce(Return(true));
  EXPECT_CALL(*store_, Get(keys::kStatus)).WillOnce(Return("Lost"));
  EXPECT_EQ(ErrorOf<std::out_of_range>([&] { helper_.GetPackStatus(); }), "_Map_base::at");
}

TEST_F(PackStatusHelperStoreTest, AFailingStoreIsPassedOnAndTheLockGivenBack) {
  const auto failure = std::system_error(std::make_error_code(std::errc::no_space_on_device), "write");
  EXPECT_CALL(*store_, Clear()).WillOnce(Throw(failure));
  EXPECT_THROW(helper_.SetAsUpToDate(), std::system_error);
  EXPECT_FALSE(IsLocked());

  EXPECT_CALL(*store_, Clear());
  EXPECT_CALL(*store_, Set(keys::kStatus, "up_to_date")).WillOnce(Throw(failure));
  EXPECT_THROW(helper_.SetAsUpToDate(), std::system_error);
  EXPECT_FALSE(IsLocked());

  EXPECT_CALL(*store_, Has(keys::kStatus)).WillOnce(Throw(failure));
  EXPECT_THROW(helper_.GetPackStatus(), std::system_error);
  EXPECT_FALSE(IsLocked());
}

TEST_F(PackStatusHelperStoreTest, WithoutTheLockTheStoreIsNotTouched) {
  fs::remove_all(fs::path(path::kPackStatusLock).parent_path());
  test::WriteFile(fs::path(path::kPackStatusLock).parent_path(), "no folder");
  EXPECT_THROW(helper_.SetAsUpToDate(), std::system_error);
  EXPECT_THROW(helper_.GetPackStatus(), std::system_error);
  fs::remove(fs::path(path::kPackStatusLock).parent_path());
}

TEST_F(PackStatusHelperStoreTest, TheStoreIsReleasedWithTheHelper) {
  auto store = std::make_shared<StrictMock<test::MockStore>>();
  auto helper = std::make_unique<PackStatusHelper>(store);
  EXPECT_EQ(store.use_count(), 2);
  helper.reset();
  EXPECT_EQ(store.use_count(), 1);
}

class PackStatusHelperCreateTest : public testing::Test {
 protected:
  PackStatusHelperCreateTest() {
    fs::remove_all(fs::path(path::kPackStatusFile).parent_path());
    LogCapture::Clear();
  }
};

TEST_F(PackStatusHelperCreateTest, MakesTheStatusFileAndItsFolder) {
  const auto helper = PackStatusHelper::Create();
  ASSERT_NE(helper, nullptr);
  helper->SetAsNeedDownload("1.0");
  EXPECT_THAT(test::ReadFile(path::kPackStatusFile), testing::HasSubstr("need_download"));
  EXPECT_EQ(fs::status(fs::path(path::kPackStatusFile).parent_path()).permissions(), fs::perms(0755));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

// What opens the store may set a file aside, so it waits while another process saves.
TEST_F(PackStatusHelperCreateTest, WaitsForTheLock) {
  auto lock = std::make_unique<store::FileLock>(path::kPackStatusLock);
  std::atomic<bool> created = false;
  std::thread other([&] { created = PackStatusHelper::Create() != nullptr; });
  const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(getpid()) + " ";
  test::Await([&] { return created || test::ReadFile("/proc/locks").find(waiting) != std::string::npos; });
  EXPECT_FALSE(created);
  EXPECT_FALSE(fs::exists(path::kPackStatusFile));
  lock.reset();
  other.join();
  EXPECT_TRUE(created);
}

TEST_F(PackStatusHelperCreateTest, IsEmptyWithTheCauseWhenTheLockCannotBeTaken) {
  const fs::path folder = fs::path(path::kPackStatusLock).parent_path();
  fs::remove_all(folder);
  test::WriteFile(folder, "a file in the way");
  EXPECT_EQ(PackStatusHelper::Create(), nullptr);
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("pack_status_helper.cpp", "Cannot use the store: open lock file " +
                                                                  std::string(path::kPackStatusLock) + ": " +
                                                                  test::ErrorText(ENOTDIR)),
                          ErrorLine("pack_status_helper.cpp", "Failed to create \"FileKeyValueStore\"")));
  fs::remove(folder);
}

TEST_F(PackStatusHelperCreateTest, IsEmptyWithTheCauseWhenTheFileCannotBeUsed) {
  const fs::path folder = fs::path(path::kPackStatusFile).parent_path();
  fs::create_directories(folder.parent_path());
  fs::create_symlink("nowhere", folder);
  EXPECT_EQ(PackStatusHelper::Create(), nullptr);
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("key_value_store.cpp", "Cannot use the store: make folder " + folder.string() +
                                                               ": " + test::ErrorText(EEXIST)),
                          ErrorLine("pack_status_helper.cpp", "Failed to create \"FileKeyValueStore\"")));
  fs::remove(folder);
}

}  // namespace
}  // namespace orbamira::updater
