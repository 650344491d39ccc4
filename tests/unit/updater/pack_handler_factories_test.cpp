#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/exception.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/test_root.h"
#include "updater/pack_handler.h"

// This program defines the factories that the pack handler calls, to reach what the real ones never do.
namespace orbamira {
namespace {

struct Factories {
  std::shared_ptr<wrapper::ICprSession> session;
  std::unique_ptr<updater::IKOSHelper> kos_helper;
  std::shared_ptr<wrapper::DownloadWrapper> download;
  std::vector<std::string> calls;
};

Factories& TheFactories() {
  static Factories factories;
  return factories;
}

}  // namespace

std::shared_ptr<wrapper::ICprSession> wrapper::CprSession::Create() {
  TheFactories().calls.emplace_back("CprSession");
  return TheFactories().session;
}

std::shared_ptr<wrapper::DownloadWrapper> wrapper::DownloadWrapper::Create() {
  TheFactories().calls.emplace_back("DownloadWrapper");
  return std::move(TheFactories().download);
}

std::unique_ptr<updater::IKOSHelper> updater::KOSHelper::Create() {
  TheFactories().calls.emplace_back("KOSHelper");
  return std::move(TheFactories().kos_helper);
}

namespace updater {
namespace {

using exception::Exception;
using test::ErrorLine;
using test::InfoLine;
using test::LogCapture;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Ref;
using testing::Return;
using testing::StrictMock;
using testing::Throw;

constexpr const char* kFile = "pack_handler.cpp";

class PackHandlerFactoriesTest : public testing::Test {
 protected:
  PackHandlerFactoriesTest() {
    TheFactories() = Factories();
    LogCapture::Clear();
  }
  ~PackHandlerFactoriesTest() override { TheFactories() = Factories(); }

  // What the next download is; the factory hands it over and keeps nothing.
  StrictMock<test::MockDownload>& NextDownload() {
    auto download = std::make_shared<StrictMock<test::MockDownload>>();
    download_ = download;
    TheFactories().download = download;
    return *download;
  }

  bool Download(const std::string& path) {
    return PackHandler(nullptr, nullptr, nullptr, nullptr).DownloadWithProgress("http://server/pack", path, progress_);
  }

