#include "updater/pack_handler.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/file.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/exception.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/test_root.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
using test::ErrorLine;
using test::HttpRequest;
using test::HttpResponse;
using test::HttpServer;
using test::InfoLine;
using test::LogCapture;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Pair;
using testing::Return;
using testing::StrictMock;
using testing::Throw;

using Command = std::vector<std::string>;
using LogLines = std::vector<test::LogLine>;

constexpr const char* kFile = "pack_handler.cpp";
constexpr const char* kOpk = "/downloads/new pack.opk";

test::LogLine Info(const std::string& text) { return InfoLine(kFile, text); }

cpr::Response StatusOf(long code) {
  cpr::Response response;
  response.status_code = code;
  return response;
}

class PackHandlerTest : public testing::Test {
 protected:
  PackHandlerTest() {
    fs::remove_all(kTargetFolder);
    fs::create_directories(kTargetFolder);
    LogCapture::Clear();
  }

  const std::string kTemp = path::kTempPackFolderPath;
  const std::string kPack = path::kPackFolderPath;
  const std::string kBackup = path::kBackupPackFolderPath;
  std::shared_ptr<StrictMock<test::MockSession>> session_ = std::make_shared<StrictMock<test::MockSession>>();
  std::shared_ptr<StrictMock<test::MockKosHelper>> kos_helper_ = std::make_shared<StrictMock<test::MockKosHelper>>();
  std::shared_ptr<StrictMock<test::MockCore>> core_ = std::make_shared<StrictMock<test::MockCore>>();
  std::shared_ptr<StrictMock<test::MockSdk>> sdk_ = std::make_shared<StrictMock<test::MockSdk>>();
  PackHandler handler_{session_, kos_helper_, core_, sdk_};
};

Json::Value Offer(const std::string& version) {
  Json::Value info(Json::objectValue);
  info[param::kVersion] = version;
  info[param::kLink] = "http://server/pack.opk";
  info[param::kChecksum] = "c0ffee";
  info[param::kTitle] = "The pack";
  return info;
}

// Construction and locations.

TEST_F(PackHandlerTest, ConstructionCallsNothingAndSharesTheServices) {
  for (const long count : {session_.use_count(), kos_helper_.use_count(), core_.use_count(), sdk_.use_count()}) {
    EXPECT_EQ(count, 2);
  }
}

TEST_F(PackHandlerTest, DestructionReleasesTheServicesInReverseOrder) {
  std::vector<std::string> released;
  {
    const PackHandler handler(
        test::Noted<test::MockSession>(released, "session"), test::Noted<test::MockKosHelper>(released, "system"),
        test::Noted<test::MockCore>(released, "core"), test::Noted<test::MockSdk>(released, "sdk"));
    EXPECT_THAT(released, IsEmpty());
  }
  EXPECT_THAT(released, ElementsAre("sdk", "core", "system", "session"));
}

TEST_F(PackHandlerTest, CreateForTestKeepsItsOwnCopyOfTheInformation) {
  Json::Value info = Offer("2.0");
  const auto handler = PackHandler::CreateForTest(session_, kos_helper_, core_, sdk_, info);
  info[param::kVersion] = "";
  EXPECT_CALL(*core_, GetKeyValue).WillOnce(Return("1.0"));
  EXPECT_TRUE(handler->CheckNewVersion());
}

TEST_F(PackHandlerTest, GettersWithoutArgumentReadTheInformationOfTheHandler) {
  const PackHandler handler(session_, kos_helper_, core_, sdk_, Offer("2.0"));
  EXPECT_EQ(handler.GetDownloadVersion(), "2.0");
  EXPECT_EQ(handler.GetDownloadLink(), "http://server/pack.opk");
  EXPECT_EQ(handler.GetDownloadPackName(), "The pack");
}

TEST_F(PackHandlerTest, GettersWithoutArgumentAreEmptyWithoutInformation) {
  EXPECT_EQ(handler_.GetDownloadVersion(), "");
  EXPECT_EQ(handler_.GetDownloadLink(), "");
  EXPECT_EQ(handler_.GetDownloadPackName(), "");
}

