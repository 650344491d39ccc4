#include "platform/download_wrapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/exception.h"
#include "platform/http/download_policy.h"
#include "tests/support/disk_calls.h"
#include "tests/support/error_text.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/http_server.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace {

// What is free on a disk of 1 GiB while it is empty; unset, files are on the disk that they are on.
std::optional<std::uint64_t> free_on_empty_disk;
std::uint64_t size_of_disk = 1UL << 30U;

}  // namespace

// A disk that the product's code finds nearly full, which takes root to come by.
extern "C" int fstatvfs(int fd, struct statvfs* disk) {
  struct stat file {};
  if (!free_on_empty_disk || fstat(fd, &file) != 0) {
    return statvfs(("/proc/self/fd/" + std::to_string(fd)).c_str(), disk);
  }
  const auto size = static_cast<std::uint64_t>(file.st_size);
  *disk = {};
  disk->f_frsize = 4096;
  disk->f_blocks = size_of_disk / 4096;
  disk->f_bavail = (*free_on_empty_disk - std::min(*free_on_empty_disk, size)) / 4096;
  return 0;
}

namespace orbamira::wrapper {
namespace {

using exception::kDownloadFailure;
using std::chrono::milliseconds;
using test::CutFirstAt;
using test::HttpRequest;
using test::HttpResponse;
using test::HttpServer;
using test::PatternOf;
using test::ReadFile;
using test::ServeFile;
using test::TempDir;
using testing::_;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::size_t kMebibyte = 1024 * 1024;

class DownloadWrapperTest : public testing::Test {
 protected:
  DownloadWrapperTest() {
    policy_.limits.stall = milliseconds(200);
    policy_.wait = [this](milliseconds time) { waits_.push_back(time); };
  }

  int DownloadTo(std::ofstream& file, const std::string& url) {
    const std::shared_ptr<DownloadWrapper> download = MakeDownload(policy_);
    download->SetUrl(url);
    download->SetProgressCallback(progress_);
    return download->DownloadToFile(file);
  }

  int Download(const std::string& url) {
    std::ofstream file(path_, std::ios::binary);
    return DownloadTo(file, url);
  }

  // The text of the failure that the download ends with.
  std::string FailureOf(const std::string& url) {
    std::ofstream file(path_, std::ios::binary);
    return FailureOf(file, url);
  }

  std::string FailureOf(std::ofstream& file, const std::string& url) {
    try {
      ADD_FAILURE() << "the download returned " << DownloadTo(file, url);
    } catch (const exception::Exception<kDownloadFailure>& failure) {
      EXPECT_EQ(failure.file(), "resuming_download.cpp");
      return failure.what();
    }
    return "";
  }

  // What the requests asked for, as "Range|If-Range".
  static std::vector<std::string> RangesOf(const HttpServer& server) {
    std::vector<std::string> ranges;
    for (const HttpRequest& request : server.Requests()) {
      ranges.push_back(request.Header("Range") + "|" + request.Header("If-Range"));
    }
    return ranges;
  }

  DownloadPolicy policy_;
  std::vector<milliseconds> waits_;
  std::vector<std::pair<long, long>> calls_;
  std::function<void(long, long)> progress_ = [this](long now, long total) { calls_.emplace_back(now, total); };
  TempDir dir_;
  std::string path_ = dir_.File("body");
};

TEST_F(DownloadWrapperTest, CreateMakesADownload) {
  const std::string body = PatternOf(100'000);
  HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body}; });
  const std::shared_ptr<DownloadWrapper> download = DownloadWrapper::Create();
  ASSERT_NE(download, nullptr);
  download->SetUrl(server.Url("/pack"));
  std::ofstream file(path_, std::ios::binary);
  EXPECT_EQ(download->DownloadToFile(file), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_TRUE(file.is_open());
}

TEST_F(DownloadWrapperTest, CreateMakesAFreshDownloadEachTime) {
  EXPECT_NE(DownloadWrapper::Create(), DownloadWrapper::Create());
}

TEST_F(DownloadWrapperTest, DownloadPolicyOfTheProductIsAsPromised) {
  const DownloadPolicy policy;
  EXPECT_EQ(policy.limits.connect, std::chrono::seconds(30));
  EXPECT_EQ(policy.limits.stall, std::chrono::seconds(30));
  EXPECT_EQ(policy.resumes, 5);
  EXPECT_EQ(policy.first_wait, std::chrono::seconds(1));
}

TEST_F(DownloadWrapperTest, DownloadToFileAsksOnceAndForTheBytesAsTheyAre) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  EXPECT_EQ(Download(server.Url("/pack?x=1")), 200);
  ASSERT_THAT(server.Requests(), SizeIs(1));
  EXPECT_EQ(server.Requests()[0].method, "GET");
  EXPECT_EQ(server.Requests()[0].target, "/pack?x=1");
  EXPECT_EQ(server.Requests()[0].Header("Accept-Encoding"), "");
  EXPECT_EQ(server.Requests()[0].Header("Range"), "");
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesAnEmptyBody) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{}; });
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), "");
  EXPECT_THAT(calls_, ElementsAre(Pair(0, 0)));
}

