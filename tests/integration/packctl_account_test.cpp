// "packctl account" against a provider of the test's own; the test is the browser.

#include <arpa/inet.h>
#include <cpr/cpr.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "platform/constants.h"
#include "platform/orbazelo.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/appliance.h"
#include "tests/support/await.h"
#include "tests/support/error_text.h"
#include "tests/support/oidc_provider.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::Await;
using test::HttpResponse;
using test::OidcProvider;
using test::ProgramResult;
using test::ReadFile;
using test::RunningProgram;
using test::WriteFile;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  stream >> value;
  return value;
}

void WriteAccount(const std::string& text) {
  WriteFile(path::kAccountFile, text);
  fs::permissions(path::kAccountFile, fs::perms(0600));
}

Json::Value Account() { return Parsed(ReadFile(path::kAccountFile)); }

std::vector<fs::path> FilesBesideTheAccount() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(fs::path(path::kAccountFile).parent_path())) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

/// The most memory that the process had, in KiB.
long PeakMemory(pid_t process) {
  const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
  const std::size_t at = status.find("VmHWM:");
  return at == std::string::npos ? 0 : std::stol(status.substr(at + 6));
}

/// A connection to the address, "http://127.0.0.1:PORT/...".
UniqueFd ConnectTo(const std::string& address) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  name.sin_port = htons(static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
  UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  return client;
}

/// A sign-in that waits for the browser.
class WaitingSignIn {
 public:
  explicit WaitingSignIn(const std::string& issuer, std::vector<std::string> more = {})
      : program_(Appliance::PackctlCommand(Arguments(issuer, std::move(more)))) {
    Await([this] { return program_.Output().find('\n') != std::string::npos; });
    const Json::Value line = Parsed(program_.Output());
    EXPECT_EQ(line["command"], "account sign-in");
    EXPECT_EQ(line["result"], "waiting");
    address_ = line["address"].asString();
    if (address_.empty()) {
      throw std::runtime_error("no address is shown");
    }
  }

  /// Opens the address as a browser does, and follows it to the page at the end.
  [[nodiscard]] cpr::Response Browse() const { return cpr::Get(cpr::Url(address_)); }

  [[nodiscard]] std::string Parameter(const std::string& name) const {
    return test::ParseForm(address_.substr(address_.find('?') + 1))[name];
  }

  /// Sends the query to where the answer is awaited.
  [[nodiscard]] cpr::Response Call(const std::string& query, const cpr::Header& header = {}) const {
    return cpr::Get(cpr::Url(Parameter("redirect_uri") + query), header);
  }

  [[nodiscard]] const std::string& address() const { return address_; }
  [[nodiscard]] RunningProgram& program() { return program_; }

 private:
  static std::vector<std::string> Arguments(const std::string& issuer, std::vector<std::string> more) {
    more.insert(more.begin(), {"account", "sign-in", "--json", "--issuer", issuer});
    return more;
  }

  RunningProgram program_;
  std::string address_;
};

class PackctlAccountTest : public testing::Test {
 protected:
  /// Signs in from start to end, and looks for secrets where they must not be.
  ProgramResult SignIn(const std::vector<std::string>& more = {}) {
    WaitingSignIn waiting(provider_.issuer(), more);
    page_ = waiting.Browse();
    ProgramResult result = waiting.program().Wait();
    for (const std::string& secret : provider_.secrets()) {
      EXPECT_THAT(result.output, Not(HasSubstr(secret)));
      EXPECT_THAT(result.errors, Not(HasSubstr(secret)));
      EXPECT_THAT(page_.text, Not(HasSubstr(secret)));
    }
    return result;
  }

  /// The reason for which a sign-in fails, which the browser is told too.
  // What was complained of, without the capital letter and the remedy that make a sentence of it.
  static std::string MessageIn(std::string errors) {
    const std::size_t remedy = errors.find(". Mend that, then run: sudo packctl account sign-in\n");
    EXPECT_NE(remedy, std::string::npos) << errors;
    errors.resize(std::min(remedy, errors.size()));
    const std::size_t begin = std::string("packctl: ").size();
    errors.at(begin) = static_cast<char>(std::tolower(errors.at(begin)));
    return errors + "\n";
  }

  std::string FailureOfSignIn(const std::vector<std::string>& more = {}) {
    const std::string before = ReadFile(path::kAccountFile);
    const ProgramResult result = SignIn(more);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(ReadFile(path::kAccountFile), before);
    EXPECT_EQ(page_.status_code, 400);
    EXPECT_THAT(page_.text, HasSubstr("You are not signed in"));
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("{\"command\":\"account sign-in\",\"error\":{\"code\":\"account_failed\","),
                      EndsWith(",\"result\":\"failed\"}\n")));
    EXPECT_THAT(result.errors, StartsWith("packctl: "));
    const std::string front = "packctl: ";
    const std::string message = MessageIn(result.errors);
    return message.substr(front.size(), message.size() - front.size() - 1);
  }

  /// The reason for which a sign-in ends before the browser is needed.
  std::string FailureBeforeSignIn(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"account", "sign-in", "--issuer", provider_.issuer()});
    const ProgramResult result = Appliance::Packctl(more);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    return MessageIn(result.errors);
  }

  Appliance appliance_;
  OidcProvider provider_;
  cpr::Response page_;
};