TEST_F(PackHandlerTest, CreateHasNoInformation) {
  const auto handler = PackHandler::Create();
  const auto* real = dynamic_cast<PackHandler*>(handler.get());
  ASSERT_NE(real, nullptr);
  EXPECT_EQ(real->GetDownloadPackName(), "");
  EXPECT_EQ(real->GetDownloadLink(), "");
  EXPECT_EQ(real->GetDownloadVersion(), "");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerTest, GettersWithoutArgumentGoThroughTheVirtualOperations) {
  class Overridden : public PackHandler {
   public:
    using PackHandler::GetDownloadLink;
    using PackHandler::GetDownloadVersion;
    using PackHandler::PackHandler;
    std::string GetDownloadVersion(const Json::Value& info) const override {
      return "virtual " + info["version"].asString();
    }
    std::string GetDownloadLink(const Json::Value& info) const override { return "virtual " + info["link"].asString(); }
  };
  const Overridden handler(session_, kos_helper_, core_, sdk_, Offer("2.0"));
  EXPECT_EQ(handler.GetDownloadVersion(), "virtual 2.0");
  EXPECT_EQ(handler.GetDownloadLink(), "virtual http://server/pack.opk");
}

TEST_F(PackHandlerTest, GetDownloadPathIsTheConstant) {
  EXPECT_EQ(handler_.GetDownloadPath(), path::kDownloadedOpkPath);
}

TEST_F(PackHandlerTest, GetInfoPathIsComposedWhetherOrNotItExists) {
  const std::string expected = std::string(kTargetFolder) + "/" + kPackFolderName + "/INFO";
  EXPECT_EQ(handler_.GetInfoPath(), expected);
  test::WriteFile(expected, "version=1\n");
  EXPECT_EQ(handler_.GetInfoPath(), expected);
}

TEST_F(PackHandlerTest, InformationFilesAreReadThroughTheCoreServices) {
  EXPECT_CALL(*core_, GetKeyValue("/some/INFO", param::kVersion)).WillOnce(Return("1.2"));
  EXPECT_CALL(*core_, GetKeyValue("/some/INFO", param::kPackage)).WillOnce(Return("name"));
  EXPECT_EQ(handler_.GetVersionFromInfo("/some/INFO"), "1.2");
  EXPECT_EQ(handler_.GetPackageNameFromInfo("/some/INFO"), "name");
}

// Working directories.

TEST_F(PackHandlerTest, CreateDownloadDirectorySucceedsFromZeroUp) {
  EXPECT_CALL(*sdk_, MakeDirectory(kDownloadFolder)).WillOnce(Return(0)).WillOnce(Return(1));
  EXPECT_TRUE(handler_.CreateDownloadDirectory());
  EXPECT_TRUE(handler_.CreateDownloadDirectory());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

// Whoever could write to the download could change a package between its check and its unpacking.
TEST_F(PackHandlerTest, CreateDownloadDirectoryClosesItToOthersAlsoWhenItWasThereBefore) {
  fs::create_directories(kDownloadFolder);
  fs::permissions(kDownloadFolder, fs::perms(0777));
  EXPECT_CALL(*sdk_, MakeDirectory(kDownloadFolder)).WillOnce(Return(0));
  EXPECT_TRUE(handler_.CreateDownloadDirectory());
  EXPECT_EQ(fs::status(kDownloadFolder).permissions(), fs::perms(0700));
  fs::remove_all(kDownloadFolder);
}

TEST_F(PackHandlerTest, CreateDownloadDirectoryFailsBelowZero) {
  EXPECT_CALL(*sdk_, MakeDirectory(kDownloadFolder)).WillOnce(Return(-1));
  EXPECT_FALSE(handler_.CreateDownloadDirectory());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to create download directory " + std::string(kDownloadFolder))));
}

TEST_F(PackHandlerTest, CreateTempPackDirectorySucceedsFromZeroUp) {
  EXPECT_CALL(*sdk_, MakeDirectory(kTemp)).WillOnce(Return(0)).WillOnce(Return(1));
  EXPECT_TRUE(handler_.CreateTempPackDirectory());
  EXPECT_TRUE(handler_.CreateTempPackDirectory());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerTest, CreateTempPackDirectoryFailsBelowZero) {
  EXPECT_CALL(*sdk_, MakeDirectory(kTemp)).WillOnce(Return(-28));
  EXPECT_FALSE(handler_.CreateTempPackDirectory());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to create temp directory " + kTemp)));
}

TEST_F(PackHandlerTest, RemoveDownloadDirectorySucceedsFromZeroUp) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kRmPath, "-rf", kDownloadFolder}))
      .WillOnce(Return(0))
      .WillOnce(Return(1));
  EXPECT_TRUE(handler_.RemoveDownloadDirectory());
  EXPECT_TRUE(handler_.RemoveDownloadDirectory());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerTest, RemoveDownloadDirectoryFailsBelowZero) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kRmPath, "-rf", kDownloadFolder})).WillOnce(Return(-1));
  EXPECT_FALSE(handler_.RemoveDownloadDirectory());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to remove download directory " + std::string(kDownloadFolder))));
}

