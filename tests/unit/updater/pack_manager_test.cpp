#include "updater/pack_manager.h"

#include <cpr/cpr.h>
#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/paths.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/test_root.h"
#include "updater/json_text.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
using test::HttpRequest;
using test::HttpResponse;
using test::HttpServer;
using test::LogCapture;
using test::LogLine;
using testing::_;
using testing::ElementsAre;
using testing::Field;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;
using testing::StartsWith;
using testing::StrictMock;
using testing::Throw;

using Command = std::vector<std::string>;

LogLine Error(const std::string& text) { return test::ErrorLine("pack_manager.cpp", text); }
LogLine Info(const std::string& text) { return test::InfoLine("pack_manager.cpp", text); }

// The limits of time that were set on transfers, by the numbers of their options.
std::vector<int> limits_of_time;

// Thrown as it is, without a std::exception to catch it by.
struct NoStandardException {};

class PackManagerTest : public testing::Test {
 protected:
  PackManagerTest() {
    fs::remove_all(path::kCodecRequirementsPath);
    LogCapture::Clear();
  }

  std::shared_ptr<StrictMock<test::MockCore>> core_ = std::make_shared<StrictMock<test::MockCore>>();
  std::shared_ptr<StrictMock<test::MockPkg>> pkg_ = std::make_shared<StrictMock<test::MockPkg>>();
  std::shared_ptr<StrictMock<test::MockKosHelper>> kos_ = std::make_shared<StrictMock<test::MockKosHelper>>();
  std::shared_ptr<StrictMock<test::MockStatusHelper>> status_ = std::make_shared<StrictMock<test::MockStatusHelper>>();
  std::shared_ptr<StrictMock<test::MockPackHandler>> handler_ = std::make_shared<StrictMock<test::MockPackHandler>>();
  std::shared_ptr<StrictMock<test::MockNotifier>> notifier_ = std::make_shared<StrictMock<test::MockNotifier>>();
  PackManager manager_{core_, pkg_, kos_, status_, handler_, notifier_};
};

// Construction and simple queries.

TEST_F(PackManagerTest, ConstructionCallsNothingAndSharesTheCollaborators) {
  for (const long count : {core_.use_count(), pkg_.use_count(), kos_.use_count(), status_.use_count(),
                           handler_.use_count(), notifier_.use_count()}) {
    EXPECT_EQ(count, 2);
  }
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerTest, DestructionReleasesTheCollaboratorsInReverseOrder) {
  std::vector<std::string> released;
  {
    const PackManager manager(
        test::Noted<test::MockCore>(released, "core"), test::Noted<test::MockPkg>(released, "pkg"),
        test::Noted<test::MockKosHelper>(released, "system"), test::Noted<test::MockStatusHelper>(released, "status"),
        test::Noted<test::MockPackHandler>(released, "handler"), test::Noted<test::MockNotifier>(released, "notifier"));
    EXPECT_THAT(released, IsEmpty());
  }
  EXPECT_THAT(released, ElementsAre("notifier", "handler", "status", "system", "pkg", "core"));
}

TEST_F(PackManagerTest, PolicyIsFixed) {
  EXPECT_EQ(manager_.GetPackUpdatePolicy(), kPolicyAutoDownloadManualInstall);
  for (const auto policy : {kPolicyAutoDownloadAutoInstall, kPolicyManualDownloadManualInstall}) {
    manager_.SetPackUpdatePolicy(policy);
    EXPECT_EQ(manager_.GetPackUpdatePolicy(), kPolicyAutoDownloadManualInstall);
  }
}

TEST_F(PackManagerTest, CheckPackExistsLooksForTheInformationFile) {
  EXPECT_CALL(*kos_, FileExist(path::kPackInfoPath)).WillOnce(Return(true)).WillOnce(Return(false));
  EXPECT_TRUE(manager_.CheckPackExists());
  EXPECT_FALSE(manager_.CheckPackExists());
}

TEST_F(PackManagerTest, GetPackLastUpdateTimeIsTheLatestThatALongHolds) {
  EXPECT_CALL(*kos_, FileMtime(path::kPackInfoPath)).WillOnce(Return(5000000000));
  EXPECT_EQ(manager_.GetPackLastUpdateTime(), std::min<std::int64_t>(5000000000, std::numeric_limits<long>::max()));
}

TEST_F(PackManagerTest, GetPackLastUpdateTimeIsThatOfTheInformationFile) {
  constexpr long kIn2028 = 1830000000;
  EXPECT_CALL(*kos_, FileMtime(path::kPackInfoPath)).WillOnce(Return(kIn2028)).WillOnce(Return(0));
  EXPECT_EQ(manager_.GetPackLastUpdateTime(), kIn2028);
  EXPECT_EQ(manager_.GetPackLastUpdateTime(), 0);
}

TEST_F(PackManagerTest, CodecsOfTheInstalledPackAreToldByTheirMarkers) {
  EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillOnce(Return(true)).WillOnce(Return(false));
  EXPECT_CALL(*kos_, FileExist(path::kHasHevcPath)).WillOnce(Return(true)).WillOnce(Return(false));
  EXPECT_TRUE(manager_.HasAacCurrently());
  EXPECT_FALSE(manager_.HasAacCurrently());
  EXPECT_TRUE(manager_.HasHevcCurrently());
  EXPECT_FALSE(manager_.HasHevcCurrently());
}

TEST_F(PackManagerTest, GetDownloadPackNameTellsThePacksApart) {
  EXPECT_EQ(manager_.GetDownloadPackName(false), kHevcPack);
  EXPECT_EQ(manager_.GetDownloadPackName(true), kHevcAacPack);
  EXPECT_NE(manager_.GetDownloadPackName(false), manager_.GetDownloadPackName(true));
}

// Removal.

TEST_F(PackManagerTest, RemovePackRunsTheRemoveCommand) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kRmPath, "-rf", path::kPackFolderPath})).WillOnce(Return(0));
  EXPECT_TRUE(manager_.RemovePack());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerTest, RemovePackFailsForAnyOtherStatus) {
  for (const int status : {1, -1, -9}) {
    LogCapture::Clear();
    EXPECT_CALL(*core_, RunCommand).WillOnce(Return(status));
    EXPECT_FALSE(manager_.RemovePack());
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Info("Failed to remove pack folder " + std::string(path::kPackFolderPath))));
  }
}

// Codec requirements.

class PackManagerCodecTest : public PackManagerTest {
 protected:
  static void Require(const std::string& json) { test::WriteFile(path::kCodecRequirementsPath, json); }

