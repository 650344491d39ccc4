#include "platform/cpr_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "platform/constants.h"
#include "platform/network/request.h"
#include "tests/support/error_text.h"
#include "tests/support/http_server.h"
#include "tests/support/test_root.h"

namespace orbamira::wrapper {
namespace {

using test::HttpRequest;
using test::HttpResponse;
using test::HttpServer;
using test::PatternOf;
using test::ReadFile;
using test::TempDir;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class CprSessionTest : public testing::Test {
 protected:
  cpr::Response Download(const std::string& url) {
    std::ofstream file(path_, std::ios::binary);
    return DownloadTo(file, url);
  }

  cpr::Response DownloadTo(std::ofstream& file, const std::string& url) {
    session_->SetUrl(cpr::Url(url));
    return session_->DownloadToFile(file);
  }

  std::shared_ptr<ICprSession> session_ = CprSession::Create();
  TempDir dir_;
  std::string path_ = dir_.File("body");
};

TEST_F(CprSessionTest, DownloadToFileWritesTheBody) {
  const std::string body = PatternOf(1'000'000);
  HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body}; });
  const cpr::Response response = Download(server.Url("/pack"));
  EXPECT_EQ(response.status_code, 200);
  EXPECT_FALSE(response.error);
  EXPECT_EQ(ReadFile(path_), body);
  ASSERT_THAT(server.Requests(), SizeIs(1));
  EXPECT_EQ(server.Requests()[0].method, "GET");
  EXPECT_EQ(server.Requests()[0].target, "/pack");
}

TEST_F(CprSessionTest, DownloadToFileTakesAsMuchAsTheSettingsAllow) {
  const std::string body = PatternOf(40'000);  // curl gives it in parts
  HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body}; });
  test::WriteFile(path::kPkgSetting, "download_limit=40000\n");
  EXPECT_EQ(Download(server.Url()).status_code, 200);
  EXPECT_EQ(ReadFile(path_), body);
  std::filesystem::remove(path::kPkgSetting);
}

TEST(AskNetworkTest, AskNetworkTellsTheLengthThatTheServerSays) {
  auto framing = HttpResponse::Framing::kLength;
  HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = "body", .framing = framing}; });
  EXPECT_EQ(AskNetwork({.url = server.Url(), .most_bytes = 100}).length, 4U);
  framing = HttpResponse::Framing::kChunked;
  EXPECT_EQ(AskNetwork({.url = server.Url(), .most_bytes = 100}).length, std::nullopt);
}

TEST(AskNetworkTest, AskNetworkEndsAConnectionThatIsNotAnswered) {
  const test::SilentPort port;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(AskNetwork({.url = port.Url(), .connect_limit = std::chrono::milliseconds(100)}).failed);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(1));
}

TEST(AskNetworkTest, AskNetworkEndsARequestWithoutAnAnswer) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body", .stall_at = 0}; });
  EXPECT_TRUE(AskNetwork({.url = server.Url(), .limit = std::chrono::milliseconds(200), .most_bytes = 100}).failed);
}

TEST_F(CprSessionTest, LeavesNoMemoryBehind) {
  constexpr int kTimes = 50;
  const auto make = [] {
    for (int i = 0; i < kTimes; ++i) {
      const CprSession session;
    }
  };
  make();
  const std::size_t before = mallinfo2().uordblks;
  make();
  EXPECT_LT(mallinfo2().uordblks, before + 100 * kTimes);
}

TEST(NetworkLibrariesTest, NetworkLibrariesTellsTheirVersions) {
  EXPECT_THAT(NetworkLibraries(), testing::MatchesRegex("libcurl [0-9.]+.*, OpenSSL [0-9.]+.*"));
}