TEST_F(PackHandlerTest, RemoveTempPackDirectorySucceedsFromZeroUp) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kRmPath, "-rf", kTemp})).WillOnce(Return(0)).WillOnce(Return(1));
  EXPECT_TRUE(handler_.RemoveTempPackDirectory());
  EXPECT_TRUE(handler_.RemoveTempPackDirectory());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerTest, RemoveTempPackDirectoryFailsBelowZero) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kRmPath, "-rf", kTemp})).WillOnce(Return(-9));
  EXPECT_FALSE(handler_.RemoveTempPackDirectory());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to remove directory " + kTemp)));
}

// Download information and versions.

TEST_F(PackHandlerTest, GettersReadTheirMembers) {
  EXPECT_EQ(handler_.GetDownloadVersion(Offer("2.0")), "2.0");
  EXPECT_EQ(handler_.GetDownloadLink(Offer("2.0")), "http://server/pack.opk");
  EXPECT_EQ(handler_.GetDownloadChecksum(Offer("2.0")), "c0ffee");
}

TEST_F(PackHandlerTest, GettersOfMissingMembersAreEmpty) {
  for (const Json::Value& info : {Json::Value(Json::objectValue), Json::Value()}) {
    EXPECT_EQ(handler_.GetDownloadVersion(info), "");
    EXPECT_EQ(handler_.GetDownloadLink(info), "");
    EXPECT_EQ(handler_.GetDownloadChecksum(info), "");
  }
}

TEST_F(PackHandlerTest, GettersTurnPlainValuesIntoTexts) {
  Json::Value info;
  info[param::kVersion] = 2;
  info[param::kLink] = true;
  info[param::kChecksum] = Json::Value();
  EXPECT_EQ(handler_.GetDownloadVersion(info), "2");
  EXPECT_EQ(handler_.GetDownloadLink(info), "true");
  EXPECT_EQ(handler_.GetDownloadChecksum(info), "");
}

TEST_F(PackHandlerTest, GettersOfWhatIsNoTextThrow) {
  Json::Value info;
  info[param::kVersion] = Json::Value(Json::arrayValue);
  EXPECT_THROW(handler_.GetDownloadVersion(info), Json::LogicError);
  EXPECT_THROW(handler_.GetDownloadLink(Json::Value("text")), Json::LogicError);
}

TEST_F(PackHandlerTest, CheckNewVersionComparesInstalledWithOffered) {
  EXPECT_CALL(*core_, GetKeyValue(handler_.GetInfoPath(), param::kVersion)).WillRepeatedly(Return("1.9"));
  EXPECT_TRUE(handler_.CheckNewVersion(Offer("1.10")));
  EXPECT_FALSE(handler_.CheckNewVersion(Offer("1.9")));
  EXPECT_FALSE(handler_.CheckNewVersion(Offer("1.8")));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerTest, CheckNewVersionTakesAnUnknownInstalledVersionForOlder) {
  EXPECT_CALL(*core_, GetKeyValue).WillOnce(Return(""));
  EXPECT_TRUE(handler_.CheckNewVersion(Offer("1.0")));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Current pack version is empty")));
}

TEST_F(PackHandlerTest, CheckNewVersionRefusesAnOfferWithoutVersion) {
  EXPECT_CALL(*core_, GetKeyValue).WillOnce(Return("1.0"));
  EXPECT_FALSE(handler_.CheckNewVersion(Json::Value(Json::objectValue)));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Download pack version is empty")));
}

TEST_F(PackHandlerTest, CheckNewVersionWithoutEitherVersionDoesNotLookAtTheOffer) {
  EXPECT_CALL(*core_, GetKeyValue).WillOnce(Return(""));
  EXPECT_TRUE(handler_.CheckNewVersion(Json::Value("no object")));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Current pack version is empty")));
}

TEST_F(PackHandlerTest, CheckNewVersionWithoutArgumentUsesTheInformationOfTheHandler) {
  EXPECT_CALL(*core_, GetKeyValue).Times(2).WillRepeatedly(Return("1.0"));
  EXPECT_TRUE(PackHandler(session_, kos_helper_, core_, sdk_, Offer("1.1")).CheckNewVersion());
  EXPECT_FALSE(handler_.CheckNewVersion());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Download pack version is empty")));
}