TEST_F(DownloadWrapperTest, DownloadToFileSyncsTheBodyBeforeItReportsTheEnd) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = std::string(kMebibyte, 'x')}; });
  test::DiskCalls calls;
  progress_ = [&calls](long now, long /*total*/) { calls.Note(std::to_string(now)); };
  Download(server.Url());
  // On a slow machine there may be more reports before.
  const std::vector<std::string> last(calls.all().end() - 2, calls.all().end());
  EXPECT_THAT(last, ElementsAre("sync body", "1048576"));
  EXPECT_THAT(calls.all(), Contains("1048576").Times(1));
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesABodyOfUnknownLength) {
  const std::string body = PatternOf(3 * kMebibyte);
  for (const auto framing : {HttpResponse::Framing::kChunked, HttpResponse::Framing::kUntilClose}) {
    calls_.clear();
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body, .framing = framing}; });
    EXPECT_EQ(Download(server.Url()), 200);
    EXPECT_EQ(ReadFile(path_), body);
    EXPECT_EQ(calls_.front().second, 0);
    EXPECT_THAT(calls_.back(), Pair(body.size(), body.size()));
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesNoMoreThanTheLengthClaims) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body and more", .claimed_length = 4}; });
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), "body");
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesABodyThatTrickles) {
  const std::string body = PatternOf(150);
  policy_.limits.connect = milliseconds(400);
  policy_.limits.stall = milliseconds(800);
  HttpServer server(
      [&](const HttpRequest&) { return HttpResponse{.body = body, .piece = 1, .pause = milliseconds(10)}; });
  EXPECT_EQ(Download(server.Url()), 200);  // takes longer than connecting and a stall may
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

TEST_F(DownloadWrapperTest, DownloadToFileReturnsAnyOtherStatusWithItsBody) {
  for (const int status : {204, 206, 401, 403, 404, 410, 416, 429, 500, 503}) {
    const std::string page = status == 204 ? "" : "page of " + std::to_string(status);
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.status = status, .body = page}; });
    EXPECT_EQ(Download(server.Url()), status);
    EXPECT_EQ(ReadFile(path_), page);
    EXPECT_THAT(server.Requests(), SizeIs(1)) << status;
  }
  EXPECT_THAT(calls_, IsEmpty());
  EXPECT_THAT(waits_, IsEmpty());
}

TEST_F(DownloadWrapperTest, DownloadToFileKeepsTheBeginningOfALongErrorPage) {
  const std::string page = PatternOf(kMebibyte);
  HttpServer server([&](const HttpRequest&) {
    return HttpResponse{.status = 500,
                        .body = page,
                        .framing = HttpResponse::Framing::kChunked,
                        .endless = true,
                        .piece = 1000};  // none ends at the limit
  });
  EXPECT_EQ(Download(server.Url()), 500);
  EXPECT_EQ(ReadFile(path_), page.substr(0, 64 * 1024));
}

TEST_F(DownloadWrapperTest, DownloadToFileReturnsTheStatusOfAnErrorPageThatIsCut) {
  HttpServer server(
      [](const HttpRequest&) { return HttpResponse{.status = 404, .body = "page", .claimed_length = 100}; });
  EXPECT_EQ(Download(server.Url()), 404);
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

TEST_F(DownloadWrapperTest, DownloadToFileFollowsRedirects) {
  HttpServer server([](const HttpRequest& request) {
    return request.target == "/new" ? HttpResponse{.body = "body"}
                                    : HttpResponse{.status = 301, .headers = {{"Location", "/new"}}, .body = "moved"};
  });
  EXPECT_EQ(Download(server.Url("/old")), 200);
  EXPECT_EQ(ReadFile(path_), "body");
}

TEST_F(DownloadWrapperTest, DownloadToFileGivesUpARedirectLoop) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.status = 301, .headers = {{"Location", "/"}}}; });
  EXPECT_THAT(FailureOf(server.Url()), HasSubstr("10"));
  EXPECT_THAT(server.Requests(), SizeIs(11));
}

TEST_F(DownloadWrapperTest, DownloadToFileRefusesARedirectToAnotherProtocol) {
  const std::string secret = dir_.File("secret");
  test::WriteFile(secret, "secret");
  for (const std::string& url : {"file://" + secret, std::string("ftp://127.0.0.1/x")}) {
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.status = 301, .headers = {{"Location", url}}}; });
    EXPECT_THAT(FailureOf(server.Url()), StartsWith(server.Url()));
    EXPECT_EQ(ReadFile(path_), "");
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileRefusesAnotherProtocol) {
  const std::string secret = dir_.File("secret");
  test::WriteFile(secret, "secret");
  EXPECT_THAT(FailureOf("file://" + secret), StartsWith("file://" + secret + ": "));
  EXPECT_THAT(FailureOf("ftp://127.0.0.1/x"), StartsWith("ftp://127.0.0.1/x: "));
  EXPECT_EQ(ReadFile(path_), "");
}

TEST_F(DownloadWrapperTest, DownloadToFileWithoutAUrlFails) { EXPECT_NE(FailureOf(""), ""); }