  static bool IsLocked() {
    const int fd = open(path::kCodecRequirementsLock, O_RDONLY | O_CLOEXEC);
    const bool taken = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0;
    if (fd >= 0) {
      close(fd);
    }
    return taken;
  }
};

TEST_F(PackManagerCodecTest, IsCodecRequestedCountsTheRequests) {
  Require(R"({"aac": [], "hevc": ["app"], "both": ["a", "b"], "map": {"app": 1}, "none": {}, "null": null})");
  EXPECT_FALSE(manager_.IsCodecRequested("aac"));
  EXPECT_TRUE(manager_.IsCodecRequested("hevc"));
  EXPECT_TRUE(manager_.IsCodecRequested("both"));
  EXPECT_TRUE(manager_.IsCodecRequested("map"));
  EXPECT_FALSE(manager_.IsCodecRequested("none"));
  EXPECT_FALSE(manager_.IsCodecRequested("null"));
  EXPECT_FALSE(manager_.IsCodecRequested("missing"));
  EXPECT_FALSE(manager_.IsCodecRequested("HEVC"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerCodecTest, IsCodecRequestedIsFalseWithoutALineForAFolder) {
  std::filesystem::create_directories(path::kCodecRequirementsPath);
  EXPECT_FALSE(manager_.IsCodecRequested("aac"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerCodecTest, IsCodecRequestedTakesPlainValuesForEmpty) {
  Require(R"({"text": "app", "number": 5, "flag": true})");
  EXPECT_FALSE(manager_.IsCodecRequested("text"));
  EXPECT_FALSE(manager_.IsCodecRequested("number"));
  EXPECT_FALSE(manager_.IsCodecRequested("flag"));
}

TEST_F(PackManagerCodecTest, IsCodecRequestedReadsComments) {
  Require("// who asks\n{\"aac\": [\"app\" /* the first */]}\n");
  EXPECT_TRUE(manager_.IsCodecRequested("aac"));
}

TEST_F(PackManagerCodecTest, IsCodecRequestedOfNullIsFalse) {
  Require("null");
  EXPECT_FALSE(manager_.IsCodecRequested("aac"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerCodecTest, IsCodecRequestedWithoutAFileIsFalseAndLogsNothing) {
  EXPECT_FALSE(manager_.IsCodecRequested("aac"));
  EXPECT_FALSE(IsLocked());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerCodecTest, IsCodecRequestedOfNoJsonIsFalseWithALine) {
  for (const char* text : {"", "{\"aac\": [\"app\"]", "aac"}) {
    LogCapture::Clear();
    Require(text);
    EXPECT_FALSE(manager_.IsCodecRequested("aac"));
    EXPECT_FALSE(IsLocked());
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Error("Failed to parse " + std::string(path::kCodecRequirementsPath))));
  }
}

TEST_F(PackManagerCodecTest, IsCodecRequestedOfARootThatIsNoObjectThrowsAndGivesTheLockBack) {
  Require(R"(["aac"])");
  EXPECT_THROW(manager_.IsCodecRequested("aac"), Json::LogicError);
  EXPECT_TRUE(fs::exists(path::kCodecRequirementsLock));
  EXPECT_FALSE(IsLocked());
}

TEST_F(PackManagerCodecTest, IsCodecRequestedReadsNoMoreThanTheLimit) {
  const std::string text = R"({"aac": ["app"]})";
  Require(text + std::string(kJsonTextLimit - text.size(), ' '));
  EXPECT_TRUE(manager_.IsCodecRequested("aac"));
  LogCapture::Clear();
  Require(text + std::string(kJsonTextLimit - text.size() + 1, ' '));
  EXPECT_FALSE(manager_.IsCodecRequested("aac"));
  fs::remove(path::kCodecRequirementsPath);
  fs::create_symlink("/dev/zero", path::kCodecRequirementsPath);
  EXPECT_FALSE(manager_.IsCodecRequested("aac"));
  const LogLine failed = Error("Failed to parse " + std::string(path::kCodecRequirementsPath));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(failed, failed));
}

// A pipe in place of the file: its writer comes to life once the library has opened it, so what the writer sees is what
// holds while the file is read.
TEST_F(PackManagerCodecTest, IsCodecRequestedHoldsTheLockWhileItReads) {
  Require("");
  fs::remove(path::kCodecRequirementsPath);
  ASSERT_EQ(mkfifo(path::kCodecRequirementsPath, 0600), 0);
  bool locked = false;
  std::thread writer([&] {
    const int fd = open(path::kCodecRequirementsPath, O_WRONLY | O_CLOEXEC);
    locked = IsLocked();
    const std::string text = R"({"aac": ["app"]})";
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  });
  EXPECT_TRUE(manager_.IsCodecRequested("aac"));
  writer.join();
  EXPECT_TRUE(locked);
  EXPECT_FALSE(IsLocked());
}

TEST_F(PackManagerCodecTest, IsAacNeededWhenItIsMissingAndAskedFor) {
  Require(R"({")" + std::string(kAac) + R"(": ["app"]})");
  const InSequence in_order;
  EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillOnce(Return(false));
  EXPECT_CALL(*kos_, FileExist(path::kCodecRequirementsPath)).WillOnce(Return(true));
  EXPECT_TRUE(manager_.IsAacNeeded());
}

TEST_F(PackManagerCodecTest, IsAacNeededIsFalseWhenNobodyAsks) {
  Require(R"({")" + std::string(kAac) + R"(": []})");
  EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillOnce(Return(false));
  EXPECT_CALL(*kos_, FileExist(path::kCodecRequirementsPath)).WillOnce(Return(true));
  EXPECT_FALSE(manager_.IsAacNeeded());
}

TEST_F(PackManagerCodecTest, IsAacNeededIsFalseWithTheMarkerWhateverIsAskedFor) {
  Require(R"({")" + std::string(kAac) + R"(": ["app"]})");
  EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillOnce(Return(true));
  EXPECT_FALSE(manager_.IsAacNeeded());
}

TEST_F(PackManagerCodecTest, IsAacNeededIsFalseWithoutAFileWhichIsNotOpened) {
  Require("no json");
  EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillOnce(Return(false));
  EXPECT_CALL(*kos_, FileExist(path::kCodecRequirementsPath)).WillOnce(Return(false));
  EXPECT_FALSE(manager_.IsAacNeeded());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerCodecTest, IsAacNeededAsksThroughTheVirtualOperation) {
  class Overridden : public PackManager {
   public:
    using PackManager::PackManager;
    bool IsCodecRequested(const std::string& codec) const override { return codec == kAac; }
  };
  EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillOnce(Return(false));
  EXPECT_CALL(*kos_, FileExist(path::kCodecRequirementsPath)).WillOnce(Return(true));
  EXPECT_TRUE(Overridden(core_, pkg_, kos_, status_, handler_, notifier_).IsAacNeeded());
}

TEST_F(PackManagerCodecTest, IsHevcNeededIsFalseAndReadsNothing) {
  Require(R"({"hevc": ["app"]})");
  EXPECT_FALSE(manager_.IsHevcNeeded());
}

// The request for the download information, to a real server.

class PackManagerRequestTest : public PackManagerTest {
 protected:
  // What the system says, in the order in which it is asked.
  void ExpectSystem(const std::string& url, const std::string& package_version = "1.0 & more",
                    const std::string& kos_version = "3.1-1200", const std::string& unique = "kos_x86_ds9") {
    const InSequence in_order;
    EXPECT_CALL(*kos_, GetPackUpdateServerUrl()).WillOnce(Return(url));
    EXPECT_CALL(*kos_, GetVersionFromPath(kPackageInfoPath)).WillOnce(Return(package_version));
    EXPECT_CALL(*kos_, GetVersion()).WillOnce(Return(kos_version));
    EXPECT_CALL(*kos_, GetUnique()).WillOnce(Return(unique));
  }

  static std::string Member(const std::string& name, const std::string& version) {
    return "\"" + name + R"(": {"version": ")" + version + R"("})";
  }

  // Both packs, which tell each other apart by their versions.
  HttpResponse answer_{.body = "{" + Member(kHevcPack, "hevc") + ", " + Member(kHevcAacPack, "aac") + "}"};
  HttpServer server_{[this](const HttpRequest&) { return answer_; }};
  Json::Value info_;
};

TEST_F(PackManagerRequestTest, FetchDownloadInfoSendsOneRequestWithItsParametersInOrder) {
  ExpectSystem(server_.Url("/update"), "1.0 & more", "3.1-1200", "kos/x86=\xc3\xa9");
  EXPECT_TRUE(manager_.FetchDownloadInfo(false, info_));
  const auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].target, "/update?identify=" + std::string(kPackageId) +
                                    "&unique=kos%2Fx86%3D%C3%A9&version=1.0%20%26%20more&kos_version=3.1-1200");
  EXPECT_EQ(requests[0].body, "");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoAddsNoFieldToTheRequest) {
  ExpectSystem(server_.Url("/update"));
  EXPECT_TRUE(manager_.FetchDownloadInfo(false, info_));
  cpr::Get(cpr::Url(server_.Url("/update")));
  ASSERT_EQ(server_.Requests().size(), 2U);
  EXPECT_EQ(server_.Requests()[0].headers, server_.Requests()[1].headers);
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoSetsNoLimitOfTime) {
  ExpectSystem(server_.Url());
  limits_of_time.clear();
  EXPECT_TRUE(manager_.FetchDownloadInfo(false, info_));
  EXPECT_THAT(limits_of_time, IsEmpty());

  cpr::Get(cpr::Url(server_.Url()), cpr::Timeout(std::chrono::hours(1)));  // it would be seen
  EXPECT_THAT(limits_of_time, testing::Not(IsEmpty()));
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoTakesAnEmptyObjectForInformation) {
  answer_.body = "{\"" + std::string(kHevcPack) + "\": {}}";
  ExpectSystem(server_.Url());
  EXPECT_TRUE(manager_.FetchDownloadInfo(false, info_));
  EXPECT_EQ(info_, Json::Value(Json::objectValue));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoGivesTheMemberOfTheWantedPack) {
  ExpectSystem(server_.Url());
  EXPECT_TRUE(manager_.FetchDownloadInfo(false, info_));
  EXPECT_EQ(info_["version"].asString(), "hevc");
  ExpectSystem(server_.Url());
  EXPECT_TRUE(manager_.FetchDownloadInfo(true, info_));
  EXPECT_EQ(info_["version"].asString(), "aac");
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoWithAnEmptyPartSendsNothing) {
  for (std::size_t empty = 0; empty < 4; ++empty) {
    LogCapture::Clear();
    std::vector<std::string> parts = {server_.Url(), "1.0", "3.1-1200", "kos"};
    parts[empty].clear();
    ExpectSystem(parts[0], parts[1], parts[2], parts[3]);
    EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Error("Bad request: pack update server url: " + parts[0] + ", pkg version: " + parts[1] +
                                  ", kos version: " + parts[2] + ", kos unique: " + parts[3])));
  }
  EXPECT_THAT(server_.Requests(), IsEmpty());
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoLogsAnyOtherStatus) {
  for (const int status : {204, 404, 500}) {
    LogCapture::Clear();
    answer_.status = status;
    ExpectSystem(server_.Url());
    EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Error("Failed to send request with status: " + std::to_string(status))));
  }
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoLogsWhyTheTransferFailed) {
  const test::RefusingPort nobody;
  ExpectSystem(nobody.Url());
  EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
  const auto lines = LogCapture::Lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].priority, LOG_LOCAL1 | LOG_ERR);
  EXPECT_EQ(lines[0].file, "pack_manager.cpp");
  EXPECT_THAT(lines[0].text, testing::MatchesRegex("Failed to send request with error: .+"));
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoFollowsTenRedirectsAndTakesNoCookieAlong) {
  const HttpResponse reply = answer_;
  for (const int redirects : {10, 11}) {
    HttpServer server([&](const HttpRequest& request) {
      const int done = request.target.starts_with("/at/") ? std::stoi(request.target.substr(4)) : 0;
      HttpResponse answer = reply;
      answer.headers["Set-Cookie"] = "name=value; Path=/";
      if (done < redirects) {
        answer.status = 302;
        answer.headers["Location"] = "/at/" + std::to_string(done + 1);
      }
      return answer;
    });
    ExpectSystem(server.Url());
    EXPECT_EQ(manager_.FetchDownloadInfo(false, info_), redirects == 10);
    EXPECT_THAT(server.Requests(), testing::SizeIs(11));
    for (const HttpRequest& request : server.Requests()) {
      EXPECT_EQ(request.Header("Cookie"), "");
    }
  }
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to send request with status: 302")));
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoAsksByHttpAlone) {
  const test::RefusingPort port;
  const std::string ftp = "ftp" + port.Url("/reply.json").substr(4);
  answer_ = {.status = 301, .headers = {{"Location", ftp}}};
  ExpectSystem(server_.Url());
  EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
  ExpectSystem(ftp);
  EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to send request with status: 301"),
                          Field(&LogLine::text, StartsWith("Failed to send request with error: "))));
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoOfNoJsonFails) {
  for (const char* body : {"", "<html>", "{\"a\": "}) {
    LogCapture::Clear();
    answer_.body = body;
    ExpectSystem(server_.Url());
    EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to parse response")));
  }
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoTakesAReplyUpToTheLimit) {
  const std::string reply = R"({")" ORBAMIRA_HEVC_PACK R"(": {"version": "2.0"}})";
  answer_.body = reply + std::string(kJsonTextLimit - reply.size(), ' ');
  ExpectSystem(server_.Url());
  EXPECT_TRUE(manager_.FetchDownloadInfo(false, info_));
  EXPECT_EQ(info_["version"], "2.0");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
  answer_.body += ' ';
  ExpectSystem(server_.Url());
  EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to parse response")));
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoEndsAnEndlessReplyWithItsStatus) {
  answer_ = {.body = std::string(1000, '['), .framing = HttpResponse::Framing::kChunked, .endless = true};
  ExpectSystem(server_.Url());
  EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
  answer_.status = 404;
  ExpectSystem(server_.Url());
  EXPECT_FALSE(manager_.FetchDownloadInfo(false, info_));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to parse response"), Error("Failed to send request with status: 404")));
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoWithoutTheWantedPackNamesIt) {
  for (const std::string& body : {std::string("{}"), std::string("null"), "{" + Member(kHevcPack, "1") + "}",
                                  "{\"" + std::string(kHevcAacPack) + "\": null}"}) {
    LogCapture::Clear();
    answer_.body = body;
    ExpectSystem(server_.Url());
    EXPECT_FALSE(manager_.FetchDownloadInfo(true, info_));
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Get " + std::string(kHevcAacPack) + " info failed")));
  }
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoOfARootThatIsNoObjectThrows) {
  answer_.body = "[]";
  ExpectSystem(server_.Url());
  EXPECT_THROW(manager_.FetchDownloadInfo(false, info_), Json::LogicError);
}