TEST_F(PackHandlerTest, CheckNewVersionGoesThroughTheVirtualOperations) {
  class Overridden : public PackHandler {
   public:
    using PackHandler::CheckNewVersion;
    using PackHandler::PackHandler;
    std::string GetDownloadVersion(const Json::Value& /*info*/) const override { return "9"; }
  };
  EXPECT_CALL(*core_, GetKeyValue).WillOnce(Return("8"));
  EXPECT_TRUE(Overridden(session_, kos_helper_, core_, sdk_).CheckNewVersion());
}

// The plain download.

TEST_F(PackHandlerTest, DownloadSetsTheUrlThenWritesTheFileOverAnEarlierOne) {
  const test::TempDir folder;
  test::WriteFile(folder.File("pack"), "a longer earlier file");
  const InSequence in_order;
  EXPECT_CALL(*session_, SetUrl(cpr::Url("http://server/pack")));
  EXPECT_CALL(*session_, DownloadToFile).WillOnce([](std::ofstream& file) {
    EXPECT_TRUE(file.is_open());
    file << std::string("new\r\n\0", 6);
    return StatusOf(200);
  });
  EXPECT_TRUE(handler_.Download("http://server/pack", folder.File("pack")));
  EXPECT_EQ(test::ReadFile(folder.File("pack")), std::string("new\r\n\0", 6));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerTest, DownloadWithAnyOtherStatusFailsAndLeavesThePart) {
  const test::TempDir folder;
  for (const long status : {0L, 206L, 404L, 500L}) {
    LogCapture::Clear();
    EXPECT_CALL(*session_, SetUrl);
    EXPECT_CALL(*session_, DownloadToFile).WillOnce([&](std::ofstream& file) {
      file << "part";
      return StatusOf(status);
    });
    EXPECT_FALSE(handler_.Download("http://server/pack", folder.File("pack")));
    EXPECT_EQ(test::ReadFile(folder.File("pack")), "part");
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Info("Failed to download pack to " + folder.File("pack") +
                                 " from link: http://server/pack, status code: " + std::to_string(status))));
  }
}

TEST_F(PackHandlerTest, DownloadHandsOnAFileThatCouldNotBeOpened) {
  const test::TempDir folder;
  EXPECT_CALL(*session_, SetUrl).Times(2);
  EXPECT_CALL(*session_, DownloadToFile)
      .WillOnce([](std::ofstream& file) {
        EXPECT_FALSE(file.is_open());
        return StatusOf(0);
      })
      .WillOnce([](std::ofstream&) { return StatusOf(200); });
  EXPECT_FALSE(handler_.Download("link", folder.File("missing/pack")));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to download pack to " + folder.File("missing/pack") +
                                                    " from link: link, status code: 0")));
  EXPECT_TRUE(handler_.Download("link", folder.File("missing/pack")));
}

TEST_F(PackHandlerTest, DownloadLetsExceptionsOfTheSessionPass) {
  const test::TempDir folder;
  EXPECT_CALL(*session_, SetUrl);
  EXPECT_CALL(*session_, DownloadToFile).WillOnce(Throw(std::runtime_error("session")));
  EXPECT_THROW(handler_.Download("link", folder.File("pack")), std::runtime_error);
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

// Downloads from a real server.

class PackHandlerNetworkTest : public testing::Test {
 protected:
  PackHandlerNetworkTest() { LogCapture::Clear(); }

  test::TempDir folder_;
  std::unique_ptr<IPackHandler> handler_ = PackHandler::Create();
  std::vector<std::pair<long, long>> progress_;
  std::function<void(long, long)> note_ = [this](long now, long total) { progress_.emplace_back(now, total); };
};

TEST_F(PackHandlerNetworkTest, DownloadFetchesTheFile) {
  const std::string body = test::PatternOf(100000);
  const HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body}; });
  EXPECT_TRUE(handler_->Download(server.Url("/pack.opk"), folder_.File("pack")));
  EXPECT_TRUE(test::ReadFile(folder_.File("pack")) == body);
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerNetworkTest, DownloadWithProgressFetchesTheFileAndTellsFirstAndLastByte) {
  const std::string body = test::PatternOf(100000);
  const HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body}; });
  test::WriteFile(folder_.File("pack"), body + "an earlier file");
  EXPECT_TRUE(handler_->DownloadWithProgress(server.Url("/pack.opk"), folder_.File("pack"), note_));
  EXPECT_TRUE(test::ReadFile(folder_.File("pack")) == body);
  ASSERT_FALSE(progress_.empty());
  EXPECT_THAT(progress_.front(), Pair(testing::AllOf(testing::Gt(0), testing::Lt(50000)), 100000));
  EXPECT_THAT(progress_.back(), Pair(100000, 100000));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerNetworkTest, DownloadWithProgressOfAMissingPackLogsTheStatus) {
  const HttpServer server([](const HttpRequest&) { return HttpResponse{.status = 404, .body = "gone"}; });
  EXPECT_FALSE(handler_->DownloadWithProgress(server.Url("/pack.opk"), folder_.File("pack"), note_));
  EXPECT_TRUE(fs::exists(folder_.File("pack")));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to download pack to " + folder_.File("pack") +
                                                    " from link: " + server.Url("/pack.opk") + ", status code: 404")));
}