TEST_F(DownloadWrapperTest, DownloadToFileReportsARefusedConnectionAtOnce) {
  const test::RefusingPort port;
  EXPECT_THAT(FailureOf(port.Url("/pack")), StartsWith(port.Url("/pack") + ": "));
  EXPECT_THAT(waits_, IsEmpty());
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAnUnknownHostAtOnce) {
  EXPECT_THAT(FailureOf("http://no-such-host.invalid/"), HasSubstr("no-such-host.invalid"));
  EXPECT_THAT(waits_, IsEmpty());
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAServerThatHangsUpAtOnce) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.silent = true}; });
  EXPECT_THAT(FailureOf(server.Url()), HasSubstr("Empty reply"));
  EXPECT_THAT(waits_, IsEmpty());
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAStreamThatIsNotOpen) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  std::ofstream missing(dir_.File("missing/body"), std::ios::binary);
  std::ofstream none;
  std::ofstream failed(path_, std::ios::binary);
  failed.setstate(std::ios::failbit);
  for (std::ofstream* file : {&missing, &none, &failed}) {
    EXPECT_THAT(FailureOf(*file, server.Url()), EndsWith("the file is not open: Bad file descriptor"));
  }
  EXPECT_THAT(server.Requests(), IsEmpty());
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAStreamThatHasNoPosition) {
  const std::string pipe = dir_.File("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::fstream both_ends(pipe, std::ios::in | std::ios::out);
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  std::ofstream file(pipe, std::ios::binary);
  EXPECT_EQ(FailureOf(file, server.Url()),
            server.Url() + ": cannot tell the position in the file: " + test::ErrorText(ESPIPE));
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAFullDiskAndDoesNotTryAgain) {
  for (const std::size_t size : {std::size_t{1}, kMebibyte}) {
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = PatternOf(size)}; });
    std::ofstream file("/dev/full", std::ios::binary);
    EXPECT_EQ(FailureOf(file, server.Url()), server.Url() + ": cannot write the file: " + test::ErrorText(ENOSPC));
    EXPECT_THAT(server.Requests(), SizeIs(1));
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileOfAnEndlessBodyGivesTheRoomBackOnceTheDiskIsFull) {
  HttpServer server([](const HttpRequest&) {
    return HttpResponse{.body = PatternOf(kMebibyte), .framing = HttpResponse::Framing::kUntilClose, .endless = true};
  });
  std::ofstream file(path_, std::ios::binary);
  file << "before" << std::flush;
  {
    const test::FileSizeLimit full(3 * kMebibyte + 7);
    EXPECT_EQ(FailureOf(file, server.Url()), server.Url() + ": cannot write the file: " + test::ErrorText(EFBIG));
    EXPECT_EQ(ReadFile(path_), "before");
    file.close();
  }
  EXPECT_LT(std::filesystem::file_size(path_), 10'000U);  // a buffer of the stream's
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

class DownloadWrapperLimitTest : public DownloadWrapperTest {
 protected:
  ~DownloadWrapperLimitTest() override {
    free_on_empty_disk.reset();
    size_of_disk = 1UL << 30U;
    std::filesystem::remove(path::kPkgSetting);
    std::filesystem::remove(path::kDefaultPkgSetting);
  }

  HttpServer endless_{[](const HttpRequest&) {
    return HttpResponse{.body = PatternOf(kMebibyte), .framing = HttpResponse::Framing::kChunked, .endless = true};
  }};
  HttpServer announcing_{
      [](const HttpRequest&) { return HttpResponse{.body = PatternOf(1001), .claimed_length = 1001}; }};
};

TEST_F(DownloadWrapperLimitTest, DownloadToFileTakesNoMoreThanTheReplySays) {
  policy_.size = 1000;
  for (HttpServer* server : {&endless_, &announcing_}) {
    EXPECT_EQ(FailureOf(server->Url()),
              server->Url() + ": the file is over 1000 bytes, its size in the reply: " + test::ErrorText(EFBIG));
    EXPECT_EQ(ReadFile(path_), "");
    EXPECT_THAT(server->Requests(), SizeIs(1));
  }
  policy_.size = 1001;
  EXPECT_EQ(Download(announcing_.Url()), 200);
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileTakesNoMoreThanTheReplySaysWhenItIsTakenUp) {
  const std::string body = PatternOf(1000);
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    response.framing = HttpResponse::Framing::kChunked;
    return response;
  }));
  policy_.size = 999;
  EXPECT_THAT(FailureOf(server.Url()), HasSubstr("the file is over 999 bytes"));
  EXPECT_EQ(ReadFile(path_), "");
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileReturnsTheStatusOfAnErrorPageOverTheSize) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.status = 404, .body = PatternOf(1001)}; });
  policy_.size = 1000;
  EXPECT_EQ(Download(server.Url()), 404);
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileTakesNoMoreThanTheSettingsAllow) {
  test::WriteFile(path::kDefaultPkgSetting, "download_limit=\"1001\"\n");
  EXPECT_EQ(Download(announcing_.Url()), 200);
  test::WriteFile(path::kPkgSetting, "download_limit=\"1000\"\n");
  policy_.size = 2000;
  for (HttpServer* server : {&endless_, &announcing_}) {
    EXPECT_EQ(
        FailureOf(server->Url()),
        server->Url() + ": the file is over 1000 bytes, the download_limit of the settings: " + test::ErrorText(EFBIG));
    EXPECT_EQ(ReadFile(path_), "");
  }
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileRefusesAnAnnouncedSizeBeforeItTakesAny) {
  test::WriteFile(path::kPkgSetting, "download_limit=1000\n");
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "begin", .claimed_length = 1001}; });
  policy_.size = 1000;
  EXPECT_THAT(FailureOf(server.Url()), HasSubstr("the file is over 1000 bytes, the download_limit of the settings"));
  EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileRefusesALimitThatIsNoNumberOfBytes) {
  for (const char* malformed : {"16G", "-1", "0x10", "99999999999999999999"}) {
    test::WriteFile(path::kPkgSetting, std::string("download_limit=") + malformed + "\n");
    EXPECT_EQ(FailureOf(announcing_.Url()), announcing_.Url() + ": " + path::kPkgSetting +
                                                ": download_limit is not a number of bytes: " + malformed + ": " +
                                                test::ErrorText(EINVAL));
  }
  EXPECT_THAT(announcing_.Requests(), IsEmpty());
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileRefusesASettingThatCannotBeUsed) {
  const std::string front = std::string("a setting cannot be used: ") + path::kPkgSetting + ": ";
  for (const auto& [line, reason] :
       {std::pair{"proxy=secret@nowhere", "proxy is not the address of a proxy"},
        {"ca_file=/missing", "ca_file is not the whole path of a file of certificates (PEM)"},
        {"download_rate=1023", "download_rate is not a whole number of bytes per second, 1024 or more"}}) {
    test::WriteFile(path::kPkgSetting, std::string(line) + "\n");
    std::ofstream file(path_, std::ios::binary);
    try {
      DownloadWrapper::Create()->DownloadToFile(file);
      ADD_FAILURE() << line;
    } catch (const exception::Exception<kDownloadFailure>& failure) {
      EXPECT_THAT(failure.what(), AllOf(StartsWith(front + reason), testing::Not(HasSubstr("secret"))));
    }
  }
}

