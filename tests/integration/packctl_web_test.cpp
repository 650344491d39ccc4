// "packctl web" as its clients meet it: over real connections, beside real checks and updates.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/appliance.h"
#include "tests/support/await.h"
#include "tests/support/test_root.h"
#include "tools/http/server.h"
#include "tools/packctl/web/state.h"
#include "updater/pack_status_helper.h"
#include "updater/update_lock.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using packctl::WebServer;
using test::Appliance;
using test::Await;
using test::ProgramResult;
using test::RunningProgram;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  stream >> value;
  return value;
}

struct Answer {
  int status = 0;         ///< 0 when the connection ended without an answer
  bool is_reset = false;  ///< the connection ended by a reset, which on its way can overtake the answer
  std::string head;
  std::string body;
};

/// One connection, which sends what it is told to.
class Client {
 public:
  explicit Client(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // NOLINTNEXTLINE: what the interface is made for
    if (connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::system_error(errno, std::generic_category(), "connect");
    }
  }

  /// False when the server is gone.
  bool Send(const std::string& bytes) const {
    return send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }

  /// Whether an answer, or the end of the connection, comes within this time.
  [[nodiscard]] bool IsAnswered(std::chrono::milliseconds within) const {
    pollfd waited{.fd = fd_.get(), .events = POLLIN, .revents = 0};
    return poll(&waited, 1, static_cast<int>(within.count())) > 0;
  }

  [[nodiscard]] Answer Receive() const {
    std::string bytes;
    std::array<char, 4096> buffer{};
    ssize_t length = 0;
    while ((length = recv(fd_.get(), buffer.data(), buffer.size(), 0)) > 0) {
      bytes.append(buffer.data(), static_cast<std::size_t>(length));
    }
    const std::size_t end = bytes.find("\r\n\r\n");
    if (end == std::string::npos) {
      return {};
    }
    return {std::stoi(bytes.substr(9, 3)), length < 0, bytes.substr(0, end + 2), bytes.substr(end + 4)};
  }

 private:
  UniqueFd fd_;
};

class PackctlWebTest : public testing::Test {
 protected:
  PackctlWebTest() { appliance_.Publish("1.0", "the first codec"); }

  static std::vector<std::string> Web(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"web", "--json"});
    return Appliance::PackctlCommand(more);
  }

  void StartProgram(const std::vector<std::string>& command) {
    web_ = std::make_unique<RunningProgram>(command);
    Await([&] { return web_->Output().ends_with('\n'); });
    const Json::Value started = Parsed(web_->Output());
    const std::string address = started["address"].asString();
    port_ = std::stoi(address.substr(address.rfind(':') + 1));
    token_ = started["token"].asString();
  }

  void Start(const std::vector<std::string>& more = {}) { StartProgram(Web(more)); }

  [[nodiscard]] std::string Host() const { return "127.0.0.1:" + std::to_string(port_); }

  using Fields = std::map<std::string, std::string>;

  [[nodiscard]] std::string Request(const std::string& line, Fields fields = {}, const std::string& body = "") const {
    fields.emplace("Host", Host());
    std::string text = line + " HTTP/1.1\r\n";
    for (const auto& [name, value] : fields) {
      if (!value.empty()) {
        text.append(name).append(": ").append(value).append("\r\n");
      }
    }
    return text + (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body;
  }

  [[nodiscard]] Answer Ask(const std::string& line, const Fields& fields = {}, const std::string& body = "") const {
    const Client client(port_);
    client.Send(Request(line, fields, body));
    return client.Receive();
  }

  /// What the page sends for an action, with some fields changed; an empty one is left out.
  [[nodiscard]] Answer Act(const std::string& action, const Fields& changes = {}) const {
    Fields fields = {{"Origin", "http://" + Host()},
                     {"Sec-Fetch-Site", "same-origin"},
                     {"Content-Type", "application/json"},
                     {"Authorization", "Bearer " + token_}};
    for (const auto& [name, value] : changes) {
      fields[name] = value;
    }
    return Ask("POST /api/" + action, fields, "{}");
  }

  [[nodiscard]] Json::Value History() const { return Parsed(Ask("GET /api/history").body)["entries"]; }

  Json::Value State(const std::string& after = "") const { return Parsed(Ask("GET /api/state?after=" + after).body); }

  /// The first state for which the condition holds.
  Json::Value AwaitState(const std::function<bool(const Json::Value&)>& condition) const {
    Json::Value state;
    Await([&] {
      state = State(state["tag"].asString());
      return condition(state);
    });
    return state;
  }

  Json::Value AwaitAction(const std::string& command) const {
    return AwaitState([&](const Json::Value& state) {
      return state["action"]["command"] == command && !state["action"]["running"].asBool() &&
             !state["at_work"].asBool();
    })["action"];
  }

  /// From now on the package's download stops half way, until the server is told to release it.
  void StallDownloads() {
    appliance_.SetFault([](const test::HttpRequest& request, test::HttpResponse& response) {
      if (request.target.find(".opk") != std::string::npos) {
        response.stall_at = response.body.size() / 2;
      }
    });
  }

  static std::unique_ptr<updater::IPackStatusHelper> Status() { return updater::PackStatusHelper::Create(); }

  Appliance appliance_;
  std::unique_ptr<RunningProgram> web_;
  int port_ = 0;
  std::string token_;
};