TEST_F(CprSessionTest, DownloadToFileLeavesTheStreamOpen) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  std::ofstream file(path_, std::ios::binary);
  EXPECT_EQ(DownloadTo(file, server.Url()).status_code, 200);
  EXPECT_TRUE(file.is_open());
  EXPECT_EQ(ReadFile(path_), "body");
  file << " and more" << std::flush;
  EXPECT_EQ(ReadFile(path_), "body and more");
}

TEST_F(CprSessionTest, DownloadToFileTakesABodyOfUnknownLength) {
  const std::string body = PatternOf(100'000);
  for (const auto framing : {HttpResponse::Framing::kChunked, HttpResponse::Framing::kUntilClose}) {
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = body, .framing = framing}; });
    EXPECT_EQ(Download(server.Url()).status_code, 200);
    EXPECT_EQ(ReadFile(path_), body);
  }
}

TEST_F(CprSessionTest, DownloadToFileTakesNoMoreThanTheSettingsAllow) {
  HttpServer server([](const HttpRequest&) {
    return HttpResponse{.body = PatternOf(1000), .framing = HttpResponse::Framing::kChunked, .endless = true};
  });
  test::WriteFile(path::kPkgSetting, "download_limit=1500\n");
  const cpr::Response response = Download(server.Url());
  EXPECT_EQ(response.status_code, 0);
  EXPECT_EQ(response.error.message,
            "the file is over 1500 bytes, the download_limit of the settings: " + test::ErrorText(EFBIG));
  EXPECT_EQ(ReadFile(path_), "");
  std::filesystem::remove(path::kPkgSetting);
}

TEST_F(CprSessionTest, DownloadToFileCanBeRepeatedWithAnotherUrl) {
  HttpServer server([](const HttpRequest& request) { return HttpResponse{.body = request.target}; });
  EXPECT_EQ(Download(server.Url("/one")).status_code, 200);
  EXPECT_EQ(ReadFile(path_), "/one");
  EXPECT_EQ(Download(server.Url("/two")).status_code, 200);
  EXPECT_EQ(ReadFile(path_), "/two");
}

TEST_F(CprSessionTest, DownloadToFileAsksForTheBytesAsTheyAre) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{}; });
  EXPECT_EQ(Download(server.Url()).status_code, 200);
  EXPECT_EQ(server.Requests().at(0).Header("Accept-Encoding"), "");
}

TEST_F(CprSessionTest, DownloadToFileReturnsAStatusThatIsNoSuccess) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.status = 404, .body = "not here"}; });
  const cpr::Response response = Download(server.Url());
  EXPECT_EQ(response.status_code, 404);
  EXPECT_FALSE(response.error);
}

TEST_F(CprSessionTest, DownloadToFileFollowsTenRedirects) {
  HttpServer server([](const HttpRequest& request) {
    const std::size_t hops = request.target.size() - 1;
    return hops == 10 ? HttpResponse{.body = "arrived"}
                      : HttpResponse{.status = 301, .headers = {{"Location", request.target + "x"}}};
  });
  EXPECT_EQ(Download(server.Url("/")).status_code, 200);
  EXPECT_EQ(ReadFile(path_), "arrived");
  EXPECT_THAT(server.Requests(), SizeIs(11));
}

TEST_F(CprSessionTest, DownloadToFileGivesUpARedirectLoopAfterTen) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.status = 301, .headers = {{"Location", "/"}}}; });
  const cpr::Response response = Download(server.Url());
  EXPECT_EQ(response.status_code, 0);
  EXPECT_EQ(response.error.code, cpr::ErrorCode::TOO_MANY_REDIRECTS);
  EXPECT_THAT(server.Requests(), SizeIs(11));
}

TEST_F(CprSessionTest, DownloadToFileRefusesOtherProtocols) {
  const std::string secret = dir_.File("secret");
  test::WriteFile(secret, "secret");
  for (const std::string& url : {"file://" + secret, std::string("ftp://127.0.0.1/x"), std::string("gopher://h/")}) {
    const cpr::Response response = Download(url);
    EXPECT_EQ(response.status_code, 0) << url;
    EXPECT_EQ(response.error.code, cpr::ErrorCode::UNSUPPORTED_PROTOCOL) << url;
    EXPECT_EQ(ReadFile(path_), "") << url;
  }
}