// The host's own code may look for errors there.
TEST_F(DownloadWrapperLimitTest, DownloadToFileLeavesNoErrorOfASettingInTheQueueOfOpenSsl) {
  const test::TempDir folder;
  test::WriteFile(folder.File("empty.pem"), "");
  test::WriteFile(path::kPkgSetting, "ca_file=" + folder.File("empty.pem") + "\n");
  std::ofstream file(path_, std::ios::binary);
  ERR_clear_error();
  EXPECT_THROW(DownloadWrapper::Create()->DownloadToFile(file), exception::Exception<kDownloadFailure>);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

// The disk would be full, for the record of the failure too.
TEST_F(DownloadWrapperLimitTest, DownloadToFileOfAnEndlessBodyLeavesAReserveFree) {
  free_on_empty_disk = 60 * kMebibyte;  // 51.2 of them are the reserve
  EXPECT_THAT(FailureOf(endless_.Url()),
              testing::MatchesRegex(endless_.Url() +
                                    ": cannot write the file: it needs 262144 bytes, [0-9]+ are free "
                                    "and 53686272 stay free: " +
                                    test::ErrorText(ENOSPC)));
  EXPECT_EQ(ReadFile(path_), "");
  EXPECT_THAT(calls_.back().first, Le(static_cast<long>(9 * kMebibyte)));
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileOfABodyThatDoesNotLeaveTheReserveFailsAtOnce) {
  free_on_empty_disk = 52 * kMebibyte;
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = PatternOf(kMebibyte)}; });
  EXPECT_EQ(FailureOf(server.Url()),
            server.Url() +
                ": cannot write the file: it needs 1048576 bytes, 54525952 are free and 53686272 stay free: No space "
                "left on device");
  EXPECT_THAT(calls_, IsEmpty());
  free_on_empty_disk = 53 * kMebibyte;
  EXPECT_EQ(Download(server.Url()), 200);
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileOfABodyThatMayNotBeThatLargeSaysSoOnAFullDiskToo) {
  free_on_empty_disk = 0;
  policy_.size = 1000;
  EXPECT_THAT(FailureOf(announcing_.Url()), HasSubstr("the file is over 1000 bytes, its size in the reply"));
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileTriesADiskThatDoesNotSayHowMuchItHas) {
  free_on_empty_disk = 0;
  size_of_disk = 0;
  EXPECT_EQ(Download(announcing_.Url()), 200);
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileOfABodyLargerThanTheDiskFailsAtOnce) {
  test::WriteFile(path::kPkgSetting, "download_limit=9223372036854775807\n");
  HttpServer server(
      [](const HttpRequest&) { return HttpResponse{.body = "begin", .claimed_length = std::int64_t{1} << 60U}; });
  EXPECT_THAT(FailureOf(server.Url()),
              testing::MatchesRegex(server.Url() +
                                    ": cannot write the file: it needs 1152921504606846976 bytes, "
                                    "[0-9]+ are free and [0-9]+ stay free: " +
                                    test::ErrorText(ENOSPC)));
  EXPECT_THAT(calls_, IsEmpty());
  EXPECT_EQ(ReadFile(path_), "");
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

// Also for an address that the environment lets no proxy have.
TEST_F(DownloadWrapperLimitTest, DownloadToFileAsksThroughTheProxyOfTheSettings) {
  HttpServer proxy([](const HttpRequest& request) { return HttpResponse{.body = request.target}; });
  test::WriteFile(path::kPkgSetting, "proxy=" + proxy.Url("") + "\n");
  EXPECT_EQ(Download("http://127.0.0.1:1/pack"), 200);
  EXPECT_EQ(ReadFile(path_), "http://127.0.0.1:1/pack");
}

TEST_F(DownloadWrapperLimitTest, DownloadToFileIsNoFasterThanTheSettingsAllow) {
  test::WriteFile(path::kPkgSetting, "download_rate=163840\n");
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = PatternOf(32'768)}; });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(200));
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAFileThatCannotBePutOnDisk) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  std::ofstream file("/dev/null", std::ios::binary);
  EXPECT_EQ(FailureOf(file, server.Url()), server.Url() + ": cannot sync the file: " + test::ErrorText(EINVAL));
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAFileThatCannotBeCutToStartOver) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = PatternOf(1000), .close_at = 500}; });
  std::string failure;
  test::WithFailingCall(SYS_ftruncate, EIO, [&] { failure = FailureOf(server.Url()); });
  EXPECT_EQ(failure, server.Url() + ": cannot truncate the file: " + test::ErrorText(EIO));
}