TEST_F(PackHandlerNetworkTest, DownloadWithProgressIntoAMissingFolderMakesNoRequest) {
  const HttpServer server([](const HttpRequest&) { return HttpResponse{}; });
  EXPECT_FALSE(handler_->DownloadWithProgress(server.Url(), folder_.File("missing/pack"), note_));
  EXPECT_THAT(server.Requests(), IsEmpty());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine(kFile, "Open download file " + folder_.File("missing/pack") + " failed")));
}

TEST_F(PackHandlerNetworkTest, DownloadWithProgressLogsWhyATransferFailed) {
  EXPECT_FALSE(handler_->DownloadWithProgress("ftp://server/pack.opk", folder_.File("pack"), note_));
  const LogLines lines = LogCapture::Lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].priority, LOG_LOCAL1 | LOG_INFO);
  EXPECT_EQ(lines[0].file, kFile);
  EXPECT_THAT(lines[0].text, testing::MatchesRegex("Failed to download pack: .+"));
}

// Extraction.

class PackHandlerExtractionTest : public PackHandlerTest {
 protected:
  PackHandlerExtractionTest() {
    fs::create_directories(kTemp);
    test::WriteFile(kTemp + "/INFO", "version=2\n");
    test::WriteFile(kPayload, "payload");
  }

  void ExpectUnpack(int result) {
    EXPECT_CALL(*core_, RunCommand(Command{path::kOrbaArchivePath, "-xf", kOpk, "-C", kTemp})).WillOnce(Return(result));
  }

  void ExpectUntar(int result) {
    EXPECT_CALL(*core_, RunCommand(Command{path::kTarPath, "-xf", kPayload, "-C", kTemp})).WillOnce(Return(result));
  }

  const std::string kPayload = kTemp + "/package.tgz";
  const InSequence in_order_;
};