TEST_F(PackManagerRequestTest, FetchDownloadInfoLetsExceptionsOfTheHelperPass) {
  EXPECT_CALL(*kos_, GetPackUpdateServerUrl()).WillOnce(Throw(std::runtime_error("settings")));
  EXPECT_THROW(manager_.FetchDownloadInfo(false, info_), std::runtime_error);
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

// The checksum.

TEST_F(PackManagerTest, VerifyChecksumComparesTheDownloadedFile) {
  for (const bool result : {true, false}) {
    const InSequence in_order;
    EXPECT_CALL(*handler_, GetDownloadPath()).WillOnce(Return("/the/pack"));
    EXPECT_CALL(*handler_, GetDownloadChecksum(Json::Value("info"))).WillOnce(Return("c0ffee"));
    EXPECT_CALL(*pkg_, CheckFileChecksum("/the/pack", "c0ffee")).WillOnce(Return(result));
    EXPECT_EQ(manager_.VerifyChecksum("info"), result);
  }
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerTest, VerifyChecksumWithoutAChecksumIsFalseAndLooksAtNoFile) {
  EXPECT_CALL(*handler_, GetDownloadPath()).WillOnce(Return("/the/pack"));
  EXPECT_CALL(*handler_, GetDownloadChecksum).WillOnce(Return(""));
  EXPECT_FALSE(manager_.VerifyChecksum(Json::Value()));
}

// What the flows record and tell plugins, in words.

std::string WordsOf(InstallStep step) {
  const std::array words = {"none",      "before install", "install", "after install", "before uninstall",
                            "uninstall", "after uninstall"};
  return words.at(static_cast<std::size_t>(step));
}

std::string WordsOf(NotifyPluginEvent event, NotifyPluginTiming timing, NotifyPluginStatus status) {
  const std::array events = {"install", "uninstall"};
  const std::array timings = {"before", "after"};
  const std::array meanings = {"an install", "an uninstall", "an upgrade"};
  return std::string(timings.at(static_cast<std::size_t>(timing))) + " " + events.at(static_cast<std::size_t>(event)) +
         " of " + meanings.at(static_cast<std::size_t>(status));
}

// The flows. `steps_` notes every change of the status, every notification and all that the handler does, in order.

class PackManagerFlowTest : public PackManagerRequestTest {
 protected:
  enum class Aac { kHad, kNeeded, kNo };

  PackManagerFlowTest() {
    const auto note = [this](const std::string& text) { return [this, text] { steps_.push_back(text); }; };
    ON_CALL(*status_, SetAsDownloading()).WillByDefault(note("downloading"));
    ON_CALL(*status_, SetAsDownloadFailed()).WillByDefault(note("download_failed"));
    ON_CALL(*status_, SetAsInstalling()).WillByDefault(note("installing"));
    ON_CALL(*status_, SetAsDownloadInstalling()).WillByDefault(note("downloading_installing"));
    ON_CALL(*status_, SetAsDownloadInstallFailed()).WillByDefault(note("download_install_failed"));
    ON_CALL(*status_, SetAsUpToDate()).WillByDefault(note("up_to_date"));
    ON_CALL(*status_, SetAsNeedDownload).WillByDefault([this](const std::string& version) {
      steps_.push_back("need_download " + version);
    });
    ON_CALL(*status_, SetAsNeedInstall).WillByDefault([this](const std::string& version, const std::string& name) {
      steps_.push_back("need_install " + version + " " + name);
    });
    ON_CALL(*status_, SetAsInstallFailed).WillByDefault([this](const std::string& version, const std::string& name) {
      steps_.push_back("install_failed " + version + " " + name);
    });
    ON_CALL(*status_, SetAsDownloading(_, _)).WillByDefault([this](long now, long total) {
      steps_.push_back("downloading " + std::to_string(now) + "/" + std::to_string(total));
    });
    ON_CALL(*status_, SetAsDownloadInstalling(_, _)).WillByDefault([this](long now, long total) {
      steps_.push_back("downloading_installing " + std::to_string(now) + "/" + std::to_string(total));
    });
    ON_CALL(*status_, SetAsInstalling(_)).WillByDefault([this](InstallStep step) {
      steps_.push_back("installing: " + WordsOf(step));
    });
    ON_CALL(*status_, SetAsDownloadInstalling(testing::An<InstallStep>())).WillByDefault([this](InstallStep step) {
      steps_.push_back("downloading_installing: " + WordsOf(step));
    });
    ON_CALL(*notifier_, NotifyPlugin)
        .WillByDefault([this](NotifyPluginEvent event, NotifyPluginTiming timing, const std::string& name,
                              const std::string& version, NotifyPluginStatus status) {
          steps_.push_back("tell plugins " + WordsOf(event, timing, status) + ": " + name + " " + version);
          return notified_;
        });
    AllowRecording();
  }

  // Calls that only note; which of them came, and when, every test compares as a whole.
  void AllowRecording() {
    EXPECT_CALL(*status_, SetAsDownloading()).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsDownloadFailed()).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsInstalling()).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsDownloadInstalling()).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsDownloadInstallFailed()).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsUpToDate()).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsNeedDownload).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsNeedInstall).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsInstallFailed).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsDownloading(_, _)).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsDownloadInstalling(_, _)).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsInstalling(_)).Times(testing::AnyNumber());
    EXPECT_CALL(*status_, SetAsDownloadInstalling(testing::An<InstallStep>())).Times(testing::AnyNumber());
    EXPECT_CALL(*notifier_, NotifyPlugin).Times(testing::AnyNumber());
  }

  // Which pack is wanted, however often that is found out.
  void ExpectAac(Aac aac) {
    if (aac == Aac::kNeeded) {
      test::WriteFile(path::kCodecRequirementsPath, R"({")" + std::string(kAac) + R"(": ["app"]})");
    }
    EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillRepeatedly(Return(aac == Aac::kHad));
    EXPECT_CALL(*kos_, FileExist(path::kCodecRequirementsPath)).WillRepeatedly(Return(aac == Aac::kNeeded));
  }

  void ExpectOffer(Aac aac = Aac::kNo) {
    ExpectAac(aac);
    ExpectSystem(server_.Url());
  }

  void ExpectVersion() {
    EXPECT_CALL(*handler_, GetDownloadVersion).WillRepeatedly([](const Json::Value& info) {
      return info["version"].asString();
    });
  }

  // A download that tells of two places, and whether it arrives.
  void ExpectDownload(bool result) {
    EXPECT_CALL(*handler_, GetDownloadPath()).WillRepeatedly(Return("/the/pack"));
    EXPECT_CALL(*handler_, GetDownloadLink).WillOnce(Return("the link"));
    EXPECT_CALL(*handler_, CreateDownloadDirectory()).WillOnce([this] {
      steps_.emplace_back("make folder");
      return true;
    });
    EXPECT_CALL(*handler_, DownloadWithProgress("the link", "/the/pack", _))
        .WillOnce([this, result](const std::string&, const std::string&, std::function<void(long, long)>& progress) {
          steps_.emplace_back("download");
          progress(1, 9);
          progress(9, 9);
          return result;
        });
  }

  void ExpectChecksum(bool result) {
    EXPECT_CALL(*handler_, GetDownloadChecksum).WillOnce(Return("c0ffee"));
    EXPECT_CALL(*pkg_, CheckFileChecksum("/the/pack", "c0ffee")).WillOnce(Return(result));
  }

  void ExpectOldPack(bool exists) {
    EXPECT_CALL(*kos_, DirExist(path::kPackFolderPath)).WillOnce(Return(exists));
    if (exists) {
      EXPECT_CALL(*kos_, GetPackageNameFromPath(path::kPackInfoPath)).WillOnce(Return("oldname"));
      EXPECT_CALL(*kos_, GetVersionFromPath(path::kPackInfoPath)).WillOnce(Return("oldversion"));
    }
  }

  void ExpectUninstall(bool result) {
    EXPECT_CALL(*handler_, Uninstall()).WillOnce([this, result] {
      steps_.emplace_back("uninstall");
      return result;
    });
  }

  void ExpectInstall(bool result) {
    EXPECT_CALL(*handler_, GetDownloadPath()).WillRepeatedly(Return("/the/pack"));
    EXPECT_CALL(*handler_, Install("/the/pack")).WillOnce([this, result](const std::string&) {
      steps_.emplace_back("install");
      return result;
    });
  }

  void ExpectCleanUp(bool result) {
    EXPECT_CALL(*handler_, RemoveDownloadDirectory()).WillOnce([this, result] {
      steps_.emplace_back("clean up");
      return result;
    });
  }

  void ExpectDownloadStatus(PackStatus status, bool permitted) {
    EXPECT_CALL(*status_, GetPackStatus()).WillOnce(Return(status));
    EXPECT_CALL(*status_, CanDoDownload(status)).WillOnce(Return(permitted));
  }

  void ExpectDownloadInstallStatus(PackStatus status, bool permitted) {
    EXPECT_CALL(*status_, GetPackStatus()).WillOnce(Return(status));
    EXPECT_CALL(*status_, CanDoDownloadInstall(status)).WillOnce(Return(permitted));
  }

  // The status first: only that reads the store afresh.
  void ExpectInstallStatus(PackStatus status, bool permitted) {
    const InSequence in_order;
    EXPECT_CALL(*status_, GetPackStatus()).WillOnce(Return(status));
    EXPECT_CALL(*status_, GetPackNewName()).WillOnce(Return("newname"));
    EXPECT_CALL(*status_, GetPackNewVersion()).WillOnce(Return("newversion"));
    EXPECT_CALL(*status_, CanDoInstall(status)).WillOnce(Return(permitted));
  }

  using Steps = std::vector<std::string>;
  Steps steps_;
  bool notified_ = true;
};

