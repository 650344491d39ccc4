// The account file, which the web interface writes: whatever it holds, the account is read or ZeloException says why
// not. The provider cannot be reached here.

#include <cpr/cpr.h>

#include <filesystem>
#include <string>

#include "platform/account/id_token.h"
#include "platform/constants.h"
#include "platform/orba_zelo_wrapper.h"
#include "platform/orbazelo.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"

namespace {

using orbamira::fuzz::Require;

cpr::Response Unreachable() {
  cpr::Response response;
  response.error.code = cpr::ErrorCode::COULDNT_CONNECT;
  return response;
}

void CheckUser() {
  std::string id;
  try {
    const orbazelo::User user;
    id = user.GetId();
    Require(user.Exists() != id.empty(), "a user that exists has an id");
  } catch (const orbazelo::ZeloException&) {
  }
  Require(orbamira::wrapper::OrbaZeloWrapper().GetUserId() == id, "the services give the same id, or none");
}

void CheckToken(const std::string& content) {
  try {
    const std::string token = orbazelo::PackagePkceClient("orbamira-updater").GetIdToken();
    Require(orbamira::ParseIdToken(token).has_value(), "a token that is handed out is one");
  } catch (const orbazelo::ZeloException&) {
  }
  Require(orbamira::test::ReadFile(orbamira::path::kAccountFile) == content, "the account stays as it is");
}

}  // namespace

// In place of the requests.
cpr::Response cpr::Session::Get() { return Unreachable(); }
cpr::Response cpr::Session::Post() { return Unreachable(); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string content = orbamira::fuzz::Text(data, size);
  orbamira::test::WriteFile(orbamira::path::kAccountFile, content);
  std::filesystem::permissions(orbamira::path::kAccountFile, std::filesystem::perms(0600));
  orbamira::ParseIdToken(content);
  CheckUser();
  CheckToken(content);
  return 0;
}