TEST_F(CprSessionTest, DownloadToFileRefusesARedirectToOtherProtocols) {
  const std::string secret = dir_.File("secret");
  test::WriteFile(secret, "secret");
  for (const std::string& url : {"file://" + secret, std::string("ftp://127.0.0.1/x")}) {
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.status = 301, .headers = {{"Location", url}}}; });
    const cpr::Response response = Download(server.Url());
    EXPECT_EQ(response.status_code, 0) << url;
    EXPECT_EQ(response.error.code, cpr::ErrorCode::UNSUPPORTED_PROTOCOL) << url;
    EXPECT_EQ(ReadFile(path_), "") << url;
  }
}

TEST_F(CprSessionTest, DownloadToFileWithoutAUrlFails) {
  std::ofstream file(path_, std::ios::binary);
  const cpr::Response response = session_->DownloadToFile(file);
  EXPECT_EQ(response.status_code, 0);
  EXPECT_TRUE(response.error);
}

TEST_F(CprSessionTest, DownloadToFileReportsARefusedConnection) {
  const test::RefusingPort port;
  const cpr::Response response = Download(port.Url());
  EXPECT_EQ(response.status_code, 0);
  EXPECT_EQ(response.error.code, cpr::ErrorCode::COULDNT_CONNECT);
  EXPECT_THAT(response.error.message, testing::Not(IsEmpty()));
}

TEST_F(CprSessionTest, DownloadToFileReportsATruncatedBody) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "half", .claimed_length = 8}; });
  const cpr::Response response = Download(server.Url());
  EXPECT_EQ(response.status_code, 0);
  EXPECT_EQ(response.error.code, cpr::ErrorCode::PARTIAL_FILE);
}

TEST_F(CprSessionTest, DownloadToFileReportsAResetConnection) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = PatternOf(1000), .reset_at = 500}; });
  const cpr::Response response = Download(server.Url());
  EXPECT_EQ(response.status_code, 0);
  EXPECT_EQ(response.error.code, cpr::ErrorCode::RECV_ERROR);
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

TEST_F(CprSessionTest, DownloadToFileReportsAFullDisk) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{1'000'000}}) {
    HttpServer server([&](const HttpRequest&) { return HttpResponse{.body = PatternOf(size)}; });
    std::ofstream file("/dev/full", std::ios::binary);
    const cpr::Response response = DownloadTo(file, server.Url());
    EXPECT_EQ(response.status_code, 0) << size;
    EXPECT_EQ(response.error.code, cpr::ErrorCode::WRITE_ERROR) << size;
    EXPECT_EQ(response.error.message, "cannot write the file: " + test::ErrorText(ENOSPC)) << size;
  }
}

TEST_F(CprSessionTest, DownloadToFileReportsAStreamThatIsNotOpen) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  std::ofstream file(dir_.File("missing/body"), std::ios::binary);
  const cpr::Response response = DownloadTo(file, server.Url());
  EXPECT_EQ(response.status_code, 0);
  EXPECT_EQ(response.error.code, cpr::ErrorCode::WRITE_ERROR);
  EXPECT_EQ(response.error.message, "the file is not open: Bad file descriptor");
  EXPECT_THAT(server.Requests(), IsEmpty());
}

TEST_F(CprSessionTest, DownloadToFileWorksAgainAfterAFailure) {
  HttpServer server([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  std::ofstream full("/dev/full", std::ios::binary);
  EXPECT_EQ(DownloadTo(full, server.Url()).status_code, 0);
  EXPECT_EQ(Download(server.Url()).status_code, 200);
  EXPECT_EQ(ReadFile(path_), "body");
}

}  // namespace
}  // namespace orbamira::wrapper