TEST_F(PackctlWebTest, ServesThePageAndItsPartsWithTheirTypes) {
  Start();
  for (const auto& [asked, file, type] : {std::tuple("/", "page.html", "text/html; charset=utf-8"),
                                          std::tuple("/page.css", "page.css", "text/css; charset=utf-8"),
                                          std::tuple("/hero.css", "hero.css", "text/css; charset=utf-8"),
                                          std::tuple("/page.js", "page.js", "text/javascript; charset=utf-8"),
                                          std::tuple("/words.js", "words.js", "text/javascript; charset=utf-8")}) {
    const Answer answer = Ask(std::string("GET ") + asked);
    EXPECT_EQ(answer.status, 200) << asked;
    EXPECT_EQ(answer.body, test::ReadFile(fs::path(ORBAMIRA_TEST_WEB_PAGE) / file));
    EXPECT_THAT(answer.head, HasSubstr(std::string("\r\nContent-Type: ") + type + "\r\n"));
    const Answer head = Ask(std::string("HEAD ") + asked);
    EXPECT_EQ(head.head, answer.head);
    EXPECT_EQ(head.body, "");
  }
  EXPECT_THAT(Ask("GET /api/state").head, HasSubstr("\r\nContent-Type: application/json\r\n"));
}

TEST_F(PackctlWebTest, ServesTheWordsInTheLanguageThatTheBrowserLikesBest) {
  const fs::path folder = fs::path(path::kDefaultPkgSetting).parent_path() / "web";
  test::WriteFile(folder / "words.de.js", "deutsch");
  test::WriteFile(folder / "words.fr.js", "francais");
  Start();
  const std::string english = test::ReadFile(folder / "words.js");
  for (const auto& [languages, words] :
       {std::pair("de-CH,de;q=0.9,en;q=0.8", std::string("deutsch")),
        std::pair("it, FR;q=0.7, de;q=0.3", std::string("francais")), std::pair("en-GB,de;q=0.9", english),
        std::pair("it", english), std::pair("../../secret", english), std::pair(",;-,", english)}) {
    EXPECT_EQ(Ask("GET /words.js", {{"Accept-Language", languages}}).body, words) << languages;
  }
  EXPECT_EQ(Ask("GET /words.js").body, english);
  EXPECT_EQ(Ask("GET /page.js", {{"Accept-Language", "de"}}).body, test::ReadFile(folder / "page.js"));
}

TEST_F(PackctlWebTest, EveryAnswerKeepsOtherSitesOut) {
  Start();
  const Fields elsewhere = {{"Origin", "http://evil.example"}};
  for (const Answer& answer : {Ask("GET /"), Ask("GET /api/state"), Ask("GET /none"), Ask("GET /api/state", elsewhere),
                               Act("check", elsewhere), Ask("OPTIONS /api/check", elsewhere), Ask("nonsense")}) {
    EXPECT_THAT(answer.head,
                AllOf(HasSubstr("\r\nContent-Security-Policy: default-src 'none'; script-src 'self'; "),
                      HasSubstr("frame-ancestors 'none'"), HasSubstr("\r\nX-Content-Type-Options: nosniff\r\n"),
                      HasSubstr("\r\nReferrer-Policy: no-referrer\r\n"), HasSubstr("\r\nCache-Control: no-store\r\n"),
                      HasSubstr("\r\nCross-Origin-Resource-Policy: same-origin\r\n"), Not(HasSubstr("Access-Control")),
                      Not(HasSubstr("Set-Cookie"))));
  }
}

TEST_F(PackctlWebTest, AnswersUnderItsOwnNamesAlone) {
  Start({"--host-name", "nas.example", "--host-name", "nas.local"});
  for (const std::string& host :
       {Host(), "localhost:" + std::to_string(port_), std::string("nas.example"), std::string("nas.local:8443")}) {
    EXPECT_EQ(Ask("GET /api/state", {{"Host", host}}).status, 200) << host;
  }
  for (const char* line : {"GET /", "GET /page.js", "GET /api/state", "POST /api/check"}) {
    for (const char* host : {"evil.example", "", "127.0.0.1:1", "[::1]"}) {
      EXPECT_EQ(Ask(line, {{"Host", host}}).status, 403) << line << ' ' << host;
    }
  }
}