  test::TempDir folder_;
  std::weak_ptr<wrapper::DownloadWrapper> download_;
  std::function<void(long, long)> progress_ = [](long, long) {};
};

TEST_F(PackHandlerFactoriesTest, CreateMakesTheSessionThenTheHelper) {
  TheFactories().session = std::make_shared<StrictMock<test::MockSession>>();
  TheFactories().kos_helper = std::make_unique<StrictMock<test::MockKosHelper>>();
  EXPECT_NE(PackHandler::Create(), nullptr);
  EXPECT_THAT(TheFactories().calls, ElementsAre("CprSession", "KOSHelper"));
  EXPECT_EQ(TheFactories().session.use_count(), 1);  // released with the handler
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerFactoriesTest, CreatePassesEmptyCollaboratorsOn) {
  const auto handler = PackHandler::Create();
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(handler->GetDownloadPath(), path::kDownloadedOpkPath);
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerFactoriesTest, DownloadWithProgressWithoutADownloadFails) {
  EXPECT_FALSE(Download(folder_.File("pack")));
  EXPECT_FALSE(std::filesystem::exists(folder_.File("pack")));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(ErrorLine(kFile, "Failed to create DownloadWrapper")));
}

TEST_F(PackHandlerFactoriesTest, DownloadWithProgressSetsLinkAndCallbackBeforeItOpensTheFile) {
  auto& download = NextDownload();
  const auto expect_no_file = [this] { EXPECT_FALSE(std::filesystem::exists(folder_.File("pack"))); };
  const InSequence in_order;
  EXPECT_CALL(download, SetUrl("http://server/pack")).WillOnce(testing::InvokeWithoutArgs(expect_no_file));
  EXPECT_CALL(download, SetProgressCallback(Ref(progress_))).WillOnce(testing::InvokeWithoutArgs(expect_no_file));
  EXPECT_CALL(download, DownloadToFile).WillOnce([](std::ofstream& file) {
    EXPECT_TRUE(file.is_open());
    file << "body";
    return 200;
  });
  EXPECT_TRUE(Download(folder_.File("pack")));
  EXPECT_EQ(test::ReadFile(folder_.File("pack")), "body");
  EXPECT_TRUE(download_.expired());
  EXPECT_THAT(TheFactories().calls, ElementsAre("DownloadWrapper"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerFactoriesTest, DownloadWithProgressIntoAMissingFolderStartsNoTransfer) {
  auto& download = NextDownload();
  EXPECT_CALL(download, SetUrl);
  EXPECT_CALL(download, SetProgressCallback);
  EXPECT_FALSE(Download(folder_.File("missing/pack")));
  EXPECT_TRUE(download_.expired());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine(kFile, "Open download file " + folder_.File("missing/pack") + " failed")));
}

TEST_F(PackHandlerFactoriesTest, DownloadWithProgressLogsTheReasonOfAFailedTransferAndLeavesThePart) {
  auto& download = NextDownload();
  EXPECT_CALL(download, SetUrl);
  EXPECT_CALL(download, SetProgressCallback);
  EXPECT_CALL(download, DownloadToFile).WillOnce([](std::ofstream& file) -> int {
    file << "part";
    throw Exception<exception::kDownloadFailure>("connection reset", "download.cpp", 7);
  });
  EXPECT_FALSE(Download(folder_.File("pack")));
  EXPECT_EQ(test::ReadFile(folder_.File("pack")), "part");
  EXPECT_TRUE(download_.expired());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(InfoLine(kFile, "Failed to download pack: connection reset")));
}

TEST_F(PackHandlerFactoriesTest, DownloadWithProgressLogsAnyOtherStatusAndLeavesThePart) {
  for (const int status : {0, 206, 404, 503}) {
    LogCapture::Clear();
    auto& download = NextDownload();
    EXPECT_CALL(download, SetUrl);
    EXPECT_CALL(download, SetProgressCallback);
    EXPECT_CALL(download, DownloadToFile).WillOnce([status](std::ofstream& file) {
      file << "part";
      return status;
    });
    EXPECT_FALSE(Download(folder_.File("pack")));
    EXPECT_EQ(test::ReadFile(folder_.File("pack")), "part");
    EXPECT_THAT(
        LogCapture::Lines(),
        ElementsAre(InfoLine(kFile, "Failed to download pack to " + folder_.File("pack") +
                                        " from link: http://server/pack, status code: " + std::to_string(status))));
  }
}

TEST_F(PackHandlerFactoriesTest, DownloadWithProgressLetsOtherExceptionsPass) {
  auto& download = NextDownload();
  EXPECT_CALL(download, SetUrl);
  EXPECT_CALL(download, SetProgressCallback);
  EXPECT_CALL(download, DownloadToFile).WillOnce(Throw(Exception<exception::kInstallFailure>("other", "f.cpp", 1)));
  EXPECT_THROW(Download(folder_.File("pack")), Exception<exception::kInstallFailure>);
  EXPECT_TRUE(download_.expired());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerFactoriesTest, DownloadWithProgressMakesADownloadForEveryCall) {
  for (int call = 0; call < 2; ++call) {
    auto& download = NextDownload();
    EXPECT_CALL(download, SetUrl);
    EXPECT_CALL(download, SetProgressCallback);
    EXPECT_CALL(download, DownloadToFile).WillOnce(Return(200));
    EXPECT_TRUE(Download(folder_.File("pack")));
  }
  EXPECT_THAT(TheFactories().calls, ElementsAre("DownloadWrapper", "DownloadWrapper"));
}

}  // namespace
}  // namespace updater
}  // namespace orbamira