TEST_F(PackctlAccountTest, SignInKeepsTheTokensAsTheClientReadsThem) {
  const ProgramResult result = SignIn();
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(page_.status_code, 200);
  EXPECT_THAT(page_.text, AllOf(HasSubstr("You are signed in"), HasSubstr("This window may be closed.")));
  EXPECT_TRUE(orbazelo::User().Exists());
  EXPECT_EQ(orbazelo::User().GetId(), "user");
  EXPECT_TRUE(provider_.secrets().contains(orbazelo::PackagePkceClient(kPkceClientName).GetIdToken()));
  struct stat status {};
  ASSERT_EQ(stat(path::kAccountFile, &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(PackctlAccountTest, SignInTellsProgramsWhoIsSignedIn) {
  const ProgramResult result = SignIn();
  const std::string last = result.output.substr(result.output.find('\n') + 1);
  EXPECT_EQ(std::count(last.begin(), last.end(), '\n'), 1);
  Json::Value answer = Parsed(last);
  EXPECT_NEAR(answer["expires"].asDouble(), static_cast<double>(test::UnixTime() + 3600), 60);
  answer.removeMember("expires");
  Json::Value expected;
  expected["command"] = "account sign-in";
  expected["result"] = "signed_in";
  expected["user_id"] = "user";
  expected["issuer"] = provider_.issuer();
  expected["renewable"] = true;
  EXPECT_EQ(answer, expected);
}

TEST_F(PackctlAccountTest, SignInShowsAPersonTheAddressAndTheEnd) {
  RunningProgram program(Appliance::PackctlCommand({"account", "sign-in", "--issuer", provider_.issuer()}));
  Await([&] { return program.Output().find("is awaited") != std::string::npos; });
  const std::string shown = program.Output();
  const std::string address =
      shown.substr(shown.find("http"), shown.find('\n', shown.find("http")) - shown.find("http"));
  EXPECT_THAT(address, StartsWith(provider_.issuer() + "/authorize?response_type=code&client_id=orbamira-updater&"));
  EXPECT_EQ(cpr::Get(cpr::Url(address)).status_code, 200);
  const ProgramResult result = program.Wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  const std::string callback = test::ParseForm(address.substr(address.find('?') + 1))["redirect_uri"];
  EXPECT_EQ(result.output, "Open this address in a browser and sign in there:\n\n  " + address +
                               "\n\nThe answer is awaited at " + callback + ".\nSigned in as user.\n");
}

TEST_F(PackctlAccountTest, SignInAsksForWhatProvesThatTheAnswerIsToIt) {
  WaitingSignIn first(provider_.issuer());
  WaitingSignIn second(provider_.issuer());
  EXPECT_EQ(first.Parameter("response_type"), "code");
  EXPECT_EQ(first.Parameter("client_id"), "orbamira-updater");
  EXPECT_EQ(first.Parameter("scope"), "openid offline_access");
  EXPECT_EQ(first.Parameter("prompt"), "consent");
  EXPECT_EQ(first.Parameter("code_challenge_method"), "S256");
  EXPECT_THAT(first.Parameter("redirect_uri"), testing::MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/callback"));
  for (const char* name : {"state", "nonce", "code_challenge"}) {
    EXPECT_EQ(first.Parameter(name).size(), 43U) << name;
    EXPECT_NE(first.Parameter(name), second.Parameter(name)) << name;
  }
}

TEST_F(PackctlAccountTest, SignInAsksForNoRefreshTokenWhereThereIsNone) {
  provider_.configuration["scopes_supported"].append("openid");
  provider_.gives_refresh_token = false;
  WaitingSignIn waiting(provider_.issuer());
  EXPECT_EQ(waiting.Parameter("scope"), "openid");
  EXPECT_EQ(waiting.Parameter("prompt"), "");
  EXPECT_EQ(waiting.Browse().status_code, 200);
  EXPECT_THAT(waiting.program().Wait().output, HasSubstr("\"renewable\":false"));
}

TEST_F(PackctlAccountTest, SignInWithoutARefreshTokenTellsThatItWillHaveToBeRepeated) {
  provider_.gives_refresh_token = false;
  RunningProgram program(Appliance::PackctlCommand({"account", "sign-in", "--issuer", provider_.issuer()}));
  Await([&] { return program.Output().find("is awaited") != std::string::npos; });
  const std::string shown = program.Output();
  const std::size_t begin = shown.find("http");
  EXPECT_EQ(cpr::Get(cpr::Url(shown.substr(begin, shown.find('\n', begin) - begin))).status_code, 200);
  EXPECT_THAT(program.Wait().output,
              HasSubstr("Signed in as user.\nThe provider gave no refresh token: sign in again when the identity token "
                        "expires, at "));
}

TEST_F(PackctlAccountTest, SignInKeepsTheQueryOfTheProvidersAddress) {
  provider_.configuration["authorization_endpoint"] = provider_.issuer() + "/authorize?tenant=7";
  WaitingSignIn waiting(provider_.issuer());
  EXPECT_THAT(waiting.address(), StartsWith(provider_.issuer() + "/authorize?tenant=7&response_type=code&"));
  EXPECT_EQ(waiting.Browse().status_code, 200);
  EXPECT_EQ(waiting.program().Wait().status, 0);
}

TEST_F(PackctlAccountTest, SignInWithAnIdOfTheProvidersIsRenewedWithIt) {
  provider_.client = "4711/a b";
  provider_.lifetime = 30;
  EXPECT_EQ(SignIn({"--client-id", provider_.client}).status, 0);
  EXPECT_EQ(Account()["clients"][kPkceClientName]["client_id"], provider_.client);
  EXPECT_TRUE(provider_.secrets().contains(orbazelo::PackagePkceClient(kPkceClientName).GetIdToken()));
  EXPECT_EQ(provider_.TokenRequests(), 2U);
}

TEST_F(PackctlAccountTest, SignedInTokensAreRenewedAndRotated) {
  provider_.lifetime = 30;  // so that each is renewed at once
  SignIn();
  for (std::size_t renewals = 1; renewals <= 3; ++renewals) {
    const std::string token = orbazelo::PackagePkceClient(kPkceClientName).GetIdToken();
    EXPECT_EQ(provider_.TokenRequests(), 1 + renewals);
    EXPECT_EQ(Account()["clients"][kPkceClientName]["id_token"], token);
    EXPECT_EQ(Account()["clients"][kPkceClientName]["refresh_token"], provider_.refresh_token());
  }
}

TEST_F(PackctlAccountTest, SignInAgainKeepsTheTokensOfOtherClients) {
  SignIn();
  Json::Value account = Account();
  account["clients"]["web"]["refresh_token"] = "of-the-web-interface";
  WriteFile(path::kAccountFile, account.toStyledString());
  EXPECT_EQ(SignIn().status, 0);
  EXPECT_EQ(Account()["clients"]["web"]["refresh_token"], "of-the-web-interface");
  EXPECT_NE(Account()["clients"][kPkceClientName], account["clients"][kPkceClientName]);
}

TEST_F(PackctlAccountTest, SignInDoesNotReplaceAnotherUser) {
  SignIn();
  provider_.user = "other";
  EXPECT_EQ(FailureOfSignIn(),
            "another account is signed in, user of " + provider_.issuer() + ": sign it out first, or give --replace");
  EXPECT_EQ(provider_.refresh_token(), "") << "what is not kept is given back";
  EXPECT_EQ(SignIn({"--replace"}).status, 0);
  EXPECT_EQ(orbazelo::User().GetId(), "other");
}

TEST_F(PackctlAccountTest, SignInDoesNotReplaceTheAccountOfAnotherIssuer) {
  WriteAccount(R"({"user_id": "user", "issuer": "https://other.example", "clients": {"web": {}}})");
  EXPECT_EQ(FailureBeforeSignIn(),
            "packctl: another account is signed in, user of https://other.example: sign it out first, or give "
            "--replace\n");
  EXPECT_EQ(SignIn({"--replace"}).status, 0);
  EXPECT_EQ(Account()["issuer"], provider_.issuer());
  EXPECT_FALSE(Account()["clients"].isMember("web"));
}

TEST_F(PackctlAccountTest, SignInReplacesADamagedAccountOnlyWhenTold) {
  WriteAccount("{");
  EXPECT_THAT(FailureBeforeSignIn(), HasSubstr("is malformed: it is not a JSON object"));
  EXPECT_EQ(SignIn({"--replace"}).status, 0);
}

TEST_F(PackctlAccountTest, SignInNeedsAFolderToKeepTheAccountIn) {
  const std::string folder = fs::path(path::kAccountFile).parent_path();
  fs::remove_all(folder);
  EXPECT_EQ(FailureBeforeSignIn(),
            "packctl: the account cannot be kept in " + folder + ": " + test::ErrorText(ENOENT) + "\n");
}

TEST_F(PackctlAccountTest, SignInNeedsAFolderThatItMayWrite) {
  const std::string folder = fs::path(path::kAccountFile).parent_path();
  fs::permissions(test::Root(), fs::perms(0755));
  fs::permissions(folder, fs::perms(0555));
  test::ProcessOptions options;
  options.before_exec = test::BecomeOrdinaryUser;
  const test::ProcessResult result =
      test::RunProgram(Appliance::PackctlCommand({"account", "sign-in", "--issuer", "x"}), options);
  fs::permissions(folder, fs::perms(0755));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "packctl: The account cannot be kept in " + folder + ": " + test::ErrorText(EACCES) +
                            ". Run it as root: sudo packctl account sign-in\n");
}

struct Requirement {
  const char* name;
  Json::Value value;
  const char* sentence;
};

TEST_F(PackctlAccountTest, SignInSaysWhichRequirementTheProviderMisses) {
  const auto list = [](const char* only) {
    Json::Value values;
    values.append(only);
    return values;
  };
  const std::vector<Requirement> requirements = {
      {"authorization_endpoint", Json::Value(),
       "the provider's configuration has no authorization_endpoint that is https or on this machine"},
      {"authorization_endpoint", "http://accounts.example/authorize",
       "the provider's configuration has no authorization_endpoint that is https or on this machine"},
      {"token_endpoint", Json::Value(),
       "the provider's configuration has no token_endpoint that is https or on this machine"},
      {"jwks_uri", "http://accounts.example/keys",
       "the provider's configuration has no jwks_uri that is https or on this machine"},
      {"response_types_supported", list("id_token"),
       "the provider does not offer the authorization code flow: response_types_supported lacks code"},
      {"code_challenge_methods_supported", list("plain"),
       "the provider does not offer PKCE as is needed: code_challenge_methods_supported lacks S256"},
      {"token_endpoint_auth_methods_supported", list("client_secret_basic"),
       "the provider takes no client without a secret: token_endpoint_auth_methods_supported lacks none"},
      {"id_token_signing_alg_values_supported", list("HS256"),
       "the provider does not sign identity tokens with a public key: id_token_signing_alg_values_supported lists none "
       "of RS256 to RS512, PS256 to PS512 and ES256 to ES512"},
  };
  const Json::Value whole = provider_.configuration;
  for (const Requirement& requirement : requirements) {
    provider_.configuration = whole;
    provider_.configuration[requirement.name] = requirement.value;
    EXPECT_EQ(FailureBeforeSignIn(), std::string("packctl: ") + requirement.sentence + "\n");
  }
  EXPECT_EQ(provider_.TokenRequests(), 0U);
}

TEST_F(PackctlAccountTest, SignInNeedsAnIssuerThatIsSafe) {
  const ProgramResult result = Appliance::Packctl({"account", "sign-in", "--issuer", "http://accounts.example"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(MessageIn(result.errors),
            "packctl: the issuer is neither https nor on this machine: http://accounts.example\n");
}

TEST_F(PackctlAccountTest, SignInNeedsTheIssuerAsTheProviderNamesItself) {
  provider_.configuration["issuer"] = provider_.issuer() + "/";
  EXPECT_EQ(FailureBeforeSignIn(), "packctl: the provider's configuration is from another issuer than " +
                                       provider_.issuer() + ": it names itself " + provider_.issuer() + "/\n");
}

TEST_F(PackctlAccountTest, SignInTellsThatTheProviderIsDown) {
  const test::RefusingPort port;
  const ProgramResult result = Appliance::Packctl({"account", "sign-in", "--issuer", port.Url("")});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(MessageIn(result.errors), StartsWith("packctl: the request to the provider failed: "));
}

TEST_F(PackctlAccountTest, SignInTellsThatTheProviderWentDownMeanwhile) {
  const test::RefusingPort port;
  provider_.configuration["token_endpoint"] = port.Url("/token");
  EXPECT_THAT(FailureOfSignIn(), StartsWith("the request to the provider failed: "));
}

TEST_F(PackctlAccountTest, SignInTellsThatTheProviderRefusesTheCode) {
  provider_.token_answer = [] { return HttpResponse{.status = 401, .body = R"({"error":"invalid_client"})"}; };
  EXPECT_EQ(FailureOfSignIn(), "the provider refused to give tokens for the sign-in: status 401, invalid_client");
}

TEST_F(PackctlAccountTest, SignInTellsTheProvidersError) {
  provider_.callback = {{"error", "access_denied"}, {"error_description", "<b>The user\nsaid no</b>"}};
  EXPECT_EQ(FailureOfSignIn(), "the provider refused the sign-in: access_denied, <b>The user\\012said no</b>");
  EXPECT_THAT(page_.text, AllOf(HasSubstr("&lt;b&gt;The user\\012said no&lt;/b&gt;"), Not(HasSubstr("<b>"))));
}

TEST_F(PackctlAccountTest, SignInRefusesTheAnswerOfAnotherIssuer) {
  provider_.callback = {{"code", "x"}, {"iss", "https://other.example"}};
  EXPECT_EQ(FailureOfSignIn(), "the answer is from another issuer than " + provider_.issuer());
  EXPECT_EQ(provider_.TokenRequests(), 0U);
}

TEST_F(PackctlAccountTest, SignInMissesTheIssuerThatTheProviderPromisedToName) {
  provider_.configuration["authorization_response_iss_parameter_supported"] = true;
  EXPECT_EQ(FailureOfSignIn(), "the answer is from another issuer than " + provider_.issuer());
}

TEST_F(PackctlAccountTest, SignInRefusesATokenSignedWithAnotherKey) {
  Json::Value keys;
  keys["keys"].append(test::SigningKey::Ec("key-1").jwk());
  provider_.keys = keys;
  EXPECT_EQ(FailureOfSignIn(), "the identity token's signature is not by the provider's key: it is forged or damaged");
}

TEST_F(PackctlAccountTest, SignInAsksForTheKeysAgainWhenTheProviderHasANewOne) {
  Json::Value old_keys;
  old_keys["keys"].append(test::SigningKey::Ec("key-0").jwk());
  Json::Value new_keys;
  new_keys["keys"].append(provider_.key.jwk());
  int asked = 0;
  provider_.keys_answer = [&] { return HttpResponse{.body = (asked++ == 0 ? old_keys : new_keys).toStyledString()}; };
  EXPECT_EQ(SignIn().status, 0);
  EXPECT_EQ(asked, 2);
}

TEST_F(PackctlAccountTest, SignInRefusesAKeyThatTheProviderDoesNotShow) {
  Json::Value keys;
  keys["keys"].append(test::SigningKey::Ec("key-0").jwk());
  provider_.keys = keys;
  EXPECT_EQ(FailureOfSignIn(), "the identity token is signed with a key that is not among the provider's");
}

TEST_F(PackctlAccountTest, SignInTellsWhyNothingWasKeptWhateverBecomesOfTheRefreshToken) {
  provider_.keys_answer = [] { return HttpResponse{.status = 503}; };
  provider_.revocation_answer = [] { return HttpResponse{.status = 500}; };
  EXPECT_EQ(FailureOfSignIn(), "the provider answered 503 when asked for its keys");
  provider_.configuration["revocation_endpoint"] = "http://accounts.example/revoke";
  EXPECT_EQ(FailureOfSignIn(), "the provider answered 503 when asked for its keys");
  provider_.configuration.removeMember("revocation_endpoint");
  EXPECT_EQ(FailureOfSignIn(), "the provider answered 503 when asked for its keys");
}

TEST_F(PackctlAccountTest, SignInTellsThatTheKeysCannotBeHad) {
  provider_.keys_answer = [] { return HttpResponse{.status = 503}; };
  EXPECT_EQ(FailureOfSignIn(), "the provider answered 503 when asked for its keys");
  provider_.keys_answer = [] { return HttpResponse{.body = "<html>"}; };
  EXPECT_EQ(FailureOfSignIn(), "the provider's keys are not a JSON Web Key Set");
}

TEST_F(PackctlAccountTest, SignInRefusesATokenOfAnotherSignIn) {
  provider_.token_change = [](Json::Value& /*header*/, Json::Value& claims) { claims["nonce"] = "another"; };
  EXPECT_EQ(FailureOfSignIn(), "the identity token is for another sign-in: its nonce does not match");
}

TEST_F(PackctlAccountTest, SignInTellsAClockThatIsAnHourAheadFromAnExpiredToken) {
  provider_.clock_offset = -3660;
  EXPECT_EQ(FailureOfSignIn(),
            "this machine's clock is 61 minutes ahead of the provider's: set the clock and sign in again");
  provider_.clock_offset = 0;
  provider_.lifetime = -60;
  EXPECT_EQ(FailureOfSignIn(), "the provider's identity token has expired already");
}

TEST_F(PackctlAccountTest, SignInTellsAClockThatIsAnHourBehind) {
  provider_.clock_offset = 3660;
  EXPECT_THAT(FailureOfSignIn(),
              testing::MatchesRegex("this machine's clock is 6[01] minutes behind the provider's: set "
                                    "the clock and sign in again"));
}

TEST_F(PackctlAccountTest, StrangersDoNotEndTheWaiting) {
  WaitingSignIn waiting(provider_.issuer());
  const std::string state = waiting.Parameter("state");
  const std::string right = "?code=x&state=" + state;
  const std::string other_state = (state[0] == 'A' ? 'B' : 'A') + state.substr(1);
  EXPECT_EQ(waiting.Call("").status_code, 400);
  EXPECT_EQ(waiting.Call("?code=x").status_code, 400);
  EXPECT_EQ(waiting.Call("?code=x&state=").status_code, 400);
  EXPECT_EQ(waiting.Call("?code=x&state=" + state.substr(1)).status_code, 400);
  EXPECT_EQ(waiting.Call("?code=x&state=" + other_state).status_code, 400);
  EXPECT_EQ(waiting.Call("?error=access_denied&state=wrong").status_code, 400);
  EXPECT_EQ(waiting.Call(right + "&state=other").status_code, 400);
  EXPECT_EQ(waiting.Call(right + "&code=y").status_code, 400);
  EXPECT_EQ(waiting.Call("?state=" + state).status_code, 400);
  EXPECT_EQ(waiting.Call("?code=x&error=y&state=" + state).status_code, 400);
  EXPECT_EQ(waiting.Call("/more" + right).status_code, 404);
  EXPECT_EQ(waiting.Call(right, {{"Host", "localhost"}}).status_code, 421);
  EXPECT_EQ(waiting.Call(right, {{"Host", "attacker.example"}}).status_code, 421);
  const cpr::Url callback(waiting.Parameter("redirect_uri") + right);
  EXPECT_EQ(cpr::Post(callback).status_code, 405);
  EXPECT_EQ(cpr::Head(callback).status_code, 405);
  EXPECT_EQ(cpr::Options(callback).status_code, 405);
  EXPECT_EQ(provider_.TokenRequests(), 0U);
  EXPECT_EQ(waiting.Browse().status_code, 200);
  EXPECT_EQ(waiting.program().Wait().status, 0);
}

TEST_F(PackctlAccountTest, PagesAreNotKeptAndLoadNothing) {
  WaitingSignIn waiting(provider_.issuer());
  for (const cpr::Response& page : {waiting.Call("?state=wrong"), waiting.Browse()}) {
    EXPECT_EQ(page.header.at("Cache-Control"), "no-store");
    EXPECT_EQ(page.header.at("Referrer-Policy"), "no-referrer");
    EXPECT_EQ(page.header.at("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(page.header.at("Content-Type"), "text/html; charset=utf-8");
    EXPECT_THAT(page.header.at("Content-Security-Policy"), StartsWith("default-src 'none'; style-src 'sha256-"));
  }
}

// Any user of this machine can send to the port of a sign-in.
TEST_F(PackctlAccountTest, AHeaderSectionWithoutEndTakesNoMemory) {
  constexpr std::size_t kMost = std::size_t{256} * 1024 * 1024;
  WaitingSignIn waiting(provider_.issuer());
  const UniqueFd client = ConnectTo(waiting.Parameter("redirect_uri"));
  const long before = PeakMemory(waiting.program().pid());
  std::string fields = "GET / HTTP/1.1\r\n";
  for (std::size_t sent = 0; sent < kMost;) {
    const ssize_t length = send(client.get(), fields.data(), fields.size(), MSG_NOSIGNAL);
    if (length <= 0) {
      break;  // it was refused
    }
    sent += static_cast<std::size_t>(length);
    fields.assign(std::size_t{64} * 1024, 'x');
  }
  EXPECT_EQ(waiting.Browse().status_code, 200);
  EXPECT_LT(PeakMemory(waiting.program().pid()) - before, 16L * 1024);
  EXPECT_EQ(waiting.program().Wait().status, 0);
}

TEST_F(PackctlAccountTest, SignInWaitsOnlySoLong) {
  WaitingSignIn waiting(provider_.issuer(), {"--timeout", "1"});
  const ProgramResult result = waiting.program().Wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(MessageIn(result.errors), "packctl: no answer came within 1 seconds\n");
  EXPECT_FALSE(fs::exists(path::kAccountFile));
}

TEST_F(PackctlAccountTest, AnInterruptedSignInLeavesNothing) {
  const auto before = FilesBesideTheAccount();
  for (const int signal_number : {SIGINT, SIGTERM}) {
    WaitingSignIn waiting(provider_.issuer());
    waiting.program().Signal(signal_number);
    EXPECT_EQ(waiting.program().Wait().status, -signal_number);
    EXPECT_EQ(FilesBesideTheAccount(), before);
    EXPECT_EQ(waiting.Call("").status_code, 0);
  }
}

TEST_F(PackctlAccountTest, SignInTakesTheAnswerAtThePortThatWasAskedFor) {
  std::string port;
  {
    const test::RefusingPort free_until_now;
    port = free_until_now.Url("").substr(free_until_now.Url("").rfind(':') + 1);
  }
  WaitingSignIn waiting(provider_.issuer(), {"--port", port});
  EXPECT_EQ(waiting.Parameter("redirect_uri"), "http://127.0.0.1:" + port + "/callback");
  EXPECT_EQ(FailureBeforeSignIn({"--port", port}),
            "packctl: port " + port + " is not free to take the provider's answer\n");
  EXPECT_EQ(waiting.Browse().status_code, 200);
  EXPECT_EQ(waiting.program().Wait().status, 0);
}

TEST_F(PackctlAccountTest, SecretsAreNotAmongTheArguments) {
  WaitingSignIn waiting(provider_.issuer());
  const std::string arguments = ReadFile("/proc/" + std::to_string(waiting.program().pid()) + "/cmdline");
  const std::string environment = ReadFile("/proc/" + std::to_string(waiting.program().pid()) + "/environ");
  EXPECT_THAT(arguments, HasSubstr("sign-in"));
  EXPECT_EQ(waiting.Browse().status_code, 200);
  EXPECT_EQ(waiting.program().Wait().status, 0);
  EXPECT_GE(provider_.secrets().size(), 5U);  // code, verifier, access, refresh and identity token
  for (const std::string& secret : provider_.secrets()) {
    EXPECT_THAT(arguments, Not(HasSubstr(secret)));
    EXPECT_THAT(environment, Not(HasSubstr(secret)));
    EXPECT_THAT(waiting.address(), Not(HasSubstr(secret)));
  }
}

TEST_F(PackctlAccountTest, StatusTellsWhoIsSignedIn) {
  SignIn();
  const ProgramResult result = Appliance::Packctl({"account", "status"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output,
              StartsWith("User: user\nIssuer: " + provider_.issuer() + "\nIdentity token: valid until "));
  EXPECT_THAT(result.output, EndsWith("\nCan be renewed: yes\n"));
  const Json::Value answer = Parsed(Appliance::Packctl({"account", "status", "--json"}).output);
  EXPECT_EQ(answer["result"], "signed_in");
  EXPECT_EQ(answer["user_id"], "user");
  EXPECT_EQ(answer["issuer"], provider_.issuer());
  EXPECT_EQ(answer["client_id"], kPkceClientName);
  EXPECT_EQ(answer["valid"], true);
  EXPECT_NEAR(answer["expires"].asDouble(), static_cast<double>(test::UnixTime() + 3600), 60);
  EXPECT_EQ(answer["renewable"], true);
  for (const std::string& secret : provider_.secrets()) {
    EXPECT_THAT(result.output + answer.toStyledString(), Not(HasSubstr(secret)));
  }
}

TEST_F(PackctlAccountTest, StatusTellsOfATokenThatHasExpired) {
  Json::Value account;
  account["user_id"] = "user";
  account["issuer"] = provider_.issuer();
  account["clients"][kPkceClientName]["id_token"] = test::MakeIdToken(provider_.Claims(kPkceClientName, -10));
  WriteAccount(account.toStyledString());
  const ProgramResult result = Appliance::Packctl({"account", "status"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("\nIdentity token: expired at "));
  EXPECT_THAT(result.output, EndsWith("\nCan be renewed: no, sign in again when it has expired\n"));
  EXPECT_EQ(Parsed(Appliance::Packctl({"account", "status", "--json"}).output)["valid"], false);
}

TEST_F(PackctlAccountTest, StatusTellsOfAnAccountWithoutTokens) {
  WriteAccount(R"({"user_id": "user", "issuer": "https://accounts.example"})");
  EXPECT_EQ(Appliance::Packctl({"account", "status"}).output,
            "User: user\nIssuer: https://accounts.example\nIdentity token: none\n"
            "Can be renewed: no, sign in again when it has expired\n");
  EXPECT_TRUE(Parsed(Appliance::Packctl({"account", "status", "--json"}).output)["expires"].isNull());
}

TEST_F(PackctlAccountTest, StatusTellsThatNobodyIsSignedIn) {
  ProgramResult result = Appliance::Packctl({"account", "status"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "Nobody is signed in.\n");
  result = Appliance::Packctl({"account", "status", "--json"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "{\"command\":\"account status\",\"result\":\"signed_out\"}\n");
}

TEST_F(PackctlAccountTest, StatusTellsOfADamagedFile) {
  WriteAccount("{");
  const ProgramResult result = Appliance::Packctl({"account", "status"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("is malformed: it is not a JSON object"));
}

TEST_F(PackctlAccountTest, SignOutRevokesTheRefreshTokenAndRemovesTheAccount) {
  SignIn();
  const ProgramResult result = Appliance::Packctl({"account", "sign-out"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, "Signed out, and the refresh token is revoked.\n");
  EXPECT_EQ(provider_.refresh_token(), "");
  EXPECT_FALSE(fs::exists(path::kAccountFile));
  EXPECT_EQ(Appliance::Packctl({"account", "status"}).status, 2);
}

TEST_F(PackctlAccountTest, SignOutRevokesTheTokensOfEveryClient) {
  SignIn();
  Json::Value account = Account();
  account["clients"]["web"]["refresh_token"] = "of-the-web-interface";
  WriteFile(path::kAccountFile, account.toStyledString());
  EXPECT_EQ(Appliance::Packctl({"account", "sign-out"}).status, 0);
  std::vector<std::string> forms;
  for (const test::HttpRequest& request : provider_.server().Requests()) {
    if (request.target == "/revoke") {
      forms.push_back(request.body);
    }
  }
  EXPECT_THAT(forms,
              testing::UnorderedElementsAre(StartsWith("token="),
                                            "token=of-the-web-interface&token_type_hint=refresh_token&client_id=web"));
}

TEST_F(PackctlAccountTest, SignOutWithoutARevocationEndpointSaysNoMore) {
  SignIn();
  provider_.configuration.removeMember("revocation_endpoint");
  const ProgramResult result = Appliance::Packctl({"account", "sign-out", "--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, "{\"command\":\"account sign-out\",\"result\":\"signed_out\",\"revoked\":false}\n");
  EXPECT_FALSE(fs::exists(path::kAccountFile));
}

TEST_F(PackctlAccountTest, SignOutRemovesTheAccountAlsoWhenTheRevocationFails) {
  SignIn();
  const std::string token = provider_.refresh_token();
  provider_.revocation_answer = [&] {
    return HttpResponse{.status = 503, .body = R"({"error":"x","error_description":")" + token + "\"}"};
  };
  const ProgramResult result = Appliance::Packctl({"account", "sign-out"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "Signed out.\n");
  EXPECT_EQ(result.errors,
            "packctl: the refresh token could not be revoked, and ends by itself: the provider refused to revoke the "
            "token: status 503, x\n");
  EXPECT_FALSE(fs::exists(path::kAccountFile));
}

TEST_F(PackctlAccountTest, SignOutRemovesADamagedAccount) {
  WriteAccount("{");
  const ProgramResult result = Appliance::Packctl({"account", "sign-out"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.errors, HasSubstr("is malformed"));
  EXPECT_FALSE(fs::exists(path::kAccountFile));
}

TEST_F(PackctlAccountTest, SignOutTellsThatNobodyIsSignedIn) {
  const ProgramResult result = Appliance::Packctl({"account", "sign-out", "--json"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "{\"command\":\"account sign-out\",\"result\":\"nothing_to_do\"}\n");
}

TEST_F(PackctlAccountTest, TheHistoryDoesNotTellOfIt) {
  SignIn();
  EXPECT_EQ(Appliance::Packctl({"account", "status"}).status, 0);
  provider_.callback = {{"error", "access_denied"}};
  FailureOfSignIn();
  EXPECT_EQ(Appliance::Packctl({"account", "sign-out"}).status, 0);
  EXPECT_EQ(Appliance::Packctl({"history"}).output, "Nothing was done yet.\n");
}

TEST_F(PackctlAccountTest, TheGroupAlonePointsToItsHelp) {
  const ProgramResult result = Appliance::Packctl({"account"});
  EXPECT_EQ(result.status, 64);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "packctl: name a command. Run \"packctl account --help\" for help.\n");
  EXPECT_THAT(Appliance::Packctl({"account", "--help"}).output, HasSubstr("sign-out"));
}

TEST_F(PackctlAccountTest, TheProgramOfTheAccountCommandsMustBeThere) {
  const fs::path program = fs::path(path::kOrbaArchivePath).replace_filename("orba-account");
  fs::remove(program);
  const ProgramResult result = Appliance::Packctl({"account", "status"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "packctl: cannot run " + program.string() + ": " + test::ErrorText(ENOENT) + "\n");
}

TEST_F(PackctlAccountTest, TheProgramOfTheAccountCommandsTakesNoOthers) {
  const std::string program = fs::path(path::kOrbaArchivePath).replace_filename("orba-account");
  const ProgramResult result = RunningProgram({program, "status"}).Wait();
  EXPECT_EQ(result.status, 64);
  EXPECT_EQ(result.errors, "packctl: there is no command \"status\". Run \"packctl --help\" for help.\n");
}

TEST_F(PackctlAccountTest, SignInWithoutAnIssuerIsWrongUsage) {
  for (const std::vector<std::string>& more :
       {std::vector<std::string>{}, {"--issuer", "x", "--port", "0"}, {"--issuer", "x", "--timeout", "0"}, {"more"}}) {
    std::vector<std::string> arguments = {"account", "sign-in"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    EXPECT_EQ(Appliance::Packctl(arguments).status, 64);
  }
}

}  // namespace
}  // namespace orbamira