TEST_F(DownloadWrapperTest, DownloadToFileBeginsWhereTheStreamStands) {
  const std::string body = PatternOf(kMebibyte);
  HttpServer server(CutFirstAt(1000, [&](const HttpRequest&) { return HttpResponse{.body = body}; }));
  std::ofstream file(path_, std::ios::binary);
  file << "before ";
  EXPECT_EQ(DownloadTo(file, server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), "before " + body);
}

// A transfer that is cut.

TEST_F(DownloadWrapperTest, DownloadToFileTakesACutTransferUpWhereItStopped) {
  const std::string body = PatternOf(100'000);
  int requests = 0;
  HttpServer server([&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    switch (++requests) {
      case 1:
        response.close_at = 30'000;
        break;
      case 2:
        response.reset_at = 20'000;
        break;
      case 3:
        response.stall_at = 10'000;
        break;
      default:
        break;
    }
    return response;
  });
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=30000-|\"v1\"", "bytes=50000-|\"v1\"", "bytes=60000-|\"v1\""));
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesATransferUpThatStoppedAfterItsFirstByte) {
  const std::string body = PatternOf(1000);
  HttpServer server(CutFirstAt(1, [&](const HttpRequest& request) { return ServeFile(request, body, "\"v1\""); }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=1-|\"v1\""));
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesAnAnswerThatIsCutBeforeItsFirstByteForACut) {
  const std::string body = PatternOf(1000);
  HttpServer server(CutFirstAt(0, [&](const HttpRequest& request) { return ServeFile(request, body, "\"v1\""); }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "|"));
}

TEST_F(DownloadWrapperTest, DownloadToFileAsksByDateWhereThereIsNoStrongTag) {
  const std::string body = PatternOf(1000);
  const std::string date = "Wed, 21 Oct 2015 07:28:00 GMT";
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, date);
    response.headers = {{"ETag", "W/\"weak\""}, {"Last-Modified", date}, {"Content-Range", "bytes 400-999/1000"}};
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|" + date));
}

TEST_F(DownloadWrapperTest, DownloadToFileStartsOverWhereNothingTellsTheFileApart) {
  const std::string body = PatternOf(1000);
  for (const std::size_t place : {400U, 1U}) {
    HttpServer server(CutFirstAt(place, [&](const HttpRequest& request) { return ServeFile(request, body, ""); }));
    EXPECT_EQ(Download(server.Url()), 200);
    EXPECT_EQ(ReadFile(path_), body);
    EXPECT_THAT(RangesOf(server), ElementsAre("|", "|"));
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileStartsOverWhenTheServerIgnoresTheRange) {
  const std::string body = PatternOf(1000);
  HttpServer server(CutFirstAt(400, [&](const HttpRequest&) {
    return HttpResponse{.headers = {{"ETag", "\"v1\""}}, .body = body};
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|\"v1\""));
}

TEST_F(DownloadWrapperTest, DownloadToFileStartsOverWhenTheFileHasChanged) {
  const std::string old_body = PatternOf(1000);
  const std::string new_body(300, 'n');
  int requests = 0;
  HttpServer server([&](const HttpRequest& request) {
    if (++requests > 1) {
      return ServeFile(request, new_body, "\"v2\"");
    }
    HttpResponse response = ServeFile(request, old_body, "\"v1\"");
    response.close_at = 400;
    return response;
  });
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), new_body);
  EXPECT_THAT(calls_.back(), Pair(300, 300));
}

struct WrongPart {
  std::string name;
  std::string content_range;
  std::string etag;
};

class DownloadWrapperWrongPartTest : public DownloadWrapperTest, public testing::WithParamInterface<WrongPart> {
 protected:
  HttpResponse Answer(const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body_, "\"v1\"");
    if (++requests_ == 1) {
      response.close_at = 400;
    } else if (requests_ == 2) {
      response = {.status = 206,
                  .headers = {{"Content-Range", GetParam().content_range}, {"ETag", GetParam().etag}},
                  .body = "wrong"};
    }
    return response;
  }

  std::string body_ = PatternOf(1000);
  int requests_ = 0;
  HttpServer server_{[this](const HttpRequest& request) { return Answer(request); }};
};

TEST_P(DownloadWrapperWrongPartTest, DownloadToFileNeverWritesIt) {
  policy_.resumes = 1;
  EXPECT_THAT(FailureOf(server_.Url()), HasSubstr("the server sent another part than the rest of the file"));
  EXPECT_EQ(ReadFile(path_), body_.substr(0, 400));
}