TEST_F(PackHandlerExtractionTest, ExtractOpkUnpacksBothLayersRemovesThePayloadAndSetsModes) {
  ExpectUnpack(0);
  ExpectUntar(0);
  EXPECT_CALL(*kos_helper_, Chmod(kTemp + "/INFO", 0644)).WillOnce([this](const std::string&, unsigned int) {
    EXPECT_FALSE(fs::exists(kPayload));
    return true;
  });
  EXPECT_CALL(*kos_helper_, Chmod(kTemp, 0755)).WillOnce(Return(true));
  EXPECT_TRUE(handler_.ExtractOpk(kOpk, kTemp));
  EXPECT_TRUE(fs::exists(kTemp + "/INFO"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerExtractionTest, ExtractOpkFailsForAnyStatusOfTheArchiveTool) {
  for (const int status : {1, 255, -1, -15}) {
    LogCapture::Clear();
    ExpectUnpack(status);
    EXPECT_FALSE(handler_.ExtractOpk(kOpk, kTemp));
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to extract opk " + std::string(kOpk) + " to " + kTemp)));
  }
  EXPECT_TRUE(fs::exists(kPayload));
}

TEST_F(PackHandlerExtractionTest, ExtractOpkFailsForAnyStatusOfTar) {
  for (const int status : {1, 2, -1}) {
    LogCapture::Clear();
    ExpectUnpack(0);
    ExpectUntar(status);
    EXPECT_FALSE(handler_.ExtractOpk(kOpk, kTemp));
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to untar archive " + kPayload + " to " + kTemp)));
  }
  EXPECT_TRUE(fs::exists(kPayload));
}

TEST_F(PackHandlerExtractionTest, ExtractOpkFailsWhenThePayloadCannotBeRemoved) {
  fs::remove(kPayload);
  ExpectUnpack(0);
  ExpectUntar(0);
  EXPECT_FALSE(handler_.ExtractOpk(kOpk, kTemp));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to remove " + kPayload)));
}

TEST_F(PackHandlerExtractionTest, ExtractOpkFailsSilentlyWithTheModeOfTheInformationFile) {
  ExpectUnpack(0);
  ExpectUntar(0);
  EXPECT_CALL(*kos_helper_, Chmod(kTemp + "/INFO", 0644)).WillOnce(Return(false));
  EXPECT_FALSE(handler_.ExtractOpk(kOpk, kTemp));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerExtractionTest, ExtractOpkFailsSilentlyWithTheModeOfTheFolder) {
  ExpectUnpack(0);
  ExpectUntar(0);
  EXPECT_CALL(*kos_helper_, Chmod(kTemp + "/INFO", 0644)).WillOnce(Return(true));
  EXPECT_CALL(*kos_helper_, Chmod(kTemp, 0755)).WillOnce(Return(false));
  EXPECT_FALSE(handler_.ExtractOpk(kOpk, kTemp));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

class PackHandlerPlainExtractionTest : public PackHandlerTest {
 protected:
  void ExpectUnpack(int result) {
    EXPECT_CALL(*core_, RunCommand(Command{path::kOrbaArchivePath, "-xf", kOpk, "-C", kDownloadFolder}))
        .WillOnce(Return(result));
  }

  void ExpectTempDirectory(int result) { EXPECT_CALL(*sdk_, MakeDirectory(kTemp)).WillOnce(Return(result)); }

  void ExpectUntar(int result) {
    EXPECT_CALL(*core_, RunCommand(Command{path::kTarPath, "-xf", kPayload, "-C", kTemp})).WillOnce(Return(result));
  }

  const std::string kPayload = std::string(kDownloadFolder) + "/package.tgz";
  const InSequence in_order_;
};

TEST_F(PackHandlerPlainExtractionTest, ExtractOpkUnpacksIntoTwoFoldersAndKeepsThePayload) {
  test::WriteFile(kPayload, "payload");
  ExpectUnpack(0);
  ExpectTempDirectory(0);
  ExpectUntar(0);
  EXPECT_TRUE(handler_.ExtractOpk(kOpk));
  EXPECT_TRUE(fs::exists(kPayload));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerPlainExtractionTest, ExtractOpkGoesOnAfterProgramsThatExitWithAnError) {
  ExpectUnpack(1);
  ExpectTempDirectory(0);
  ExpectUntar(2);
  EXPECT_TRUE(handler_.ExtractOpk(kOpk));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerPlainExtractionTest, ExtractOpkFailsWhenTheArchiveToolCannotRun) {
  ExpectUnpack(-1);
  EXPECT_FALSE(handler_.ExtractOpk(kOpk));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to extract opk " + std::string(kOpk) + " to " + kDownloadFolder)));
}

TEST_F(PackHandlerPlainExtractionTest, ExtractOpkFailsWithoutTheTemporaryDirectory) {
  ExpectUnpack(0);
  ExpectTempDirectory(-1);
  EXPECT_FALSE(handler_.ExtractOpk(kOpk));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to create temp directory " + kTemp)));
}

TEST_F(PackHandlerPlainExtractionTest, ExtractOpkFailsWhenTarCannotRun) {
  ExpectUnpack(0);
  ExpectTempDirectory(0);
  ExpectUntar(-1);
  EXPECT_FALSE(handler_.ExtractOpk(kOpk));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to untar archive " + kPayload + " to " + kTemp)));
}

// Uninstall and install. The programs are substitutes that do the work of the real ones; the folders and the renaming
// are real.

class PackHandlerInstallTest : public PackHandlerTest {
 protected:
  PackHandlerInstallTest() {
    test::WriteFile(kPack + "/INFO", "version=1\n");
    LogCapture::Clear();
  }

  void MoveOldPackAside() { ASSERT_TRUE(handler_.Uninstall()); }

  void ExpectTempDirectory() {
    EXPECT_CALL(*sdk_, MakeDirectory(kTemp)).WillOnce([](const std::string& folder) {
      fs::create_directories(folder);
      return 0;
    });
  }

  void ExpectUnpack() {
    EXPECT_CALL(*core_, RunCommand(Command{path::kOrbaArchivePath, "-xf", kOpk, "-C", kTemp}))
        .WillOnce([](const Command& command) {
          test::WriteFile(command.back() + "/INFO", "version=2\n");
          test::WriteFile(command.back() + "/package.tgz", "payload");
          return 0;
        });
  }

  void ExpectExtraction() {
    ExpectUnpack();
    EXPECT_CALL(*core_, RunCommand(Command{path::kTarPath, "-xf", kTemp + "/package.tgz", "-C", kTemp}))
        .WillOnce(Return(0));
    EXPECT_CALL(*kos_helper_, Chmod(kTemp + "/INFO", 0644)).WillOnce(Return(true));
    EXPECT_CALL(*kos_helper_, Chmod(kTemp, 0755)).WillOnce(Return(true));
  }

  void ExpectCopy(int result, bool copies = true) {
    EXPECT_CALL(*core_, RunCommand(Command{path::kCpPath, "-a", kTemp, kPack}))
        .WillOnce([result, copies](const Command& command) {
          if (copies) {
            fs::copy(command[2], command[3], fs::copy_options::recursive);
          }
          return result;
        });
  }

  void ExpectRemoval(const std::string& folder, int result) {
    EXPECT_CALL(*core_, RunCommand(Command{path::kRmPath, "-rf", folder})).WillOnce([result](const Command& command) {
      if (result >= 0) {
        fs::remove_all(command.back());
      }
      return result;
    });
  }

  static std::string VersionAt(const std::string& folder) { return test::ReadFile(folder + "/INFO"); }

  const std::string kOld = "version=1\n";
  const std::string kNew = "version=2\n";
  const InSequence in_order_;
};

TEST_F(PackHandlerInstallTest, UninstallMovesThePackAside) {
  EXPECT_TRUE(handler_.Uninstall());
  EXPECT_FALSE(fs::exists(kPack));
  EXPECT_EQ(VersionAt(kBackup), kOld);
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerInstallTest, UninstallWithoutAPackFails) {
  fs::remove_all(kPack);
  EXPECT_FALSE(handler_.Uninstall());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to rename old MIRA pack to " + kBackup)));
}

TEST_F(PackHandlerInstallTest, UninstallDoesNotReplaceABackup) {
  test::WriteFile(kBackup + "/INFO", "version=0\n");
  EXPECT_FALSE(handler_.Uninstall());
  EXPECT_EQ(VersionAt(kPack), kOld);
  EXPECT_EQ(VersionAt(kBackup), "version=0\n");
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to rename old MIRA pack to " + kBackup)));
}

TEST_F(PackHandlerInstallTest, InstallPutsTheNewPackInPlaceAndClearsUp) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(0);
  ExpectRemoval(kBackup, 0);
  ExpectRemoval(kTemp, 0);
  EXPECT_TRUE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kPack), kNew);
  EXPECT_FALSE(fs::exists(kBackup));
  EXPECT_FALSE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerInstallTest, InstallWithoutTemporaryDirectoryTouchesNothing) {
  MoveOldPackAside();
  EXPECT_CALL(*sdk_, MakeDirectory(kTemp)).WillOnce(Return(-30));
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_FALSE(fs::exists(kPack));
  EXPECT_EQ(VersionAt(kBackup), kOld);
  EXPECT_FALSE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to create temp directory " + kTemp)));
}