// CheckNewPack.

TEST_F(PackManagerFlowTest, CheckNewPackRecordsANewerPack) {
  ExpectOffer();
  ExpectVersion();
  EXPECT_CALL(*handler_, CheckNewVersion(testing::A<const Json::Value&>())).WillOnce([](const Json::Value& info) {
    return info["version"] == "hevc";
  });
  EXPECT_TRUE(manager_.CheckNewPack());
  EXPECT_EQ(steps_, Steps{"need_download hevc"});
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerFlowTest, CheckNewPackRecordsNothingWithoutANewerPack) {
  ExpectOffer();
  EXPECT_CALL(*handler_, CheckNewVersion(testing::A<const Json::Value&>())).WillOnce(Return(false));
  EXPECT_FALSE(manager_.CheckNewPack());
  EXPECT_THAT(steps_, IsEmpty());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerFlowTest, CheckNewPackWithAacNeededTakesAnyVersion) {
  ExpectOffer(Aac::kNeeded);
  ExpectVersion();
  EXPECT_TRUE(manager_.CheckNewPack());
  EXPECT_EQ(steps_, Steps{"need_download aac"});
}

TEST_F(PackManagerFlowTest, CheckNewPackWithAacInstalledComparesThePackWithAac) {
  ExpectOffer(Aac::kHad);
  EXPECT_CALL(*handler_, CheckNewVersion(testing::A<const Json::Value&>())).WillOnce([](const Json::Value& info) {
    EXPECT_EQ(info["version"], "aac");
    return false;
  });
  EXPECT_FALSE(manager_.CheckNewPack());
  EXPECT_THAT(steps_, IsEmpty());
}