TEST_F(PackctlWebTest, KnowsNoOtherPathsAndMethods) {
  Start();
  for (const char* path : {"/none", "/page.html", "/api", "/api/", "/api/state/", "/api/sign-in", "//",
                           "/../etc/passwd", "/%2e%2e/etc/passwd", "/api/check/"}) {
    EXPECT_EQ(Ask(std::string("GET ") + path).status, 404) << path;
  }
  for (const char* method : {"GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE"}) {
    const Answer answer = Ask(std::string(method) + " /api/update", {{"Authorization", "Bearer " + token_}});
    EXPECT_EQ(answer.status, 405) << method;
    EXPECT_THAT(answer.head, HasSubstr("\r\nAllow: POST\r\n"));
  }
  for (const char* path : {"/", "/page.css", "/api/state", "/api/history"}) {
    const Answer answer = Ask(std::string("POST ") + path);
    EXPECT_EQ(answer.status, 405) << path;
    EXPECT_THAT(answer.head, HasSubstr("\r\nAllow: GET, HEAD\r\n"));
  }
  EXPECT_TRUE(appliance_.server().Requests().empty());
  EXPECT_TRUE(State()["action"].isNull());
}

TEST_F(PackctlWebTest, RefusesWhatIsTooLongOrNotUnderstood) {
  Start();
  const auto status_of = [&](const std::string& bytes) {
    const Client client(port_);
    client.Send(bytes);
    const Answer answer = client.Receive();
    EXPECT_FALSE(answer.is_reset);
    return answer.status;
  };
  EXPECT_EQ(status_of("nonsense\r\n\r\n"), 400);
  EXPECT_EQ(status_of(Request("GET /", {{"Long", std::string(9000, 'x')}})), 431);
  EXPECT_EQ(status_of(std::string(100'000, 'x')), 431) << "told although more is on its way";
  EXPECT_EQ(status_of(Request("POST /api/check", {}, std::string(2000, 'x'))), 413);
  EXPECT_EQ(status_of(Request("POST /api/check", {{"Content-Length", "5000000000"}})), 413);
  EXPECT_EQ(status_of(Request("POST /api/check", {{"Content-Length", "100000000000000000000"}})), 413);
  EXPECT_EQ(status_of(Request("POST /api/check", {{"Transfer-Encoding", "chunked"}})), 501);
  EXPECT_EQ(Ask("GET /").status, 200);
}

TEST_F(PackctlWebTest, ActsForNobodyElse) {
  Start();
  struct Refused {
    Fields changes;
    int status;
    std::string code;
  };
  const std::vector<Refused> refused = {
      {{{"Authorization", ""}}, 401, "no_token"},
      {{{"Authorization", "Bearer " + std::string(64, '0')}}, 401, "wrong_token"},
      {{{"Authorization", "Basic " + token_}}, 401, "no_token"},
      {{{"Content-Type", ""}}, 415, "not_json"},
      {{{"Content-Type", "text/plain"}}, 415, "not_json"},
      {{{"Content-Type", "application/x-www-form-urlencoded"}}, 415, "not_json"},
      {{{"Origin", "http://evil.example"}}, 403, "other_site"},
      {{{"Origin", "null"}}, 403, "other_site"},
      {{{"Sec-Fetch-Site", "cross-site"}}, 403, "other_site"},
      {{{"Sec-Fetch-Site", "same-site"}}, 403, "other_site"},
      {{{"Host", "evil.example"}, {"Origin", "http://evil.example"}}, 403, "wrong_host"},
  };
  for (const auto& [changes, status, code] : refused) {
    for (const char* action :
         {"unlock", "check", "download", "install", "update", "reinstall", "rollback", "remove", "recover", "doctor"}) {
      const Answer answer = Act(action, changes);
      EXPECT_EQ(answer.status, status) << changes.begin()->first << ": " << changes.begin()->second;
      EXPECT_EQ(Parsed(answer.body)["error"]["code"], code);
      EXPECT_FALSE(Parsed(answer.body)["error"]["message"].asString().empty());
    }
  }
  EXPECT_TRUE(State()["action"].isNull());
  EXPECT_TRUE(appliance_.server().Requests().empty());
}

// A count of wrong tokens would let anybody of this machine keep the owner from acting.
TEST_F(PackctlWebTest, WrongTokensKeepTheOwnerFromNothing) {
  Start();
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(Ask("POST /api/check", {{"Authorization", "Bearer x"}, {"Content-Type", "application/json"}}).status,
              401);
  }
  EXPECT_EQ(Act("check").status, 202);
}

TEST_F(PackctlWebTest, ChecksAndUpdates) {
  Start();
  EXPECT_EQ(State()["status"], "lost");
  const Answer check = Act("check");
  EXPECT_EQ(check.status, 202) << check.body;
  EXPECT_EQ(Parsed(check.body)["started"], "check");
  EXPECT_EQ(AwaitAction("check")["result"], "new_pack");
  EXPECT_EQ(AwaitState([](const Json::Value& state) { return !state["offer"].isNull(); })["offer"]["version"], "1.0");
  EXPECT_EQ(Act("update").status, 202);
  const Json::Value action = AwaitAction("update");
  EXPECT_EQ(action["result"], "done");
  EXPECT_EQ(action["exit"], 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "the first codec");
  Await([&] { return History().size() == 2; });
  EXPECT_EQ(History()[1]["command"], "update");
  EXPECT_EQ(State()["installed"]["version"], "1.0");
}

TEST_F(PackctlWebTest, TellsOfTheHistoryByATagOfItsOwn) {
  Start();
  const std::string tag = State()["history_tag"].asString();
  Status()->SetAsNeedDownload("3.0");
  EXPECT_EQ(AwaitState([](const Json::Value& now) { return now["status"] == "need_download"; })["history_tag"], tag);
  ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  AwaitState([&](const Json::Value& now) { return now["history_tag"] != tag; });
  EXPECT_EQ(History()[0]["command"], "update");
}

TEST_F(PackctlWebTest, DownloadsInstallsAndRemoves) {
  Start();
  EXPECT_EQ(Act("unlock").status, 200);
  EXPECT_FALSE(State()["why_not"]["download"].isNull());
  EXPECT_EQ(Act("download").status, 409) << "nothing is on offer";
  ASSERT_EQ(Appliance::Packctl({"check"}).status, 0);
  for (const char* action : {"download", "install", "reinstall", "remove"}) {
    AwaitState([&](const Json::Value& now) { return now["why_not"][action].isNull(); });
    ASSERT_EQ(Act(action).status, 202) << action;
    EXPECT_EQ(AwaitAction(action)["result"], "done") << action;
    EXPECT_EQ(Appliance::InstalledPayload() == "the first codec", std::string(action).ends_with("install")) << action;
  }
}

TEST_F(PackctlWebTest, GoesBackToThePreviousPack) {
  ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  Start();
  EXPECT_EQ(State()["why_not"]["rollback"]["code"], "no_previous_pack");
  const Answer refused = Act("rollback");
  EXPECT_EQ(refused.status, 409);
  EXPECT_EQ(Parsed(refused.body)["error"]["code"], "no_previous_pack");
  appliance_.Publish("2.0", "the second codec");
  ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  AwaitState([](const Json::Value& now) { return now["previous_version"] == "1.0"; });
  ASSERT_EQ(Act("rollback").status, 202);
  EXPECT_EQ(AwaitAction("rollback")["result"], "done");
  EXPECT_EQ(Appliance::InstalledPayload(), "the first codec");
  const Json::Value state = AwaitState([](const Json::Value& now) { return !now["rejected"].empty(); });
  EXPECT_EQ(state["rejected"][0]["version"], "2.0");
  EXPECT_EQ(state["rejected"][0]["code"], "rolled_back");
  EXPECT_EQ(state["why_not"]["rollback"]["code"], "no_previous_pack");
}

TEST_F(PackctlWebTest, RecoversWhatWasInterrupted) {
  Status()->SetAsDownloadInstalling(512, 1024);
  Start();
  EXPECT_TRUE(State()["interrupted"].asBool());
  EXPECT_EQ(Act("update").status, 409);
  ASSERT_EQ(Act("recover").status, 202);
  EXPECT_EQ(AwaitAction("recover")["result"], "done");
  EXPECT_FALSE(AwaitState([](const Json::Value& now) { return !now["under_way"].asBool(); })["interrupted"].asBool());
}

TEST_F(PackctlWebTest, KeepsWhatTheDoctorFound) {
  Start();
  EXPECT_TRUE(State()["diagnosis"].isNull());
  test::WriteFile(path::kPkgSetting, "pack_update_server=\"nowhere\"\n");
  ASSERT_EQ(Act("doctor").status, 202);
  EXPECT_EQ(AwaitAction("doctor")["result"], "faults");
  ASSERT_EQ(Act("check").status, 202);
  AwaitAction("check");
  const Json::Value diagnosis = State()["diagnosis"];
  EXPECT_GT(diagnosis["time"].asInt64(), 0);
  ASSERT_FALSE(diagnosis["findings"].empty());
  EXPECT_EQ(diagnosis["findings"][0]["check"], "settings");
}

TEST_F(PackctlWebTest, TellsHowAnActionEndedThatTheHistoryKeepsSilentAbout) {
  ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  Start();
  ASSERT_EQ(Act("check").status, 202);
  const Json::Value action = AwaitAction("check");
  EXPECT_EQ(action["result"], "nothing_new");
  EXPECT_EQ(action["exit"], 2);
  EXPECT_EQ(History().size(), 1U);
}

TEST_F(PackctlWebTest, TellsWhyAnActionFailed) {
  appliance_.SetFault([](const test::HttpRequest&, test::HttpResponse& response) { response.status = 500; });
  Start();
  ASSERT_EQ(Act("check").status, 202);
  const Json::Value action = AwaitAction("check");
  EXPECT_EQ(action["result"], "failed");
  EXPECT_EQ(action["exit"], 1);
  ASSERT_FALSE(action["problems"].empty());
  EXPECT_THAT(action["problems"][0].asString(), HasSubstr("the update server refuses the request (500)"));
  EXPECT_EQ(action["error"]["code"], "server_refused");
}

TEST_F(PackctlWebTest, ShowsToWhoMayNotChangeAnythingAndTellsWhyAnActionEnded) {
  fs::create_directories(path::kPackctlLock);  // which nobody can open as the file that it should be
  Start();
  EXPECT_EQ(State()["status"], "lost");
  ASSERT_EQ(Act("update").status, 202);
  const Json::Value action = AwaitAction("update");
  EXPECT_EQ(action["exit"], 1);
  EXPECT_THAT(action["problems"][0].asString(), StartsWith("Cannot open the lock "));
}

TEST_F(PackctlWebTest, RefusesASecondActionWhileOneIsAtWork) {
  StallDownloads();
  Start();
  ASSERT_EQ(Act("update").status, 202);
  for (const char* action : {"check", "update"}) {
    const Answer answer = Act(action);
    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(Parsed(answer.body)["error"]["code"], "busy");
    EXPECT_EQ(Parsed(answer.body)["error"]["message"], "packctl update is at work");
  }
  const Json::Value state = AwaitState([](const Json::Value& now) { return now["progress"]["percent"].asInt() > 0; });
  EXPECT_EQ(state["status"], "downloading_installing");
  EXPECT_TRUE(state["at_work"].asBool());
  for (const Json::Value& why_not : state["why_not"]) {
    EXPECT_EQ(why_not["code"], "busy");
    EXPECT_EQ(why_not["message"], "packctl update is at work");
  }
  appliance_.server().Release();
  EXPECT_EQ(AwaitAction("update")["result"], "done");
  EXPECT_TRUE(State()["why_not"]["update"].isNull());
}

TEST_F(PackctlWebTest, RefusesAnActionWhileAnotherPackctlIsAtWork) {
  Start();
  {
    const updater::UpdateLock lock;
    const Answer answer = Act("check");
    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(Parsed(answer.body)["error"]["code"], "busy");
    EXPECT_EQ(Parsed(answer.body)["error"]["message"], "another program is at work");
  }
  EXPECT_EQ(Act("check").status, 202);
  AwaitAction("check");
}

TEST_F(PackctlWebTest, RefusesAnUpdateThatTheStatusForbids) {
  Status()->SetAsDownloadFailed();
  Start();
  const Json::Value state = State();
  EXPECT_TRUE(state["why_not"]["check"].isNull());
  const Answer answer = Act("update");
  EXPECT_EQ(answer.status, 409);
  EXPECT_EQ(Parsed(answer.body)["error"], state["why_not"]["update"]);
  EXPECT_THAT(state["why_not"]["update"]["message"].asString(),
              HasSubstr("download_failed (the last download failed)"));
}

TEST_F(PackctlWebTest, AnUpdateGoesOnWhenItsServerIsEnded) {
  StallDownloads();
  Start();
  ASSERT_EQ(Act("update").status, 202);
  AwaitState([](const Json::Value& now) { return now["progress"]["percent"].asInt() > 0; });
  const auto updater = packctl::HolderOf(path::kPackctlLock);
  ASSERT_TRUE(updater);
  EXPECT_EQ(getsid(*updater), *updater) << "what ends our session must not reach it";
  const Client waiting(port_);
  waiting.Send(Request("GET /api/state?after=" + State()["tag"].asString()));
  const Client silent(port_);
  const Clock::time_point begin = Clock::now();
  web_->Signal(SIGTERM);
  const ProgramResult result = web_->Wait();
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  appliance_.server().Release();
  Await([] { return Appliance::InstalledPayload() == "the first codec"; });
  Await([] { return test::ReadFile(path::kHistoryFile).find("\"update\"") != std::string::npos; });
}

TEST_F(PackctlWebTest, WaitsForAChangeWhenItIsAsked) {
  Start();
  const Json::Value state = State();
  const Client client(port_);
  client.Send(Request("GET /api/state?after=" + state["tag"].asString()));
  EXPECT_FALSE(client.IsAnswered(std::chrono::milliseconds(300)));
  Status()->SetAsNeedDownload("3.0");
  const Json::Value changed = Parsed(client.Receive().body);
  EXPECT_EQ(changed["status"], "need_download");
  EXPECT_NE(changed["tag"], state["tag"]);
  EXPECT_EQ(State("of-another-run-1")["status"], "need_download") << "at once";
}

TEST_F(PackctlWebTest, TheOldestWhoWaitsIsAnsweredWhenTooManyDo) {
  Start();
  const std::string request = Request("GET /api/state?after=" + State()["tag"].asString());
  std::vector<std::unique_ptr<Client>> clients;
  for (std::size_t i = 0; i < WebServer::kMaxWaiting; ++i) {
    clients.push_back(std::make_unique<Client>(port_));
    clients.back()->Send(request);
    // Answered means that those before it were read.
    ASSERT_EQ(Ask("GET /none").status, 404);
  }
  EXPECT_FALSE(clients.front()->IsAnswered(std::chrono::milliseconds(0)));
  const Client more(port_);
  more.Send(request);
  EXPECT_EQ(clients.front()->Receive().status, 200);
  EXPECT_FALSE(clients.at(1)->IsAnswered(std::chrono::milliseconds(0)));
  EXPECT_FALSE(more.IsAnswered(std::chrono::milliseconds(0)));
}

TEST_F(PackctlWebTest, SilentClientsKeepNobodyWaiting) {
  Start();
  std::vector<std::unique_ptr<Client>> silent;
  for (std::size_t i = 0; i < 3 * WebServer::kMaxClients; ++i) {
    silent.push_back(std::make_unique<Client>(port_));
    silent.back()->Send("GET / HTTP/1.1\r\nHost:");
  }
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(Ask("GET /").status, 200);
  EXPECT_LT(Clock::now() - begin, WebServer::kPatience / 2);
  EXPECT_TRUE(silent.front()->IsAnswered(std::chrono::milliseconds(0))) << "it had to make room";
  EXPECT_EQ(silent.front()->Receive().status, 0);
}

TEST_F(PackctlWebTest, AClientThatSendsALittleNowAndThenIsNotHeardForEver) {
  Start();
  const Client client(port_);
  client.Send("GET / HTTP/1.1\r\n");
  const Clock::time_point begin = Clock::now();
  // The wait for an answer is the pause between two fields.
  while (!client.IsAnswered(std::chrono::milliseconds(200))) {
    client.Send("A: b\r\n");
    ASSERT_LT(Clock::now() - begin, 2 * WebServer::kPatience);
  }
  EXPECT_EQ(client.Receive().status, 0);
  EXPECT_GE(Clock::now() - begin, WebServer::kPatience / 2);
}

TEST_F(PackctlWebTest, ServesManyClientsAtATime) {
  Start();
  for (int round = 0; round < 5; ++round) {
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < WebServer::kMaxClients / 2; ++i) {
      clients.push_back(std::make_unique<Client>(port_));
      clients.back()->Send(Request("GET /page.js"));
    }
    for (const auto& client : clients) {
      EXPECT_EQ(client->Receive().body, test::ReadFile(fs::path(ORBAMIRA_TEST_WEB_PAGE) / "page.js"));
    }
  }
}

TEST_F(PackctlWebTest, SleepsWhileNothingChanges) {
  Start();
  State();
  // Each thread waits in poll(): one without end, one for the minute after which it looks on its own.
  const fs::path tasks = "/proc/" + std::to_string(web_->pid()) + "/task";
  Await([&] {
    std::multiset<std::string> timeouts;
    for (const auto& task : fs::directory_iterator(tasks)) {
      std::istringstream call(test::ReadFile(task.path() / "syscall"));
      std::string number;
      std::string descriptors;
      std::string count;
      std::string timeout;
      call >> number >> descriptors >> count >> timeout;
#ifdef SYS_poll
      timeouts.insert(number == std::to_string(SYS_poll) ? timeout : "at work");
#else
      timeouts.insert(number == std::to_string(SYS_ppoll) ? timeout : "at work");
#endif
    }
#ifdef SYS_poll
    return timeouts == std::multiset<std::string>{"0xea60", "0xffffffff"} ||
           timeouts == std::multiset<std::string>{"0xea60", "0xffffffffffffffff"};
#else
    return timeouts.size() == 2 && timeouts.count("at work") == 0;
#endif
  });
}

TEST_F(PackctlWebTest, ShowsTheRestWhenTheRecordCannotBeRead) {
  ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  Start();
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
  const Json::Value state = AwaitState([](const Json::Value& now) { return now["status"].isNull(); });
  EXPECT_EQ(state["installed"]["version"], "1.0");
  EXPECT_EQ(state["problems"][0], "the recorded status cannot be read; \"packctl recover\" mends it");
  EXPECT_EQ(Act("update").status, 409);
  fs::remove(path::kPackStatusFile);
  EXPECT_EQ(AwaitState([](const Json::Value& now) { return !now["status"].isNull(); })["status"], "lost");
}

TEST_F(PackctlWebTest, ShowsTheRestWhenTheRequirementsCannotBeRead) {
  ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  test::WriteFile(path::kCodecRequirementsPath, "{");
  Start();
  const Json::Value state = State();
  EXPECT_TRUE(state["requested"].isNull());
  EXPECT_TRUE(state["installed"]["codecs"].isNull());
  EXPECT_EQ(state["installed"]["version"], "1.0");
  EXPECT_EQ(state["problems"][state["problems"].size() - 1], "cannot tell which codecs applications ask for");
}

TEST_F(PackctlWebTest, ServesAndEndsWhileAnotherKeepsTheLockOfTheRecord) {
  const store::FileLock lock(path::kPackStatusLock);
  Start();
  EXPECT_EQ(Ask("GET /").status, 200);
  const Client client(port_);
  client.Send(Request("GET /api/state"));
  EXPECT_FALSE(client.IsAnswered(std::chrono::milliseconds(300)));
  EXPECT_EQ(Ask("GET /page.css").status, 200);
  web_->Signal(SIGINT);
  EXPECT_EQ(web_->Wait().status, 0);
}

TEST_F(PackctlWebTest, AnOutputThatTakesNothingIsAFailure) {
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  RunningProgram web(Web(), full.get());
  const ProgramResult result = web.Wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "packctl: cannot write to the standard output\n");
}