TEST_F(PackHandlerInstallTest, InstallBesideAnotherHostsLeavesItsTemporaryDirectoryAlone) {
  MoveOldPackAside();
  test::WriteFile(kTemp + "/INFO", kNew);
  const UniqueFd other = OpenFile(kTargetFolder, O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
  ExpectTempDirectory();
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kTemp), kNew);
  EXPECT_FALSE(fs::exists(kPack));
  EXPECT_EQ(VersionAt(kBackup), kOld);
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Another program is installing a pack")));
}

TEST_F(PackHandlerInstallTest, InstallOfAPackageThatCannotBeUnpackedKeepsTheBackup) {
  MoveOldPackAside();
  ExpectTempDirectory();
  EXPECT_CALL(*core_, RunCommand(Command{path::kOrbaArchivePath, "-xf", kOpk, "-C", kTemp})).WillOnce(Return(1));
  ExpectRemoval(kTemp, 0);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_FALSE(fs::exists(kPack));
  EXPECT_EQ(VersionAt(kBackup), kOld);
  EXPECT_FALSE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to extract opk " + std::string(kOpk) + " to " + kTemp),
                          Info("Failed to install pack: Failed to extract opk. path: " + std::string(kOpk))));
}

TEST_F(PackHandlerInstallTest, InstallOfAPackageWithoutPayloadFails) {
  MoveOldPackAside();
  ExpectTempDirectory();
  EXPECT_CALL(*core_, RunCommand(Command{path::kOrbaArchivePath, "-xf", kOpk, "-C", kTemp})).WillOnce(Return(0));
  EXPECT_CALL(*core_, RunCommand(Command{path::kTarPath, "-xf", kTemp + "/package.tgz", "-C", kTemp}))
      .WillOnce(Return(2));
  ExpectRemoval(kTemp, 0);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to untar archive " + kTemp + "/package.tgz to " + kTemp),
                          Info("Failed to install pack: Failed to extract opk. path: " + std::string(kOpk))));
}