// The marker of AAC appears between the two times that it is looked for.
TEST_F(PackManagerFlowTest, CheckNewPackFindsOutAgainWhetherAacIsNeeded) {
  test::WriteFile(path::kCodecRequirementsPath, R"({")" + std::string(kAac) + R"(": ["app"]})");
  ExpectSystem(server_.Url());
  EXPECT_CALL(*kos_, FileExist(path::kCodecRequirementsPath)).WillOnce(Return(true));
  EXPECT_CALL(*kos_, FileExist(path::kHasAacPath)).WillOnce(Return(false)).WillOnce(Return(true));
  EXPECT_CALL(*handler_, CheckNewVersion(testing::A<const Json::Value&>())).WillOnce(Return(false));
  EXPECT_FALSE(manager_.CheckNewPack());
}

TEST_F(PackManagerFlowTest, CheckNewPackWithoutInformationFails) {
  answer_.status = 404;
  ExpectOffer();
  EXPECT_FALSE(manager_.CheckNewPack());
  EXPECT_THAT(steps_, IsEmpty());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to send request with status: 404"), Info("FetchDownloadInfo failed")));
}

TEST_F(PackManagerFlowTest, CheckNewPackLogsStandardExceptions) {
  ExpectOffer();
  EXPECT_CALL(*handler_, CheckNewVersion(testing::A<const Json::Value&>())).WillOnce(Throw(std::runtime_error("why")));
  EXPECT_FALSE(manager_.CheckNewPack());
  EXPECT_THAT(steps_, IsEmpty());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Check new pack failed: why")));
}