TEST_P(DownloadWrapperWrongPartTest, DownloadToFileStartsOverAfterIt) {
  EXPECT_EQ(Download(server_.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body_);
  EXPECT_THAT(RangesOf(server_), ElementsAre("|", "bytes=400-|\"v1\"", "|"));
}

INSTANTIATE_TEST_SUITE_P(Each, DownloadWrapperWrongPartTest,
                         testing::Values(WrongPart{"OtherBegin", "bytes 300-999/1000", "\"v1\""},
                                         WrongPart{"LaterBegin", "bytes 500-999/1000", "\"v1\""},
                                         WrongPart{"OtherSize", "bytes 400-999/1001", "\"v1\""},
                                         WrongPart{"OtherTag", "bytes 400-999/1000", "\"v2\""},
                                         WrongPart{"NoRange", "nonsense", "\"v1\""},
                                         WrongPart{"NoNumbers", "bytes x-y/z", "\"v1\""},
                                         WrongPart{"Negative", "bytes -400-999/1000", "\"v1\""},
                                         WrongPart{"NoEnd", "bytes 400", "\"v1\""},
                                         WrongPart{"NoSize", "bytes 400-999", "\"v1\""},
                                         WrongPart{"Trailing", "bytes 400-999/1000x", "\"v1\""},
                                         WrongPart{"EndBeforeBegin", "bytes 400-399/1000", "\"v1\""},
                                         WrongPart{"EndBehindSize", "bytes 400-1000/1000", "\"v1\""},
                                         WrongPart{"OtherUnit", "items 400-999/1000", "\"v1\""},
                                         WrongPart{"Overflow", "bytes 99999999999999999999-999/1000", "\"v1\""}),
                         [](const auto& each) { return each.param.name; });

TEST_F(DownloadWrapperTest, DownloadToFileNeverWritesMoreThanTheRest) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 2) {
      response.body += "too much";
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesAPartOfTheRestForACut) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 2) {
      response.body.resize(100);
      response.headers["Content-Range"] = "bytes 400-499/1000";
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|\"v1\"", "bytes=500-|\"v1\""));
}

TEST_F(DownloadWrapperTest, DownloadToFileNeverWritesMoreThanAPart) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 2) {
      response.headers["Content-Range"] = "bytes 400-998/1000";
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|\"v1\"", "|"));
}

TEST_F(DownloadWrapperTest, DownloadToFileEndsARestThatNeverEnds) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    response.framing = HttpResponse::Framing::kChunked;
    response.endless = ++requests == 2;
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
}

// The first answer was chunked and cut, and the parts do not tell either how long the file is.
TEST_F(DownloadWrapperTest, DownloadToFileTakesNoPartForTheWholeWhileItsLengthIsUnknown) {
  const std::string body = PatternOf(15);
  int requests = 0;
  HttpServer server(CutFirstAt(5, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 1) {
      response.framing = HttpResponse::Framing::kChunked;
    } else if (requests <= 3) {
      const std::string first = std::to_string(body.size() - response.body.size());
      const std::string last = std::to_string(body.size() - response.body.size() + 4);
      response.body.resize(5);
      response.headers["Content-Range"] = "bytes " + first + "-" + last + "/*";
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=5-|\"v1\"", "bytes=10-|\"v1\"", "bytes=15-|\"v1\""));
  EXPECT_THAT(calls_.back(), Pair(15, 15));
}

TEST_F(DownloadWrapperTest, DownloadToFileSaysThatTheLengthStaysUnknown) {
  policy_.resumes = 1;
  HttpServer server(CutFirstAt(5, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, PatternOf(15), "\"v1\"");
    response.framing = HttpResponse::Framing::kChunked;
    if (response.status == 206) {
      response.headers["Content-Range"] = "bytes 5-14/*";
    }
    return response;
  }));
  EXPECT_THAT(FailureOf(server.Url()), HasSubstr("the server does not say how long the file is"));
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesAPartThatIsShorterThanItSaysForACut) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 1) {
      response.framing = HttpResponse::Framing::kChunked;
    } else if (requests == 2) {
      response.body.resize(100);
      response.headers["Content-Range"] = "bytes 400-999/*";
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|\"v1\"", "bytes=500-|\"v1\""));
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesARestOfUnknownSize) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 1) {
      response.framing = HttpResponse::Framing::kChunked;
    } else if (requests == 2) {
      response.headers["Content-Range"] = "bytes 400-999/*";
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|\"v1\"", "bytes=1000-|\"v1\""));
}

TEST_F(DownloadWrapperTest, DownloadToFileTriesAgainWhenTheServerIsBusyForTheRest) {
  const std::string body = PatternOf(1000);
  for (const int status : {429, 500, 502, 503}) {
    int requests = 0;
    HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
      HttpResponse response = ServeFile(request, body, "\"v1\"");
      if (++requests == 2) {
        response = {.status = status, .body = "busy"};
      }
      return response;
    }));
    EXPECT_EQ(Download(server.Url()), 200);
    EXPECT_EQ(ReadFile(path_), body);
    EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|\"v1\"", "bytes=400-|\"v1\""));
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileEndsAUselessAnswerThatNeverEnds) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 2) {
      response = {.status = 503, .body = "busy", .framing = HttpResponse::Framing::kChunked, .endless = true};
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
}