TEST_F(PackHandlerInstallTest, InstallWhoseModesCannotBeSetFails) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectUnpack();
  EXPECT_CALL(*core_, RunCommand(Command{path::kTarPath, "-xf", kTemp + "/package.tgz", "-C", kTemp}))
      .WillOnce(Return(0));
  EXPECT_CALL(*kos_helper_, Chmod(kTemp + "/INFO", 0644)).WillOnce(Return(false));
  ExpectRemoval(kTemp, 0);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to install pack: Failed to extract opk. path: " + std::string(kOpk))));
}

TEST_F(PackHandlerInstallTest, InstallWhoseCopyFailsBringsTheOldPackBack) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(-15, false);
  ExpectRemoval(kTemp, 0);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kPack), kOld);
  EXPECT_FALSE(fs::exists(kBackup));
  EXPECT_FALSE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to install pack: Failed to copy extracted pack.")));
}

TEST_F(PackHandlerInstallTest, InstallWhoseCopyFailsMidwayCannotBringTheOldPackBack) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(-1);
  ExpectRemoval(kTemp, 0);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kPack), kNew);
  EXPECT_EQ(VersionAt(kBackup), kOld);
  EXPECT_FALSE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to rename " + kBackup + " back to " + kPack),
                                               Info("Failed to install pack: Failed to copy extracted pack.")));
}

TEST_F(PackHandlerInstallTest, InstallTakesProgramsThatExitWithAnErrorForDone) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(1);
  ExpectRemoval(kBackup, 1);
  ExpectRemoval(kTemp, 1);
  EXPECT_TRUE(handler_.Install(kOpk));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerInstallTest, InstallWhoseBackupCannotBeRemovedFailsWithTheNewPackInPlace) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(0);
  ExpectRemoval(kBackup, -1);
  ExpectRemoval(kTemp, 0);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kPack), kNew);
  EXPECT_EQ(VersionAt(kBackup), kOld);
  EXPECT_FALSE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Info("Failed to install pack: Failed to remove backup folder.")));
}

TEST_F(PackHandlerInstallTest, InstallWhoseTemporaryDirectoryStaysFailsWithTheNewPackInPlace) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(0);
  ExpectRemoval(kBackup, 0);
  ExpectRemoval(kTemp, -1);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kPack), kNew);
  EXPECT_FALSE(fs::exists(kBackup));
  EXPECT_TRUE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to remove directory " + kTemp), Info("Failed to remove temp pack directory")));
}

TEST_F(PackHandlerInstallTest, InstallThatFailedLogsTheTemporaryDirectoryThatStaysToo) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(-1, false);
  ExpectRemoval(kTemp, -1);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to install pack: Failed to copy extracted pack."),
                          Info("Failed to remove directory " + kTemp), Info("Failed to remove temp pack directory")));
}

// The removal of the temporary directory is part of what the handler of install failures covers.
TEST_F(PackHandlerInstallTest, InstallCatchesAnInstallFailureOfTheLastRemovalAndTriesItAgain) {
  MoveOldPackAside();
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(0);
  ExpectRemoval(kBackup, 0);
  EXPECT_CALL(*core_, RunCommand(Command{path::kRmPath, "-rf", kTemp}))
      .WillOnce(Throw(exception::Exception<exception::kInstallFailure>("no removal", "file", 1)));
  ExpectRemoval(kTemp, -1);
  EXPECT_FALSE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kPack), kNew);
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Info("Failed to install pack: no removal"), Info("Failed to remove directory " + kTemp),
                          Info("Failed to remove temp pack directory")));
}

TEST_F(PackHandlerInstallTest, InstallLetsOtherExceptionsPassWithoutClearingUp) {
  MoveOldPackAside();
  ExpectTempDirectory();
  EXPECT_CALL(*core_, RunCommand).WillOnce(Throw(std::length_error("length")));
  EXPECT_THROW(handler_.Install(kOpk), std::length_error);
  EXPECT_TRUE(fs::exists(kTemp));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackHandlerInstallTest, InstallWithoutAnOldPackWorksAlike) {
  fs::remove_all(kPack);
  ExpectTempDirectory();
  ExpectExtraction();
  ExpectCopy(0);
  ExpectRemoval(kBackup, 0);
  ExpectRemoval(kTemp, 0);
  EXPECT_TRUE(handler_.Install(kOpk));
  EXPECT_EQ(VersionAt(kPack), kNew);
}

}  // namespace
}  // namespace orbamira::updater
