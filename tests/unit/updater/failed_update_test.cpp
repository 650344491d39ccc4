#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/paths.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
#include "updater/pack_manager.h"
#include "updater/recovery.h"
#include "updater/update_lock.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
using test::HttpServer;
using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::NiceMock;
using testing::Return;
using testing::Throw;

test::LogLine Info(const std::string& text) { return test::InfoLine("failed_update.cpp", text); }

// `steps_` notes every change of the record; each finds its reason in the log.
class FailedUpdateTest : public testing::Test {
 protected:
  FailedUpdateTest() {
    test::RemoveWrittenFolders();
    LogCapture::Clear();
    ON_CALL(*kos_, GetPackUpdateServerUrl()).WillByDefault(Return(server_.Url("/update")));
    ON_CALL(*kos_, GetVersionFromPath).WillByDefault(Return("1.0"));
    ON_CALL(*kos_, GetVersion()).WillByDefault(Return("3.1-1200"));
    ON_CALL(*kos_, GetUnique()).WillByDefault(Return("kos_x86_ds9"));
    ON_CALL(*handler_, GetDownloadVersion).WillByDefault([](const Json::Value& info) {
      return info["version"].asString();
    });
    ON_CALL(status_, SetAsUpToDate()).WillByDefault([this] { Note("up_to_date"); });
    ON_CALL(status_, SetAsNeedDownload).WillByDefault([this](const std::string& version) {
      Note("need_download " + version);
    });
  }

  void Note(const std::string& step) {
    steps_.push_back(step);
    reasons_ = LogCapture::Lines();
  }

  static void Install(const std::string& version) { test::WriteFile(path::kPackInfoPath, "version=" + version + "\n"); }

  void Offer(const std::string& version) {
    body_ = "{\"" + std::string(kHevcPack) + R"(": {"version": ")" + version + R"("}})";
  }

  void Record(PackStatus status, const std::string& new_version = "") {
    ON_CALL(status_, GetPackStatus()).WillByDefault(Return(status));
    ON_CALL(status_, GetPackNewVersion()).WillByDefault(Return(new_version));
  }

  bool IsDueAgain() {
    steps_.clear();
    reasons_.clear();
    LogCapture::Clear();
    return RepeatFailedUpdate(UpdateLock(), manager_, status_);
  }

  std::string body_;
  int requests_ = 0;
  std::vector<std::string> steps_;
  std::vector<test::LogLine> reasons_;  // what the log had at the last step
  std::shared_ptr<NiceMock<test::MockKosHelper>> kos_ = std::make_shared<NiceMock<test::MockKosHelper>>();
  std::shared_ptr<NiceMock<test::MockPackHandler>> handler_ = std::make_shared<NiceMock<test::MockPackHandler>>();
  NiceMock<test::MockStatusHelper> status_;
  PackManager manager_{nullptr, nullptr, kos_, nullptr, handler_, nullptr};
  HttpServer server_{[this](const test::HttpRequest&) {
    ++requests_;
    return test::HttpResponse{.body = body_};
  }};
};

TEST_F(FailedUpdateTest, IsDueAgainWhileTheInstalledVersionIsOnOffer) {
  Install("2");
  Offer("2");
  for (const PackStatus status : {kStatusDownloadFailed, kStatusInstallFailed, kStatusDownloadInstallFailed}) {
    Record(status);
    EXPECT_TRUE(IsDueAgain()) << status;
    EXPECT_THAT(steps_, ElementsAre("need_download 2")) << status;
    EXPECT_THAT(reasons_, ElementsAre(Info("The last update failed and is to be done again: version 2")));
  }
}

TEST_F(FailedUpdateTest, IsDueAgainWhenItsRepetitionNeverBegan) {
  Install("2");
  Offer("2");
  Record(kStatusNeedDownload, "2");
  EXPECT_TRUE(IsDueAgain());
  EXPECT_THAT(steps_, ElementsAre("need_download 2"));
}

TEST_F(FailedUpdateTest, EndsWhenTheOfferIsOlderAndItsDownloadGoes) {
  Install("2");
  Offer("1");
  Record(kStatusDownloadInstallFailed);
  test::WriteFile(path::kDownloadedOpkPath, "package");
  EXPECT_FALSE(IsDueAgain());
  EXPECT_THAT(steps_, ElementsAre("up_to_date"));
  EXPECT_THAT(reasons_,
              ElementsAre(Info("The last update failed, but the installed version 2 is newer than the offer")));
  EXPECT_FALSE(fs::exists(kDownloadFolder));
}

TEST_F(FailedUpdateTest, AnOfferThatWasTakenBackIsNotDueAnyMore) {
  Install("2");
  Record(kStatusNeedDownload, "3");
  Offer("3");
  EXPECT_FALSE(IsDueAgain());
  EXPECT_THAT(steps_, IsEmpty());
  Offer("2");
  EXPECT_FALSE(IsDueAgain());
  EXPECT_THAT(steps_, ElementsAre("up_to_date"));
  EXPECT_THAT(reasons_, ElementsAre(Info("The version that was to be downloaded is not on offer any more")));
}

TEST_F(FailedUpdateTest, NothingIsAskedForWhenNothingFailed) {
  Offer("2");
  Record(kStatusDownloadInstallFailed);
  EXPECT_FALSE(IsDueAgain()) << "no pack is installed";
  Install("2");
  for (const PackStatus status : {kStatusLost, kStatusDownloading, kStatusNeedInstall, kStatusInstalling,
                                  kStatusDownloadingInstalling, kStatusUpToDate}) {
    Record(status);
    EXPECT_FALSE(IsDueAgain()) << status;
  }
  EXPECT_CALL(status_, GetPackStatus()).WillOnce(Throw(std::out_of_range("dancing")));
  EXPECT_FALSE(IsDueAgain()) << "the record cannot be decoded";
  EXPECT_EQ(requests_, 0);
}

TEST_F(FailedUpdateTest, AServerThatDoesNotAnswerChangesNothing) {
  Install("2");
  body_ = "no JSON";
  Record(kStatusDownloadInstallFailed);
  EXPECT_FALSE(IsDueAgain());
  EXPECT_EQ(requests_, 1);
  EXPECT_THAT(steps_, IsEmpty());
}

}  // namespace
}  // namespace orbamira::updater