TEST_F(DownloadWrapperTest, DownloadToFileStartsOverWhenThereIsNoSuchRest) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests == 2) {
      response = {.status = 416};
    }
    return response;
  }));
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(RangesOf(server), ElementsAre("|", "bytes=400-|\"v1\"", "|"));
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesAnotherSizeThanItHasForNoEnd) {
  const std::string body = PatternOf(15);
  for (const char* range : {"bytes */5", "bytes */15", "bytes */x"}) {
    int requests = 0;
    HttpServer server(CutFirstAt(5, [&](const HttpRequest& request) {
      HttpResponse response = ServeFile(request, body, "\"v1\"");
      response.framing = HttpResponse::Framing::kChunked;  // so the size is not known
      if (++requests == 2) {
        response = {.status = 416, .headers = {{"Content-Range", range}}};
      }
      return response;
    }));
    EXPECT_EQ(Download(server.Url()), 200);
    EXPECT_EQ(ReadFile(path_), std::string_view(range) == "bytes */5" ? body.substr(0, 5) : body) << range;
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileSaysThatTheServerSentTooMuch) {
  const std::string body = PatternOf(1000);
  HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    response.framing = HttpResponse::Framing::kChunked;
    response.body += "too much";
    return response;
  }));
  policy_.resumes = 1;
  EXPECT_EQ(FailureOf(server.Url()), server.Url() +
                                         ": the server sent more than the rest of the file; got 400 of 1000 bytes, "
                                         "resumed 1 times without progress");
}

TEST_F(DownloadWrapperTest, DownloadToFileReturnsAStatusThatEndsAResume) {
  const std::string body = PatternOf(1000);
  for (const int status : {401, 403, 404, 410}) {
    int requests = 0;
    HttpServer server(CutFirstAt(400, [&](const HttpRequest& request) {
      HttpResponse response = ServeFile(request, body, "\"v1\"");
      if (++requests > 1) {
        response = {.status = status, .body = "gone"};
      }
      return response;
    }));
    EXPECT_EQ(Download(server.Url()), status);
    EXPECT_EQ(ReadFile(path_), body.substr(0, 400));
    EXPECT_THAT(server.Requests(), SizeIs(2));
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileGivesUpAfterFiveResumesWithoutProgress) {
  HttpServer server([](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, PatternOf(1000), "\"v1\"");
    response.close_at = 10;
    return response;
  });
  EXPECT_THAT(FailureOf(server.Url("/pack")),
              AllOf(StartsWith(server.Url("/pack") + ": "),
                    EndsWith("; got 60 of 1000 bytes, resumed 5 times without progress")));
  EXPECT_THAT(server.Requests(), SizeIs(6));
}

TEST_F(DownloadWrapperTest, DownloadToFileGivesUpWhenTheServerIsGone) {
  auto server = std::make_unique<HttpServer>([](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, PatternOf(1000), "\"v1\"");
    response.close_at = 10;
    return response;
  });
  const std::string url = server->Url();
  policy_.wait = [&](milliseconds time) {
    server.reset();
    waits_.push_back(time);
  };
  EXPECT_THAT(FailureOf(url), HasSubstr("got 10 of 1000 bytes"));
  EXPECT_THAT(waits_, SizeIs(5));
}

TEST_F(DownloadWrapperTest, DownloadToFileWaitsLongerBeforeEachResume) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "half", .claimed_length = 8}; });
  EXPECT_NE(FailureOf(server.Url()), "");
  ASSERT_THAT(waits_, SizeIs(5));
  long expected = 1000;
  for (const milliseconds wait : waits_) {
    EXPECT_THAT(wait.count(), AllOf(Ge(expected * 3 / 4), Le(expected * 5 / 4)));
    expected *= 2;
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileVariesItsWaits) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "half", .claimed_length = 8}; });
  EXPECT_NE(FailureOf(server.Url()), "");
  const std::vector<milliseconds> first = std::exchange(waits_, {});
  int wide = 0;
  EXPECT_NE(FailureOf(server.Url()), "");
  EXPECT_NE(first, waits_);
  // All within two milliseconds of its middle is one in a million of millions.
  for (std::size_t i = 0; i < 5; ++i) {
    const milliseconds middle = policy_.first_wait * (1 << i);
    wide += std::abs((first.at(i) - middle).count()) > 2 ? 1 : 0;
  }
  EXPECT_GT(wide, 0);
}

TEST_F(DownloadWrapperTest, DownloadToFileGoesOnOverABadLineThatMakesProgress) {
  const std::string body = PatternOf(12 * kMebibyte);
  HttpServer server([&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    response.close_at = kMebibyte;
    return response;
  });
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), body);
  EXPECT_THAT(server.Requests(), SizeIs(12));
  for (const milliseconds wait : waits_) {
    EXPECT_LE(wait.count(), 1250);
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileIsNotHeldByAServerThatOnlyStartsOver) {
  HttpServer server([](const HttpRequest&) {
    HttpResponse response{.body = PatternOf(3 * kMebibyte)};
    response.close_at = 2 * kMebibyte;
    return response;
  });
  EXPECT_NE(FailureOf(server.Url()), "");
  EXPECT_THAT(server.Requests(), SizeIs(6));
}

TEST_F(DownloadWrapperTest, DownloadToFileEndsAStall) {
  policy_.resumes = 0;
  for (const std::size_t place : {std::size_t{0}, std::size_t{500}}) {
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = PatternOf(1000), .stall_at = place}; });
    policy_.limits.connect = milliseconds(100);
    EXPECT_THAT(FailureOf(server.Url()), HasSubstr("under 1 byte per second for 200 ms")) << place;
  }
}

