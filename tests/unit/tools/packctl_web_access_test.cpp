// Who may read what "packctl web" shows, and who may act on it.

#include <gmock/gmock.h>

#include <filesystem>
#include <set>
#include <stdexcept>
#include <utility>

#include "tests/support/test_root.h"
#include "tools/packctl/web/access.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

using Fields = std::map<std::string, std::string>;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr const char* kToken = "0123456789abcdef0123456789abcdef";

HttpRequest Request(const std::string& path, Fields fields, const std::string& local = "127.0.0.1:8080") {
  return {.method = "GET", .path = path, .query = "", .fields = std::move(fields), .body = "", .local = local};
}

int ReadingStatus(const HttpRequest& request, std::vector<std::string> names = {}) {
  const auto refusal = WebAccess(kToken, std::move(names)).RefuseReading(request);
  return refusal ? refusal->status : 200;
}

// What a page of ours sends, with some fields changed; an empty one is left out.
int ActingStatus(const Fields& changes) {
  Fields fields = {{"host", "127.0.0.1:8080"},
                   {"origin", "http://127.0.0.1:8080"},
                   {"sec-fetch-site", "same-origin"},
                   {"content-type", "application/json"},
                   {"authorization", std::string("Bearer ") + kToken}};
  for (const auto& [name, value] : changes) {
    fields[name] = value;
  }
  std::erase_if(fields, [](const auto& field) { return field.second.empty(); });
  const auto refusal = WebAccess(kToken, {}).RefuseActing(Request("/api/check", std::move(fields)));
  return refusal ? refusal->status : 200;
}

TEST(WebAccessTest, RefuseReadingKnowsThisHostByItsAddressAndAsLocalhost) {
  for (const char* host : {"127.0.0.1:8080", "localhost:8080", "LocalHost:8080"}) {
    EXPECT_EQ(ReadingStatus(Request("/", {{"host", host}})), 200) << host;
  }
  EXPECT_EQ(ReadingStatus(Request("/", {{"host", "[::1]:8080"}}, "[::1]:8080")), 200);
  EXPECT_EQ(ReadingStatus(Request("/", {{"host", "127.0.0.1"}}, "127.0.0.1:80")), 200);
  EXPECT_EQ(ReadingStatus(Request("/", {{"host", "192.0.2.7:8080"}}, "192.0.2.7:8080")), 200);
}

TEST(WebAccessTest, RefuseReadingRefusesEveryOtherHost) {
  for (const char* host :
       {"evil.example", "evil.example:8080", "127.0.0.1:8081", "127.0.0.1", "127.0.0.1:8080.evil.example", "localhost",
        "localhost.:8080", "", ":8080", "127.0.0.1:8080@evil.example"}) {
    EXPECT_EQ(ReadingStatus(Request("/", {{"host", host}})), 403) << host;
  }
  EXPECT_EQ(ReadingStatus(Request("/", {})), 403);
  EXPECT_EQ(ReadingStatus(Request("/", {{"host", "localhost:8080"}}, "192.0.2.7:8080")), 403);
  EXPECT_EQ(ReadingStatus(Request("/", {{"host", ""}}, "")), 403) << "a connection that is gone";
}

TEST(WebAccessTest, RefuseReadingKnowsTheNamesThatItWasGiven) {
  for (const char* host : {"nas.example", "nas.example:443", "NAS.example"}) {
    EXPECT_EQ(ReadingStatus(Request("/", {{"host", host}}), {"Nas.Example"}), 200) << host;
  }
  EXPECT_EQ(ReadingStatus(Request("/", {{"host", "other.nas.example"}}), {"nas.example"}), 403);
  EXPECT_EQ(ReadingStatus(Request("/", {{"host", "nas.example.evil.example"}}), {"nas.example"}), 403);
}

TEST(WebAccessTest, RefuseReadingLetsALinkFromElsewhereShowThePageButNotTheState) {
  for (const char* site : {"cross-site", "same-site", "other"}) {
    const Fields fields = {{"host", "127.0.0.1:8080"}, {"sec-fetch-site", site}};
    EXPECT_EQ(ReadingStatus(Request("/", fields)), 200) << site;
    EXPECT_EQ(ReadingStatus(Request("/api/state", fields)), 403) << site;
  }
  for (const char* site : {"same-origin", "none"}) {
    EXPECT_EQ(ReadingStatus(Request("/api/state", {{"host", "127.0.0.1:8080"}, {"sec-fetch-site", site}})), 200)
        << site;
  }
  EXPECT_EQ(ReadingStatus(Request("/api/state", {{"host", "127.0.0.1:8080"}, {"origin", "http://evil.example"}})), 403);
}

