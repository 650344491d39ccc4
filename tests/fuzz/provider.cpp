// The identity provider's answers: whatever they hold, the account file stays an account that can be refreshed again,
// and no message holds a token. The input's first line answers the question for the configuration, the rest the one for
// new tokens. Nothing is sent.

#include <cpr/cpr.h>
#include <sys/stat.h>

#include <string>

#include "platform/account/id_token.h"
#include "platform/constants.h"
#include "platform/json/json_object.h"
#include "platform/orbazelo.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"

namespace {

using orbamira::fuzz::Require;

constexpr const char* kClient = "orbamira-updater";
constexpr const char* kRefreshToken = "secret";
constexpr const char* kAccount =
    R"({"user_id": "u", "issuer": "https://i", "clients": {"orbamira-updater": {"refresh_token": "secret"}}})";

struct Provider {
  std::string configuration;
  std::string tokens;
  long status_of_tokens = 200;
  cpr::WriteCallback write;  ///< what the session was told to hand the answer to

  [[nodiscard]] cpr::Response Answer(long status, const std::string& body) const {
    cpr::Response response;
    response.status_code = status;
    if (!write(body)) {
      response.error.code = cpr::ErrorCode::WRITE_ERROR;
    }
    return response;
  }
};

Provider provider;

Json::Value ReadTokens() {
  const auto account = orbamira::ParseJsonObject(orbamira::test::ReadFile(orbamira::path::kAccountFile));
  Require(account.has_value(), "the account file stays an object");
  Require((*account)["user_id"] == "u" && (*account)["issuer"] == "https://i", "what is not refreshed stays");
  return (*account)["clients"][kClient];
}

void CheckFile() {
  struct stat status = {};
  Require(stat(orbamira::path::kAccountFile, &status) == 0 && (status.st_mode & 07777) == 0600,
          "nobody else can read the account");
  Require(!ReadTokens()["refresh_token"].asString().empty(), "the account can be refreshed again");
}

void Write() {
  orbamira::test::WriteFile(orbamira::path::kAccountFile, kAccount);
  chmod(orbamira::path::kAccountFile, 0600);
}

void Refresh() {
  Write();
  try {
    const std::string token = orbazelo::PackagePkceClient(kClient).GetIdToken();
    const auto parsed = orbamira::ParseIdToken(token);
    Require(provider.status_of_tokens == 200, "only a success brings a token");
    Require(parsed && parsed->issuer == "https://i" && parsed->IsFor(kClient), "only a token that is ours is taken");
    Require(ReadTokens()["id_token"] == token, "a token that is handed out is kept");
  } catch (const orbazelo::ZeloException& error) {
    Require(std::string(error.what()).find(kRefreshToken) == std::string::npos, "no message holds the refresh token");
  }
  CheckFile();
}

}  // namespace

// In place of the requests.
void cpr::Session::SetWriteCallback(const WriteCallback& write) { provider.write = write; }
cpr::Response cpr::Session::Get() { return provider.Answer(200, provider.configuration); }
cpr::Response cpr::Session::Post() { return provider.Answer(provider.status_of_tokens, provider.tokens); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  provider.tokens = orbamira::fuzz::Text(data, size);
  provider.configuration = orbamira::fuzz::TakeLine(provider.tokens);
  for (const long status : {200L, 400L}) {
    provider.status_of_tokens = status;
    Refresh();
  }
  return 0;
}