TEST_F(PackManagerFlowTest, CheckNewPackLogsAReplyThatIsNoObject) {
  answer_.body = "[]";
  ExpectOffer();
  EXPECT_FALSE(manager_.CheckNewPack());
  const auto lines = LogCapture::Lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].priority, LOG_LOCAL1 | LOG_ERR);
  EXPECT_THAT(lines[0].text, testing::StartsWith("Check new pack failed: "));
}

TEST_F(PackManagerFlowTest, CheckNewPackLetsOtherExceptionsPass) {
  EXPECT_CALL(*kos_, FileExist).WillOnce(Throw(NoStandardException()));
  EXPECT_THROW(manager_.CheckNewPack(), NoStandardException);
}

// Download.

TEST_F(PackManagerFlowTest, DownloadEndsWaitingForTheInstall) {
  ExpectDownloadStatus(kStatusNeedDownload, true);
  ExpectOffer();
  ExpectDownload(true);
  ExpectChecksum(true);
  ExpectVersion();
  EXPECT_TRUE(manager_.Download());
  EXPECT_EQ(steps_, (Steps{"downloading", "make folder", "download", "downloading 1/9", "downloading 9/9",
                           "need_install hevc " + std::string(kHevcPack)}));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerFlowTest, DownloadTakesThePackWithAacWhereItIsNeededOrInstalled) {
  for (const Aac aac : {Aac::kNeeded, Aac::kHad}) {
    steps_.clear();
    ExpectDownloadStatus(kStatusDownloadFailed, true);
    ExpectOffer(aac);
    ExpectDownload(true);
    ExpectChecksum(true);
    ExpectVersion();
    EXPECT_TRUE(manager_.Download());
    EXPECT_EQ(steps_.back(), "need_install aac " + std::string(kHevcAacPack));
  }
}

TEST_F(PackManagerFlowTest, DownloadRefusedByTheStatusChangesNothing) {
  for (std::size_t status = 0; status < kPackStatusTexts.size(); ++status) {
    LogCapture::Clear();
    ExpectDownloadStatus(static_cast<PackStatus>(status), false);
    EXPECT_FALSE(manager_.Download());
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Error("Invalid pack status: " + std::string(kPackStatusTexts[status]))));
  }
  EXPECT_THAT(steps_, IsEmpty());
  EXPECT_THAT(server_.Requests(), IsEmpty());
}

TEST_F(PackManagerFlowTest, DownloadWithoutInformationFails) {
  answer_.status = 404;
  ExpectDownloadStatus(kStatusNeedDownload, true);
  ExpectOffer();
  EXPECT_FALSE(manager_.Download());
  EXPECT_EQ(steps_, (Steps{"downloading", "download_failed"}));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to send request with status: 404"), Error("FetchDownloadInfo failed")));
}

TEST_F(PackManagerFlowTest, DownloadThatBreaksOffFails) {
  ExpectDownloadStatus(kStatusNeedDownload, true);
  ExpectOffer();
  ExpectDownload(false);
  EXPECT_FALSE(manager_.Download());
  EXPECT_EQ(steps_.back(), "download_failed");
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("DoDownload failed")));
}

TEST_F(PackManagerFlowTest, DownloadWithoutItsFolderFails) {
  ExpectDownloadStatus(kStatusNeedDownload, true);
  ExpectOffer();
  EXPECT_CALL(*handler_, GetDownloadLink).WillOnce(Return("the link"));
  EXPECT_CALL(*handler_, CreateDownloadDirectory()).WillOnce(Return(false));
  EXPECT_FALSE(manager_.Download());
  EXPECT_EQ(steps_, (Steps{"downloading", "download_failed"}));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to create download directory"), Error("DoDownload failed")));
}

TEST_F(PackManagerFlowTest, DownloadWithAnotherChecksumFailsAndInstallsNothing) {
  ExpectDownloadStatus(kStatusNeedDownload, true);
  ExpectOffer();
  ExpectDownload(true);
  ExpectChecksum(false);
  EXPECT_FALSE(manager_.Download());
  EXPECT_EQ(steps_.back(), "download_failed");
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to verify checksum of downloaded file.")));
}

TEST_F(PackManagerFlowTest, DownloadLogsStandardExceptionsAndLeavesTheStatus) {
  ExpectDownloadStatus(kStatusNeedDownload, true);
  ExpectOffer();
  EXPECT_CALL(*handler_, GetDownloadLink).WillOnce(Throw(std::runtime_error("why")));
  EXPECT_FALSE(manager_.Download());
  EXPECT_EQ(steps_, Steps{"downloading"});
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Download failed: why")));
}

TEST_F(PackManagerFlowTest, DownloadLogsAStatusThatCannotBeRead) {
  EXPECT_CALL(*status_, GetPackStatus()).WillOnce(Throw(std::out_of_range("_Map_base::at")));
  EXPECT_FALSE(manager_.Download());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Download failed: _Map_base::at")));
}