TEST_F(DownloadWrapperTest, DownloadToFileTakesNothingOfUnknownLengthForNoMoreThanNothing) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.framing = HttpResponse::Framing::kUntilClose}; });
  policy_.size = 0;
  EXPECT_EQ(Download(server.Url()), 200);
}

TEST_F(DownloadWrapperTest, DownloadToFileLeavesNoMemoryBehind) {
  constexpr int kTimes = 50;
  const test::RefusingPort port;
  policy_.resumes = 0;
  const auto fail = [&] {
    for (int i = 0; i < kTimes; ++i) {
      FailureOf(port.Url());
    }
  };
  fail();
  const std::size_t before = mallinfo2().uordblks;
  fail();
  EXPECT_LT(mallinfo2().uordblks, before + 100 * kTimes);
}

TEST_F(DownloadWrapperTest, DownloadToFileEndsAConnectionThatIsNotAnswered) {
  const test::SilentPort port;
  policy_.resumes = 0;
  policy_.limits = {.connect = milliseconds(100), .stall = std::chrono::hours(1)};
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_NE(FailureOf(port.Url()), "");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(1));
}

TEST_F(DownloadWrapperTest, DownloadToFileGoesOnWhenAStallEndsInTime) {
  policy_.limits.stall = std::chrono::seconds(60);
  HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = PatternOf(1000), .stall_at = 500}; });
  progress_ = [&](long now, long) {
    if (now == 500) {
      server.Release();
    }
  };
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_EQ(ReadFile(path_), PatternOf(1000));
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

// Progress.

TEST_F(DownloadWrapperTest, DownloadToFileReportsTheFirstAndTheLastByte) {
  const std::string body = PatternOf(4 * kMebibyte);
  HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body}; });
  EXPECT_EQ(Download(server.Url()), 200);
  ASSERT_THAT(calls_, SizeIs(Ge(2U)));
  EXPECT_THAT(calls_.front(), Pair(AllOf(Ge(1), Le(64 * 1024)), body.size()));
  EXPECT_THAT(calls_.back(), Pair(body.size(), body.size()));
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsAResumedTransferAsOne) {
  const std::string body = PatternOf(1000);
  int requests = 0;
  HttpServer server([&](const HttpRequest& request) {
    HttpResponse response = ServeFile(request, body, "\"v1\"");
    if (++requests < 3) {
      response.close_at = 400;
    }
    return response;
  });
  EXPECT_EQ(Download(server.Url()), 200);
  // On a slow machine there may be more calls in between.
  EXPECT_THAT(calls_, Each(Pair(_, 1000)));
  EXPECT_THAT(calls_.front(), Pair(400, 1000));
  EXPECT_THAT(calls_.back(), Pair(1000, 1000));
  EXPECT_TRUE(std::is_sorted(calls_.begin(), calls_.end()));
}

TEST_F(DownloadWrapperTest, DownloadToFileReportsSizesBeyondThirtyTwoBits) {
  policy_.resumes = 0;
  // A long of 32 bits holds less.
  const auto total = static_cast<long>(std::min<std::int64_t>(5'000'000'000, std::numeric_limits<long>::max()));
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "begin", .claimed_length = 5'000'000'000}; });
  std::ofstream file("/dev/null", std::ios::binary);  // has room
  EXPECT_THAT(FailureOf(file, server.Url()), HasSubstr("got 5 of 5000000000 bytes"));
  EXPECT_THAT(calls_, ElementsAre(Pair(5, total)));
}

TEST_F(DownloadWrapperTest, DownloadToFileWritesBeforeItReports) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = PatternOf(200'000)}; });
  progress_ = [this](long now, long) {
    calls_.emplace_back(now, static_cast<long>(std::filesystem::file_size(path_)));
  };
  EXPECT_EQ(Download(server.Url()), 200);
  EXPECT_THAT(calls_.back(), Pair(200'000, 200'000));
}

TEST_F(DownloadWrapperTest, DownloadToFileDoesNotCallAnEmptyFunction) {
  progress_ = nullptr;
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  EXPECT_EQ(Download(server.Url()), 200);
}

TEST_F(DownloadWrapperTest, DownloadToFileLetsAnExceptionOfTheFunctionOut) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = PatternOf(kMebibyte)}; });
  progress_ = [](long, long) { throw std::logic_error("stop"); };
  EXPECT_THROW(Download(server.Url()), std::logic_error);
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

TEST_F(DownloadWrapperTest, DownloadToFileTellsAFailedStoreFromAFailedDownload) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  progress_ = [](long, long) { throw std::system_error(ENOSPC, std::generic_category()); };
  EXPECT_THROW(Download(server.Url()), std::system_error);
}

TEST_F(DownloadWrapperTest, DownloadToFileCanBeRepeatedAfterAnException) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  const std::shared_ptr<DownloadWrapper> download = MakeDownload(policy_);
  bool fail = true;
  std::function<void(long, long)> progress = [&](long, long) {
    if (fail) {
      throw std::logic_error("stop");
    }
  };
  download->SetUrl(server.Url());
  download->SetProgressCallback(progress);
  std::ofstream first(path_, std::ios::binary);
  EXPECT_THROW(download->DownloadToFile(first), std::logic_error);
  fail = false;
  std::ofstream second(path_, std::ios::binary);
  EXPECT_EQ(download->DownloadToFile(second), 200);
  EXPECT_EQ(ReadFile(path_), "body");
}

}  // namespace
}  // namespace orbamira::wrapper
