#include "updater/oa_helper.h"

#include <gmock/gmock.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/orbazelo.h"
#include "tests/support/log_capture.h"

namespace {

// What the account client below answers or throws, and what it was asked.
struct Account {
  std::function<void()> sign_in = [] {};
  std::function<bool()> exists = [] { return false; };
  std::function<void()> connect = [] {};
  std::function<std::string()> id_token = [] { return std::string(); };
  std::vector<std::string> calls = {};
};

Account& TheAccount() {
  static Account account;
  return account;
}

}  // namespace

namespace orbazelo {

ZeloException::~ZeloException() = default;

User::User() {
  TheAccount().calls.emplace_back("User");
  TheAccount().sign_in();
}

bool User::Exists() const {
  TheAccount().calls.emplace_back("Exists");
  return TheAccount().exists();
}

PackagePkceClient::PackagePkceClient(const std::string& client_name) : client_name_(client_name) {
  TheAccount().calls.push_back("PackagePkceClient " + client_name);
  TheAccount().connect();
}

std::string PackagePkceClient::GetIdToken() const {
  TheAccount().calls.emplace_back("GetIdToken");
  return TheAccount().id_token();
}

}  // namespace orbazelo

namespace orbamira::updater {
namespace {

using test::ErrorLine;
using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

// Thrown as it is, without a std::exception to catch it by.
struct NoStandardException {};

class OAHelperTest : public testing::Test {
 protected:
  OAHelperTest() {
    TheAccount() = Account();
    LogCapture::Clear();
  }

  std::unique_ptr<IOAHelper> helper_ = OAHelper::Create();
};

TEST_F(OAHelperTest, CreateAsksNothing) {
  ASSERT_NE(helper_, nullptr);
  EXPECT_THAT(TheAccount().calls, IsEmpty());
}

TEST_F(OAHelperTest, IsLoggedInWithAnAccountIsTrue) {
  TheAccount().exists = [] { return true; };
  EXPECT_TRUE(helper_->IsLoggedIn());
  EXPECT_THAT(TheAccount().calls, ElementsAre("User", "Exists"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(OAHelperTest, IsLoggedInWithoutAnAccountIsFalseAndLogsNothing) {
  EXPECT_FALSE(helper_->IsLoggedIn());
  EXPECT_THAT(TheAccount().calls, ElementsAre("User", "Exists"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(OAHelperTest, IsLoggedInLogsTheReasonOfTheAccountClient) {
  TheAccount().exists = []() -> bool { throw orbazelo::ZeloException("timeout"); };
  EXPECT_FALSE(helper_->IsLoggedIn());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("oa_helper.cpp", "Failed to get Orbanet account exists: timeout")));
}

TEST_F(OAHelperTest, IsLoggedInLogsTheReasonOfAUserThatCannotBeMade) {
  TheAccount().sign_in = [] { throw orbazelo::ZeloException("account file is open to others"); };
  EXPECT_FALSE(helper_->IsLoggedIn());
  EXPECT_THAT(TheAccount().calls, ElementsAre("User"));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(ErrorLine("oa_helper.cpp",
                                                         "Failed to get Orbanet account exists: account file is open "
                                                         "to others")));
}

TEST_F(OAHelperTest, IsLoggedInTakesAnotherStandardExceptionForUnknown) {
  TheAccount().exists = []() -> bool { throw std::runtime_error("secret"); };
  EXPECT_FALSE(helper_->IsLoggedIn());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("oa_helper.cpp", "Failed to get Orbanet account exists with unknown error.")));
}

TEST_F(OAHelperTest, IsLoggedInTakesAnyExceptionForUnknown) {
  TheAccount().sign_in = [] { throw NoStandardException(); };
  EXPECT_FALSE(helper_->IsLoggedIn());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("oa_helper.cpp", "Failed to get Orbanet account exists with unknown error.")));
}

TEST_F(OAHelperTest, IsLoggedInAsksAFreshUserAtEveryCall) {
  EXPECT_FALSE(helper_->IsLoggedIn());
  TheAccount().exists = [] { return true; };
  EXPECT_TRUE(helper_->IsLoggedIn());
  EXPECT_THAT(TheAccount().calls, ElementsAre("User", "Exists", "User", "Exists"));
}

TEST_F(OAHelperTest, GetIdTokenGivesTheTokenOfTheNamedClient) {
  TheAccount().id_token = [] { return std::string("header.payload.signature"); };
  EXPECT_EQ(helper_->GetIdToken(), "header.payload.signature");
  EXPECT_THAT(TheAccount().calls, ElementsAre("PackagePkceClient " + std::string(kPkceClientName), "GetIdToken"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(OAHelperTest, GetIdTokenGivesAnEmptyTokenWithoutALine) {
  EXPECT_EQ(helper_->GetIdToken(), "");
  EXPECT_THAT(TheAccount().calls, ElementsAre("PackagePkceClient " + std::string(kPkceClientName), "GetIdToken"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(OAHelperTest, GetIdTokenLogsTheReasonOfTheAccountClient) {
  TheAccount().id_token = []() -> std::string { throw orbazelo::ZeloException("timeout"); };
  EXPECT_EQ(helper_->GetIdToken(), "");
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("oa_helper.cpp", "Failed to get Orbanet account id token: timeout")));
}

TEST_F(OAHelperTest, GetIdTokenLogsTheReasonOfAClientThatCannotBeMade) {
  TheAccount().connect = [] { throw orbazelo::ZeloException("no such client"); };
  EXPECT_EQ(helper_->GetIdToken(), "");
  EXPECT_THAT(TheAccount().calls, ElementsAre("PackagePkceClient " + std::string(kPkceClientName)));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("oa_helper.cpp", "Failed to get Orbanet account id token: no such client")));
}

TEST_F(OAHelperTest, GetIdTokenTakesAnotherStandardExceptionForUnknown) {
  TheAccount().id_token = []() -> std::string { throw std::runtime_error("secret"); };
  EXPECT_EQ(helper_->GetIdToken(), "");
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("oa_helper.cpp", "Failed to get Orbanet account id token with unknown error.")));
}

TEST_F(OAHelperTest, GetIdTokenTakesAnyExceptionForUnknown) {
  TheAccount().id_token = []() -> std::string { throw NoStandardException(); };
  EXPECT_EQ(helper_->GetIdToken(), "");
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("oa_helper.cpp", "Failed to get Orbanet account id token with unknown error.")));
}

TEST_F(OAHelperTest, GetIdTokenAsksAFreshClientAtEveryCall) {
  TheAccount().id_token = [] { return std::string("old"); };
  EXPECT_EQ(helper_->GetIdToken(), "old");
  TheAccount().id_token = [] { return std::string("new"); };
  EXPECT_EQ(helper_->GetIdToken(), "new");
  const std::string made = "PackagePkceClient " + std::string(kPkceClientName);
  EXPECT_THAT(TheAccount().calls, ElementsAre(made, "GetIdToken", made, "GetIdToken"));
}

}  // namespace
}  // namespace orbamira::updater