TEST_F(PackManagerFlowTest, DownloadLetsOtherExceptionsPass) {
  EXPECT_CALL(*status_, GetPackStatus()).WillOnce(Throw(NoStandardException()));
  EXPECT_THROW(manager_.Download(), NoStandardException);
}

// Install.

TEST_F(PackManagerFlowTest, InstallOfAFirstPackReportsTwoSteps) {
  ExpectInstallStatus(kStatusNeedInstall, true);
  ExpectOldPack(false);
  ExpectInstall(true);
  ExpectCleanUp(true);
  EXPECT_TRUE(manager_.Install());
  EXPECT_EQ(steps_,
            (Steps{"installing", "tell plugins before install of an install: newname newversion", "installing: install",
                   "install", "clean up", "tell plugins after install of an install: newname newversion",
                   "installing: after install", "up_to_date"}));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerFlowTest, InstallOverAnOldPackReportsFiveSteps) {
  ExpectInstallStatus(kStatusInstallFailed, true);
  ExpectOldPack(true);
  ExpectUninstall(true);
  ExpectInstall(true);
  ExpectCleanUp(true);
  EXPECT_TRUE(manager_.Install());
  EXPECT_EQ(steps_, (Steps{"installing", "installing: before uninstall",
                           "tell plugins before uninstall of an upgrade: oldname oldversion", "installing: uninstall",
                           "uninstall", "tell plugins after uninstall of an upgrade: oldname oldversion",
                           "installing: after uninstall",
                           "tell plugins before install of an upgrade: newname newversion", "installing: install",
                           "install", "clean up", "tell plugins after install of an upgrade: newname newversion",
                           "installing: after install", "up_to_date"}));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerFlowTest, InstallRefusedByTheStatusChangesNothing) {
  for (std::size_t status = 0; status < kPackStatusTexts.size(); ++status) {
    LogCapture::Clear();
    ExpectInstallStatus(static_cast<PackStatus>(status), false);
    EXPECT_FALSE(manager_.Install());
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Error("Invalid pack status: " + std::string(kPackStatusTexts[status]))));
  }
  EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(PackManagerFlowTest, InstallGoesOnWhenPluginsCannotBeTold) {
  notified_ = false;
  ExpectInstallStatus(kStatusNeedInstall, true);
  ExpectOldPack(true);
  ExpectUninstall(true);
  ExpectInstall(true);
  ExpectCleanUp(true);
  EXPECT_TRUE(manager_.Install());
  EXPECT_EQ(steps_.back(), "up_to_date");
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to notify: [timing]: pre, [event]: uninstall"),
                                               Error("Failed to notify: [timing]: post, [event]: uninstall"),
                                               Error("Failed to notify: [timing]: pre, [event]: install"),
                                               Error("Failed to notify: [timing]: post, [event]: install")));
}

TEST_F(PackManagerFlowTest, InstallStopsWhenTheOldPackStays) {
  ExpectInstallStatus(kStatusNeedInstall, true);
  ExpectOldPack(true);
  ExpectUninstall(false);
  EXPECT_FALSE(manager_.Install());
  EXPECT_EQ(steps_, (Steps{"installing", "installing: before uninstall",
                           "tell plugins before uninstall of an upgrade: oldname oldversion", "installing: uninstall",
                           "uninstall", "install_failed newversion newname"}));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to uninstall"), Error("Failed to uninstall"), Error("Failed to install")));
}

TEST_F(PackManagerFlowTest, InstallThatFailsSendsNoPostNotification) {
  ExpectInstallStatus(kStatusNeedInstall, true);
  ExpectOldPack(false);
  ExpectInstall(false);
  EXPECT_FALSE(manager_.Install());
  EXPECT_EQ(steps_, (Steps{"installing", "tell plugins before install of an install: newname newversion",
                           "installing: install", "install", "install_failed newversion newname"}));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to install"), Error("Failed to install"), Error("Failed to install")));
}

TEST_F(PackManagerFlowTest, InstallThatFailsAndCannotBeRecordedLogsBoth) {
  ExpectInstallStatus(kStatusNeedInstall, true);
  ExpectOldPack(false);
  ExpectInstall(false);
  EXPECT_CALL(*status_, SetAsInstallFailed).WillOnce(Throw(std::runtime_error("why")));
  EXPECT_FALSE(manager_.Install());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to install"), Error("Failed to install"),
                                               Error("Failed to install"), Error("Install failed: why")));
}

TEST_F(PackManagerFlowTest, InstallThatCannotCleanUpFails) {
  ExpectInstallStatus(kStatusNeedInstall, true);
  ExpectOldPack(false);
  ExpectInstall(true);
  ExpectCleanUp(false);
  EXPECT_FALSE(manager_.Install());
  EXPECT_EQ(steps_.back(), "install_failed newversion newname");
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to remove download directory"), Error("Failed to install"),
                                               Error("Failed to install")));
}

TEST_F(PackManagerFlowTest, InstallLogsStandardExceptionsAndLeavesTheStatus) {
  ExpectInstallStatus(kStatusNeedInstall, true);
  EXPECT_CALL(*kos_, DirExist).WillOnce(Throw(std::runtime_error("why")));
  EXPECT_FALSE(manager_.Install());
  EXPECT_EQ(steps_, Steps{"installing"});
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Install failed: why")));
}

TEST_F(PackManagerFlowTest, InstallLetsOtherExceptionsPass) {
  EXPECT_CALL(*status_, GetPackStatus()).WillOnce(Throw(NoStandardException()));
  EXPECT_THROW(manager_.Install(), NoStandardException);
}

// DownloadAndInstall.