TEST_F(PackctlWebTest, PrintsALinkWithTheTokenAndNothingElse) {
  RunningProgram web(Appliance::PackctlCommand({"web"}));
  Await([&] { return web.Output().find("#token=") != std::string::npos && web.Output().ends_with('\n'); });
  EXPECT_THAT(web.Output(),
              testing::MatchesRegex("Address: (http://127\\.0\\.0\\.1:[0-9]+/)\n"
                                    "With the right to act: http://127\\.0\\.0\\.1:[0-9]+/#token=[0-9a-f]+\n"));
  web.Signal(SIGTERM);
  EXPECT_EQ(web.Wait().errors, "");
}

TEST_F(PackctlWebTest, TakesTheTokenFromAFileAndDoesNotPrintIt) {
  const std::string token = "a-token-of-thirty-two-letters-or-more";
  const std::string file = test::Root() / "token";
  test::WriteFile(file, token + "\n");
  fs::permissions(file, fs::perms(0600));
  Start({"--token-file", file});
  EXPECT_THAT(web_->Output(), Not(HasSubstr(token)));
  EXPECT_EQ(Act("check").status, 401);
  token_ = token;
  EXPECT_EQ(Act("check").status, 202);
  AwaitAction("check");
}

TEST_F(PackctlWebTest, DoesNotStartWithoutWhatItNeeds) {
  Start();
  const auto errors = [](const std::vector<std::string>& more) {
    const ProgramResult result = RunningProgram(Web(more)).Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(Parsed(result.output)["result"], "failed");
    return result.errors;
  };
  EXPECT_THAT(errors({"--port", std::to_string(port_)}), HasSubstr("Cannot listen at 127.0.0.1, port "));
  EXPECT_THAT(errors({"--listen", "nas.example"}), HasSubstr("No address to listen at: nas.example"));
  EXPECT_THAT(errors({"--token-file", "/none"}), HasSubstr("Cannot read the token file /none"));
  fs::remove_all(fs::path(path::kDefaultPkgSetting).parent_path() / "web");
  EXPECT_THAT(errors({}), HasSubstr("Cannot read the page "));
  EXPECT_EQ(RunningProgram(Web({"--port", "65536"})).Wait().status, 64);
}