TEST(WebAccessTest, RefuseActingTakesWhatThePageSends) {
  EXPECT_EQ(ActingStatus({}), 200);
  EXPECT_EQ(ActingStatus({{"origin", ""}, {"sec-fetch-site", ""}}), 200) << "a program that is no browser";
  EXPECT_EQ(ActingStatus({{"origin", "https://127.0.0.1:8080"}}), 200) << "behind a web server with TLS";
  EXPECT_EQ(ActingStatus({{"authorization", std::string("bearer ") + kToken}}), 200);
  EXPECT_EQ(ActingStatus({{"content-type", "Application/JSON; charset=utf-8"}}), 200);
}

TEST(WebAccessTest, RefuseActingRefusesOtherSites) {
  for (const char* origin : {"http://evil.example", "http://127.0.0.1:8081", "http://localhost:8080", "null",
                             "http://127.0.0.1:8080.evil.example", "ftp://127.0.0.1:8080"}) {
    EXPECT_EQ(ActingStatus({{"origin", origin}}), 403) << origin;
  }
  for (const char* site : {"cross-site", "same-site", "anything"}) {
    EXPECT_EQ(ActingStatus({{"sec-fetch-site", site}}), 403) << site;
  }
  EXPECT_EQ(ActingStatus({{"host", "evil.example:8080"}, {"origin", "http://evil.example:8080"}}), 403);
}

TEST(WebAccessTest, RefuseActingRefusesWhatAFormCanSend) {
  for (const char* type : {"", "text/plain", "application/x-www-form-urlencoded", "multipart/form-data; boundary=x",
                           "application/jsonp", "text/plain; application/json"}) {
    EXPECT_EQ(ActingStatus({{"content-type", type}}), 415) << type;
  }
}

TEST(WebAccessTest, RefuseActingRefusesWithoutTheToken) {
  const std::string token = kToken;
  for (const std::string& given :
       std::vector<std::string>{"", token, "Basic " + token, "Bearer", "Bearer ", "Bearer " + token + "0",
                                "Bearer " + token.substr(1), "Bearer  " + token, "Bearer 1" + token.substr(1)}) {
    EXPECT_EQ(ActingStatus({{"authorization", given}}), 401) << given;
  }
}

TEST(MakeTokenTest, IsTwoHundredFiftySixBitsAndNeverTheSame) {
  std::set<std::string> tokens;
  for (int i = 0; i < 100; ++i) {
    tokens.insert(MakeToken());
  }
  EXPECT_EQ(tokens.size(), 100);
  for (const std::string& token : tokens) {
    EXPECT_THAT(token, MatchesRegex("[0-9a-f]{64}"));
  }
}

class ReadTokenTest : public testing::Test {
 protected:
  std::string Write(const std::string& text, fs::perms mode = fs::perms(0600)) const {
    std::string file = folder_.File("token");
    test::WriteFile(file, text);
    fs::permissions(file, mode);
    return file;
  }

  static std::string ErrorOf(const std::string& file) {
    try {
      static_cast<void>(ReadToken(file));
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  }

  test::TempDir folder_;
};

TEST_F(ReadTokenTest, TakesTheLineThatIsThere) {
  EXPECT_EQ(ReadToken(Write(kToken)), kToken);
  EXPECT_EQ(ReadToken(Write(std::string(kToken) + "\n")), kToken);
  EXPECT_EQ(ReadToken(Write(std::string(256, 'x'))), std::string(256, 'x'));
  EXPECT_EQ(ReadToken(Write(kToken, fs::perms(0400))), kToken);
}

TEST_F(ReadTokenTest, RefusesAFileThatOthersMayUse) {
  for (const unsigned mode : {0640U, 0604U, 0620U, 0601U}) {
    EXPECT_THAT(ErrorOf(Write(kToken, fs::perms(mode))), HasSubstr("(mode 0600)")) << std::oct << mode;
  }
}

TEST_F(ReadTokenTest, RefusesWhatIsNoToken) {
  for (const std::string& text : {std::string(), std::string("\n"), std::string(31, 'x'), std::string(257, 'x'),
                                  std::string(32, ' '), std::string(kToken) + "\n\n", std::string(kToken) + "\r\n"}) {
    EXPECT_THAT(ErrorOf(Write(text)), HasSubstr("must have 32 to 256")) << text;
  }
}

TEST_F(ReadTokenTest, RefusesWhatIsNoFile) {
  EXPECT_THAT(ErrorOf(folder_.File("none")), HasSubstr("cannot read the token file"));
  fs::create_symlink(Write(kToken), folder_.File("link"));
  EXPECT_THAT(ErrorOf(folder_.File("link")), HasSubstr("cannot read the token file"));
  EXPECT_THAT(ErrorOf(folder_.path()), HasSubstr("must be a file"));
}

}  // namespace
}  // namespace orbamira::packctl