TEST_F(PackManagerFlowTest, DownloadAndInstallOfAFirstPackEndsUpToDate) {
  ExpectDownloadInstallStatus(kStatusLost, true);
  ExpectOffer();
  ExpectDownload(true);
  ExpectChecksum(true);
  ExpectVersion();
  ExpectOldPack(false);
  ExpectInstall(true);
  ExpectCleanUp(true);
  EXPECT_TRUE(manager_.DownloadAndInstall());
  const std::string pack = std::string(kHevcPack) + " hevc";
  EXPECT_EQ(steps_, (Steps{"downloading_installing", "make folder", "download", "downloading_installing 1/9",
                           "downloading_installing 9/9", "tell plugins before install of an install: " + pack,
                           "downloading_installing: install", "install", "clean up",
                           "tell plugins after install of an install: " + pack, "downloading_installing: after install",
                           "up_to_date"}));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackManagerFlowTest, DownloadAndInstallOverAnOldPackWithAacReportsEveryStep) {
  ExpectDownloadInstallStatus(kStatusUpToDate, true);
  ExpectOffer(Aac::kHad);
  ExpectDownload(true);
  ExpectChecksum(true);
  ExpectVersion();
  ExpectOldPack(true);
  ExpectUninstall(true);
  ExpectInstall(true);
  ExpectCleanUp(true);
  EXPECT_TRUE(manager_.DownloadAndInstall());
  const std::string pack = std::string(kHevcAacPack) + " aac";
  EXPECT_EQ(steps_, (Steps{"downloading_installing", "make folder", "download", "downloading_installing 1/9",
                           "downloading_installing 9/9", "downloading_installing: before uninstall",
                           "tell plugins before uninstall of an upgrade: oldname oldversion",
                           "downloading_installing: uninstall", "uninstall",
                           "tell plugins after uninstall of an upgrade: oldname oldversion",
                           "downloading_installing: after uninstall",
                           "tell plugins before install of an upgrade: " + pack, "downloading_installing: install",
                           "install", "clean up", "tell plugins after install of an upgrade: " + pack,
                           "downloading_installing: after install", "up_to_date"}));
}

TEST_F(PackManagerFlowTest, DownloadAndInstallRefusedByTheStatusChangesNothing) {
  for (std::size_t status = 0; status < kPackStatusTexts.size(); ++status) {
    LogCapture::Clear();
    ExpectDownloadInstallStatus(static_cast<PackStatus>(status), false);
    EXPECT_FALSE(manager_.DownloadAndInstall());
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(Error("Invalid pack status: " + std::string(kPackStatusTexts[status]))));
  }
  EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(PackManagerFlowTest, DownloadAndInstallWithoutInformationFails) {
  answer_.body = "oops";
  ExpectDownloadInstallStatus(kStatusLost, true);
  ExpectOffer();
  EXPECT_FALSE(manager_.DownloadAndInstall());
  EXPECT_EQ(steps_, (Steps{"downloading_installing", "download_install_failed"}));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to parse response"), Error("FetchDownloadInfo failed")));
}

TEST_F(PackManagerFlowTest, DownloadAndInstallThatBreaksOffFails) {
  ExpectDownloadInstallStatus(kStatusLost, true);
  ExpectOffer();
  ExpectDownload(false);
  EXPECT_FALSE(manager_.DownloadAndInstall());
  EXPECT_EQ(steps_.back(), "download_install_failed");
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("DoDownload failed")));
}

TEST_F(PackManagerFlowTest, DownloadAndInstallWithAnotherChecksumInstallsNothing) {
  ExpectDownloadInstallStatus(kStatusLost, true);
  ExpectOffer();
  ExpectDownload(true);
  ExpectChecksum(false);
  EXPECT_FALSE(manager_.DownloadAndInstall());
  EXPECT_EQ(steps_.back(), "download_install_failed");
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to verify checksum of downloaded file.")));
}

TEST_F(PackManagerFlowTest, DownloadAndInstallStopsWhenTheOldPackStays) {
  ExpectDownloadInstallStatus(kStatusLost, true);
  ExpectOffer();
  ExpectDownload(true);
  ExpectChecksum(true);
  ExpectVersion();
  ExpectOldPack(true);
  ExpectUninstall(false);
  EXPECT_FALSE(manager_.DownloadAndInstall());
  EXPECT_EQ(steps_.back(), "download_install_failed");
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(Error("Failed to uninstall"), Error("Failed to uninstall"), Error("DoInstall failed")));
}

TEST_F(PackManagerFlowTest, DownloadAndInstallThatFailsAndCannotBeRecordedLogsBoth) {
  ExpectDownloadInstallStatus(kStatusNeedDownload, true);
  ExpectOffer();
  ExpectVersion();
  ExpectDownload(true);
  ExpectChecksum(true);
  ExpectOldPack(false);
  ExpectInstall(false);
  EXPECT_CALL(*status_, SetAsDownloadInstallFailed()).WillOnce(Throw(std::runtime_error("why")));
  EXPECT_FALSE(manager_.DownloadAndInstall());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Failed to install"), Error("Failed to install"),
                                               Error("DoInstall failed"), Error("Download and install failed: why")));
}

TEST_F(PackManagerFlowTest, DownloadAndInstallLogsStandardExceptionsAndLeavesTheStatus) {
  ExpectDownloadInstallStatus(kStatusLost, true);
  EXPECT_CALL(*kos_, FileExist).WillOnce(Throw(std::runtime_error("why")));
  EXPECT_FALSE(manager_.DownloadAndInstall());
  EXPECT_EQ(steps_, Steps{"downloading_installing"});
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(Error("Download and install failed: why")));
}

TEST_F(PackManagerFlowTest, DownloadAndInstallLetsOtherExceptionsPass) {
  EXPECT_CALL(*status_, GetPackStatus()).WillOnce(Throw(NoStandardException()));
  EXPECT_THROW(manager_.DownloadAndInstall(), NoStandardException);
}

TEST_F(PackManagerFlowTest, NotifyStepOfAnUnknownEventThrows) {
  for (const int event : {2, -1}) {
    try {
      manager_.NotifyStep(
          static_cast<NotifyPluginEvent>(event), [] { return false; }, "n", "v", kNotifyInstall);
      ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& error) {
      const auto index = static_cast<std::size_t>(event);
      EXPECT_EQ(error.what(), "array::at: __n (which is " + std::to_string(index) + ") >= _Nm (which is 2)");
    }
  }
}

}  // namespace
}  // namespace orbamira::updater

// In place of libcurl's, which it calls: no server can tell a transfer with a long limit from one without.
#undef curl_easy_setopt
extern "C" __attribute__((visibility("default"))) CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  std::va_list arguments;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"  // libcurl declares the enumeration in front of the dots
  va_start(arguments, option);
#pragma GCC diagnostic pop
  void* const value = va_arg(arguments, void*);  // a number comes the same way
  va_end(arguments);
  constexpr std::array kLimits = {CURLOPT_TIMEOUT,           CURLOPT_TIMEOUT_MS,      CURLOPT_CONNECTTIMEOUT,
                                  CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_LOW_SPEED_LIMIT, CURLOPT_LOW_SPEED_TIME};
  if (value != nullptr && std::ranges::find(kLimits, option) != kLimits.end()) {
    orbamira::updater::limits_of_time.push_back(option);
  }
  static const auto real = reinterpret_cast<CURLcode (*)(CURL*, CURLoption, ...)>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
  return real(handle, option, value);
}