/// A socket of loopback that listens, as systemd keeps one.
UniqueFd KeptSocket() {
  UniqueFd kept(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // NOLINTNEXTLINE: what the interface is made for
  if (bind(kept.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(kept.get(), 8) != 0) {
    throw std::system_error(errno, std::generic_category(), "listen");
  }
  return kept;
}

/// The command with the descriptor handed over as systemd does it: as number 3, for this process.
std::vector<std::string> WithSocket(const UniqueFd& kept, const std::vector<std::string>& command,
                                    const std::string& pid = "$$") {
  fcntl(kept.get(), F_SETFD, 0);
  const std::string script =
      "exec 3<&" + std::to_string(kept.get()) + "; LISTEN_PID=" + pid + R"( LISTEN_FDS=1 exec "$@")";
  std::vector<std::string> line = {"/bin/bash", "-c", script, "bash"};
  line.insert(line.end(), command.begin(), command.end());
  return line;
}

TEST_F(PackctlWebTest, ServesAtTheSocketThatSystemdKeeps) {
  const UniqueFd kept = KeptSocket();
  StartProgram(WithSocket(kept, Web()));
  EXPECT_EQ(Ask("GET /").status, 200);
  ASSERT_TRUE(State()["server"]["port_is_held"].asBool());
  const passwd* const user = getpwuid(geteuid());
  EXPECT_EQ(State()["server"]["user"].asString(), user == nullptr ? std::to_string(geteuid()) : user->pw_name);

  // While the server is down, nobody else can take the port, and the next server answers the waiting request.
  web_->Signal(SIGTERM);
  web_->Wait();
  EXPECT_THAT(RunningProgram(Web({"--port", std::to_string(port_)})).Wait().errors, HasSubstr("Cannot listen at "));
  const Client early(port_);
  ASSERT_TRUE(early.Send(Request("GET /")));
  const int port = port_;
  StartProgram(WithSocket(kept, Web()));
  ASSERT_EQ(port_, port);
  ASSERT_TRUE(early.IsAnswered(std::chrono::seconds(40)));
  EXPECT_EQ(early.Receive().status, 200);
}

TEST_F(PackctlWebTest, TakesNoSocketThatIsNotMeantForIt) {
  const UniqueFd kept = KeptSocket();
  StartProgram(WithSocket(kept, Web(), "1"));
  EXPECT_FALSE(State()["server"]["port_is_held"].asBool());
  const UniqueFd file(open("/dev/null", O_RDWR | O_CLOEXEC));
  EXPECT_THAT(RunningProgram(WithSocket(file, Web())).Wait().errors, HasSubstr("no listening socket"));
}

/// A systemctl in front of the PATH that does what the unit says, until the end of the test.
class Systemctl {
 public:
  Systemctl() : path_(std::getenv("PATH")) {
    const fs::path program = test::Root() / "bin/systemctl";
    const std::string packctl = Appliance::PackctlCommand({}).front();
    test::WriteFile(program, "#!/bin/sh\necho \"$*\" >> " + Asked().string() + "\n" + packctl +
                                 " check > /dev/null 2>&1 || exit 0\n" + packctl +
                                 " update > /dev/null 2>&1 || { echo 'Job failed.' >&2; exit 1; }\n");
    fs::permissions(program, fs::perms(0755));
    setenv("PATH", (program.parent_path().string() + ":" + path_).c_str(), 1);
  }
  ~Systemctl() { setenv("PATH", path_.c_str(), 1); }
  Systemctl(const Systemctl&) = delete;
  Systemctl& operator=(const Systemctl&) = delete;

  [[nodiscard]] static fs::path Asked() { return test::Root() / "asked"; }

 private:
  std::string path_;
};

TEST_F(PackctlWebTest, UpdatesByTheUnitThatItIsGiven) {
  const Systemctl systemctl;
  Start({"--update-unit", "orbamira-update.service"});
  ASSERT_EQ(Act("update").status, 202);
  Json::Value action = AwaitAction("update");
  EXPECT_EQ(action["result"], "done");
  EXPECT_EQ(action["exit"], 0);
  EXPECT_EQ(test::ReadFile(Systemctl::Asked()), "start orbamira-update.service\n");
  EXPECT_EQ(Appliance::InstalledPayload(), "the first codec");

  ASSERT_EQ(Act("update").status, 202);
  action = AwaitAction("update");
  EXPECT_EQ(action["result"], "nothing_to_do");
  EXPECT_EQ(action["exit"], 2);
}

TEST_F(PackctlWebTest, TellsWhyAnUpdateByTheUnitFailed) {
  const Systemctl systemctl;
  Start({"--update-unit", "orbamira-update.service"});
  appliance_.SetFault([](const test::HttpRequest& request, test::HttpResponse& response) {
    response.status = request.target.ends_with(".opk") ? 404 : response.status;
  });
  ASSERT_EQ(Act("update").status, 202);
  Json::Value action = AwaitAction("update");
  EXPECT_EQ(action["result"], "failed");
  EXPECT_EQ(action["exit"], 1);
  ASSERT_FALSE(action["problems"].empty());
  EXPECT_THAT(action["problems"][0].asString(), Not(HasSubstr("Job failed")));

  // Without a history there is what systemctl says.
  fs::remove(path::kHistoryFile);
  fs::create_directories(path::kHistoryFile);
  ASSERT_EQ(Act("update").status, 202);
  action = AwaitAction("update");
  EXPECT_EQ(action["exit"], 1);
  EXPECT_EQ(action["problems"][0], "Job failed.");
}

TEST_F(PackctlWebTest, WarnsWhenItListensBeyondThisMachine) {
  Start({"--listen", "0.0.0.0"});
  EXPECT_EQ(Ask("GET /").status, 200);
  web_->Signal(SIGTERM);
  EXPECT_THAT(web_->Wait().errors, StartsWith("packctl: listening beyond this machine without TLS"));
}

}  // namespace
}  // namespace orbamira
